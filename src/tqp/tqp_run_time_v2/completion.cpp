// Completion: the one road that every ending of a segment takes.
//   In      a segment whose closing record came, whose blob was truncated, or which is given up
//   Out     timing rows, signature, URL record, the flowpath's rows; at its end a clean slot
//   Thread  the instance's
//   Failure a segment without header loses its rows, not its timing; nothing here stops the instance

#include "blob_memory.h"
#include "flowpath_files.h"
#include "flowpath_release.h"
#include "fp_stats.h"
#include "metadata_request.h"
#include "record_errors.h"
#include "tqp_async_handling.h"
#include "tqp_method_timing.h"
#include "tqp_run_time_v2.h"
#include "tqp_sql_timing.h"

#include <algorithm>

static void count_processed(tqp_instance_t *inst) {
  tqp_instance_mon_stat_info_t &stats = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.processed_flowpath_count;
}

// --- methods that are still open --------------------------------------------------------------------------------

// Sums of agents' numbers may be anything: they wrap.
static int64_t wrapping(uint64_t value) {
  return static_cast<int64_t>(value);
}

static int64_t plus(int64_t a, int64_t b) {
  return wrapping(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

static int64_t minus(int64_t a, int64_t b) {
  return wrapping(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

// An exit with zero times, at the time of the last record.
static void append_exit(segment_fp_t *segment, const method_call_stack_t &row, int64_t end) {
  tqp_count_memory_step(segment->sqb_malloced_len, segment->seq_blob, 99);
  tqp_join_blob(segment);
  wllb_putter(segment->seq_blob, 96, "Segment Sequence Blob")
      .num(row.method_id)
      .put(':')
      .num(row.thread_id)
      .put("_1_")
      .num(end)
      .put("_0:0:0:0:0")
      .done(segment->seq_blob);
}

static void dump_open_argument(tqp_instance_t *inst, int64_t main_fpi, const segment_fp_t *segment,
                               const method_call_stack_t &row, int64_t wall) {
  if (!tqp_enable_bciarg || row.page_id == 0)
    return;
  const bci_arg_row arg = {.flowpath_id = main_fpi,
                           .tier = segment->flowpath_segment_tier,
                           .seq_num = row.seq_num,
                           .page_id = row.page_id,
                           .method_id = row.method_id,
                           .wall = minus(wall, row.children_time),
                           .timestamp = plus(wrapping(segment->begin_ts), row.time_stamp / 1000)};
  csv_dump_bci_arg_data(inst, &arg, 0);
}

static void close_open_methods(tqp_instance_t *inst, int64_t main_fpi, segment_fp_t *segment) {
  const int64_t end = segment->last_record_timestamp;
  auto &stack = segment->method_call_stack;
  while (stack.used > 0) {
    const method_call_stack_t &row = stack.data[--stack.used];
    if (row.deleted == 1)
      continue;
    const int64_t wall = minus(end, row.time_stamp);
    append_exit(segment, row, end);
    dump_open_argument(inst, main_fpi, segment, row, wall);
    const method_amounts amounts = {.wall = wall,
                                    .cpu = row.cpu_children_time,
                                    .wait = row.wait_children_time,
                                    .sync = row.sync_children_time,
                                    .io = row.io_children_time,
                                    .suspension = row.suspension_children_time};
    tq_update_mtarray(segment, row.method_id, amounts, plus(end, wrapping(segment->begin_ts * 1000)));
    if (stack.used > 0) {
      method_call_stack_t &below = stack.data[stack.used - 1];
      below.children_time = plus(below.children_time, row.children_time);
      below.cpu_children_time = plus(below.cpu_children_time, row.cpu_children_time);
    }
  }
}

// --- times ---------------------------------------------------------------------------------------------------------

// Times compare as unsigned ones: an agent's nonsense does not pass for the earliest.
static void take_least(int64_t &slot_value, uint64_t value) {
  if (value != 0 && (slot_value == 0 || value < static_cast<uint64_t>(slot_value)))
    slot_value = static_cast<int64_t>(value);
}

static void take_greatest(int64_t &slot_value, uint64_t value) {
  slot_value = static_cast<int64_t>(std::max(static_cast<uint64_t>(slot_value), value));
}

// From here on the segment's begin is in milliseconds; one that is given up stays in seconds.
static void fold_times(concurrent_flowpath_t &fp, segment_fp_t *segment) {
  if (segment->begin_ts != 0 && fp.force_complete_flag)
    return;
  if (!fp.force_complete_flag)
    segment->begin_ts *= 1000;
  segment->end_ts = segment->begin_ts + segment->response_time;
  take_least(fp.begin_ts, segment->begin_ts);
  take_greatest(fp.end_ts, segment->end_ts);
  take_greatest(fp.aync_call_end_time, segment->aync_call_end_time);
  if (segment->begin_ts_in_ms == 0)
    return;
  segment->end_ts_in_ms = segment->begin_ts_in_ms + segment->response_time;
  take_least(fp.begin_ts_in_ms, segment->begin_ts_in_ms);
  take_greatest(fp.end_ts_in_ms, segment->end_ts_in_ms);
}

// --- URL -----------------------------------------------------------------------------------------------------------

static bool is_filtered_by_time(const tqp_instance_t *inst, const segment_fp_t *segment) {
  return inst->bt_category_flag != 2 && tqp_min_resptime_to_filter_l1_fp != 0 && segment->entry_methods_count < 2 &&
         segment->response_time < static_cast<uint64_t>(std::max(tqp_min_resptime_to_filter_l1_fp, 0));
}

static void check_url(tqp_instance_t *inst, segment_fp_t *segment) {
  if (segment->bci_urlid == -1 && force_add_urc_for_missing_fp_mapping_record)
    segment->bci_urlid = 0;
  if (is_filtered_by_time(inst, segment) || segment->bci_urlid < 0)
    return;
  if (segment->bci_urlid == 0 || !(inst->url_map.at_or_zero(segment->bci_urlid) & norm_id_flag))
    get_meta_data_for_events_from_bci(inst, TQ_EV_URL_DISCOVERY, segment->bci_urlid,
                                      static_cast<int64_t>(segment->begin_ts));
  if (segment->bci_urlid > inst->url_map.size)
    segment->bci_urlid = 0;
  const int url = inst->url_map.at_or_zero(segment->bci_urlid);
  if (!(url & norm_id_flag)) {
    tqp_rawdata_error(
        inst,
        "Current flowpath record has BCI generated URL ID, However URL Discovery record not found for thisflowpath_instance = %lld, BCI generated URL ID = %d",
        static_cast<long long>(segment->self_fpi), static_cast<int>(segment->bci_urlid));
    return;
  }
  const bool wanted = !chk_fp_is_wl_initiated_tx(segment->self_fpi) || force_add_urc_for_wl_fpi_in_mapping_record;
  if (wanted && tqp_dump_urc)
    write_urlrecord_entry(inst, segment->self_fpi, url, segment->begin_ts, segment->end_ts, segment->status_code);
}

static bool is_repeated(tqp_instance_t *inst, const concurrent_flowpath_t &fp, const segment_fp_t *segment) {
  return max_fi_array_entries != 0 && segment->self_fpi == fp.main_fpi &&
         is_flowpath_instance_duplicate(inst, segment->self_fpi);
}

// --- the road ------------------------------------------------------------------------------------------------------

void bcig_dump_flowpath(tqp_instance_t *inst, int slot, segment_fp_t *segment) {
  concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
  count_processed(inst);
  close_open_methods(inst, fp.main_fpi, segment);
  if (tqc_port > 0 && segment->status_code != -3)
    update_fp_stats(inst, segment->response_time);
  fold_times(fp, segment);
  segment->flowpath_signature = tqp_generate_fp_signatures ? generate_signature(inst, segment->signstr) : 0;
  if (!is_repeated(inst, fp, segment))
    check_url(inst, segment);
  if (tqp_enable_sql_timing)
    csv_dump_sql_timing(inst, &fp, segment);
  csv_dump_method_timing(inst, &fp, segment);
  if (segment->flowpath_header_record_received)
    csv_dump_flowpath(inst, slot, segment);
  else
    wllb_trace(1, "Error", "2 or 82 record not received for self_fpi = %lld; main_fpi = %lld so ignoring this record",
               static_cast<long long>(segment->self_fpi), static_cast<long long>(fp.main_fpi));
  if (fp.fp_over_flag)
    tqp_clean_flowpath(inst, slot);
}

void tqp_clean_flowpath(tqp_instance_t *inst, int slot) {
  concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
  for (int i = fp.seg_arr.used - 1; i >= 0; --i)
    remove_from_segment_array(inst, &fp, i, fp.seg_arr.data[i]->self_fpi);
  for (int i = fp.pending_seg_arr.used - 1; i >= 0; --i)
    remove_from_pending_segment_array(inst, &fp, i);
  tqp_free_flowpath_slot(inst, slot);
}
