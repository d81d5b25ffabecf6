// The health monitor: how the process and each instance fare, as sample lines to the parent.
//   In      tqp_mon_stat_info, tqp_instance_mon_stat_info of each instance, sizes of the common metadata files
//   Out     a line for the process and, when asked for, one for each instance, every fp_stats_mon_frequency ms
//   Thread  "TQP_HEALTH_MON"; the registry is walked under its lock, the counters are taken under theirs
//   Failure a lost connection is made anew at the next sample; the counters go on meanwhile
// Samples:  0:TQP|2 0.000100 ... 1 0 0.250000 0 3     5:Tier_Server_App|0 0 1 0 0 0 0 0 0 4 0.250000

#include "tqp_stat_mon.h"

#include "monitor_link.h"
#include "service_report.h"
#include "tqp_init.h"

#include <sys/stat.h>
#include <unistd.h>

static int tqp_mon_epoll_fd;
static time_t last_sample_sent_time; // s, monotonic clock; 0: none yet

static int tell_port_unknown(int tries, const char *err_msg) {
  wllb_trace(1, "Warning", "TQP_HEALTH_MON, WLport is not found retry count %d and msg %s\n", tries, err_msg);
  return tries;
}

static constexpr monitor_words health_words = {
    "TQP monitor connection is not established with WL. Going to retry to make connection.",
    "TQP_HEALTH_MON, Error : Error in making connection with WL. No connection with WL while sending data.",
    "TQP_HEALTH_MON, Data sent completely.", nullptr, tell_port_unknown};

static monitor_link mrcptr_main = {"cm_tqp_monitor_stats.gdf", &health_words, false};
static monitor_link mrcptr_inst = {"cm_tqp_instance_monitor_stats.gdf", &health_words, false};

// --- numbers of the process --------------------------------------------------------------------------------------

struct file_size_row {
  const char *file_name;
  float tqp_mon_stat_info_t::*size;
};

static constexpr file_size_row file_size_rows[] = {
    {"TQMetaData.csv", &tqp_mon_stat_info_t::tq_metadata_meta_data_file_size_mb},
    {"TQHTTPHeaderMetaData.csv", &tqp_mon_stat_info_t::http_header_meta_data_file_size_mb},
    {"TQExceptionClass.csv", &tqp_mon_stat_info_t::tq_exception_class_meta_data_file_size_mb},
    {"TQExceptionThrowingClass.csv", &tqp_mon_stat_info_t::tq_exception_throwing_class_meta_data_file_size_mb},
    {"TQExceptionThrowingMethod.csv", &tqp_mon_stat_info_t::tq_exception_throwing_method_meta_data_file_size_mb},
    {"TQExceptionMessage.csv", &tqp_mon_stat_info_t::tq_exception_message_meta_data_file_size_mb},
    {"TQExceptionStackTrace.csv", &tqp_mon_stat_info_t::tq_exception_stacktrace_meta_data_file_size_mb},
    {"TQExceptionCause.csv", &tqp_mon_stat_info_t::tq_exception_cause_meta_data_file_size_mb},
    {"TQURLTable.csv", &tqp_mon_stat_info_t::tq_url_table_meta_data_file_size_mb},
    {"TQSQL.csv", &tqp_mon_stat_info_t::tq_sql_meta_data_file_size_mb},
    {"TQFunctionalGroup.csv", &tqp_mon_stat_info_t::tq_functional_group_meta_data_file_size_mb},
    {"TQIPResourceMetaData.csv", &tqp_mon_stat_info_t::tq_ip_resource_meta_data_file_size_mb},
};

// Only deleted instances that are still behind count.
static uint32_t count_lagging_instances() {
  uint32_t count = 0;
  tqp_for_each_instance([&](const tqp_instance_t *inst) {
    if (inst->enable_flag != 0 && inst->partition_idx < g_partition_idx)
      ++count;
  });
  return count;
}

