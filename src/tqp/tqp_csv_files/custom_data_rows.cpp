// Writes custom values and captured headers.
//   In      one value of a request, its flowpath as text
//   Out     "TQCustomData.csv"; its time is the one that the flowpath's number carries
//   Thread  the instance's
//   Failure as all side records
// Sample:  1000,4611686018427387905,12,amount,1,250,250,3,4,5

#include "side_row_writer.h"

#include <cstdlib>

// --- the writer's words ---------------------------------------------------------------------------------------------

static void tell_full() {
  wllb_trace(1, "Info", "Http header buffer is 80%% full, forcing all table to be uploaded");
}

static void tell_closed(const side_row &row) {
  wllb_trace(
      1, "Error",
      "Raw data received for previous partition, whereas the http header data record csv file pointer is closed, fpi = %lld",
      static_cast<long long>(row.fpi));
}

static void tell_older(const side_row &row) {
  wllb_trace(1, "Error",
             "Raw data received for previous to previous partition, ignoring this http header data record, fpi = %s",
             row.fpi_text);
}

static constexpr side_row_writer custom_data = {.slot = HTTP_CAPTURE_HEADER_CSV_FP,
                                                .buffer = &tqp_instance_t::http_header_data_buf,
                                                .label = "http_header_data_buf",
                                                .buffer_size = &max_buffered_http_header_bufsize,
                                                .row_first = true,
                                                .saves_state = true,
                                                .tell_full = tell_full,
                                                .tell_closed = tell_closed,
                                                .tell_older = tell_older,
                                                .tell_unwritten = tqp_tell_unwritten_side_rows};

// --- rows ---------------------------------------------------------------------------------------------------------

// The ms that a flowpath's number carries, in seconds.
static int64_t seconds_of(int64_t fpi) {
  const uint64_t ms = (static_cast<uint64_t>(fpi) & ts_org_mask) >> (static_cast<unsigned>(tqe_seqno_of_bits) % 64);
  return static_cast<int64_t>(ms / 1000);
}

static void put_row(tqp_instance_t *inst, const custom_data_row &row, const side_row &placed) {
  const std::string_view text(row.text), value(row.value);
  wllb_putter out = tqp_begin_side_row(inst, custom_data, 8 * tqp_column_room + text.size() + value.size() + 2);
  out.num(placed.time).put(',').num(placed.fpi).put(',').num(row.header_id).put(',').put(text).put(',');
  out.num(row.kind).put(',').num(row.value64).put(',').put(value).put(',');
  out.num(inst->tierID).put(',').num(inst->serverID).put(',').num(inst->appID).put('\n');
  out.done(inst->http_header_data_buf);
}

void csv_dump_http_header_req_rsp_info(tqp_instance_t *inst, const custom_data_row *row, int force) {
  if (force)
    return tqp_flush_side_rows(inst, custom_data);
  if (!row)
    return;
  const int64_t fpi = strtoll(row->fpi_text, nullptr, 10);
  const side_row placed = {inst->http_header_data_buf.len, seconds_of(fpi), fpi, row->fpi_text};
  put_row(inst, *row, placed);
  tqp_place_side_row(inst, custom_data, placed);
}
