// Writes single executions of queries. Nothing is held back between calls.
//   In      an execution, by the norm id of its query; the keyword that asks for it has been looked at
//   Out     "TQSQLRecord.csv", by the time at which the execution ended
//   Thread  the instance's
//   Failure as all side records
// Sample:  4611686018427387905,3,4,5,1000,120,12,E,1073741830

#include "side_row_writer.h"

#include <algorithm>

// --- the writer's words ---------------------------------------------------------------------------------------------

static void tell_closed(const side_row &row) {
  wllb_trace(
      1, "Error",
      "Raw data received for previous partition, whereas the sql record csv file pointer is closed, flowpath_instance = %lld",
      static_cast<long long>(row.fpi));
}

static void tell_older(const side_row &row) {
  wllb_trace(1, "Error",
             "Raw data received for previous to previous partition, ignoring this sql record, flowpath_instance = %lld",
             static_cast<long long>(row.fpi));
}

static void tell_unwritten(const tqp_instance_t * /*inst*/) {
  wllb_trace(1, "Error", "Could not write to sql record csv file");
}

static constexpr side_row_writer sql_records = {.slot = SQL_RECORD_TABLE_FP,
                                                .buffer = &tqp_instance_t::sql_record_data_buf,
                                                .label = "tqp_imap[jvmid]->sql_record_data_buf",
                                                .buffer_size = nullptr,
                                                .row_first = true,
                                                .saves_state = false,
                                                .tell_full = nullptr,
                                                .tell_closed = tell_closed,
                                                .tell_older = tell_older,
                                                .tell_unwritten = tell_unwritten};

// --- rows ---------------------------------------------------------------------------------------------------------

// Cut to a whole number of ms; no execution takes more than the limit.
static int64_t whole(double v) {
  constexpr double limit = 1e18;
  return static_cast<int64_t>(std::clamp(tqp_finite(v), -limit, limit));
}

static int64_t end_of(const sql_record_row &row, int64_t wall) {
  int64_t end;
  return (__builtin_add_overflow(row.begin_ts, wall, &end) ? row.begin_ts : end) / 1000;
}

void csv_dump_sql_record(tqp_instance_t *inst, const segment_fp_t *segment, const sql_record_row &row) {
  const int64_t wall = whole(row.wall);
  const side_row placed = {inst->sql_record_data_buf.len, end_of(row, wall), row.flowpath_id};
  wllb_putter out = tqp_begin_side_row(inst, sql_records, 8 * tqp_column_room + 2);
  out.num(row.flowpath_id).put(',').num(inst->tierID).put(',').num(inst->serverID).put(',').num(inst->appID);
  out.put(',').num(row.begin_ts / 1000).put(',').num(wall).put(',').num(row.norm_sql_id).put(',');
  if (row.status)
    out.put(row.status);
  out.put(',').num(inst->url_map.at_or_zero(segment->bci_urlid)).put('\n');
  out.done(inst->sql_record_data_buf);
  tqp_place_side_row(inst, sql_records, placed);
}
