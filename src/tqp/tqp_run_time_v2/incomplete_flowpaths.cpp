// Flowpaths that never got their closing record: ended by the close of the instance, by silence, or by a response that
// is overdue.
//   In      the table of flowpaths in flight; the wall clock for silence, the clock of the data for responses
//   Out     each remaining segment to completion, then a clean slot
//   Thread  the instance's

#include "flowpath_release.h"
#include "tqp_async_handling.h"
#include "tqp_run_time_v2.h"

static void count_dead(tqp_instance_t *inst) {
  ++inst->sum_rep_counters[SUM_REP_CNT_INCOMPLETE_FLOWPATHS];
  tqp_instance_mon_stat_info_t &stats = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.dead_flowpath_count;
}

static void end_segment(tqp_instance_t *inst, int slot, int index) {
  const concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
  if (index >= fp.seg_arr.used) {
    wllb_trace(1, "Error", "segment not found for index = %d, seg_arr_sz = %d, main_fpi = %lld;", index,
               fp.seg_arr.used, static_cast<long long>(fp.main_fpi));
    return;
  }
  segment_fp_t *segment = fp.seg_arr.data[index];
  count_dead(inst);
  if (segment->self_fpi != fp.main_fpi) // the main segment stays in seconds
    segment->begin_ts *= 1000;
  if (segment->method_call_stack.used < 1)
    ++inst->sum_rep_counters[SUM_REP_CNT_BAD_COMPLETE_NOT_RECEIVED_FPG2];
  else
    segment->flowpathType |= flowpath_type_methods_open;
  bcig_dump_flowpath(inst, slot, segment);
}

void process_incomplete_flowpath(tqp_instance_t *inst, int slot, int segment_index) {
  if (segment_index >= 0)
    return end_segment(inst, slot, segment_index);
  concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
  const int64_t main_fpi = fp.main_fpi;
  fp.force_complete_flag = 1;
  for (int i = fp.seg_arr.used - 1; i >= 0; --i)
    end_segment(inst, slot, i);
  if (fp.main_fpi == main_fpi) // its row may have cleaned the slot already
    tqp_clean_flowpath(inst, slot);
}

// Ends each flowpath in flight that is `due`.
template <class Due> static void end_flowpaths(tqp_instance_t *inst, const Due &due) {
  for (int slot = 0; slot <= inst->last_occupied_fp_idx; ++slot) {
    const concurrent_flowpath_t &fp = inst->con_fp_buf.data[slot];
    if (fp.main_fpi != 0 && due(fp))
      process_incomplete_flowpath(inst, slot, -1);
  }
}

void dump_all_incomplete_flowpaths(tqp_instance_t *inst) {
  end_flowpaths(inst, [](const concurrent_flowpath_t &) { return true; });
}

void clear_stuck_flowpaths(tqp_instance_t *inst) {
  const time_t now = wllb_monotonic_s();
  if (now - inst->last_dead_fp_cleanup_ts < secs_to_clean_dead_flowpaths)
    return;
  inst->last_dead_fp_cleanup_ts = now;
  end_flowpaths(inst, [now](const concurrent_flowpath_t &fp) {
    return fp.last_processed_ts != 0 && now - fp.last_processed_ts > secs_to_mark_an_fp_dead;
  });
}

void clear_async_resp_missed_flowpaths(tqp_instance_t *inst) {
  const time_t now = inst->last_timestamp;
  end_flowpaths(inst, [now](const concurrent_flowpath_t &fp) {
    return fp.pending_callouts_count > 0 && now - fp.last_fp_timestamp > secs_to_hold_fp_for_pending_async_resp;
  });
}