static void get_meta_data_size_and_instance_lag_count() {
  const uint32_t lagging = count_lagging_instances();
  wllb_hold hold(tqp_mon_stat_info_mutex);
  for (const file_size_row &row : file_size_rows) {
    const std::string path = wllb_format("%s/logs/TR%d/tq/csv/%s", wl_wdir, testidx, row.file_name);
    struct stat found;
    if (stat(path.c_str(), &found) == 0)
      tqp_mon_stat_info.*row.size = static_cast<float>(static_cast<double>(found.st_size) / 1048576.0);
  }
  tqp_mon_stat_info.instances_lag_count = lagging;
}

// The numbers as they stand; those that count from sample to sample begin anew.
static tqp_mon_stat_info_t take_process_numbers() {
  wllb_hold hold(tqp_mon_stat_info_mutex);
  const tqp_mon_stat_info_t taken = tqp_mon_stat_info;
  tqp_mon_stat_info.scandir_ex_time_usec = 0;
  tqp_mon_stat_info.instance_discover_count_at_periodic_scandir = 0;
  tqp_mon_stat_info.tqp_errors_count = 0;
  return taken;
}

static int running_threads() {
  wllb_hold hold(tqp_imap_lock);
  return total_num_running_threads;
}

static void put_process_line(std::string *buf) {
  const int threads = running_threads();
  const tqp_mon_stat_info_t n = take_process_numbers();
  *buf += wllb_format("0:TQP|%d %f %f %f %f %f %f %f %f %f %f %f %f %d %d %f %d %d\n", threads,
                      static_cast<double>(n.http_header_meta_data_file_size_mb),
                      static_cast<double>(n.tq_functional_group_meta_data_file_size_mb),
                      static_cast<double>(n.tq_ip_resource_meta_data_file_size_mb),
                      static_cast<double>(n.tq_exception_throwing_method_meta_data_file_size_mb),
                      static_cast<double>(n.tq_exception_throwing_class_meta_data_file_size_mb),
                      static_cast<double>(n.tq_exception_stacktrace_meta_data_file_size_mb),
                      static_cast<double>(n.tq_exception_message_meta_data_file_size_mb),
                      static_cast<double>(n.tq_exception_class_meta_data_file_size_mb),
                      static_cast<double>(n.tq_exception_cause_meta_data_file_size_mb),
                      static_cast<double>(n.tq_metadata_meta_data_file_size_mb),
                      static_cast<double>(n.tq_url_table_meta_data_file_size_mb),
                      static_cast<double>(n.tq_sql_meta_data_file_size_mb), static_cast<int>(n.process_done_lag_count),
                      static_cast<int>(n.instances_lag_count), static_cast<double>(n.scandir_ex_time_usec) / 1000.0,
                      static_cast<int>(n.instance_discover_count_at_periodic_scandir),
                      static_cast<int>(n.tqp_errors_count));
}

// --- numbers of the instances ------------------------------------------------------------------------------------

static void tqp_reset_monitor_data(tqp_instance_mon_stat_info_t *n) WLLB_REQUIRES(n->tqp_instance_mon_str_lock) {
  tqp_add_up_counts(n); // metrics go on where samples begin anew
  for (uint32_t *count : {&n->entry_record_missing_count, &n->invalid_method_timestamp_count, &n->invalid_rawdata_count,
                          &n->metadata_recovery_req_count, &n->large_flowpaths_count, &n->prv_partition_flowpath_count,
                          &n->older_partition_flowpath_count, &n->dead_flowpath_count, &n->processed_flowpath_count,
                          &n->raw_data_processed_size_mb})
    *count = 0;
  for (uint32_t &count : n->added_up)
    count = 0;
}

