// Keeps one sum per method and segment, and writes the sums when the segment ends.
//   In      amounts of finished calls; ids as the blob's reader found them, whatever they are
//   Out     rows of "TQMethodTiming.csv" or records of "<instance>_MethodTiming.dat" (one slot holds whichever it is),
//           in the order in which the methods were first met
//   Thread  the instance's
//   Failure a file that cannot be opened leaves the sums as they are; a row without a file is told and lost
// Sample:  7,3,4,5,120,80,2,50,70,1000,1002,300,60,4611686018427387905,1073741830,0,0,0,0,0,0,0,0

#include "tqp_method_timing.h"

#include "flowpath_files.h"
#include "row_batch.h"
#include "tqp_csv_files.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

static constexpr const char *array_label = "fp->mtarray";
static constexpr const char *index_label = "fp->mta_index";

// --- sums ---------------------------------------------------------------------------------------------------------

int64_t tq_next_power_of_2(int64_t n) {
  int64_t power = 1;
  while (power <= n && power < INT64_MAX / 2)
    power *= 2;
  return power;
}

// Agents' numbers may be anything: a sum that leaves its range wraps.
static void add(int64_t &sum, int64_t amount) {
  sum = static_cast<int64_t>(static_cast<uint64_t>(sum) + static_cast<uint64_t>(amount));
}

static mtarray_t &entry_of(segment_fp_t *segment, int32_t method_id) {
  record_array<mtarray_t> &sums = segment->mtarray;
  const int32_t found = id_index_find(segment->mta_index, method_id);
  if (found >= 0)
    return sums.data[found];
  record_array_room(sums, sums.used + 1, std::max(16, sums.room), array_label);
  mtarray_t &fresh = sums.data[sums.used];
  fresh.method_id = method_id;
  id_index_add(segment->mta_index, method_id, sums.used++, index_label);
  return fresh;
}

// Most calls wait for nothing: what stays 0 is not touched, since the entry is rarely in a near cache.
static void add_pair(int64_t &total, int64_t &own, int64_t amount, int64_t own_amount) {
  if ((amount | own_amount) != 0) {
    add(total, amount);
    add(own, own_amount);
  }
}

static void add_amounts(mtarray_t &sum, const method_amounts &amounts) {
  add_pair(sum.cum_wall_time, sum.cum_self_time, amounts.wall, amounts.self);
  add_pair(sum.cum_cpu_time, sum.cum_cpu_self_time, amounts.cpu, amounts.cpu_self);
  add_pair(sum.cum_wait_time, sum.cum_wait_self_time, amounts.wait, amounts.wait_self);
  add_pair(sum.cum_sync_time, sum.cum_sync_self_time, amounts.sync, amounts.sync_self);
  add_pair(sum.cum_io_time, sum.cum_io_self_time, amounts.io, amounts.io_self);
  add_pair(sum.cum_suspension_time, sum.cum_suspension_self_time, amounts.suspension, amounts.suspension_self);
}

static void add_call(segment_fp_t *segment, int32_t method_id, const method_amounts &amounts, int64_t time) {
  mtarray_t &sum = entry_of(segment, method_id);
  add_amounts(sum, amounts);
  ++sum.count;
  if (sum.min == 0 || amounts.self < sum.min)
    sum.min = amounts.self;
  if (sum.max == 0 || amounts.self > sum.max)
    sum.max = amounts.self;
  if (sum.starttime == 0 || time < sum.starttime) // never before the segment itself
    sum.starttime = std::max(static_cast<int64_t>(segment->begin_ts * 1000), time);
  if (sum.endtime == 0 || time > sum.endtime)
    sum.endtime = time;
}

// --- calls collected ------------------------------------------------------------------------------------------------

constexpr int most_collected = 24;

struct method_call {
  int32_t method_id;
  int64_t time;
  method_amounts amounts;
};

// Of one segment, in the order in which they came.
struct method_calls {
  segment_fp_t *segment;
  int used;
  method_call calls[most_collected];
};

static thread_local method_calls collected;

void tqp_collect_method_call(segment_fp_t *segment, int32_t method_id, const method_amounts &amounts, int64_t time) {
  if (collected.used == most_collected || collected.segment != segment)
    tqp_settle_method_calls();
  collected.segment = segment;
  id_index_prefetch_place(segment->mta_index, method_id);
  collected.calls[collected.used++] = {method_id, time, amounts};
}

