// What survives a restart: the local maps on disk, the norm tables rebuilt from the metadata files, the partition to
// go on in.
//   In      recovery files, metadata files, partition files
//   Out     the instance's maps, the norm tables
//   Thread  the instance's for its maps; main at start for the tables
//   Failure a file that is missing or damaged leaves its map or table as it is
#pragma once

#include "local_maps.h"
#include "state_save.h"
#include "tqp_main.h"

// --- recovery files (recovery_files.cpp) ------------------------------------------------------------------------

// Writes each changed map whose bit is in `mask` to its recovery file.
void write_loc2norm_rec_file(tqp_instance_t *inst, int mask);

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

// Reads "%s.txt.recovery" back into the instance.
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
