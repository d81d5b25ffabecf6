// The statistics monitor: how many flowpaths, database calls and exceptions each instance has had, as sample lines.
//   In      the counters of each instance that has told its names
//   Out     one line for each instance every fp_stats_mon_frequency ms; the file of the totals
//   Thread  "TQP_FP_STAT_MON"; the registry is walked under its lock, the counters are taken under theirs
//   Failure a lost connection is made anew at the next sample; the counters go on meanwhile, and so does the file
// Sample:  3|4|5:Tier>Server>App|17 0.200000 8.500000 3 14 2 1.250000 0.100000 4.000000 4.000000 4.000000 1 ... 0.000000

#include "tqp_fp_stats_mon.h"

#include "monitor_link.h"
#include "tqp_init.h"

#include <unistd.h>

static int fp_stat_epoll_fd;

static int tell_port_unknown(int tries, const char *err_msg) {
  if (tries < 30)
    return tries;
  wllb_trace(1, "Warning",
             "TQP_FP_STAT_MONITOR, WL port is not found; retry count %d and msg %s\n && Resetting the retry count ",
             tries, err_msg);
  return 0;
}

static constexpr monitor_words fp_stat_words = {
    "TQP fp_stat monitor connection is not established with WL. Going to retry to make connection.",
    "TQP_FP_STAT_MONITOR, Error : Error in making connection with WL. No connection with WL while sending data.",
    "TQP_FP_STAT_MONITOR, Data sent completely.", "TQP_FP_STAT_MONITOR  Connection closed by WL", tell_port_unknown};

static monitor_link tqp_mrcptr = {"cm_tq_fp_stats.gdf", &fp_stat_words, true};

// --- one line ------------------------------------------------------------------------------------------------------

// Whole seconds of the sample's interval. Below 1 s they are 0, and rates are what a division by zero gives.
static double interval_s() {
  return fp_stats_mon_frequency / 1000; // NOLINT(bugprone-integer-division): whole ones
}

static double average(double total, uint64_t count) {
  return count == 0 ? 0.0 : total / static_cast<double>(count);
}

static unsigned long long shown(uint64_t number) {
  return number;
}

static void put_flowpaths(std::string *data, const fp_stat_data &stats, uint64_t bytes) {
  const uint64_t minimum = stats.min_duration == UINT64_MAX ? 0 : stats.min_duration;
  const double data_rate = bytes == 0 ? 0.0 : static_cast<double>(bytes) / (1024.0 * interval_s());
  *data += wllb_format("%llu %f %f %llu %llu %llu %f", shown(stats.total_fp_counts),
                       static_cast<double>(stats.fp_counts) / interval_s(),
                       average(static_cast<double>(stats.total_duration), stats.fp_counts), shown(minimum),
                       shown(stats.max_duration), shown(stats.fp_counts), data_rate);
}

static void put_queries(std::string *data, tqp_instance_t *inst) {
  static constexpr db_query_stat_data tqp_instance_t::*kinds[] = {
      &tqp_instance_t::total_query_stats,  &tqp_instance_t::select_query_stats, &tqp_instance_t::insert_query_stats,
      &tqp_instance_t::update_query_stats, &tqp_instance_t::delete_query_stats, &tqp_instance_t::create_query_stats,
      &tqp_instance_t::drop_query_stats,   &tqp_instance_t::other_query_stats};
  for (const auto kind : kinds) {
    db_query_stat_data stats;
    get_and_reset_db_query_stats(inst, kind, &stats);
    *data += wllb_format(" %f %f %lf %lf %llu", static_cast<double>(stats.query_counts) / interval_s(),
                         average(stats.total_duration, stats.query_counts), stats.min_duration, stats.max_duration,
                         shown(stats.query_counts));
  }
}

static void put_exceptions(std::string *data, tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock) {
  uint64_t exceptions;
  get_and_reset_excp_count(inst, &exceptions);
  *data += wllb_format(" %f\n", static_cast<double>(exceptions) / interval_s());
}

static void put_total(std::string *totals, const std::string &name, uint64_t count) {
  *totals += wllb_format("%s,%llu\n", name.c_str(), shown(count));
}

static void put_instance(std::string *data, std::string *totals, tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock) {
  const std::string name = tqp_display_name(inst);
  tqp_add_total_of_run_before(inst, name);
  fp_stat_data stats;
  uint64_t bytes;
  get_and_reset_fp_stats(inst, &stats, &bytes);
  *data += wllb_format("%d|%d|%d:%s", inst->tierID, inst->serverID, inst->appID, name.c_str()) + "|";
  put_flowpaths(data, stats, bytes);
  put_queries(data, inst);
  put_exceptions(data, inst);
  put_total(totals, name, stats.total_fp_counts);
}

// --- samples -----------------------------------------------------------------------------------------------------

// True while the instance may still get a total of the run before.
static bool total_is_due(tqp_instance_t *inst) {
  wllb_hold hold(inst->fp_stats_mutex);
  return inst->total_fp_counts_due != 0;
}

// The total of an instance whose numbers go on.
static void put_total_alone(std::string *totals, tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock) {
  const std::string name = tqp_display_name(inst);
  tqp_add_total_of_run_before(inst, name);
  uint64_t total;
  {
    wllb_hold hold(inst->fp_stats_mutex);
    total = inst->fp_stats.total_fp_counts;
  }
  put_total(totals, name, total);
}

// Both texts in one pass: the sample (null: none is wanted, and the interval's numbers stay), and the totals for the file.
static void buffer_fp_stat_data(std::string *data, std::string *totals) {
  bool may_be_asked_for = false;
  tqp_for_each_instance([&](tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock) {
    if (inst->active_flag && inst->appName && data)
      put_instance(data, totals, inst);
    else if (inst->active_flag && inst->appName)
      put_total_alone(totals, inst);
    else
      may_be_asked_for = may_be_asked_for || total_is_due(inst);
  });
  tqp_put_totals_not_asked_for(totals, may_be_asked_for);
}

static void send_fp_data_to_wl() {
  const bool sends = tqp_link_ready(&tqp_mrcptr);
  std::string data;
  std::string totals;
  buffer_fp_stat_data(sends ? &data : nullptr, &totals);
  if (sends)
    tqp_link_send(&tqp_mrcptr, data);
  tqp_write_cumulative_file(totals);
}

// --- the thread --------------------------------------------------------------------------------------------------

static void manage_fd_in_epoll() {
  time_t last_sample = 0; // s, monotonic clock; none yet
  while (wl_status == WL_RUNNING) {
    if (tqp_sample_is_due(last_sample)) {
      send_fp_data_to_wl();
      last_sample = wllb_monotonic_s();
    }
    tqp_links_wait(fp_stat_epoll_fd, {&tqp_mrcptr}, 1, 500);
  }
}

void *send_fp_stat_data_to_wl(void * /*arg*/) {
  fp_stat_epoll_fd = tqp_mrcptr.epoll_fd = tqp_links_epoll(1);
  tqp_link_begin(&tqp_mrcptr);
  manage_fd_in_epoll();
  tqp_link_drop(&tqp_mrcptr);
  close(fp_stat_epoll_fd);
  return nullptr;
}
