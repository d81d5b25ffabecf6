// The record of one application instance: everything its thread knows.
//   Owned   by its thread from discovery until the thread leaves; a slot of tqp_instance_pool, reached by the thread
//           through tqp_instance_tptr and by others through tqp_imap, the latter only while holding tqp_imap_lock
//   Others  read and write only the fields whose comment says so
#pragma once

#include "event_ids.h"
#include "file_slots.h"
#include "flowpath_records.h"
#include "map_records.h"

#include "wllb_alloc.h"
#include "wllb_mem_pool.h"
#include "wllb_thread.h"

#include <cstdio>
#include <memory>

// Errors of one class that are told at most once an interval.
struct rawerr_log_counter_t {
  int32_t g_count;            // errors since the last hand-over to the health monitor
  int32_t throttle_count;     // errors since the last written line; 0: the next one is written at once
  int64_t throttle_timestamp; // ms, monotonic clock, of the last written line
};

enum tqp_raw_data_error_types { RAWERR_META_DATA = 0, RAWERR_SQB_TIMING = 1, __NUM_RAWERR_TYPES__ = 2 };

// Value of enable_flag for a deleted instance.
constexpr int INSTANCE_DELETE = 4;

// Finished flowpaths. The first four cover the interval since the monitor took the numbers.
struct fp_stat_data {
  uint64_t min_duration = UINT64_MAX; // ms; all ones: unset
  uint64_t max_duration = 0;
  uint64_t total_duration = 0;
  uint64_t fp_counts = 0;
  uint64_t total_fp_counts = 0;    // over restarts, too
  uint64_t total_data_process = 0; // bytes of raw data that were reported so far
};

constexpr double db_query_min_unset = 18446744073709551616.0;

// Calls of one kind of query since the monitor took the numbers.
struct db_query_stat_data {
  double min_duration = db_query_min_unset; // ms
  double max_duration = 0;
  double total_duration = 0;
  uint64_t query_counts = 0;
};

// Beside the slot table: finds a flowpath's slot and the lowest free one without walking the table.
struct fp_slot_index_t {
  wllb_zarray<int32_t> places; // open addressing by main_fpi, slot + 1; 0: free
  int32_t taken;               // places in use
  wllb_zarray<uint64_t> busy;  // one bit a slot
};

// What monitors read of an instance. Under tqp_instance_mon_str_lock.
struct tqp_instance_mon_stat_info_t {
  wllb_mutex tqp_instance_mon_str_lock;
  uint32_t invalid_rawdata_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0; // bad records
  uint32_t entry_record_missing_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0;
  uint32_t metadata_recovery_req_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0; // requests to the agent
  uint32_t invalid_method_timestamp_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0;
  uint32_t large_flowpaths_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0; // records of large flowpaths
  uint32_t prv_partition_flowpath_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0;
  uint32_t older_partition_flowpath_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0;
  uint32_t dead_flowpath_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0;
  uint32_t processed_flowpath_count WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0;
  uint32_t raw_data_processed_size_mb WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = 0; // bytes, in spite of its name
  // The same ten since the instance came, in the order of the metrics' rows, and how far they have been added up.
  uint64_t totals[10] WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = {};
  uint32_t added_up[10] WLLB_GUARDED_BY(tqp_instance_mon_str_lock) = {};
};

struct tqp_instance_t {
  wllb_mp_slot slot; // the pool's; never cleared

  // --- identity: discovery sets the name, the identity record the rest ---------------------------------------
  int jvmid = 0;              // index in tqp_imap
  char *tierName = nullptr;   // owned
  char *serverName = nullptr; // owned
  char *appName = nullptr;    // owned
  int tierID = 0;
  int serverID = 0;
  int appID = 0;                        // stands in the output rows
  char *tier_server_app_name = nullptr; // owned; name of the raw data file without ".txt"
  float fpg_version = 0;                // 0: not told; below 2: old metadata request
  int agent_type = 0;                   // 0 JAVA, 1 DOTNET, 2 NODEJS, -1 anything else

  // --- partition position: the instance thread ----------------------------------------------------------------
  char partition_name[64] = "";
  char prev_partition_name[64] = "";
  std::atomic<int64_t> partition_idx{0}; // partition_name as number; read by other threads
  std::atomic<int64_t> prev_partition_idx{0};
  int64_t resumed_partition = 0;     // where a restarted instance went on; 0: not restarted
  long partition_begintime = 0;      // seconds of the test's epoch
  long prev_partition_begintime = 0; // 0: no previous partition
  // Done file of the previous partition once it exists; under check_and_create_partition_done_file_mutex. A stream
  // stays open as long as somebody holds it.
  std::shared_ptr<FILE> prev_tqpdone_fileptr_v2;

