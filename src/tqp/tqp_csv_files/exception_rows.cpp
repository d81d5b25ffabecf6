// Writes exceptions: who threw what where, all by norm ids.
//   In      an exception with its local ids, and its stack trace as a local id or in words
//   Out     "TQExceptions.csv"; a stack trace in words that is new becomes a norm id with its row; excp_counts
//   Thread  the instance's; the table of stack traces and the count under their locks
//   Failure an exception with an unknown stack trace id is told and dropped
// Sample:  4611686018427387905,3,4,5,1000,1,2,3,42,4,5,6,-1,0,0,-1

#include "side_row_writer.h"

#include "tqp_csv_files.h"

#include <cstdlib>

// --- the writer's words ---------------------------------------------------------------------------------------------

static void tell_full() {
  wllb_trace(1, "Info", "Exception Data buffer is 80%% full, forcing all table to be uploaded");
}

static void tell_closed(const side_row &row) {
  wllb_trace(
      1, "Error",
      "Raw data received for previous partition, whereas the exception data record csv file pointer is closed, fpi = %lld",
      static_cast<long long>(row.fpi));
}

static void tell_older(const side_row &row) {
  wllb_trace(1, "Error",
             "Raw data received for previous to previous partition, ignoring this exception data record, fpi = %lld",
             static_cast<long long>(row.fpi));
}

static void tell_unwritten(const tqp_instance_t *inst) {
  wllb_trace(1, "Error", "Could not open excp_data_buf csv file '%s%s'", inst->csvfilepath,
             tqp_data_file_name(EXCP_DATA_CSV_FP));
}

static constexpr side_row_writer exceptions = {.slot = EXCP_DATA_CSV_FP,
                                               .buffer = &tqp_instance_t::excp_data_buf,
                                               .label = "Exception Data buffer",
                                               .buffer_size = &max_buffered_excp_data_bufsize,
                                               .row_first = true,
                                               .saves_state = true,
                                               .tell_full = tell_full,
                                               .tell_closed = tell_closed,
                                               .tell_older = tell_older,
                                               .tell_unwritten = tell_unwritten};

// --- columns ----------------------------------------------------------------------------------------------------

// A time above the test's start is an absolute one in ms; any other is what the row wants, seconds of the test's epoch.
static int64_t seconds_of(const char *timestamp) {
  const int64_t value = strtoll(timestamp, nullptr, 10);
  if (value <= g_vex_epoc_diff)
    return value;
  return static_cast<int64_t>(static_cast<uint64_t>(value / 1000) - static_cast<uint64_t>(g_vex_epoc_diff));
}

static int norm_id_of(const wllb_zarray<int> &map, int32_t local_id) {
  return local_id > 0 ? map.at_or_zero(local_id) : 0;
}

static bool find_stack_trace(tqp_instance_t *inst, const char *text, int *norm_id) {
  const int64_t local_id = strtoll(text, nullptr, 10);
  if (local_id > inst->excp_st_map.size) {
    wllb_trace(
        1, "Error",
        "Error in Raw Data, App Instance: %s, Raw data file line # %lld; Stack Trace Id found for which meta data record 36 not found.",
        inst->tier_server_app_name, static_cast<long long>(inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]));
    return false;
  }
  *norm_id = inst->excp_st_map.at_or_zero(local_id);
  return true;
}

static int add_stack_trace(tqp_instance_t *inst, const char *text) {
  int is_new = 0;
  int norm_id;
  {
    wllb_hold hold(key_excp_st_id_mutex);
    norm_id = wllb_get_or_gen_norm_id(&key_excp_st_id, text, 0, &is_new);
  }
  if (is_new)
    csv_dump_excp_st_data(inst, norm_id, text);
  return norm_id;
}

// Norm id of a stack trace, 0 for none. False: an id that nobody has told.
static bool stack_trace_id(tqp_instance_t *inst, const char *text, int *norm_id) {
  *norm_id = 0;
  if (*text >= '0' && *text <= '9')
    return find_stack_trace(inst, text, norm_id);
  if (*text)
    *norm_id = add_stack_trace(inst, text);
  return true;
}

static int32_t positive_or_minus_1(int32_t id) {
  return id < 1 ? -1 : id;
}

static void put_row(tqp_instance_t *inst, const excp_row &row, int64_t time, int stack_trace) {
  const int64_t columns[] = {row.flowpath_id,
                             inst->tierID,
                             inst->serverID,
                             inst->appID,
                             time,
                             norm_id_of(inst->excp_cls_map, row.excp_cls),
                             norm_id_of(inst->excp_thr_cls_map, row.thr_cls),
                             norm_id_of(inst->excp_thr_mtd_map, row.thr_mtd),
                             row.line,
                             norm_id_of(inst->excp_msg_map, row.msg),
                             norm_id_of(inst->excp_cause_map, row.cause),
                             stack_trace,
                             positive_or_minus_1(row.method_norm_id),
                             row.method_line,
                             row.backend_type,
                             positive_or_minus_1(row.backend_sub_type)};
  wllb_putter out = tqp_begin_side_row(inst, exceptions, std::size(columns) * tqp_column_room);
  for (const int64_t column : columns)
    out.num(column).put(',');
  out.at[-1] = '\n';
  out.done(inst->excp_data_buf);
}

static void count_exception(tqp_instance_t *inst) {
  wllb_hold hold(inst->fp_stats_mutex);
  ++inst->excp_counts;
}

static void dump_exception(tqp_instance_t *inst, const excp_row &row) {
  int stack_trace;
  if (!stack_trace_id(inst, row.stack_trace, &stack_trace))
    return;
  const side_row placed = {inst->excp_data_buf.len, seconds_of(row.timestamp), row.flowpath_id};
  put_row(inst, row, placed.time, stack_trace);
  if (tqp_age_of(inst, placed.time) == AGE_CURRENT)
    count_exception(inst);
  tqp_place_side_row(inst, exceptions, placed);
}

void csv_dump_excp_data(tqp_instance_t *inst, const excp_row *row, int force) {
  if (force)
    tqp_flush_side_rows(inst, exceptions);
  else if (row)
    dump_exception(inst, *row);
}
