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
   .words = "level", .meaning = "how much the trace log holds: 0 nothing, 1 errors and events, 4 everything",
   .complaint = "TQP_TRACE_LEVEL allowed range is  between  0 and 4, read value = %s, setting default value = %d"},
  {.keyword = "TQP_EXTENDED_METADATA", .rule = KW_FLAG, .value = &tqp_extended_metadata, .def = 0,
   .words = "flag", .meaning = "1: TQMetaDataEx.csv is written beside the other metadata",
   .complaint = "TQP_EXTENDED_METADATA allowed values are 0 and 1 read value = %s, setting default value = %d"},
  {.keyword = "TQP_OMIT_NON_WL_FLOWPATHS", .rule = KW_TRUTH, .value = &omit_non_wl_flowpaths, .def = 0, .fixed = true,
   .words = "flag", .meaning = "1: rows of flowpaths that the load generator did not start are left out"},
  {.keyword = "TQP_EXCLUDE_FLOWPATHS_OUTSIDE_TESTIDX", .rule = KW_TRUTH, .value = &exclude_flowpaths_outside_testidx, .def = 0, .fixed = true,
   .words = "flag", .meaning = "once left out flowpaths of other test runs"},
  {.keyword = "TQP_TR_RUNNING_STATUS_POLL_INTERVAL", .rule = KW_RANGE, .min = 1, .value = &tsrun_poll_interval, .def = 10000,
   .words = "ms", .meaning = "longest time between two looks at the parent"},
  {.keyword = "TQP_NEW_RAW_DATA_POLL_INTERVAL", .rule = KW_RANGE, .min = 1, .value = &tqp_new_raw_data_poll_interval, .def = 500,
   .words = "ms", .meaning = "how long an instance waits at the end of its raw file before it reads again"},
  {.keyword = "TQP_SEQ_BLOB_IN_FILE_FLAG", .rule = KW_FLAG, .value = &tqp_seq_blob_in_file_flag, .def = 1,
   .words = "flag, version, MB", .accepted = "0 or 1; A, B or C; 1 or more", .default_text = "1 B 10000", .meaning = "1: the sequence blob file is begun again in each partition; version B: texts are gzip members, A and C: plain; the third word has no effect",
   .complaint = "TQP_SEQ_BLOB_IN_FILE_FLAG allowedvalues are 0 or 1, read value = %d, setting default value = %d", .own = kw_set_tqp_seq_blob_in_file_flag},
  {.keyword = "TQP_SEQ_BLOB_IN_FILE_MIN_SIZE", .rule = KW_RANGE, .min = 1, .max = 2000000000, .value = &tqp_seq_blob_in_file_min_size, .def = 64, .unused = true,
   .words = "bytes", .meaning = "once the smallest blob that went to the file",
   .complaint = "TQP_SEQ_BLOB_IN_FILE_MIN_SIZE allowed between 1 byte and 2000000000 bytes (=2 GB) read value = %d, setting default value = %d"},
  {.keyword = "TQP_SEQ_BLOB_COMPRESSION_BUFFER_INIT_SIZE", .rule = KW_RANGE, .min = 1, .max = 2000000000, .value = &tqp_seq_blob_compression_buffer_init_size, .def = 1024,
   .words = "bytes", .meaning = "first size of the buffer that a blob is compressed into; it grows as needed",
   .complaint = "TQP_SEQ_BLOB_COMPRESSION_BUFFER_INIT_SIZE allowed between 1 byte and 2000000000 bytes (=2 GB) read value = %d, setting default value = %d"},
  {.keyword = "TQP_INIT_CONCURRENT_FLOWPATHS", .rule = KW_RANGE, .min = 8, .max = 10485760, .value = &init_concurrent_flowpaths, .def = 64, .fixed = true,
   .words = "count", .meaning = "slots for flowpaths in flight that an instance begins with",
   .complaint = "INIT_CONCURRENT_FLOWPATHS allowed range is  between  8 and 10485760, read value = %s, setting default value = %d"},
  {.keyword = "TQP_DELTA_CONCURRENT_FLOWPATHS", .rule = KW_RANGE, .min = 8, .max = 10485760, .value = &delta_concurrent_flowpaths, .def = 16, .fixed = true,
   .words = "count", .meaning = "slots for flowpaths in flight that are added when all are taken",
   .complaint = "TQP_DELTA_CONCURRENT_FLOWPATHS allowed range is  between  8 and 10485760, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_META_DATA_BUFSIZE", .rule = KW_RANGE, .min = 8, .max = 1048576, .unit = KB, .value = &max_buffered_meta_data_bufsize, .def = 65536, .fixed = true,
   .words = "KB", .meaning = "write buffer of metadata files",
   .complaint = "MAX_BUFFERED_META_DATA_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_BCI_ARG_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_bci_arg_bufsize, .def = 8192, .fixed = true,
   .words = "KB", .meaning = "write buffer of an instance's file of method arguments and return values",
   .complaint = "MAX_BUFFERED_BCI_ARG_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_HTTP_HEADER_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_http_header_bufsize, .def = 65536,
   .words = "KB", .meaning = "write buffer of an instance's custom data and header files",
   .complaint = "MAX_BUFFERED_HTTP_HEADER_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_EXCEPTION_DATA_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_excp_data_bufsize, .def = 65536,
   .words = "KB", .meaning = "write buffer of an instance's exception file",
   .complaint = "MAX_BUFFERED_EXCEPTION_DATA_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_HTTP_HEADER_MD_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_http_header_md_bufsize, .def = 8192,
   .words = "KB", .meaning = "write buffer of the header metadata",
   .complaint = "MAX_BUFFERED_HTTP_HEADER_MD_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_FLOWPATH_BUFSIZE", .rule = KW_RANGE, .min = 8, .max = 1048576, .unit = KB, .value = &max_buffered_flowpath_bufsize, .def = 4194304, .fixed = true,
   .words = "KB", .meaning = "once the write buffer of flowpath rows",
   .complaint = "MAX_BUFFERED_FLOWPATH_BUFSIZE allowed range is between 8 and 1048576, (units are kilobytes)read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_JMS_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_jms_bufsize, .def = 32768,
   .words = "KB", .meaning = "write buffer of an instance's file of messages",
   .complaint = "MAX_BUFFERED_JMS_BUFSIZE allowed range is between 8 and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_MEM_ALLOC_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_mem_alloc_table, .def = 16384, .fixed = true,
   .words = "KB", .meaning = "once the write buffer of memory allocations",
   .complaint = "MAX_BUFFERED_MEM_ALLOC_BUFSIZE allowed range is between 8 and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_SQL_TABLE_BUFSIZE", .rule = KW_RANGE, .min = 32, .max = 1024, .unit = KB, .value = &max_buffered_sql_table, .def = 32768, .fixed = true,
   .words = "KB", .meaning = "once the write buffer of queries",
   .complaint = "MAX_BUFFERED_SQL_TABLE_BUFSIZE allowed range is between 32k and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_MAX_BUFFERED_SQL_RECORD_TABLE_BUFSIZE", .rule = KW_RANGE, .min = 1, .max = 1024, .unit = KB, .value = &max_buffered_sql_record_table, .def = 16384, .fixed = true,
   .words = "KB", .meaning = "once the write buffer of query records",
   .complaint = "MAX_BUFFERED_SQL_RECORD_TABLE_BUFSIZE_DEFAULT allowed range is between 8 and 1024K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_DEBUG_LOGFILE_ROLLOVER_SIZE", .rule = KW_RANGE, .min = 1, .max = 102400, .value = &logfile_rollover_size, .def = 100, .fixed = true, .read_before_fixing = true,
   .words = "MB", .meaning = "size at which the trace log is moved aside and begun again",
   .complaint = "DEBUG_LOGFILE_ROLLOVER_SIZE allowed range is between  1 (MB)  and 102400 (i.e. 100 GB), read value = %d, setting default value = %d"},
  {.keyword = "TQP_FORCE_UPLOAD_TIMEOUT", .rule = KW_RANGE, .min = 0, .max = 2592000, .value = &force_upload_timeout, .def = 10, .fixed = true,
   .words = "s", .meaning = "longest time between two state saves of an instance that has a backlog",
   .complaint = "force_upload_timeout allowed range is between  0 (Sec)  and 2592000000 (sec) i.e. 30 Days read value = %d, setting default value = %d"},
  {.keyword = "TQP_SECS_TO_MARK_AN_FP_DEAD", .rule = KW_RANGE, .min = 0, .max = 43200, .value = &secs_to_mark_an_fp_dead, .def = 600,
   .words = "s", .meaning = "how long a flowpath in flight, or a whole instance, must be without news before it is written as incomplete; 0: never",
   .complaint = "secs_to_mark_an_fp_dead allowed range is between  0 (Sec)  and 43200 (sec) i.e. 12 Hours read value = %d, setting default value = %d"},
  {.keyword = "TQP_SECS_TO_CLEAN_DEAD_FLOWPATHS", .rule = KW_RANGE, .min = 0, .max = 43200, .value = &secs_to_clean_dead_flowpaths, .def = 60,
   .words = "s", .meaning = "how often flowpaths in flight are searched for dead ones; 0: never",
   .complaint = "secs_to_clean_dead_flowpaths allowed range is between  0 (Sec)  and 43200 (sec) i.e. 12 Hours read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_CONCURRENT_THREADS_IN_JVM", .rule = KW_ANY, .value = &max_fi_array_entries, .def = 512,
   .words = "count", .meaning = "how many finished flowpaths an instance remembers to recognise repeats; below 0 counts as 0", .own = kw_set_max_fi_array_entries},
  {.keyword = "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2", .rule = KW_RANGE, .min = 0, .max = 10000000, .value = &max_entry_exit_records_in_an_fp, .def = 1000000,
   .words = "count", .meaning = "methods of one segment that are kept; the rest of a longer one is cut off",
   .complaint = "MAX_ENTRY_EXIT_RECORDS_IN_AN_FP allowedvalues are between range 0 and 10000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX", .rule = KW_OWN, .unused = true,
   .words = "any", .accepted = "nothing", .default_text = "none", .meaning = "replaced by TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2", .own = kw_set_tqp_max_entry_exit_records_in_an_fp_ex},
  {.keyword = "TQP_METHOD_TIMING_CSV_FLUSH_INTERVAL_SECS", .rule = KW_RANGE, .min = 0, .max = 10000000, .value = &method_timing_csv_flush_interval_secs, .def = 300, .unused = true,
   .words = "s", .meaning = "once the time between two writes of method timings",
   .complaint = "METHOD_TIMING_CSV_FLUSH_INTERVAL_SECS allowedvalues are between range 0 and 10000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_LOWER_PROCESS_PRIORITY_FLAG", .rule = KW_FLAG, .value = &lower_process_priority_flag, .def = 0,
   .words = "flag", .meaning = "1: the process runs at the lowest priority while the test is active",
   .complaint = "LOWER_PROCESS_PRIORITY_FLAG allowedvalues are 0 or 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_DISABLE_DUMPING_CAPTURED_HTTP_BODY", .rule = KW_FLAG, .value = &disable_dumping_captured_http_body, .def = 0,
   .words = "flag", .meaning = "1: captured HTTP bodies are not written (each is a file of its own)",
   .complaint = "DISABLE_DUMPING_CAPTURED_HTTP_BODY allowedvalues are 0 or 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_FORCE_ADD_URC_FOR_WL_FPI_IN_MAPPING_RECORD", .rule = KW_FLAG, .value = &force_add_urc_for_wl_fpi_in_mapping_record, .def = 0,
   .words = "flag", .meaning = "1: URL records also for flowpaths that the load generator started",
   .complaint = "force_add_urc_for_wl_fpi_in_mapping_record allowedvalues are 0 or 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_DEBUG_LOGLEVEL", .rule = KW_NUMERIC, .value = &tqp_debug_loglevel, .def = 0, .bare = true, .unused = true,
   .words = "number", .meaning = "once a level for debugging output",
   .complaint = "TQP_DEBUG_LOGLEVEL value is not numeric, set default to 0."},
  {.keyword = "TQP_FORCE_ADD_URC_FOR_MISSING_FP_MAPPING_RECORD", .rule = KW_ANY, .value = &force_add_urc_for_missing_fp_mapping_record, .def = 0,
   .words = "flag", .meaning = "other than 0: flowpaths whose URL is not known count as those of the default URL"},
  {.keyword = "TQP_FREE_FP_MIN_SQB_SIZE", .rule = KW_NON_ZERO, .value = &tqp_free_fp_min_sqb_size, .def = 32768, .bare = true,
   .words = "bytes", .meaning = "a segment's text buffer above this size is given back as soon as its row is stored",
   .complaint = "TQP_FREE_FP_MIN_SQB_SIZE value is not numeric, setting default to %d."},
  {.keyword = "MAX_BUFFERED_SQB_BUFSIZE", .rule = KW_RANGE, .min = 8, .max = 1048576, .unit = KB, .value = &max_buffered_sqb_bufsize, .def = 8388608, .shown = 8192,
   .words = "KB", .meaning = "write buffer of an instance's sequence blob file",
   .complaint = "MAX_BUFFERED_SQB_BUFSIZE allowed range is between 8 and 1048576K, read value = %s, setting default value = %d"},
  {.keyword = "TQP_GENERATE_FP_SIGNATURES", .rule = KW_ANY, .value = &tqp_generate_fp_signatures, .def = 0,
   .words = "flag", .meaning = "other than 0: flowpaths with the same methods get the same signature"},
  {.keyword = "TQDBU_RD_INST_COUNT_AND_SKIP", .rule = KW_ANY, .value = &tqdbu_rd_inst_count, .def = 0, .unused = true,
   .words = "count, s", .default_text = "0 5", .meaning = "once for the loader: instances read before a pause of so many seconds", .own = kw_set_tqdbu_rd_inst_count_and_skip},
  {.keyword = "TQP_MIN_RESPTIME_TO_FILTER_L1_FP", .rule = KW_ANY, .value = &tqp_min_resptime_to_filter_l1_fp, .def = 0,
   .words = "ms", .meaning = "flowpaths of a single method that took less are left out; 0: none"},
  {.keyword = "TQP_DUMP_URC", .rule = KW_ANY, .value = &tqp_dump_urc, .def = 0,
   .words = "flag", .meaning = "other than 0: TQURLRecord.csv is written"},
  {.keyword = "TQ_FPI_MASK", .rule = KW_OWN,
   .words = "fields", .accepted = "TQEID, AppID, TS and SeqNo once each, not overlapping, below bit 63", .default_text = "TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;", .meaning = "how a flowpath number is cut: name, first bit and number of bits of each field; a wrong value ends the process", .own = kw_set_tq_fpi_mask_row},
  {.keyword = "TQP_META_DATA_RECOVERY_RETRY_TIMEOUT_IN_SEC", .rule = KW_RANGE, .min = 0, .max = 2000000000, .value = &tqp_meta_data_recovery_retry_timeout_in_sec, .def = 60,
   .words = "s", .meaning = "how long an instance asks for no metadata after a request has failed; 0: it may ask again at once",
   .complaint = "TQP_META_DATA_RECOVERY_RETRY_TIMEOUT_IN_SEC allowed between 0 seconds and 2000000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_SUC_META_DATA_REQ_COUNT_PER_PARTITION", .rule = KW_ANY, .value = &tqp_max_suc_meta_data_req_count_per_partition, .def = 100,
   .words = "count", .meaning = "successful metadata requests of an instance in one partition; after them none is sent"},
  {.keyword = "TQP_MAP_UNKNOWN_SQL_QUERY_TO_CUSTOM_QUERY_STR", .rule = KW_OWN,
   .words = "text", .accepted = "the rest of the line", .default_text = "none", .meaning = "the query that stands for queries that are not known", .own = kw_set_tqp_map_unknown_sql_query_to_custom_query_str},
  {.keyword = "TQP_SQL_START_NORM_ID", .rule = KW_RANGE, .min = 0, .max = 2000000000, .value = &tqp_sql_start_norm_id, .def = 0,
   .words = "id", .meaning = "first id of queries",
   .complaint = "TQP_SQL_START_NORM_ID allowed between 0 and 2000000000, read value = %d, setting default value = %d"},
  {.keyword = "TQP_ENABLE_SQL_TIMING", .rule = KW_FLAG, .value = &tqp_enable_sql_timing, .def = 1,
   .words = "flag", .meaning = "1: query timings are summed up and written",
   .complaint = "TQP_ENABLE_SQL_TIMING allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_ENABLE_SQL_RECORD", .rule = KW_FLAG, .value = &tqp_enable_sql_record, .def = 0,
   .words = "flag", .meaning = "1: each query execution gets a row",
   .complaint = "TQP_ENABLE_SQL_RECORD allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MAX_BEGIN_SEQ_LEN", .rule = KW_NUMERIC, .value = &tqp_max_begin_seq_len, .def = 8912, .bare = true,
   .words = "bytes", .meaning = "longest begin sequence number of a segment; a longer one drops its record",
   .complaint = "ERROR: TQP_MAX_BEGIN_SEQ_LEN is not numeric, set default value %d"},
  {.keyword = "TQP_MAX_SQL_INDEX_FROM_BCI", .rule = KW_RANGE, .min = 0, .max = 2000000000, .value = &tqp_max_sql_index_from_bci, .def = 4096, .unused = true,
   .words = "count", .meaning = "once the largest query id of an agent",
   .complaint = "TQP_MAX_SQL_INDEX_FROM_BCI allowed read value = %d, setting default value = %d"},
  {.keyword = "TQP_ENABLE_BCIARG", .rule = KW_FLAG, .value = &tqp_enable_bciarg, .def = 1,
   .words = "flag", .meaning = "1: method arguments and return values are written",
   .complaint = "TQP_ENABLE_BCIARG allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQ_RAWDATA_FILE_PATH", .rule = KW_OWN, .unused = true,
   .words = "any", .accepted = "nothing", .default_text = "none", .meaning = "discontinued: MULTIDISK_PATH in the scenario says where raw data is", .own = kw_set_tq_rawdata_file_path},
  {.keyword = "TQ_CSV_FILE_PATH", .rule = KW_OWN, .unused = true,
   .words = "any", .accepted = "nothing", .default_text = "none", .meaning = "discontinued: MULTIDISK_PATH in the scenario says where output goes", .own = kw_set_tq_csv_file_path},
  {.keyword = "TQP_ENABLE_METADATA_RECOVERY", .rule = KW_FLAG, .value = &tqp_enable_metadata_recovery, .def = 1,
   .words = "flag", .meaning = "1: ids that are not known are asked for at the agent",
   .complaint = "TQP_ENABLE_METADATA_RECOVERY allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_ALLOW_REQ_DETAIL_BEFORE_SQB_BEGIN_REC", .rule = KW_FLAG, .value = &tqp_allow_req_detail_before_sqb_begin_rec, .def = 1,
   .words = "flag", .meaning = "1: request details may come before the first record of their flowpath",
   .complaint = "TQP_ALLOW_REQ_DETAIL_BEFORE_SQB_BEGIN_REC allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_FREE_FP_MEM_ON_COMPLETION", .rule = KW_FLAG, .value = &tqp_free_fp_mem_on_completion, .def = 1, .shown = 0,
   .words = "flag", .meaning = "1: a flowpath's memory is given back when it ends; 0: it is kept for the next one",
   .complaint = "TQP_FREE_FP_MEM_ON_COMPLETION allowed values are 0 and 1 read value = %s, setting default value = %d"},
  {.keyword = "TQP_BINARY_FORMAT_FOR_METHOD_TIMING", .rule = KW_FLAG, .value = &tqp_binary_format_for_method_timing, .def = 1,
   .words = "flag", .meaning = "1: method timings are binary records in tq/dat; 0: CSV rows",
   .complaint = "TQP_BINARY_FORMAT_FOR_METHOD_TIMING allowed between 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQ_ENABLE_CAPTURE_DB_TIMING", .rule = KW_OWN,
   .words = "ten flags", .accepted = "0 or 1 each", .default_text = "1 1 1 1 1 1 0 0 0 0", .meaning = "whose calls are summed up as queries: JDBC, Redis, MongoDB, Cassandra, Neo4j, Cloudant, Bigtable, BigQuery, FTP, DynamoDB; a missing flag is 0", .own = kw_set_tq_enable_capture_db_timing},
  {.keyword = "ENABLE_FP_STAT_MONITOR", .rule = KW_FLAG, .value = &enable_fp_stat_mon, .def = 0,
   .words = "flag", .meaning = "1: flowpath statistics are sampled for the parent",
   .complaint = "enable_fp_stat_mon allowedbetween 0 and 1, read value = %d, setting default value = %d"},
  {.keyword = "TQP_MEMPOOL_SETTINGS", .rule = KW_ANY, .value = &tqp_mempool_config_mode, .def = 0,
   .words = "mode, count, count", .accepted = "any number; 1 or more; 1 or more", .default_text = "0 64 64", .meaning = "other than 0: room for so many instances at first, and so many more at a time; 0: worked out from the raw files", .own = kw_set_tqp_mempool_settings},
  {.keyword = "TQP_DELETED_INSTANCE_CLEANUP_DELAY", .rule = KW_OWN,
   .words = "number and unit", .accepted = "a number with m, h or d", .default_text = "3d", .meaning = "when the recovery files of a deleted instance are removed; units m, h and d, without one h", .own = kw_set_tqp_deleted_instance_cleanup_delay},
  {.keyword = "TQP_MON_LARGE_FLOWPATH_METHOD_COUNT", .rule = KW_OWN, .value = &tqp_mon_large_flowpath_method_count, .def = 10000,
   .words = "count", .accepted = "0 or more", .meaning = "methods from which on a flowpath counts as large in the health samples", .own = kw_set_tqp_mon_large_flowpath_method_count},
  {.keyword = "TQP_MONITORS", .rule = KW_OWN, .value = &tqp_enable_auto_mon_reg, .def = 1,
   .words = "flag, flag", .accepted = "0 or more each", .default_text = "1 0", .meaning = "whether health samples are taken, and one of each instance", .own = kw_set_tqp_monitors},
  {.keyword = "TQP_ENABLE_SQL_METADATA_RECOVERY", .rule = KW_FLAG, .value = &tqp_enable_sql_metadata_recovery, .def = 1,
   .words = "flag", .meaning = "1: the map of queries is saved and read back at a restart"},
  {.keyword = "TQP_THRESHOLD_DIFF_BET_FP_AND_ENTRY_MTD_RESPTIME_SEC", .rule = KW_RANGE, .min = 1, .value = &tqp_threshold_diff_bet_fp_and_entry_mtd_resptime, .def = 900,
   .words = "s", .meaning = "a flowpath whose times of agent and entry method differ by more is reported, and the agent's time is taken"},
  {.keyword = "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT", .rule = KW_RANGE, .min = -1, .value = &tqp_num_nonprep_sql_load_at_init, .def = 2500,
   .words = "count", .accepted = "ALL, or -1 or more", .meaning = "plain queries that are read back at a restart; ALL or -1: every one",
   .complaint = "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT allowed ALL or some insigned integer valueread value = %s, setting default value = %d", .own = kw_set_tqp_num_nonprep_sql_load_at_init},
  {.keyword = "TQP_SQL_NONPREP_ROLLOVER_SIZE_MB", .rule = KW_RANGE, .min = 0, .value = &tqp_sql_nonprep_rollover_size_mb, .def = 100,
   .words = "MB", .meaning = "size at which the file of plain queries is begun again; 0: never"},
  {.keyword = "TQP_PERIODIC_SCANDIR_TIME", .rule = KW_OWN,
   .words = "time", .accepted = "0, or a number with s, m or h", .default_text = "1800", .meaning = "how often new raw files are looked for; units s, m and h, without one s; 5 minutes at least, 0: never", .own = kw_set_tqp_periodic_scandir_time},
  {.keyword = "DEFAULT_TQP_ERRLOG_THROTTLE_INTERVAL_SEC", .rule = KW_RANGE, .min = 11, .max = 86400, .value = &tqp_errlog_throttle_interval, .def = 300,
   .words = "s", .meaning = "an error of the same kind is written once in this time, with a count"},
  {.keyword = "DEFAULT_TQP_APPEND_PARENT_FPI_TO_CORRID", .rule = KW_FLAG, .value = &tqp_append_parent_fpi_to_corrid, .def = 0,
   .words = "flag", .meaning = "1: the parent's flowpath number is added to the correlation id"},
  {.keyword = "TQP_MAX_INSTANCES", .rule = KW_RANGE, .min = 1, .max = 1000000, .value = &tqp_max_instances, .def = 1024,
   .words = "count", .meaning = "application instances at most; further ones are reported and not started"},
  {.keyword = "TQP_MAX_FP_SEGMENTS_COUNT", .rule = KW_RANGE, .min = 1, .value = &tqp_max_fp_segments_count, .def = 50000,
   .words = "count", .meaning = "segments that one flowpath may have; more are dropped"},
  {.keyword = "TQP_SECS_TO_HOLD_FP_FOR_PENDING_ASYNC_RESP", .rule = KW_RANGE, .min = 1, .max = 60, .value = &secs_to_hold_fp_for_pending_async_resp, .def = 60, .bare = true,
   .words = "s", .meaning = "how long a finished flowpath waits for asynchronous responses",
   .complaint = "secs_to_clean_seg_array_main_fp allowed range is between  0 (Sec)  and  70(sec)setting default value = %d"},
  {.keyword = "TQP_SEC_TO_CHECK_PENDING_ASYNC_RESP_FP", .rule = KW_RANGE, .min = 1, .max = 60, .value = &sec_to_check_pending_async_resp_fp, .def = 60, .bare = true,
   .words = "s", .meaning = "how often flowpaths that wait for asynchronous responses are looked at",
   .complaint = "secs_to_clean_seg_array_main_fp allowed range is between  0 (Sec)  and  70(sec)setting default value = %d"},
  {.keyword = "TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA", .rule = KW_RANGE, .min = 30, .max = 86400, .value = &interval_to_dump_sql_timing_data, .def = 120, .bare = true,
   .words = "s", .accepted = "0, or 30 to 86400", .meaning = "time between two writes of query timings; 0: with each flowpath",
   .complaint = "interval_to_dump_sql_timing_data allowed range is between  30 (Sec)  and  86400(sec)setting default value = %d", .own = kw_set_tqp_interval_to_dump_sql_timing_data},
  {.keyword = "TQP_MAX_CALLOUT_LEN_ALLOWED_IN_KB", .rule = KW_ANY, .value = &tqp_max_callout_len_allowed_in_kb, .def = 512,
   .words = "KB", .meaning = "callouts of a flowpath that are longer are left out of the callout file"},
  {.keyword = "TQP_ADD_PID_TO_CGROUPS", .rule = KW_FLAG, .value = &tqp_add_pid_to_cgroups, .def = 1,
   .words = "flag", .meaning = "1: the process puts itself under the machine's processor limit, if there is one"},
  {.keyword = "TQP_COPY_RECOVERY_FILES_IN_PARTITIONS", .rule = KW_FLAG, .value = &tqp_copy_recovery_files, .def = 0,
   .words = "flag", .meaning = "1: recovery files are copied into a partition when it is left, for offline runs"},
  {.keyword = "TQP_PRINT_SUMMARY_REPORT", .rule = KW_FLAG, .value = &tqp_print_summary_report, .def = 0,
   .words = "flag", .meaning = "1: tqp_summary_report.txt counts each instance's records by kind when it leaves a partition"},
  {.keyword = "TQP_METRICS_FILE_SEC", .rule = KW_RANGE, .min = 0, .max = 86400, .value = &tqp_metrics_file_sec, .def = 0,
   .words = "s", .meaning = "time between two writes of the metrics file for node_exporter's textfile collector; 0: none is written"},
  {.keyword = "TQP_SQL_QUERY_SIMILARITY_PERCENTAGE", .rule = KW_FLAG, .value = &tqp_enable_string_similarity_for_sql, .def = 0,
   .words = "flag, percent", .accepted = "0 or 1; 0 to 100", .default_text = "0 90", .meaning = "0: plain queries are known again within a partition only; 1: within the whole test run; the percentage has no effect", .own = kw_set_tqp_sql_query_similarity_percentage},
  {.keyword = "TQU_DATABASE", .rule = KW_OWN, .words = "URL", .accepted = "a URL", .default_text = "SQLite in the test run",
   .meaning = "of the loader: the database", .own = kw_leave_to_loader},
  {.keyword = "TQU_NODE", .rule = KW_OWN, .words = "id", .accepted = "0 or more", .default_text = "0",
   .meaning = "of the loader: which of several machines this is", .own = kw_leave_to_loader},
  {.keyword = "TQU_LOAD_BLOBS", .rule = KW_OWN, .words = "flag", .accepted = "0 or 1", .default_text = "0 with SQLite, else 1",
   .meaning = "of the loader: whether texts of call trees are brought in, too", .own = kw_leave_to_loader},
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

// Every row says what it is for, and a row whose handler has rules of its own says which values it accepts.
constexpr bool each_row_explains_itself() {
  return std::all_of(std::begin(rows), std::end(rows), [](const kw_row &row) {
    // Not `row.value != nullptr`: under the undefined behaviour sanitizer g++ takes no global's address as a constant there.
    return row.words && row.meaning && (row.rule != KW_OWN || row.accepted);
  });
}

static_assert(each_row_explains_itself());

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
