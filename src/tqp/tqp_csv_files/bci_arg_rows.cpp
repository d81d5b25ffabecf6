// Writes captured arguments of method calls, with the call's own times.
//   In      a finished call, by norm ids; amounts as the agent gave them
//   Out     "TQBCIArg.csv"
//   Thread  the instance's
//   Failure as all side records
// Sample:  4611686018427387905,1.7,12,31,3,4,5,120,80,1000,0,0,0,0

#include "side_row_writer.h"

// --- the writer's words ---------------------------------------------------------------------------------------------

static void tell_full() {
  wllb_trace(1, "Info", "Meta Data buffer is 80%% full, forcing all table to be uploaded");
}

static void tell_closed(const side_row &row) {
  wllb_trace(
      1, "Error",
      "Raw data received for previous partition, whereas the BCIArgs record csv file pointer is closed, fpi = %lld",
      static_cast<long long>(row.fpi));
}

static void tell_older(const side_row &row) {
  wllb_trace(1, "Error",
             "Raw data received for previous to previous partition, ignoring this BCIArgs data record, fpi = %lld",
             static_cast<long long>(row.fpi));
}

static constexpr side_row_writer arguments = {.slot = BCIARG_CSV_FP,
                                              .buffer = &tqp_instance_t::bciarg_data_buf,
                                              .label = "bci_arg buffer",
                                              .buffer_size = &max_buffered_bci_arg_bufsize,
                                              .row_first = true,
                                              .saves_state = true,
                                              .tell_full = tell_full,
                                              .tell_closed = tell_closed,
                                              .tell_older = tell_older,
                                              .tell_unwritten = tqp_tell_unwritten_side_rows};

// --- rows ---------------------------------------------------------------------------------------------------------

// A net time below 0: the children have used more than the call itself.
static uint64_t net_wall(int64_t wall) {
  const auto value = static_cast<uint64_t>(wall);
  return value > 0x8000000000000000U ? 0 : value;
}

static void put_row(tqp_instance_t *inst, const bci_arg_row &row) {
  wllb_putter out = tqp_begin_side_row(inst, arguments, 15 * tqp_column_room);
  out.num(row.flowpath_id).put(',').num(row.tier).put('.').num(row.seq_num);
  for (const int32_t column : {row.page_id, row.method_id, inst->tierID, inst->serverID, inst->appID})
    out.put(',').num(column);
  out.put(',').unum(net_wall(row.wall)).put(',').unum(static_cast<uint64_t>(row.cpu)).put(',').num(row.timestamp);
  for (const int64_t amount : {row.wait, row.sync, row.io, row.suspension})
    out.put(',').unum(static_cast<uint64_t>(amount));
  out.put('\n').done(inst->bciarg_data_buf);
}

void csv_dump_bci_arg_data(tqp_instance_t *inst, const bci_arg_row *row, int force) {
  if (force)
    return tqp_flush_side_rows(inst, arguments);
  if (!row)
    return;
  const side_row placed = {inst->bciarg_data_buf.len, row->timestamp, row->flowpath_id};
  put_row(inst, *row);
  tqp_place_side_row(inst, arguments, placed);
}
