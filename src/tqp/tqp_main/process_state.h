// State of the process: the command line's values, the partition, the registry of instances, the norm tables, the
// common files, and the locks that guard them.
//   Owner   process_state.cpp defines each with its initial value; tqp_process_state_init sets them all again
//   Locks   check_and_create_partition_done_file_mutex is taken first; then key_tsa_name_mutex, tqp_imap_lock or
//           tqp_mon_stat_info_mutex, one at a time. The locks of tables and files are held around a single call
#pragma once

#include "file_slots.h"
#include "tqp_instance.h"

#include "wllb_get_norm_obj_id.h"
#include "wllb_string_table.h"
#include "wllb_thread.h"

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

// --- the state every thread looks at -------------------------------------------------------------------------
enum wl_status_values { WL_OVER = 0, WL_RUNNING = 1, WL_STOP_NOW = 3 };

extern wllb_relaxed<char> wl_status; // changed by tqp_set_wl_status alone, which wakes all who sleep

// --- command line ---------------------------------------------------------------------------------------------
extern int testidx;                      // -t
extern char wl_wdir[512];                // -W or WL_WDIR
extern std::string base_dir;             // "%s/logs/TR%d/" of wl_wdir and testidx
extern int tqc_port;                     // -l; -1: no collector
extern char tqc_ipaddr[65];              // -I
extern int wl_pid;                       // -N; below 1: no parent
extern int resume_flag;                  // -r; 1: go on from the offset files
extern int64_t start_partition_idx;      // -P; above 0: offline
extern int64_t end_partition_idx;        // -E
extern int64_t g_vex_epoc_diff;          // -e; s
extern int64_t g_wl_time_stamp_ms;       // -S; ms
extern char g_tq_vector_separator;       // -V
extern int force_write_in_meta_data_csv; // -f
extern int fp_stats_mon_frequency;       // -i; ms
extern int dbmode;                       // -m; 1: the upload child is run

// An offline run goes over a chosen range of partitions: no offsets, no pid file, no recovery files of its own.
inline bool tqp_is_offline() {
  return start_partition_idx > 0;
}

// --- partition ------------------------------------------------------------------------------------------------
extern std::atomic<int64_t> g_partition_idx;          // the newest partition the process knows
extern std::string g_cur_partition;                   // the same as text; main, then the control thread
extern std::atomic<int64_t> g_process_done_partition; // lower bound for resuming

// --- installation ---------------------------------------------------------------------------------------------
extern int ownerid, grpid;              // owner and group of every file made; -1: left alone
extern std::string machine_mode;        // CONFIG word of the machine; "TQE..." lets recovery files be removed
extern std::string disk_processed_path; // other disk for binary output; empty: none
extern int tqp_enable_health_mon;
extern time_t init_time;
extern uint64_t ts_org_mask;         // selects the time stamp bits of a flowpath number
extern int g_sleep_count_to_dump_fp; // idle poll rounds until incomplete flowpaths are dumped

// Fixed paths outside the test run; tests point them elsewhere.
struct tqp_outside_paths {
  std::string machine_conf_dir;    // "/home/vexorium/etc"
  std::string cgroup_dir;          // "/sys/fs/cgroup/cpu/LimitCPU/"
  std::string function_group_file; // "/tmp/fngrp.<pid>"
  std::string trace_level_conf;    // "/tmp/trace_level.conf"
  std::string dump_request_file;   // "/tmp/tqp_dump_loc2norm_maps.txt"
};

extern tqp_outside_paths outside_paths;

// --- signal flags: written by handlers, read by main -------------------------------------------------------
extern std::atomic<int> sigchild, sig_stop_comp, sig_test_post_proc, sig_trace_level_change, sig_dump_loc2norm_maps,
    sig_dump_cur_proccesing_status;

// --- registry of instances ------------------------------------------------------------------------------------
extern wllb_mutex tqp_imap_lock;
extern std::vector<tqp_instance_t *> tqp_imap WLLB_GUARDED_BY(tqp_imap_lock); // by jvmid; null: free place
extern int total_instances WLLB_GUARDED_BY(tqp_imap_lock);                    // indices ever handed out
extern int total_num_running_threads WLLB_GUARDED_BY(tqp_imap_lock);
extern wllb_mp_handler tqp_instance_pool; // made with its own lock
extern wllb_mutex check_and_create_partition_done_file_mutex;
extern std::shared_ptr<FILE>
    tqpdone_fileptr_v2 WLLB_GUARDED_BY(check_and_create_partition_done_file_mutex); // the newest done file
extern std::set<int64_t> g_left_partitions
    WLLB_GUARDED_BY(check_and_create_partition_done_file_mutex); // left by somebody, while others may be there yet
extern std::set<std::pair<int64_t, std::string>> g_files_read
    WLLB_GUARDED_BY(check_and_create_partition_done_file_mutex); // partition, instance: read to the end in this process

// The running thread's instance; null on the main, control and monitor threads.
extern thread_local tqp_instance_t *tqp_instance_tptr;