// Read and cleared in one hold, so that nothing is lost between. The rate is meant for intervals of whole minutes; below
// one it is what a division by zero gives.
static void put_instance_line(std::string *buf, tqp_instance_t *inst) {
  const double whole_minutes = fp_stats_mon_frequency / 60000; // NOLINT(bugprone-integer-division): whole ones
  tqp_instance_mon_stat_info_t &n = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(n.tqp_instance_mon_str_lock);
  *buf +=
      wllb_format("%d:%s|%d %d %d %d %d %d %d %d %d %d %f\n", inst->appID, inst->tier_server_app_name,
                  static_cast<int>(n.entry_record_missing_count), static_cast<int>(n.invalid_method_timestamp_count),
                  static_cast<int>(n.invalid_rawdata_count), static_cast<int>(n.metadata_recovery_req_count),
                  static_cast<int>(n.large_flowpaths_count), static_cast<int>(inst->test_run_swtch_flag),
                  static_cast<int>(n.prv_partition_flowpath_count), static_cast<int>(n.older_partition_flowpath_count),
                  static_cast<int>(n.dead_flowpath_count), static_cast<int>(n.processed_flowpath_count),
                  n.raw_data_processed_size_mb / (1048576.0 * whole_minutes));
  tqp_reset_monitor_data(&n);
}

static void put_instance_lines(std::string *buf) {
  tqp_for_each_instance([&](tqp_instance_t *inst) {
    if (inst->appName) // else its ids are not known either
      put_instance_line(buf, inst);
  });
}

// --- samples -----------------------------------------------------------------------------------------------------

// The text for the monitor that owns `fd`; its length.
static size_t fill_monitor_stat_buffer(std::string *buf, int fd) {
  buf->reserve(10240);
  if (wllb_mon_reg_is_my_fd(mrcptr_main.con, fd))
    put_process_line(buf);
  else if (wllb_mon_reg_is_my_fd(mrcptr_inst.con, fd))
    put_instance_lines(buf);
  return buf->size();
}

static void send_sample(monitor_link *link) {
  std::string sample;
  if (fill_monitor_stat_buffer(&sample, link->con->mon_reg_fd) > 0)
    tqp_link_send(link, sample);
}

static void send_tqp_mon_data_to_wl() {
  if (!tqp_link_ready(&mrcptr_main))
    return;
  get_meta_data_size_and_instance_lag_count();
  send_sample(&mrcptr_main);
  if (tqp_enable_auto_mon_instance_reg && tqp_link_ready(&mrcptr_inst))
    send_sample(&mrcptr_inst);
}

// --- the thread --------------------------------------------------------------------------------------------------

// 0 is the monitor of the process, 1 that of the instances.
static void tqp_mon_reg_init(int type) {
  if (type != 0 && type != 1) {
    wllb_trace(1, "Error", "TQP_HEALTH_MON, Error: Invalid TQP monitor connection type for gdf %s is %d", "", type);
    return;
  }
  monitor_link *link = type == 0 ? &mrcptr_main : &mrcptr_inst;
  link->epoll_fd = tqp_mon_epoll_fd;
  tqp_link_begin(link);
}

static void manage_wl_fd_in_epoll() {
  while (wl_status == WL_RUNNING) {
    if (tqp_sample_is_due(last_sample_sent_time)) {
      send_tqp_mon_data_to_wl();
      last_sample_sent_time = wllb_monotonic_s();
    }
    tqp_links_wait(tqp_mon_epoll_fd, {&mrcptr_main, &mrcptr_inst}, 2, 1000);
  }
}

void *init_tqp_monitor(void * /*arg*/) {
  tqp_mon_epoll_fd = tqp_links_epoll(2);
  last_sample_sent_time = 0;
  tqp_mon_reg_init(0);
  if (tqp_enable_auto_mon_instance_reg)
    tqp_mon_reg_init(1);
  wllb_trace(1, "Info", "TQP_HEALTH_MON, Going in epoll_wait  for handle events on mrcptr_main and mrcptr_inst\n");
  manage_wl_fd_in_epoll();
  tqp_link_drop(&mrcptr_main);
  tqp_link_drop(&mrcptr_inst);
  close(tqp_mon_epoll_fd);
  return nullptr;
}
