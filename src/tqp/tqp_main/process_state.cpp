// Owner of the process's state: every global with its initial value, and the one function that sets them all again.
//   In      nothing
//   Out     the globals of process_state.h
//   Thread  main, before there are others; what others may touch later says so in the header
//   Failure none

#include "process_state.h"

#include "process_wake.h"

#include <cstring>
#include <unistd.h>

wllb_relaxed<char> wl_status(WL_RUNNING);

int testidx;
char wl_wdir[512];
std::string base_dir;
int tqc_port;
char tqc_ipaddr[65];
int wl_pid;
int resume_flag;
int64_t start_partition_idx, end_partition_idx;
int64_t g_vex_epoc_diff;
int64_t g_wl_time_stamp_ms;
char g_tq_vector_separator;
int force_write_in_meta_data_csv;
int fp_stats_mon_frequency;
int dbmode;

std::atomic<int64_t> g_partition_idx;
std::string g_cur_partition;
std::atomic<int64_t> g_process_done_partition;

int ownerid, grpid;
std::string machine_mode;
std::string disk_processed_path;
int tqp_enable_health_mon;
time_t init_time;
uint64_t ts_org_mask;
int g_sleep_count_to_dump_fp;
tqp_outside_paths outside_paths;

std::atomic<int> sigchild, sig_stop_comp, sig_test_post_proc, sig_trace_level_change, sig_dump_loc2norm_maps,
    sig_dump_cur_proccesing_status;

wllb_mutex tqp_imap_lock;
std::vector<tqp_instance_t *> tqp_imap;
int total_instances;
int total_num_running_threads;
wllb_mp_handler tqp_instance_pool;
wllb_mutex check_and_create_partition_done_file_mutex;
std::shared_ptr<FILE> tqpdone_fileptr_v2;
std::set<int64_t> g_left_partitions;
std::set<std::pair<int64_t, std::string>> g_files_read;
thread_local tqp_instance_t *tqp_instance_tptr;

wllb_mutex tqp_mon_stat_info_mutex;
tqp_mon_stat_info_t tqp_mon_stat_info;

wllb_mutex key_signature_mutex, key_method_id_mutex, key_class_id_mutex, key_package_id_mutex, key_resource_id_mutex,
    key_http_header_id_mutex, key_excp_cls_id_mutex, key_excp_thr_cls_id_mutex, key_excp_thr_mtd_id_mutex,
    key_excp_msg_id_mutex, key_excp_st_id_mutex, key_excp_cause_id_mutex, key_bci_arg_mutex, key_url_id_mutex,
    key_sql_query_mutex, key_auto_topo_mutex, key_tsa_name_mutex;
NormObjKey key_signature, key_method_id, key_class_id, key_package_id, key_resource_id, key_http_header_id,
    key_excp_cls_id, key_excp_thr_cls_id, key_excp_thr_mtd_id, key_excp_msg_id, key_excp_st_id, key_excp_cause_id,
    key_bci_arg, key_url_id, key_sql_query, key_sql_nonprep_query, key_get_table_map, key_auto_topo_discovery_src,
    key_tsa_name;
wllb_string_table *key_tags;
std::atomic<uint32_t> count_tags;

wllb_mutex metadata_csv_lock[__NUM_METADATA_CSV_IDX__];
FILE *metadata_csv_fp[__NUM_METADATA_CSV_IDX__];
wllb_mutex sqb_dir_lock, mt_dat_dir_lock;

wllb_mutex summary_report_mutex;
int64_t agg_sum_rep_counters[__NUM_SUM_REP_CNT__];

static void command_line_init() {
  testidx = 0;
  snprintf(wl_wdir, sizeof wl_wdir, "%s", "/home/vexorium/work");
  base_dir.clear();
  tqc_port = -1;
  snprintf(tqc_ipaddr, sizeof tqc_ipaddr, "%s", "127.0.0.1");
  wl_pid = 0;
  resume_flag = 1;
  start_partition_idx = end_partition_idx = 0;
  g_vex_epoc_diff = 0;
  g_wl_time_stamp_ms = 0;
  g_tq_vector_separator = 0;
  force_write_in_meta_data_csv = 0;
  fp_stats_mon_frequency = 10000;
  dbmode = 1;
}

static void installation_init() {
  ownerid = grpid = -1;
  machine_mode.clear();
  disk_processed_path.clear();
  tqp_enable_health_mon = 0;
  init_time = 0;
  ts_org_mask = 0;
  g_sleep_count_to_dump_fp = 0;
  outside_paths = {.machine_conf_dir = "/home/vexorium/etc",
                   .cgroup_dir = "/sys/fs/cgroup/cpu/LimitCPU/",
                   .function_group_file = "/tmp/fngrp." + std::to_string(getpid()),
                   .trace_level_conf = "/tmp/trace_level.conf",
                   .dump_request_file = "/tmp/tqp_dump_loc2norm_maps.txt"};
}

// Only before threads start, hence no locks.
static void tables_and_files_init() WLLB_NO_THREAD_CHECK {
  tqp_imap.clear();
  total_instances = total_num_running_threads = 0;
  tqpdone_fileptr_v2.reset();
  g_left_partitions.clear();
  g_files_read.clear();
  tqp_instance_tptr = nullptr;
  tqp_mon_stat_info = {};
  key_tags = nullptr;
  count_tags = 0;
  memset(metadata_csv_fp, 0, sizeof metadata_csv_fp);
  memset(agg_sum_rep_counters, 0, sizeof agg_sum_rep_counters);
}

void tqp_process_state_init() {
  tqp_reset_wl_status();
  command_line_init();
  g_partition_idx = 0;
  g_cur_partition.clear();
  g_process_done_partition = 0;
  installation_init();
  for (std::atomic<int> *flag : {&sigchild, &sig_stop_comp, &sig_test_post_proc, &sig_trace_level_change,
                                 &sig_dump_loc2norm_maps, &sig_dump_cur_proccesing_status})
    *flag = 0;
  tables_and_files_init();
}
