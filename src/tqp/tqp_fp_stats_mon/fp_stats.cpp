// Counters of the statistics monitor: flowpaths are counted here, queries and exceptions where their rows are written.
//   In      finished flowpaths
//   Out     copies of the numbers; the interval begins anew with each
//   Thread  instances' threads count, the monitor takes, both under the instance's fp_stats_mutex
//   Failure none
#include "fp_stats.h"

#include <algorithm>

void update_fp_stats(tqp_instance_t *inst, uint64_t duration) {
  wllb_hold hold(inst->fp_stats_mutex);
  fp_stat_data &stats = inst->fp_stats;
  ++stats.fp_counts;
  ++stats.total_fp_counts;
  stats.min_duration = std::min(stats.min_duration, duration);
  stats.max_duration = std::max(stats.max_duration, duration);
  stats.total_duration += duration;
}

void get_and_reset_fp_stats(tqp_instance_t *inst, fp_stat_data *out, uint64_t *data_delta) {
  wllb_hold hold(inst->fp_stats_mutex);
  fp_stat_data &stats = inst->fp_stats;
  *data_delta =
      inst->bytes_processed_in_prev_chunks + inst->bytes_processed_in_current_chunk - stats.total_data_process;
  stats.total_data_process += *data_delta;
  *out = stats;
  stats = {.total_fp_counts = out->total_fp_counts, .total_data_process = out->total_data_process};
}

void get_and_reset_db_query_stats(tqp_instance_t *inst, db_query_stat_data tqp_instance_t::*stats,
                                  db_query_stat_data *out) {
  wllb_hold hold(inst->fp_stats_mutex);
  *out = inst->*stats;
  inst->*stats = {};
  if (out->min_duration == db_query_min_unset)
    out->min_duration = 0;
}

void get_and_reset_excp_count(tqp_instance_t *inst, uint64_t *out) {
  wllb_hold hold(inst->fp_stats_mutex);
  *out = inst->excp_counts;
  inst->excp_counts = 0;
}
