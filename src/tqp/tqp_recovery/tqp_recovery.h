// What survives a restart: the local maps on disk, the norm tables rebuilt from the metadata files, the partition to
// go on in.
//   In      recovery files, metadata files, partition files
//   Out     the instance's maps, the norm tables
//   Thread  the instance's for its maps; main at start for the tables
//   Failure a file that is missing or damaged leaves its map or table as it is
#pragma once

#include "tqp_main.h"

// --- local maps (local_maps.cpp) -------------------------------------------------------------------------------

// One map: where it stands in the instance, how it grows, what saves it, and the event number that names its kind.
struct loc2norm_row {
  loc2norm_bit bit;
  int kind;                              // of tq_event_enum
  wllb_zarray<int> tqp_instance_t::*map; // null: http_header_map, sql_query_map
  const wllb_growth *growth;
  const char *file_name; // of its recovery file
};

extern const loc2norm_row loc2norm_rows[__NUM_LOC2NORM_BITS__]; // by bit

// How each map grows.
extern const wllb_growth method_map_growth, url_map_growth, bci_arg_id_map_growth, resource_map_growth, tags_map_growth,
    excp_map_growth, http_header_map_growth, sql_query_map_growth;

// Adds a query; a local id that is there keeps what it has. The new number of used entries.
int sql_query_map_insert_loc_id(wllb_zarray<sql_query_map_t> *map, int loc_id, int size, int8_t query_type,
                                int norm_id);

// The norm id, or -1 when absent; *out_type (if given) is the query's type, or -1 (255 as a byte).
int sql_query_map_read_loc2norm(const sql_query_map_t *map, int loc_id, int size, int8_t *out_type);

// Index of loc_id in map[low..high], or -1.
int tqp_binary_search(const sql_query_map_t *map, int low, int high, int loc_id);

// Stores what an agent's local id means, over what stood there, and marks the map as unsaved. `bit` names an int map;
// local_id is at most max_local_id, any other does nothing.
void tqp_store_loc2norm(tqp_instance_t *inst, int bit, int64_t local_id, int norm_id);

// The same for a header; the map keeps its own copy of `name`.
void tqp_store_http_header(tqp_instance_t *inst, int64_t local_id, int norm_id, const char *name);

// The same for a query, whose first meaning stays. The first call takes the map's memory.
void tqp_store_sql(tqp_instance_t *inst, int loc_id, int norm_id, int8_t query_type);

// Frees every map of an instance.
void tqp_free_local_maps(tqp_instance_t *inst);

// Frees the header map and its names.
void tqp_free_http_header_map(tqp_instance_t *inst);

// Notes that an entry of a map was written; the second form tells whether any entry of a page was.
void tqp_mark_loc2norm_page(wllb_zarray<uint64_t> *pages, int64_t page);
bool tqp_loc2norm_page_marked(const wllb_zarray<uint64_t> &pages, int64_t page);
void tqp_free_loc2norm_pages(loc2norm_pages_t *pages);

// --- recovery files (recovery_files.cpp) ------------------------------------------------------------------------

// Writes each changed map whose bit is in `mask` to its recovery file.
void write_loc2norm_rec_file(tqp_instance_t *inst, int mask);

// Loads each map whose bit is in `mask`. A run over a chosen range that finds no file at all ends the process, unless
// its data begins with the agent's own resending.
void read_loc2norm_rec_file(tqp_instance_t *inst, int mask);

// Path of a file in the instance's recovery directory: the live one, or that of the partition in an offline run.
std::string make_loc2_norm_file_path(const tqp_instance_t *inst, const char *file_name);

// --- resending (resend.cpp) --------------------------------------------------------------------------------------

// Makes a map new, as if nothing had been discovered. `kind` is the event number of tq_event_enum, -1 for all; any other
// does nothing. The recovery file keeps what it holds until the next discovery.
void clear_loc2norm_tables(tqp_instance_t *inst, int kind);

// --- one snapshot a partition (partition_snapshot.cpp) -----------------------------------------------------------

// Copies the instance's live recovery files below its present partition, for a later run over that partition.
void tqp_copy_local2norm_at_partition_switch(tqp_instance_t *inst);

// --- global attributes and tags (global_texts_file.cpp) ----------------------------------------------------------

// Rewrites "%s.txt.recovery" with the instance's global texts; a failure is traced.
void tqp_write_recovery_raw_data(tqp_instance_t *inst);

// Reads it back into the instance.
void read_and_process_raw_data_recovery(tqp_instance_t *inst);

// --- rebuild (table_rebuild.cpp) ---------------------------------------------------------------------------------

// Smallest id, with norm_id_flag, of a non-prepared query that was loaded; 0: none. Older ones are not read back into
// the SQL maps.
extern wllb_relaxed<int32_t> g_min_init_nonprep_sql_id;

// Rebuilds the norm tables from the metadata files: all of them (-1), or the non-prepared queries alone (9). Takes no
// lock: -1 is for the start, before there are threads; for 9 the caller holds key_sql_query_mutex.
void tq_build_norm_tables_from_metadata_csv(int kind);

// A file being read from its last line to its first.
struct tqp_reverse_file {
  int fd;      // not owned
  int64_t pos; // the bytes before it are still to come; begin one byte before the end
  std::string block;
  int64_t block_at; // file position of block[0]
};

// The next line backwards with its newline, at most size - 1 bytes of it; null at the file's head. Bytes that were
// written after the reading began are not seen.
char *tqp_fgets_r(char *buffer, int size, tqp_reverse_file *file);

// --- where to go on (resume_partition.cpp) ----------------------------------------------------------------------

// Live run: partition_name holds the newest partition and gets the one to resume in; the switches still to be made go
// to test_run_swtch_flag.
void tqp_discover_partition_to_resume(tqp_instance_t *inst);

// Run over a chosen range: partition_name holds the end partition and gets the first one with the instance's file.
void tqp_discover_partition_to_resume_ex(tqp_instance_t *inst, int64_t start_partition);