  // --- output files: the instance thread ----------------------------------------------------------------------
  FILE *csv_file_pointers[__NUM_CSV_FILE_POINTERS__] = {}; // null: closed
  FILE *prev_csv_file_pointers[__NUM_CSV_FILE_POINTERS_WITH_TIME_CONSTRAINT__] = {};
  int num_raw_metadata = 0;
  char flag_close_done = 0;          // 1: tq_close_app_instance has run
  char *csvfilepath = nullptr;       // owned; directory of the instance's files, ends with '/'
  char *commoncsvfilepath = nullptr; // owned; directory of the common files, ends with '/'

  // --- counters -----------------------------------------------------------------------------------------------
  int64_t sum_rep_counters[__NUM_SUM_REP_CNT__] = {}; // cleared at each partition switch
  rawerr_log_counter_t rawerr_log_counter[__NUM_RAWERR_TYPES__] = {};
  int64_t g_count_reset_ts = 0;                            // ms, monotonic clock, of the last hand-over
  tqp_instance_mon_stat_info_t tqp_instance_mon_stat_info; // read by the monitors, under its lock

  // --- local id -> norm id; 0 is unknown. The instance thread, by discovery records -------------------------
  wllb_zarray<int> method_map;
  wllb_zarray<int> url_map; // entries carry norm_id_flag
  wllb_zarray<int> bci_arg_id_map;
  wllb_zarray<int> resource_map;
  wllb_zarray<int> tags_map;
  wllb_zarray<int> excp_cls_map;
  wllb_zarray<int> excp_thr_cls_map;
  wllb_zarray<int> excp_thr_mtd_map;
  wllb_zarray<int> excp_msg_map;
  wllb_zarray<int> excp_st_map;
  wllb_zarray<int> excp_cause_map;
  wllb_zarray<http_header_map_t> http_header_map;
  wllb_zarray<sql_query_map_t> sql_query_map; // sorted; sql_query_map_size of them are used
  int sql_query_map_size = 0;
  char sql_first_time = 1;                                     // 1: sql_query_map is not allocated
  int loc2norm_unsaved_flags = 0;                              // bits of loc2norm_bit
  loc2norm_pages_t loc2norm_pages[__NUM_LOC2NORM_BITS__] = {}; // by loc2norm_bit; not used for SQL
  char recovery_file_found = 0;                                // a recovery file was read at start
  char flag_loc2norm_read = 0;                                 // the recovery files were read in this run

  // --- output buffers: the instance thread -------------------------------------------------------------------
  char *metadata_data_buf = nullptr; // owned, max_buffered_meta_data_bufsize bytes
  int metadata_cur_index = 0;
  char *resource_data_buf = nullptr; // owned, max_buffered_resource_meta_data_bufsize bytes
  int resource_cur_index = 0;
  char *http_header_md_data_buf = nullptr; // owned, max_buffered_http_header_md_bufsize bytes
  int http_header_md_cur_index = 0;
  wllb_zarray<char> sql_table_data_buf; // starts at 2048 bytes, doubles

  // --- labels: the instance thread ----------------------------------------------------------------------------
  char *global_attributes = nullptr; // owned; null: none told
  size_t global_attributes_len = 0;  // with the NUL
  char *global_tags = nullptr;       // owned
  size_t global_tags_len = 0;        // with the NUL
  char *global_attr_tags = nullptr;  // owned; both as one JSON object
  size_t global_attr_tags_len = 0;   // without the NUL

  wllb_text sql_record_data_buf = {}; // one row of "TQSQLRecord.csv"
  wllb_text excp_data_buf = {};       // rows held back until four fifths of the told size
  wllb_text http_header_data_buf = {};
  wllb_text bciarg_data_buf = {};
  wllb_text jms_data_buf = {};

  // --- sequence blob file: the instance thread ----------------------------------------------------------------
  FILE *sqb_fp = nullptr;             // null: closed
  FILE *prev_sqb_fp = nullptr;        // the previous partition's
  int64_t sqbfile_offset = 0;         // where the next byte will land, buffered bytes included
  int32_t prev_sqbfile_offset = 0;    // the same for the previous file; note the narrower type
  wllb_text sqb_file_buf = {};        // write-behind buffer, max_buffered_sqb_bufsize bytes
  wllb_text flowpath_sqb_buffer = {}; // compressed text of one call
  wllb_text segment_list_buf = {};    // list of a flowpath's segments while it is put together; then its row
  FILE *flowpath_row_file = nullptr;  // where the row in segment_list_buf goes with the next save; null: there is none