// The sums that the calls will need, those that are new among them: they will stand behind the last one.
static void fetch_sums(const segment_fp_t *segment, int count) {
  const record_array<mtarray_t> &sums = segment->mtarray;
  int32_t fresh = sums.used;
  for (int i = 0; i < count; ++i) {
    const int32_t found = id_index_guess(segment->mta_index, collected.calls[i].method_id);
    const int32_t position = found >= 0 ? found : fresh++;
    if (position >= sums.room)
      return; // the sums will move
    const auto *sum = reinterpret_cast<const char *>(sums.data + position);
    __builtin_prefetch(sum, 1);
    __builtin_prefetch(sum + 64, 1);
  }
}

void tqp_settle_method_calls() {
  const int count = collected.used;
  if (count == 0)
    return;
  collected.used = 0;
  segment_fp_t *segment = collected.segment;
  fetch_sums(segment, count);
  for (int i = 0; i < count; ++i)
    add_call(segment, collected.calls[i].method_id, collected.calls[i].amounts, collected.calls[i].time);
}

void tq_update_mtarray(segment_fp_t *segment, int32_t method_id, const method_amounts &amounts, int64_t time) {
  if (!segment)
    return;
  if (collected.used != 0)
    tqp_settle_method_calls(); // rows stand in the order in which methods were met
  add_call(segment, method_id, amounts, time);
}

static void clear_method_sums(segment_fp_t *segment) {
  record_array<mtarray_t> &sums = segment->mtarray;
  std::fill_n(sums.data, sums.used, mtarray_t{});
  sums.used = 0;
  id_index_clear(segment->mta_index);
}

void tqp_free_method_sums(segment_fp_t *segment) {
  record_array_free(segment->mtarray, array_label);
  id_index_free(segment->mta_index, index_label);
}

// --- rows ---------------------------------------------------------------------------------------------------------

// What all rows of a segment share.
struct timing_row_context {
  const tqp_instance_t *inst;
  int64_t main_fpi;
  int32_t url;
};

static void put_text_row(tqp_row_batch &batch, const timing_row_context &of, const mtarray_t &sum) {
  const int64_t columns[] = {sum.method_id,
                             of.inst->tierID,
                             of.inst->serverID,
                             of.inst->appID,
                             sum.cum_self_time,
                             sum.cum_cpu_time,
                             sum.count,
                             sum.min,
                             sum.max,
                             sum.starttime / 1000,
                             sum.endtime / 1000,
                             sum.cum_wall_time,
                             sum.cum_cpu_self_time,
                             of.main_fpi,
                             of.url,
                             sum.cum_wait_time,
                             sum.cum_sync_time,
                             sum.cum_io_time,
                             sum.cum_suspension_time,
                             sum.cum_wait_self_time,
                             sum.cum_sync_self_time,
                             sum.cum_io_self_time,
                             sum.cum_suspension_self_time};
  wllb_putter row = batch.next_row(std::size(columns) * tqp_column_room);
  for (const int64_t column : columns)
    row.num(column).put(',');
  row.at[-1] = '\n';
  row.done(batch.rows);
}

static_assert(sizeof(t_csv_fields) == tqp_timing_record_size);
static_assert(offsetof(t_csv_fields, urlindex) == 16 && offsetof(t_csv_fields, cumwalltime) == 52 &&
              offsetof(t_csv_fields, tierindex) == 64 && offsetof(t_csv_fields, serverindex) == 68 &&
              offsetof(t_csv_fields, cumwaittime) == 80 && offsetof(t_csv_fields, cumselfsuspensiontime) == 136);

