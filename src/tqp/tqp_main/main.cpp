// tqp: follows the raw data of one test run and turns it into files. This is its start-up, step by step; each step
// builds on those before it.
//   In      the command line, the environment, the test run's directory
//   Out     running instance threads, and after the wait a closed test run
//   Thread  main
//   Failure a step that cannot be done ends the process with its status: 1 for options, keywords and discovery, else -1

#include "keyword_check.h"
#include "output_wait.h"
#include "process_frame.h"
#include "service_report.h"
#include "tag_ids.h"
#include "tqp_fp_stats_mon.h"
#include "tqp_init.h"
#include "tqp_parse_keywords.h"
#include "upload_child.h"
#include "wllb_fail.h"
#include "wllb_partition.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>

static void end_unless_done(int status) {
  if (status != 0)
    wllb_exit(status);
}

static void set_initial_values() {
  wllb_install_new_handler();
  wllb_tune_heap();
  tqp_process_state_init();
  tqp_keywords_init();
  tqp_apply_outside_root();
  tqp_prepare_descriptors();
}

static void note_the_start() {
  pthread_setname_np(pthread_self(), "TQP_MAIN_THREAD");
  init_time = wllb_monotonic_s();
}

static void open_trace_log() {
  trkey = wllb_init_mt_trace_log(wl_wdir, testidx, 0, "tq/logs/tqp_trace.log", 1, 100);
}

static void form_base_dir() {
  base_dir = wllb_format("%s/logs/TR%d/", wl_wdir, testidx);
}

static void save_pid_when_online() {
  if (!tqp_is_offline())
    tqp_save_pid();
}

// Without it every row would seem to belong to a partition long ago, and be dropped.
static void take_epoch_diff(const tqp_command_line &given) {
  if (g_vex_epoc_diff || wllb_read_epoch_diff(base_dir.c_str(), &g_vex_epoc_diff) || given.has_epoch_diff)
    return;
  wllb_fail(-1, "'%s' is missing or holds no number, and no epoch difference is given with -e",
            wllb_epoch_diff_path(base_dir.c_str()).c_str());
}

static void read_keywords() {
  const std::string path = tqp_find_keyword_file();
  std::string err_msg;
  if (read_config_file_and_parse_tq_keywords(path.c_str(), &err_msg) >= 0)
    return kw_warn_of_findings(path.c_str());
  wllb_trace(1, "Error", "Error: Could not read tq.conf for parsing keywords: file path: '%s', Error: '%s'",
             path.c_str(), err_msg.c_str());
  wllb_fail(1, "keyword file %s: %s", path.c_str(),
            wllb_is_regular_file(path.c_str()) ? err_msg.c_str() : "it is missing, or no plain file");
}

// Whole polls of a second first, then seconds: an interval above a second gives 0.
static void count_idle_rounds() {
  g_sleep_count_to_dump_fp = secs_to_mark_an_fp_dead * (1000 / std::max(tqp_new_raw_data_poll_interval, 1));
}

static void take_trace_level(const tqp_command_line &given) {
  if (trkey)
    wllb_change_atb_mt_trace_log_core(trkey, tq_trace_level, logfile_rollover_size);
  wllb_trace(1, "Info", "The process tqp was started with following command line: '%s'", given.text.c_str());
}

static void form_time_stamp_mask() {
  ts_org_mask = tqe_ts_mask_num << (static_cast<unsigned>(tqe_seqno_of_bits) % 64);
}

static void clear_health_numbers() {
  const wllb_hold hold(tqp_mon_stat_info_mutex);
  tqp_mon_stat_info = {};
}

static void discover_instances() {
  if (tqp_discover_instances(0) >= 0)
    return;
  wllb_trace(1, "Error", "Error in discover instance");
  wllb_fail(1, "the instances of %s cannot be discovered; the trace log says why", base_dir.c_str());
}

static void start_upload_child() {
  if (dbmode != 1)
    return;
  spawn_tqu_db_upload();
  tqu_db_spawned = 1;
}

// Totals of the run before; the statistics go on from them.
static void take_over_totals() {
  if (enable_fp_stat_mon && set_cummulative_count() == 0)
    wllb_trace(1, "Info", "Cummulative count read and set from file for instances.");
}

static void limit_upload_restarts() {
  if (tqp_init_upload_recovery() == 0)
    return;
  fputs("Error in init_component_recovery_data ().\n", stderr);
  wllb_exit(-1);
}

static void lower_priority_when_active() {
  if (lower_process_priority_flag && tqp_test_is_active())
    tqp_lower_priority();
}

static void mark_method_timing_format() {
  if (tqp_binary_format_for_method_timing)
    tqp_make_method_timing_marker();
}

static int open_wait() {
  wllb_trace(1, "Info", "Going in epoll");
  return tqp_epoll_init(1);
}

// From nothing to the test run's facts.
static void find_test_run(int argc, char **argv, tqp_command_line *given) {
  tqp_start_signals();
  note_the_start();
  if (const auto status = tqp_parse_command_line(argc, argv, given))
    wllb_exit(*status);
  end_unless_done(tqp_take_working_directory(*given));
  open_trace_log();
  form_base_dir();
  end_unless_done(tqp_check_partition_range(given));
  take_epoch_diff(*given); // before another process is asked to leave
  save_pid_when_online();
  read_owner_group();
  get_machine_config(&machine_mode);
  tqp_find_partitions();
  tqp_warn_of_starting_over();
  init_folly_hash();
}

static void configure(const tqp_command_line &given) {
  read_keywords();
  count_idle_rounds();
  tqp_add_pid_to_cgroup();
  take_trace_level(given);
  tqp_get_disk_path();
  tqp_get_auto_mon_reg_flag();
}

// From here on instance threads run.
static void begin_work(const tqp_command_line &given) {
  tqp_init(given.online_flag);
  form_time_stamp_mask();
  tqp_make_version_marker();
  clear_health_numbers();
  discover_instances();
  start_upload_child();
  take_over_totals();
  lower_priority_when_active();
  limit_upload_restarts();
  mark_method_timing_format();
  tqp_start_service_threads();
}

int main(int argc, char **argv) {
  set_initial_values();
  tqp_command_line given;
  find_test_run(argc, argv, &given);
  configure(given);
  begin_work(given);
  const int epfd = open_wait();
  tqp_start_service_report();
  tqp_main_loop(epfd);
  tqp_shutdown(epfd);
  return 0;
}
