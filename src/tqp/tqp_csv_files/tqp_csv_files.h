// Everything that goes to files under the test run: where the files lie, how they are made, and the rows of metadata.
//   In      norm ids and texts from the record readers; directories and files asked for by discovery and the reader loop
//   Out     "%s/logs/TR%d/tq/csv/..." (common) and "%s/logs/TR%d/<partition>/tq/csv/<instance>/..." (per instance)
//   Thread  an instance's files belong to its thread; common files are written under metadata_csv_lock[index]
//   Failure a file that cannot be opened is traced at each write and tried again with the next one; the row is lost
#pragma once

#include "data_files.h"

// --- file set (file_set.cpp) ---------------------------------------------------------------------------------

// Makes the directories of a partition for an instance; with an empty partition those of the common files.
void create_tq_dir_and_subdir(tqp_instance_t *inst, const char *partition);

// Fills csvfilepath and commoncsvfilepath for a partition: heap strings that the instance gives back with free.
void set_csvfilepath_in_tqp_instance(tqp_instance_t *inst, const char *partition);

// Makes the instance's files of its partition; with open_flag their streams stay open. Nothing for an instance whose
// thread has not begun. The _ex form is called by runs over a chosen range; its effect is the same.
void create_csv_files(tqp_instance_t *inst, int open_flag);
void create_csv_files_ex(tqp_instance_t *inst, int open_flag);

// Makes and opens all common metadata files in `path` (ends with '/'). Called once at start.
void create_csv_metadata_files(const char *path);
void tq_close_metadata_file();

// Writes what of the common files found no room on the disk so far; part of each save. No system call when that is
// nothing.
void tqp_write_waiting_metadata();

// Name of the file of a slot; null for a slot whose file is not made here.
const char *tqp_data_file_name(int slot);

// Makes a partition's directory of binary files ("dat", "sqb") under its lock and returns it: `in_place`, or with
// disk_processed_path a directory there that shows in the test run through a link.
std::string tqp_make_binary_dir(const char *partition, const char *kind, const std::string &in_place, wllb_mutex &lock);

// Moves the files of the partition just left into the previous generation and closes the one before.
void close_all_instance_files_open_debug_files(tqp_instance_t *inst);

// Makes the partition's "<instance>_MethodTiming.dat". With stream_out it is left open there; its path goes to path_out
// when that is not null.
void create_method_timing_dat_filename_and_file(tqp_instance_t *inst, FILE **stream_out, std::string *path_out);

// Notes in a finished partition's done file that a late row went to `file_name`.
void write_prev_tqpdone(tqp_instance_t *inst, const char *file_name);

// Writes out every buffer of the instance.
void csv_dump_all_files(tqp_instance_t *inst);

// --- metadata rows (metadata_files.cpp, sql_table.cpp) ------------------------------------------------------

// Ends the process with -1 when this is an offline run that may not add metadata. `event_id` is what the message shows.
void tqp_check_offline_metadata(tqp_instance_t *inst, int event_id, const char *text);

void csv_dump_meta_data(tqp_instance_t *inst, int norm_id, int type, const char *text, int force);
void csv_dump_resource_meta_data(tqp_instance_t *inst, int norm_id, const char *text, int force);
void csv_dump_http_header_md_data(tqp_instance_t *inst, const char *text, int norm_id, int force);
void csv_dump_excp_cls_data(tqp_instance_t *inst, int norm_id, const char *text);
void csv_dump_excp_thr_cls_data(tqp_instance_t *inst, int norm_id, const char *text);
void csv_dump_excp_thr_mtd_data(tqp_instance_t *inst, int norm_id, const char *text);
void csv_dump_excp_st_data(tqp_instance_t *inst, int norm_id, const char *text);
void csv_dump_excp_msg_data(tqp_instance_t *inst, int norm_id, const char *text);
void csv_dump_excp_cause_data(tqp_instance_t *inst, int norm_id, const char *text);
void csv_dump_fp_signature(tqp_instance_t *inst, const char *text, int norm_id);

// Gives back the buffers of all these writers.
void tqp_free_metadata_buffers(tqp_instance_t *inst);

// The row "TQMetaDataEx.csv" has for each new id, with tqp_extended_metadata on.
void write_to_metadata_meta_file(tqp_instance_t *inst, int norm_id, int type);

// A URL's row; norm_id carries norm_id_flag.
void tq_process_url_table_data(tqp_instance_t *inst, int norm_id, const char *url);

// Class of a query by its first word: 1 SELECT ... 9 CONNECTION; 0 anything else or a null text.
int find_query_type(const char *text);

// A query's row in "TQSQL.csv", or in "TQSQL_nonprepared.csv", which rolls over. `fpi`: first column. Always 0.
int csv_dump_sql_table(tqp_instance_t *inst, int64_t fpi, const char *query, int query_len, int sql_index, int force,
                       int is_non_prepared);

// --- function groups (function_groups.cpp) ------------------------------------------------------------------

// Empties "TQFunctionalGroup.csv" and fills it from the function group file, if somebody has written one.
void create_fn_grp_table();

// The lines of `path` with one line a package (the last name seen wins). Empty when the file does not open.
std::string remove_duplicate_fn_grps(const char *path);