// --- numbers of the health monitor, under tqp_mon_stat_info_mutex ------------------------------------------
struct tqp_mon_stat_info_t {
  // sizes of the common metadata files, MB
  float http_header_meta_data_file_size_mb;
  float tq_functional_group_meta_data_file_size_mb;
  float tq_ip_resource_meta_data_file_size_mb;
  float tq_exception_throwing_method_meta_data_file_size_mb;
  float tq_exception_throwing_class_meta_data_file_size_mb;
  float tq_exception_stacktrace_meta_data_file_size_mb;
  float tq_exception_message_meta_data_file_size_mb;
  float tq_exception_class_meta_data_file_size_mb;
  float tq_exception_cause_meta_data_file_size_mb;
  float tq_metadata_meta_data_file_size_mb;
  float tq_url_table_meta_data_file_size_mb;
  float tq_sql_meta_data_file_size_mb;
  uint32_t process_done_lag_count;                      // partitions begun minus partitions done
  uint32_t instances_lag_count;                         // deleted instances behind the newest partition
  uint64_t scandir_ex_time_usec;                        // duration of the last directory scan
  uint32_t instance_discover_count_at_periodic_scandir; // instances found by timed scans
  uint32_t tqp_errors_count;                            // errors since the last sample
};

extern wllb_mutex tqp_mon_stat_info_mutex;
extern tqp_mon_stat_info_t tqp_mon_stat_info WLLB_GUARDED_BY(tqp_mon_stat_info_mutex);

// --- norm id tables, each under its own mutex ----------------------------------------------------------------
extern wllb_mutex key_signature_mutex, key_method_id_mutex, key_class_id_mutex, key_package_id_mutex,
    key_resource_id_mutex, key_http_header_id_mutex, key_excp_cls_id_mutex, key_excp_thr_cls_id_mutex,
    key_excp_thr_mtd_id_mutex, key_excp_msg_id_mutex, key_excp_st_id_mutex, key_excp_cause_id_mutex, key_bci_arg_mutex,
    key_url_id_mutex, key_sql_query_mutex, key_auto_topo_mutex, key_tsa_name_mutex;
extern NormObjKey key_signature WLLB_GUARDED_BY(key_signature_mutex);
extern NormObjKey key_method_id WLLB_GUARDED_BY(key_method_id_mutex);
extern NormObjKey key_class_id WLLB_GUARDED_BY(key_class_id_mutex);
extern NormObjKey key_package_id WLLB_GUARDED_BY(key_package_id_mutex);
extern NormObjKey key_resource_id WLLB_GUARDED_BY(key_resource_id_mutex);
extern NormObjKey key_http_header_id WLLB_GUARDED_BY(key_http_header_id_mutex);
extern NormObjKey key_excp_cls_id WLLB_GUARDED_BY(key_excp_cls_id_mutex);
extern NormObjKey key_excp_thr_cls_id WLLB_GUARDED_BY(key_excp_thr_cls_id_mutex);
extern NormObjKey key_excp_thr_mtd_id WLLB_GUARDED_BY(key_excp_thr_mtd_id_mutex);
extern NormObjKey key_excp_msg_id WLLB_GUARDED_BY(key_excp_msg_id_mutex);
extern NormObjKey key_excp_st_id WLLB_GUARDED_BY(key_excp_st_id_mutex);
extern NormObjKey key_excp_cause_id WLLB_GUARDED_BY(key_excp_cause_id_mutex);
extern NormObjKey key_bci_arg WLLB_GUARDED_BY(key_bci_arg_mutex);
extern NormObjKey key_url_id WLLB_GUARDED_BY(key_url_id_mutex);
extern NormObjKey key_sql_query WLLB_GUARDED_BY(key_sql_query_mutex);
extern NormObjKey key_sql_nonprep_query WLLB_GUARDED_BY(key_sql_query_mutex);
extern NormObjKey key_get_table_map;
extern NormObjKey key_auto_topo_discovery_src WLLB_GUARDED_BY(key_auto_topo_mutex);
extern NormObjKey key_tsa_name WLLB_GUARDED_BY(key_tsa_name_mutex); // raw file name -> jvmid
extern wllb_string_table *key_tags;
extern std::atomic<uint32_t> count_tags; // highest tag id given out

// --- common metadata files ------------------------------------------------------------------------------------
extern wllb_mutex metadata_csv_lock[__NUM_METADATA_CSV_IDX__]; // one for each stream below
extern FILE *metadata_csv_fp[__NUM_METADATA_CSV_IDX__];        // null: closed
extern wllb_mutex sqb_dir_lock, mt_dat_dir_lock;               // creation of a partition's directories

// --- summary report -------------------------------------------------------------------------------------------
extern wllb_mutex summary_report_mutex;
extern int64_t agg_sum_rep_counters[__NUM_SUM_REP_CNT__];

// Sets everything above to its initial value. Called by main and by test fixtures, before any thread starts.
void tqp_process_state_init();
