// Where a captured detail goes; see the header.

#include "detail_segment.h"

#include "tqp_async_handling.h"

void tqp_detail_error(const tqp_instance_t *inst, const char *fmt, ...) {
  if (!wllb_trace_on(1))
    return;
  va_list args;
  va_start(args, fmt);
  const std::string words = wllb_vformat(fmt, args);
  va_end(args);
  wllb_trace(1, "Error", "Error in Raw Data, for App Instance: %s, Raw data Line # %lld; %s",
             inst->tier_server_app_name, static_cast<long long>(inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
             words.c_str());
}

static bool tell_no_flowpath(const tqp_instance_t *inst, const fpi_tuple &tuple) {
  tqp_detail_error(
      inst,
      "Current http response headers info event received for non existing FlowPath Instance main_fpi = %lld; self_fpi = %lld.",
      static_cast<long long>(tuple.main_fpi), static_cast<long long>(tuple.self_fpi));
  return false;
}

static bool tell_no_segment_entry(const tqp_instance_t *inst, const fpi_tuple &tuple) {
  tqp_detail_error(
      inst,
      "Current http response headers info event received for non existing FlowPath Instance main_fpi = %lld; self_fpi = %lld. And could not create segment entry in seg_arr[]",
      static_cast<long long>(tuple.main_fpi), static_cast<long long>(tuple.self_fpi));
  return false;
}

// The details wait on a segment whose header is still to come.
static bool open_ahead_of_header(tqp_instance_t *inst, const fpi_tuple &tuple, int *slot) {
  *slot = get_concurrent_flowpath_free_idx(inst);
  tqp_occupy_flowpath(inst, *slot, tuple.main_fpi);
  concurrent_flowpath_t &fp = inst->con_fp_buf.data[*slot];
  fp.parent_fpi = tuple.parent_fpi;
  segment_fp_t *segment = insert_in_segment_array(inst, &fp, tuple.self_fpi);
  if (!segment)
    return tell_no_segment_entry(inst, tuple);
  segment->parent_fpi = tuple.parent_fpi;
  segment->flowpath_header_record_received = 0;
  return true;
}

bool tqp_place_detail(tqp_instance_t *inst, char *tuple_text, detail_place *place) {
  fpi_tuple tuple;
  if (!tqp_read_fpi_tuple(tuple_text, &tuple))
    return tell_no_flowpath(inst, tuple);
  int slot = tqp_find_flowpath(inst, tuple.main_fpi);
  if (slot >= 0) {
    if (!search_segment_array_using_fpi(inst, &inst->con_fp_buf.data[slot], tuple.self_fpi, nullptr))
      return tell_no_flowpath(inst, tuple);
  } else if (!tqp_allow_req_detail_before_sqb_begin_rec) {
    return tell_no_flowpath(inst, tuple);
  } else if (!open_ahead_of_header(inst, tuple, &slot)) {
    return false;
  }
  inst->con_fp_buf.data[slot].last_processed_ts = wllb_monotonic_s();
  *place = {tuple.main_fpi, tuple.self_fpi};
  return true;
}

segment_place tqp_segment_of_detail(tqp_instance_t *inst, const detail_place &place) {
  const int slot = tqp_find_flowpath(inst, place.main_fpi);
  if (slot < 0)
    return {};
  return {slot, search_segment_array_using_fpi(inst, &inst->con_fp_buf.data[slot], place.self_fpi, nullptr)};
}
