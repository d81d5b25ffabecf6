// The keyword table: one row for each keyword, and the few functions that serve all rows.
//   In      a line of the keyword file, cut into words
//   Out     the global of the row
//   Thread  main, before any other thread starts
//   Failure a value that a row does not accept gives the row's default; rows with words for it complain in the trace
// A range printed by a complaint, or the default it prints, may differ from what the row tests and sets.
#include "keyword_rows.h"

#include <algorithm>
#include <cstdlib>

namespace {
constexpr int KB = 1024;

// clang-format off
constexpr kw_row rows[] = {
  {.keyword = "TQP_TRACE_LEVEL", .rule = KW_RANGE, .min = 0, .max = 4, .value = &tq_trace_level, .def = 1,
   .complaint = "TQP_TRACE_LEVEL allowed range is  between  0 and 4, read value = %s, setting default value = %d"},
  {.keyword = "TQP_EXTENDED_METADATA", .rule = KW_FLAG, .value = &tqp_extended_metadata, .def = 0,
   .complaint = "TQP_EXTENDED_METADATA allowed values are 0 and 1 read value = %s, setting default value = %d"},
  {.keyword = "TQP_OMIT_NON_WL_FLOWPATHS", .rule = KW_TRUTH, .value = &omit_non_wl_flowpaths, .def = 0, .fixed = true},
  {.keyword = "TQP_EXCLUDE_FLOWPATHS_OUTSIDE_TESTIDX", .rule = KW_TRUTH, .value = &exclude_flowpaths_outside_testidx, .def = 0, .fixed = true},
  {.keyword = "TQP_TR_RUNNING_STATUS_POLL_INTERVAL", .rule = KW_RANGE, .min = 1, .value = &tsrun_poll_interval, .def = 10000},
  {.keyword = "TQP_NEW_RAW_DATA_POLL_INTERVAL", .rule = KW_RANGE, .min = 1, .value = &tqp_new_raw_data_poll_interval, .def = 500},
  {.keyword = "TQP_SEQ_BLOB_IN_FILE_FLAG", .rule = KW_FLAG, .value = &tqp_seq_blob_in_file_flag, .def = 1,
   .complaint = "TQP_SEQ_BLOB_IN_FILE_FLAG allowedvalues are 0 or 1, read value = %d, setting default value = %d", .own = kw_set_tqp_seq_blob_in_file_flag},
  {.keyword = "TQP_SEQ_BLOB_IN_FILE_MIN_SIZE", .rule = KW_RANGE, .min = 1, .max = 2000000000, .value = &tqp_seq_blob_in_file_min_size, .def = 64,
   .complaint = "TQP_SEQ_BLOB_IN_FILE_MIN_SIZE allowed between 1 byte and 2000000000 bytes (=2 GB) read value = %d, setting default value = %d"},
  {.keyword = "TQP_SEQ_BLOB_COMPRESSION_BUFFER_INIT_SIZE", .rule = KW_RANGE, .min = 1, .max = 2000000000, .value = &tqp_seq_blob_compression_buffer_init_size, .def = 1024,
   .complaint = "TQP_SEQ_BLOB_COMPRESSION_BUFFER_INIT_SIZE allowed between 1 byte and 2000000000 bytes (=2 GB) read value = %d, setting default value = %d"},
  {.keyword = "TQP_INIT_CONCURRENT_FLOWPATHS", .rule = KW_RANGE, .min = 8, .max = 10485760, .value = &init_concurrent_flowpaths, .def = 64, .fixed = true,
   .complaint = "INIT_CONCURRENT_FLOWPATHS allowed range is  between  8 and 10485760, read value = %s, setting default value = %d"},
  {.keyword = "TQP_DELTA_CONCURRENT_FLOWPATHS", .rule = KW_RANGE, .min = 8, .max = 10485760, .value = &delta_concurrent_flowpaths, .def = 16, .fixed = true,
   .complaint = "TQP_DELTA_CONCURRENT_FLOWPATHS allowed range is  between  8 and 10485760, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_META_DATA_BUFSIZE", .rule = KW_RANGE, .min = 8, .max = 1048576, .unit = KB, .value = &max_buffered_meta_data_bufsize, .def = 65536, .fixed = true,
   .complaint = "MAX_BUFFERED_META_DATA_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_BCI_ARG_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_bci_arg_bufsize, .def = 8192, .fixed = true,
   .complaint = "MAX_BUFFERED_BCI_ARG_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_HTTP_HEADER_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_http_header_bufsize, .def = 65536,
   .complaint = "MAX_BUFFERED_HTTP_HEADER_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_EXCEPTION_DATA_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_excp_data_bufsize, .def = 65536,
   .complaint = "MAX_BUFFERED_EXCEPTION_DATA_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_HTTP_HEADER_MD_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_http_header_md_bufsize, .def = 8192,
   .complaint = "MAX_BUFFERED_HTTP_HEADER_MD_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_FLOWPATH_BUFSIZE", .rule = KW_RANGE, .min = 8, .max = 1048576, .unit = KB, .value = &max_buffered_flowpath_bufsize, .def = 4194304, .fixed = true,
   .complaint = "MAX_BUFFERED_FLOWPATH_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_JMS_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_jms_bufsize, .def = 32768,
   .complaint = "MAX_BUFFERED_JMS_BUFSIZE allowed range is between 8 and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_MEM_ALLOC_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_mem_alloc_table, .def = 16384, .fixed = true,
   .complaint = "MAX_BUFFERED_MEM_ALLOC_BUFSIZE allowed range is between 8 and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_SQL_TABLE_BUFSIZE", .rule = KW_RANGE, .min = 32, .max = 1024, .unit = KB, .value = &max_buffered_sql_table, .def = 32768, .fixed = true,
   .complaint = "MAX_BUFFERED_SQL_TABLE_BUFSIZE allowed range is between 32k and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_SQL_RECORD_TABLE_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_sql_record_table, .def = 16384, .fixed = true,
   .complaint = "MAX_BUFFERED_SQL_RECORD_TABLE_BUFSIZE_DEFAULT allowed range is between 8 and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_DEBUG_LOGFILE_ROLLOVER_SIZE", .rule = KW_RANGE, .min = 1, .max = 102400, .value = &logfile_rollover_size, .def = 100, .fixed = true,
   .complaint = "DEBUG_LOGFILE_ROLLOVER_SIZE allowed range is between  1 (MB)  and 102400 (i.e. 100 GB), read value = %d, setting default value = %d"},
  {.keyword = "TQP_FORCE_UPLOAD_TIMEOUT", .rule = KW_RANGE, .min = 0, .max = 2592000, .value = &force_upload_timeout, .def = 10, .fixed = true,
   .complaint = "force_upload_timeout allowed range is between  0 (Sec)  and 2592000000 (sec) i.e. 30 Days read value = %d, setting default value = %d"},
  {.keyword = "TQP_SECS_TO_MARK_AN_FP_DEAD", .rule = KW_RANGE, .min = 0, .max = 43200, .value = &secs_to_mark_an_fp_dead, .def = 600,
   .complaint = "secs_to_mark_an_fp_dead allowed range is between  0 (Sec)  and 43200 (sec) i.e. 12 Hours read value = %d, setting default value = %d"},
  {.keyword = "TQP_SECS_TO_CLEAN_DEAD_FLOWPATHS", .rule = KW_RANGE, .min = 0, .max = 43200, .value = &secs_to_clean_dead_flowpaths, .def = 60,
   .complaint = "secs_to_clean_dead_flowpaths allowed range is between  0 (Sec)  and 43200 (sec) i.e. 12 Hours read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_CONCURRENT_THREADS_IN_JVM", .rule = KW_ANY, .value = &max_fi_array_entries, .def = 512, .own = kw_set_max_fi_array_entries},
  {.keyword = "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2", .rule = KW_RANGE, .min = 0, .max = 10000000, .value = &max_entry_exit_records_in_an_fp, .def = 1000000,
   .complaint = "MAX_ENTRY_EXIT_RECORDS_IN_AN_FP allowedvalues are between range 0 and 10000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX", .rule = KW_OWN, .own = kw_set_tqp_max_entry_exit_records_in_an_fp_ex},
  {.keyword = "TQP_METHOD_TIMING_CSV_FLUSH_INTERVAL_SECS", .rule = KW_RANGE, .min = 0, .max = 10000000, .value = &method_timing_csv_flush_interval_secs, .def = 300,
   .complaint = "METHOD_TIMING_CSV_FLUSH_INTERVAL_SECS allowedvalues are between range 0 and 10000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_LOWER_PROCESS_PRIORITY_FLAG", .rule = KW_FLAG, .value = &lower_process_priority_flag, .def = 0,
   .complaint = "LOWER_PROCESS_PRIORITY_FLAG allowedvalues are 0 or 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_DISABLE_DUMPING_CAPTURED_HTTP_BODY", .rule = KW_FLAG, .value = &disable_dumping_captured_http_body, .def = 0,
   .complaint = "DISABLE_DUMPING_CAPTURED_HTTP_BODY allowedvalues are 0 or 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_FORCE_ADD_URC_FOR_WL_FPI_IN_MAPPING_RECORD", .rule = KW_FLAG, .value = &force_add_urc_for_wl_fpi_in_mapping_record, .def = 0,
   .complaint = "force_add_urc_for_wl_fpi_in_mapping_record allowedvalues are 0 or 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_DEBUG_LOGLEVEL", .rule = KW_NUMERIC, .value = &tqp_debug_loglevel, .def = 0, .bare = true,
   .complaint = "TQP_DEBUG_LOGLEVEL value is not numeric, set default to 0."},
  {.keyword = "TQP_FORCE_ADD_URC_FOR_MISSING_FP_MAPPING_RECORD", .rule = KW_ANY, .value = &force_add_urc_for_missing_fp_mapping_record, .def = 0},
  {.keyword = "TQP_FREE_FP_MIN_SQB_SIZE", .rule = KW_NON_ZERO, .value = &tqp_free_fp_min_sqb_size, .def = 32768, .bare = true,
   .complaint = "TQP_FREE_FP_MIN_SQB_SIZE value is not numeric, setting default to %d."},
  {.keyword = "MAX_BUFFERED_SQB_BUFSIZE", .rule = KW_RANGE, .min = 8, .max = 1048576, .unit = KB, .value = &max_buffered_sqb_bufsize, .def = 8388608, .shown = 8192,
   .complaint = "MAX_BUFFERED_SQB_BUFSIZE allowed range is between 8 and 1048576K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_GENERATE_FP_SIGNATURES", .rule = KW_ANY, .value = &tqp_generate_fp_signatures, .def = 0},
  {.keyword = "TQDBU_RD_INST_COUNT_AND_SKIP", .rule = KW_ANY, .value = &tqdbu_rd_inst_count, .def = 0, .own = kw_set_tqdbu_rd_inst_count_and_skip},
  {.keyword = "TQP_MIN_RESPTIME_TO_FILTER_L1_FP", .rule = KW_ANY, .value = &tqp_min_resptime_to_filter_l1_fp, .def = 0},
  {.keyword = "TQP_DUMP_URC", .rule = KW_ANY, .value = &tqp_dump_urc, .def = 0},
  {.keyword = "TQ_FPI_MASK", .rule = KW_OWN, .own = kw_set_tq_fpi_mask_row},
  {.keyword = "TQP_META_DATA_RECOVERY_RETRY_TIMEOUT_IN_SEC", .rule = KW_RANGE, .min = 0, .max = 2000000000, .value = &tqp_meta_data_recovery_retry_timeout_in_sec, .def = 60,
   .complaint = "TQP_META_DATA_RECOVERY_RETRY_TIMEOUT_IN_SEC allowed between 0 seconds and 2000000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_SUC_META_DATA_REQ_COUNT_PER_PARTITION", .rule = KW_ANY, .value = &tqp_max_suc_meta_data_req_count_per_partition, .def = 100},
  {.keyword = "TQP_MAP_UNKNOWN_SQL_QUERY_TO_CUSTOM_QUERY_STR", .rule = KW_OWN, .own = kw_set_tqp_map_unknown_sql_query_to_custom_query_str},
  {.keyword = "TQP_SQL_START_NORM_ID", .rule = KW_RANGE, .min = 0, .max = 2000000000, .value = &tqp_sql_start_norm_id, .def = 0,
   .complaint = "TQP_SQL_START_NORM_ID allowed between 0 and 2000000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_ENABLE_SQL_TIMING", .rule = KW_FLAG, .value = &tqp_enable_sql_timing, .def = 1,
   .complaint = "TQP_ENABLE_SQL_TIMING allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_ENABLE_SQL_RECORD", .rule = KW_FLAG, .value = &tqp_enable_sql_record, .def = 0,
   .complaint = "TQP_ENABLE_SQL_RECORD allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_BEGIN_SEQ_LEN", .rule = KW_NUMERIC, .value = &tqp_max_begin_seq_len, .def = 8912, .bare = true,
   .complaint = "ERROR: TQP_MAX_BEGIN_SEQ_LEN is not numeric, set default value %d"},
  {.keyword = "TQP_MAX_SQL_INDEX_FROM_BCI", .rule = KW_RANGE, .min = 0, .max = 2000000000, .value = &tqp_max_sql_index_from_bci, .def = 4096,
   .complaint = "TQP_MAX_SQL_INDEX_FROM_BCI allowed read value = %d, setting default value = %d"},
  {.keyword = "TQP_ENABLE_BCIARG", .rule = KW_FLAG, .value = &tqp_enable_bciarg, .def = 1,
   .complaint = "TQP_ENABLE_BCIARG allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQ_RAWDATA_FILE_PATH", .rule = KW_OWN, .own = kw_set_tq_rawdata_file_path},
  {.keyword = "TQ_CSV_FILE_PATH", .rule = KW_OWN, .own = kw_set_tq_csv_file_path},
  {.keyword = "TQP_ENABLE_METADATA_RECOVERY", .rule = KW_FLAG, .value = &tqp_enable_metadata_recovery, .def = 1,
   .complaint = "TQP_ENABLE_METADATA_RECOVERY allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_ALLOW_REQ_DETAIL_BEFORE_SQB_BEGIN_REC", .rule = KW_FLAG, .value = &tqp_allow_req_detail_before_sqb_begin_rec, .def = 1,
   .complaint = "TQP_ALLOW_REQ_DETAIL_BEFORE_SQB_BEGIN_REC allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_FREE_FP_MEM_ON_COMPLETION", .rule = KW_FLAG, .value = &tqp_free_fp_mem_on_completion, .def = 1, .shown = 0,
   .complaint = "TQP_FREE_FP_MEM_ON_COMPLETION allowed values are 0 and 1 read value = %s, setting default value = %d"},
  {.keyword = "TQP_BINARY_FORMAT_FOR_METHOD_TIMING", .rule = KW_FLAG, .value = &tqp_binary_format_for_method_timing, .def = 1,
   .complaint = "TQP_BINARY_FORMAT_FOR_METHOD_TIMING allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQ_ENABLE_CAPTURE_DB_TIMING", .rule = KW_OWN, .own = kw_set_tq_enable_capture_db_timing},
  {.keyword = "ENABLE_FP_STAT_MONITOR", .rule = KW_FLAG, .value = &enable_fp_stat_mon, .def = 0,
   .complaint = "enable_fp_stat_mon allowedbetween 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MEMPOOL_SETTINGS", .rule = KW_ANY, .value = &tqp_mempool_config_mode, .def = 0, .own = kw_set_tqp_mempool_settings},
  {.keyword = "TQP_DELETED_INSTANCE_CLEANUP_DELAY", .rule = KW_OWN, .own = kw_set_tqp_deleted_instance_cleanup_delay},
  {.keyword = "TQP_MON_LARGE_FLOWPATH_METHOD_COUNT", .rule = KW_OWN, .value = &tqp_mon_large_flowpath_method_count, .def = 10000, .own = kw_set_tqp_mon_large_flowpath_method_count},
  {.keyword = "TQP_MONITORS", .rule = KW_OWN, .value = &tqp_enable_auto_mon_reg, .def = 1, .own = kw_set_tqp_monitors},
  {.keyword = "TQP_ENABLE_SQL_METADATA_RECOVERY", .rule = KW_FLAG, .value = &tqp_enable_sql_metadata_recovery, .def = 1},
  {.keyword = "TQP_THRESHOLD_DIFF_BET_FP_AND_ENTRY_MTD_RESPTIME_SEC", .rule = KW_RANGE, .min = 1, .value = &tqp_threshold_diff_bet_fp_and_entry_mtd_resptime, .def = 900},
  {.keyword = "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT", .rule = KW_RANGE, .min = -1, .value = &tqp_num_nonprep_sql_load_at_init, .def = 2500,
   .complaint = "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT allowed ALL or some insigned integer valueread value = %s, setting default value = %d", .own = kw_set_tqp_num_nonprep_sql_load_at_init},
  {.keyword = "TQP_SQL_NONPREP_ROLLOVER_SIZE_MB", .rule = KW_RANGE, .min = 0, .value = &tqp_sql_nonprep_rollover_size_mb, .def = 100},
  {.keyword = "TQP_PERIODIC_SCANDIR_TIME", .rule = KW_OWN, .own = kw_set_tqp_periodic_scandir_time},
  {.keyword = "DEFAULT_TQP_ERRLOG_THROTTLE_INTERVAL_SEC", .rule = KW_RANGE, .min = 11, .max = 86400, .value = &tqp_errlog_throttle_interval, .def = 300},
  {.keyword = "DEFAULT_TQP_APPEND_PARENT_FPI_TO_CORRID", .rule = KW_FLAG, .value = &tqp_append_parent_fpi_to_corrid, .def = 0},
  {.keyword = "TQP_MAX_INSTANCES", .rule = KW_RANGE, .min = 1, .max = 1000000, .value = &tqp_max_instances, .def = 1024},
  {.keyword = "TQP_MAX_FP_SEGMENTS_COUNT", .rule = KW_RANGE, .min = 1, .value = &tqp_max_fp_segments_count, .def = 50000},
  {.keyword = "TQP_SECS_TO_HOLD_FP_FOR_PENDING_ASYNC_RESP", .rule = KW_RANGE, .min = 1, .max = 60, .value = &secs_to_hold_fp_for_pending_async_resp, .def = 60, .bare = true,
   .complaint = "secs_to_clean_seg_array_main_fp allowed range is between  0 (Sec)  and  70(sec)setting default value = %d"},
  {.keyword = "TQP_SEC_TO_CHECK_PENDING_ASYNC_RESP_FP", .rule = KW_RANGE, .min = 1, .max = 60, .value = &sec_to_check_pending_async_resp_fp, .def = 60, .bare = true,
   .complaint = "secs_to_clean_seg_array_main_fp allowed range is between  0 (Sec)  and  70(sec)setting default value = %d"},
  {.keyword = "TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA", .rule = KW_RANGE, .min = 30, .max = 86400, .value = &interval_to_dump_sql_timing_data, .def = 120, .bare = true,
   .complaint = "interval_to_dump_sql_timing_data allowed range is between  30 (Sec)  and  86400(sec)setting default value = %d", .own = kw_set_tqp_interval_to_dump_sql_timing_data},
  {.keyword = "TQP_MAX_CALLOUT_LEN_ALLOWED_IN_KB", .rule = KW_ANY, .value = &tqp_max_callout_len_allowed_in_kb, .def = 512},
  {.keyword = "TQP_ADD_PID_TO_CGROUPS", .rule = KW_FLAG, .value = &tqp_add_pid_to_cgroups, .def = 1},
  {.keyword = "TQP_COPY_RECOVERY_FILES_IN_PARTITIONS", .rule = KW_FLAG, .value = &tqp_copy_recovery_files, .def = 0},
  {.keyword = "TQP_PRINT_SUMMARY_REPORT", .rule = KW_FLAG, .value = &tqp_print_summary_report, .def = 0},
  {.keyword = "TQP_SQL_QUERY_SIMILARITY_PERCENTAGE", .rule = KW_FLAG, .value = &tqp_enable_string_similarity_for_sql, .def = 0, .own = kw_set_tqp_sql_query_similarity_percentage},
};

// clang-format on

// A second row for a keyword could never match.
constexpr bool each_keyword_stands_once() {
  for (const kw_row &row : rows)
    if (std::count_if(std::begin(rows), std::end(rows),
                      [&](const kw_row &other) { return other.keyword == row.keyword; }) != 1)
      return false;
  return true;
}

static_assert(each_keyword_stands_once());

bool kw_accepts(const kw_row &row, const char *word, int given) {
  switch (row.rule) {
  case KW_RANGE:
    return row.min <= given && given <= row.max;
  case KW_FLAG:
    return given == 0 || given == 1;
  case KW_NON_ZERO:
    return given != 0;
  case KW_NUMERIC:
    return wllb_is_numeric(word);
  case KW_ANY:
  case KW_TRUTH:
  case KW_OWN:
    break;
  }
  return true;
}

// Puts `text` in the place of the two bytes at `at`, which is npos for a complaint without that place.
void kw_fill(std::string &message, size_t at, const std::string &text) {
  if (at != std::string::npos)
    message.replace(at, 2, text);
}

void kw_complain(const kw_row &row, const char *word, int given) {
  if (!row.complaint || !wllb_trace_on(1))
    return;
  std::string message = row.complaint;
  // The default first: the word may hold anything, also a percent sign.
  kw_fill(message, message.rfind("%d"), std::to_string(row.shown == kw_shown_as_set ? row.def : row.shown));
  if (const size_t at = message.find('%'); at != std::string::npos)
    kw_fill(message, at, message[at + 1] == 's' ? word : std::to_string(given));
  if (row.bare)
    wllb_trace(1, "Error", "%s", message.c_str());
  else
    kw_error("%s", message.c_str());
}

template <class Wanted> void rows_to_default(Wanted wanted) {
  for (const kw_row &row : rows)
    if (row.value && wanted(row))
      *row.value = row.def;
}
} // namespace