  // --- flowpaths in flight: the instance thread ---------------------------------------------------------------
  wllb_zarray<concurrent_flowpath_t> con_fp_buf; // slots; moves when it grows
  int cur_max_concurrent_flowpaths = 0;          // slots allocated, as told in dumps
  int last_occupied_fp_idx = -1;                 // highest slot that may be in use
  char method_first_time = 1;                    // the slot table is not allocated yet
  fp_slot_index_t fp_slot_index = {};            // which slot has which main_fpi, and which are free
  wllb_zarray<int64_t> recent_fpi_array;         // ring of max_fi_array_entries flowpath numbers
  int cur_fpi_index = 0;                         // next write position of the ring
  time_t last_dead_fp_cleanup_ts = 0;            // s, monotonic clock, of the last sweep
  time_t fp_last_updated_ts_in_sec = 0;          // s, raw data clock
  char bt_category_flag = 0;                     // closing records: 0 not known, 1 without category, 2 with

  // --- numbers of the statistics monitor, which takes and clears them ----------------------------------------
  wllb_mutex fp_stats_mutex;
  fp_stat_data fp_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data total_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data select_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data insert_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data update_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data delete_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data create_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data drop_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  db_query_stat_data other_query_stats WLLB_GUARDED_BY(fp_stats_mutex);
  uint64_t excp_counts WLLB_GUARDED_BY(fp_stats_mutex) = 0;     // exceptions seen in the interval
  char total_fp_counts_due WLLB_GUARDED_BY(fp_stats_mutex) = 0; // 1: the total of the run before is yet to be added

  // --- reader state: the instance thread ---------------------------------------------------------------------
  uint64_t bytes_processed_in_prev_chunks WLLB_GUARDED_BY(fp_stats_mutex) = 0;
  wllb_relaxed<uint32_t> bytes_processed_in_current_chunk; // set for every line, hence no lock of its own
  time_t commentry_time = 0;                               // s, monotonic clock, of the last progress line; 0: none yet
  int64_t raw_data_lines_total_count = 0;                  // lines of the whole file, counted once; 0: not yet
  std::atomic<int64_t> raw_data_file_offset{0};            // bytes of complete lines consumed; read by other threads
  FILE *raw_data_file_offset_fp = nullptr;                 // the offset file
  int64_t saved_offset_len = 0;                            // bytes of the number that stands in it
  char flag_to_update_offset = 0;                          // a save of the offset is due
  char httpbody_file_path_name[2048] = "";                 // captured body being written
  int httpbody_remaining_bytes = 0;                        // 0: none outstanding
  time_t last_timestamp = 0;                               // s, newest time stamp seen in the data
  time_t last_pending_callout_fp_checked_ts = 0;           // s, clock of the data
  char disable_req_metadata_from_bci = 0;                  // metadata requests are paused
  time_t last_meta_data_retry_time_in_sec = 0;             // monotonic clock
  uint16_t meta_recovery_counter = 0;                      // metadata requests in this partition
  int64_t negative_timestamp_count = 0;                    // cleared at each switch
  char first_bad_fp_raw_data_marker_fpg2 = 0;              // one bad-data mark a partition
  wllb_zarray<char> data_buf;                              // work buffer of a record
  wllb_mp_handler tqp_flowpath_seg_pool = {};              // slots of segment_fp_t
  wllb_mp_handler tqp_flowpath_pending_seg_pool = {};      // slots of pending_segment_fp_t

  // --- life ---------------------------------------------------------------------------------------------------
  char get_tsa_id = 0;                // 1: the identity record failed; 2: for another instance has its id
  bool has_identity = false;          // appID is the one of its file; under tqp_imap_lock
  char tq_data_over = 0;              // the file's last record is the end event
  wllb_relaxed<char> active_flag;     // the thread has begun; read by the statistics monitor
  wllb_relaxed<int> enable_flag;      // INSTANCE_DELETE; written by the control thread
  wllb_relaxed<uint32_t> debug_level; // trace mask of this instance; written by the main thread
  wllb_mutex test_run_swtch_mutex;
  wllb_relaxed<int> test_run_swtch_flag; // pending partition switches; changed under test_run_swtch_mutex
  int file_not_present_count = 0;        // partitions in a row without a raw file
};
