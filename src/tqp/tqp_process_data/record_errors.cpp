// Telling of bad records; see the header.

#include "record_errors.h"

void tqp_rawdata_error(const tqp_instance_t *inst, const char *fmt, ...) {
  if (!wllb_trace_on(1))
    return;
  va_list args;
  va_start(args, fmt);
  const std::string words = wllb_vformat(fmt, args);
  va_end(args);
  wllb_trace(1, "Error", "Error in Raw Data, App Instance: %s, Raw data file line # %lld; %s",
             inst->tier_server_app_name, static_cast<long long>(inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
             words.c_str());
}

void tqp_count_invalid_record(tqp_instance_t *inst) {
  tqp_instance_mon_stat_info_t &stats = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.invalid_rawdata_count;
}

void tqp_incomplete_record(tqp_instance_t *inst) {
  tqp_rawdata_error(inst, "Found incomplete record, skipping.");
  tqp_count_invalid_record(inst);
}

void tqp_surplus_fields(const tqp_instance_t *inst) {
  tqp_rawdata_error(inst, "More fields than expected.");
}

void dump_tqp_error_log(tqp_instance_t *inst, tqp_raw_data_error_types error_type, const char *message) {
  rawerr_log_counter_t &counter = inst->rawerr_log_counter[error_type];
  const int64_t now = wllb_monotonic_ms();
  if (counter.throttle_count == 0) {
    wllb_trace(1, "Critical", "%s", message);
    counter.throttle_timestamp = now;
  } else if ((now - counter.throttle_timestamp) / 1000 > tqp_errlog_throttle_interval) {
    wllb_trace(1, "Critical", "%s counter = %d in %d seconds", message, counter.throttle_count - 1,
               tqp_errlog_throttle_interval);
    counter.throttle_count = 0;
    counter.throttle_timestamp = now;
  }
  ++counter.throttle_count;
  ++counter.g_count;
}