constinit const std::span<const kw_row> kw_rows = rows;

int kw_int(const char *word) {
  return static_cast<int>(
      std::clamp(strtol(word, nullptr, 10), static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}

void kw_error(const char *fmt, ...) {
  if (!wllb_trace_on(1))
    return;
  va_list args;
  va_start(args, fmt);
  const std::string words = wllb_vformat(fmt, args);
  va_end(args);
  wllb_trace(1, "Error", "ERROR: reading configuration file %s. %s", tq_conf_path.c_str(), words.c_str());
}

const kw_row *kw_find_row(std::string_view keyword) {
  for (const kw_row &row : rows)
    if (row.keyword == keyword)
      return &row;
  return nullptr;
}

void kw_set_plain(const kw_row &row, const char *word) {
  const int given = kw_int(word);
  if (kw_accepts(row, word, given)) {
    *row.value = row.rule == KW_TRUTH ? given != 0 : given * row.unit;
  } else {
    *row.value = row.def;
    kw_complain(row, word, given);
  }
}

int kw_apply_row(const kw_row &row, const kw_line &line) {
  if (row.own)
    return row.own(row, line);
  kw_set_plain(row, line.word(1));
  return 0;
}

void tqp_keywords_init() {
  rows_to_default([](const kw_row &) { return true; });
  kw_odd_values_to_default();
}

void tqc_reset_kw_values() {
  rows_to_default([](const kw_row &row) { return !row.own; });
}

void tqp_fix_reset_keywords() {
  rows_to_default([](const kw_row &row) { return row.fixed; });
}
