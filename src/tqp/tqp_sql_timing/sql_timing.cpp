// Keeps one sum per query and segment, and writes the sums when the segment ends or has gone on for an interval.
//   In      executions, by local SQL id
//   Out     rows of "TQSQLTiming.csv", in the order in which the queries were first met
//   Thread  the instance's
//   Failure a row without a file is told and lost; the sums go all the same
// Sample:  12,3,4,5,1073741830,4611686018427387905,15.500000,2,5.500000,10.000000,1000,1001,0,33

#include "tqp_sql_timing.h"

#include "flowpath_files.h"
#include "local_maps.h"
#include "row_batch.h"
#include "tqp_csv_files.h"

#include <algorithm>

static constexpr const char *array_label = "fp->sqlarray";
static constexpr const char *index_label = "fp->sqla_index";

// --- sums ---------------------------------------------------------------------------------------------------------

static sqlarray_t &entry_of(segment_fp_t *segment, int32_t sql_id) {
  record_array<sqlarray_t> &sums = segment->sqlarray;
  const int32_t found = id_index_find(segment->sqla_index, sql_id);
  if (found >= 0)
    return sums.data[found];
  record_array_room(sums, sums.used + 1, std::max(8, sums.room), array_label);
  sqlarray_t &fresh = sums.data[sums.used];
  fresh.sql_id = sql_id;
  fresh.min = 4294967295.0;
  fresh.startsqlbegintimestamp = UINT64_MAX;
  id_index_add(segment->sqla_index, sql_id, sums.used++, index_label);
  return fresh;
}

void tq_update_sqlarray(segment_fp_t *segment, int32_t sql_id, double exec_time, uint64_t begin_timestamp, char status,
                        int32_t backend_id) {
  if (!segment)
    return;
  const double time = tqp_finite(exec_time);
  sqlarray_t &sum = entry_of(segment, sql_id);
  sum.cumsqlexectime = tqp_finite(sum.cumsqlexectime + time);
  ++sum.count;
  sum.min = std::min(sum.min, time);
  sum.max = std::max(sum.max, time);
  sum.startsqlbegintimestamp = std::min(sum.startsqlbegintimestamp, begin_timestamp);
  sum.endsqlbegintimestamp = std::max(sum.endsqlbegintimestamp, begin_timestamp);
  if (status == 'E')
    ++sum.failedquerycount;
  if (backend_id != 0)
    sum.backend_id = backend_id;
}

void tqp_clear_sql_sums(segment_fp_t *segment) {
  record_array<sqlarray_t> &sums = segment->sqlarray;
  std::fill_n(sums.data, sums.used, sqlarray_t{});
  sums.used = 0;
  id_index_clear(segment->sqla_index);
}

void tqp_free_sql_sums(segment_fp_t *segment) {
  record_array_free(segment->sqlarray, array_label);
  id_index_free(segment->sqla_index, index_label);
}

// --- rows ---------------------------------------------------------------------------------------------------------

static int32_t norm_id_of(const tqp_instance_t *inst, int32_t sql_id) {
  const int norm_id = sql_query_map_read_loc2norm(inst->sql_query_map.data, sql_id, inst->sql_query_map_size, nullptr);
  return std::max(norm_id, 0);
}

// What all rows of a segment share.
struct sql_row_context {
  const tqp_instance_t *inst;
  int64_t main_fpi;
  int32_t url;
};

static void put_row(tqp_row_batch &batch, const sql_row_context &of, const sqlarray_t &sum) {
  wllb_putter row = batch.next_row(11 * tqp_column_room + 3 * tqp_fixed_room);
  for (const int64_t column : {int64_t{norm_id_of(of.inst, sum.sql_id)}, int64_t{of.inst->tierID},
                               int64_t{of.inst->serverID}, int64_t{of.inst->appID}, int64_t{of.url}, of.main_fpi})
    row.num(column).put(',');
  tqp_put_fixed(row, sum.cumsqlexectime);
  row.put(',').num(sum.count).put(',');
  tqp_put_fixed(row, sum.min);
  row.put(',');
  tqp_put_fixed(row, sum.max);
  row.put(',').unum(sum.startsqlbegintimestamp / 1000).put(',').unum(sum.endsqlbegintimestamp / 1000);
  row.put(',').num(static_cast<int32_t>(sum.failedquerycount)).put(',').num(sum.backend_id).put('\n');
  row.done(batch.rows);
}

// The file of a sum's newest execution; null when it has none. Its age is looked at first, the file second.
static tqp_row_batch *file_of(tqp_instance_t *inst, const sqlarray_t &sum, tqp_row_batch *current,
                              tqp_row_batch *prev) {
  const data_age age = tqp_age_of(inst, static_cast<int64_t>(sum.endsqlbegintimestamp / 1000));
  if (age == AGE_CURRENT)
    return current;
  prev->file = tqp_previous_data_file(inst, SQL_TIMING_CSV_FP);
  if (age == AGE_OLDER)
    wllb_trace(1, "Error",
               "SQL timing data belongs to previous to previous partition, ignoring this sql timing data record");
  else if (!prev->file)
    wllb_trace(1, "Error",
               "SQL timing data belongs to previous partition, whereas the sql timing csv file pointer is closed");
  else
    return prev;
  return nullptr;
}

static void write_sums(tqp_instance_t *inst, FILE *current_file, int64_t main_fpi, const segment_fp_t *segment) {
  tqp_row_batch current(current_file);
  tqp_row_batch prev(inst->prev_csv_file_pointers[SQL_TIMING_CSV_FP]);
  const sql_row_context of = {inst, main_fpi, inst->url_map.at_or_zero(segment->bci_urlid)};
  for (int32_t i = 0; i < segment->sqlarray.used; ++i) {
    const sqlarray_t &sum = segment->sqlarray.data[i];
    if (tqp_row_batch *const batch = file_of(inst, sum, &current, &prev))
      put_row(*batch, of, sum);
  }
  prev.flush();
  if (prev.used)
    write_prev_tqpdone(inst, tqp_data_file_name(SQL_TIMING_CSV_FP));
  current.flush();
}

void csv_dump_sql_timing(tqp_instance_t *inst, const concurrent_flowpath_t *fp, segment_fp_t *segment) {
  if (!segment || segment->sqlarray.used == 0)
    return;
  if (FILE *const current = tqp_current_data_file(inst, SQL_TIMING_CSV_FP))
    write_sums(inst, current, fp->main_fpi, segment);
  else
    wllb_trace(1, "Error", "Could not write to sql timing csv file");
  tqp_clear_sql_sums(segment);
}

void clean_segment_sql_timing_array(tqp_instance_t *inst, const concurrent_flowpath_t *fp, segment_fp_t *segment) {
  if (interval_to_dump_sql_timing_data == 0 || !tqp_enable_sql_timing)
    return;
  const auto passed = static_cast<int64_t>(static_cast<uint64_t>(inst->fp_last_updated_ts_in_sec) -
                                           static_cast<uint64_t>(segment->last_sql_data_dumped_ts_sec));
  if (passed <= interval_to_dump_sql_timing_data)
    return;
  csv_dump_sql_timing(inst, fp, segment);
  tqp_clear_sql_sums(segment);
  segment->last_sql_data_dumped_ts_sec = inst->fp_last_updated_ts_in_sec;
}
