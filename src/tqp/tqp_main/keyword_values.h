// Values of the keyword file: set once before any other thread starts, constant afterwards.
//   Set by  the keyword table (tqp_parse_keywords), which holds every default; some are overwritten by tqp_init
//   Read by everything, without a lock
#pragma once

#include <cstdint>

extern int tq_trace_level;                            // 0 to 4
extern int tqp_extended_metadata;                     // 1: TQMetaDataEx.csv is written
extern int omit_non_wl_flowpaths;                     // flag
extern int exclude_flowpaths_outside_testidx;         // flag
extern int tsrun_poll_interval;                       // ms between looks at the parent
extern int tqp_new_raw_data_poll_interval;            // ms an instance sleeps at the end of its file
extern int tqp_seq_blob_in_file_flag;                 // flag
extern int tqp_seq_blob_in_file_version;              // 'A', 'B' or 'C'
extern int tqp_seq_blob_in_file_rollover_size;        // MB, no reader
extern int tqp_seq_blob_in_file_min_size;             // bytes, no reader
extern int tqp_seq_blob_compression_buffer_init_size; // bytes
extern int init_concurrent_flowpaths;                 // entries
extern int delta_concurrent_flowpaths;                // entries
extern int max_buffered_meta_data_bufsize;            // bytes, as all of these buffers
extern int max_buffered_bci_arg_bufsize;
extern int max_buffered_http_header_bufsize;
extern int max_buffered_excp_data_bufsize;
extern int max_buffered_http_header_md_bufsize;
extern int max_buffered_flowpath_bufsize;
extern int max_buffered_jms_bufsize;
extern int max_buffered_mem_alloc_table;
extern int max_buffered_sql_table;
extern int max_buffered_sql_record_table;
extern int logfile_rollover_size;                 // MB
extern int force_upload_timeout;                  // s between timed flushes
extern int secs_to_mark_an_fp_dead;               // s
extern int secs_to_clean_dead_flowpaths;          // s
extern int max_fi_array_entries;                  // size of the ring of recent flowpath numbers; below 0 counts as 0
extern int max_entry_exit_records_in_an_fp;       // records
extern int method_timing_csv_flush_interval_secs; // s, no reader
extern int lower_process_priority_flag;           // flag
extern int disable_dumping_captured_http_body;    // flag
extern int force_add_urc_for_wl_fpi_in_mapping_record; // flag
extern int tqp_debug_loglevel;                         // no reader
extern int force_add_urc_for_missing_fp_mapping_record;
extern int tqp_free_fp_min_sqb_size;         // bytes
extern int max_buffered_sqb_bufsize;         // bytes
extern int tqp_generate_fp_signatures;       // flag
extern int tqdbu_rd_inst_count;              // no reader
extern int tqdbu_rd_inst_skip_sleep;         // no reader
extern int tqp_min_resptime_to_filter_l1_fp; // ms
extern int tqp_dump_urc;                     // flag
extern int tqp_meta_data_recovery_retry_timeout_in_sec;
extern int tqp_max_suc_meta_data_req_count_per_partition;
extern char *dummy_query; // owned; text for unknown queries, null: none
extern int tqp_sql_start_norm_id;
extern int tqp_enable_sql_timing;
extern int tqp_enable_sql_record;
extern int tqp_max_begin_seq_len;      // bytes
extern int tqp_max_sql_index_from_bci; // no reader
extern int tqp_enable_bciarg;
extern int tqp_enable_metadata_recovery;
extern int tqp_allow_req_detail_before_sqb_begin_rec;
extern int tqp_free_fp_mem_on_completion;
extern int tqp_binary_format_for_method_timing;
extern int tqp_enable_jdbc_call; // ten flags of TQ_ENABLE_CAPTURE_DB_TIMING
extern int tqp_enable_redix_call;
extern int tqp_enable_mongodb_call;
extern int tqp_enable_casscendra_call;
extern int tqp_enable_neo4j_call;
extern int tqp_enable_cloundant_call;
extern int tqp_enable_bigtable_call;
extern int tqp_enable_bigquery_call;
extern int tqp_enable_ftp_call;
extern int tqp_enable_dynamo_call;
extern int enable_fp_stat_mon;
extern int tqp_mempool_config_mode;
extern int tqp_num_tqp_instances_init;
extern int tqp_num_tqp_instances_delta;
extern char deleted_instance_cleanup_delay[64]; // words for at(1): "3 days"
extern int tqp_mon_large_flowpath_method_count;
extern int tqp_enable_auto_mon_reg;          // first word of TQP_MONITORS
extern int tqp_enable_auto_mon_instance_reg; // second word of TQP_MONITORS
extern int tqp_enable_sql_metadata_recovery;
extern int tqp_threshold_diff_bet_fp_and_entry_mtd_resptime; // s
extern int tqp_max_instances;                                // served at the same time
extern int tqp_num_nonprep_sql_load_at_init;                 // -1: all
extern int tqp_sql_nonprep_rollover_size_mb;                 // 0: never
extern long tqp_periodic_scandir_time;                       // s
extern int tqp_errlog_throttle_interval;                     // s
extern int tqp_append_parent_fpi_to_corrid;
extern int tqp_max_fp_segments_count;
extern int secs_to_hold_fp_for_pending_async_resp;
extern int sec_to_check_pending_async_resp_fp;
extern int interval_to_dump_sql_timing_data;  // s; 0: with each flowpath
extern int tqp_max_callout_len_allowed_in_kb; // KB
extern int tqp_add_pid_to_cgroups;
extern int tqp_copy_recovery_files;
extern int tqp_print_summary_report;
extern int tqp_metrics_file_sec; // s between two writes of the metrics file; 0: none
extern int tqp_enable_string_similarity_for_sql;
extern double tqp_sql_query_similarity_percentage; // no reader

// How a flowpath number is cut into fields (TQ_FPI_MASK).
extern int tqe_id_starting_bit_location;
extern int tqe_id_no_of_bits;
extern int tqe_app_id_starting_bit_location;
extern int tqe_app_id_no_of_bits;
extern int tqe_ts_starting_bit_location;
extern int tqe_ts_no_of_bits;
extern int tqe_seqno_starting_bit_location;
extern int tqe_seqno_of_bits;
extern uint64_t tqe_id_mask_num;
extern uint64_t tqe_app_id_mask_num;
extern uint64_t tqe_ts_mask_num;
extern uint64_t tqe_seqno_mask_num;

constexpr int tqp_raw_data_buf_size = 262144;                  // bytes of the read block; no keyword changes it
constexpr int max_buffered_resource_meta_data_bufsize = 65536; // bytes