static void fill_record(t_csv_fields *out, const timing_row_context &of, const mtarray_t &sum) {
  out->methodid = sum.method_id;
  out->flowpathinstance = of.main_fpi;
  out->urlindex = static_cast<uint32_t>(of.url);
  out->cumselftime = static_cast<uint32_t>(sum.cum_self_time);
  out->cumcputime = static_cast<uint64_t>(sum.cum_cpu_time);
  out->count = static_cast<uint32_t>(sum.count);
  out->min = static_cast<uint32_t>(sum.min);
  out->max = static_cast<uint32_t>(sum.max);
  out->starttime = static_cast<uint32_t>(sum.starttime / 1000);
  out->endtime = static_cast<uint32_t>(sum.endtime / 1000);
  out->cumwalltime = static_cast<uint32_t>(sum.cum_wall_time);
  out->cumselfcputime = static_cast<uint64_t>(sum.cum_cpu_self_time);
  out->tierindex = static_cast<int16_t>(of.inst->tierID);
  out->serverindex = of.inst->serverID;
  out->appindex = of.inst->appID;
  out->cumwaittime = static_cast<uint64_t>(sum.cum_wait_time);
  out->cumsynctime = static_cast<uint64_t>(sum.cum_sync_time);
  out->cumiotime = static_cast<uint64_t>(sum.cum_io_time);
  out->cumsuspensiontime = static_cast<uint64_t>(sum.cum_suspension_time);
  out->cumselfwaittime = static_cast<uint64_t>(sum.cum_wait_self_time);
  out->cumselfsynctime = static_cast<uint64_t>(sum.cum_sync_self_time);
  out->cumselfiotime = static_cast<uint64_t>(sum.cum_io_self_time);
  out->cumselfsuspensiontime = static_cast<uint64_t>(sum.cum_suspension_self_time);
}

static void put_record(tqp_row_batch &batch, const timing_row_context &of, const mtarray_t &sum) {
  t_csv_fields record;
  memset(&record, 0, sizeof record); // the gaps between the fields go to the file, too
  fill_record(&record, of, sum);
  batch.next_row(sizeof record).put({reinterpret_cast<const char *>(&record), sizeof record}).done(batch.rows);
}

// --- files --------------------------------------------------------------------------------------------------------

static bool open_timing_file(tqp_instance_t *inst) {
  FILE *&stream = inst->csv_file_pointers[METHOD_TIMING_CSV_FP];
  if (stream)
    return true;
  std::string path;
  if (tqp_binary_format_for_method_timing)
    create_method_timing_dat_filename_and_file(inst, nullptr, &path);
  else if (inst->csvfilepath)
    path = wllb_format("%s%s", inst->csvfilepath, tqp_data_file_name(METHOD_TIMING_CSV_FP));
  if (path.empty()) {
    wllb_trace(1, "Error", "In method timing, file is not present. So returning");
    return false;
  }
  stream = my_fopen(path.c_str(), "a");
  const int error = errno;
  if (!stream)
    wllb_trace(1, "Error", "Could not open to %s file. So returning. Error = %s and errNo = %d", path.c_str(),
               wllb_strerror(error).c_str(), error);
  return stream != nullptr;
}

// The file of a sum's own end time; null when it has none.
static tqp_row_batch *file_of(tqp_instance_t *inst, int64_t endtime, tqp_row_batch *current, tqp_row_batch *prev) {
  const data_age age = tqp_age_of(inst, endtime / 1000);
  if (age == AGE_CURRENT)
    return current;
  prev->file = tqp_previous_data_file(inst, METHOD_TIMING_CSV_FP);
  if (!prev->file)
    wllb_trace(
        1, "Error",
        "Method timing data belongs to previous partition, whereas the method timing csv file pointer is closed");
  else if (age == AGE_PREVIOUS)
    return prev;
  else
    wllb_trace(1, "Error",
               "Method timing data belongs to previous to previous partition, ignoring this method timing data record");
  return nullptr;
}

void csv_dump_method_timing(tqp_instance_t *inst, const concurrent_flowpath_t *fp, segment_fp_t *segment) {
  if (!open_timing_file(inst))
    return;
  tqp_row_batch current(inst->csv_file_pointers[METHOD_TIMING_CSV_FP]);
  tqp_row_batch prev(inst->prev_csv_file_pointers[METHOD_TIMING_CSV_FP]);
  const timing_row_context of = {inst, fp->main_fpi, inst->url_map.at_or_zero(segment->bci_urlid)};
  const auto put_row = tqp_binary_format_for_method_timing ? put_record : put_text_row;
  for (int32_t i = 0; i < segment->mtarray.used; ++i) {
    const mtarray_t &sum = segment->mtarray.data[i];
    if (tqp_row_batch *const batch = file_of(inst, sum.endtime, &current, &prev))
      put_row(*batch, of, sum);
  }
  prev.flush();
  if (prev.used && !tqp_binary_format_for_method_timing)
    write_prev_tqpdone(inst, tqp_data_file_name(METHOD_TIMING_CSV_FP));
  current.flush();
  clear_method_sums(segment);
}
