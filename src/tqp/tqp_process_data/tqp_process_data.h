// From raw file to record: the reader loop, the line cutter, the event table, and the records that are not flowpaths.
//   In      "%s/webapps/logs/TR%d/%s/tq/raw_data/%s.txt", growing
//   Out     the instance's maps and counters, norm tables, metadata rows; the offset file
//   Thread  the instance's
//   Failure a bad record is told, counted and skipped; only a bad identity record gives up a block
#pragma once

#include "record_dispatch.h"
#include "tqp_main.h"

// --- reader loop (reader_loop.cpp, offset_file.cpp) -----------------------------------------------------------

// Body of an instance's thread: follows its raw file across partitions until it is finished. `filepath` is the file to
// begin with.
void process_data(tqp_instance_t *inst, std::string filepath);

// Path of the instance's raw file in its partition.
std::string tqp_raw_file_path(const tqp_instance_t *inst);

// Last newline of the block, or null. A newline at index 0 of a longer block is not seen.
char *get_last_newline_ptr(char *buf, size_t len);

// Opens the offset file if need be, takes over the saved offset when there was one, seeks the raw file to it. With a
// null raw file the offset file is closed.
void check_offset_file_and_seek_raw_file(tqp_instance_t *inst, FILE *raw_fp);

// Makes the instance's offset file anew, empty and open.
void tqp_make_offset_file(tqp_instance_t *inst);

// Saves the instance's state and flushes its buffers, when force_upload_timeout has passed since *last_time or, with a
// null last_time, at once.
void check_and_flush_csv_buffers(tqp_instance_t *inst, time_t *last_time);

// Opens a raw file for reading if it is a regular file, and notes that it is open; null otherwise, with a trace line.
FILE *tqp_open_raw_file(tqp_instance_t *inst, const std::string &path);

// --- identity (identity.cpp) ----------------------------------------------------------------------------------

// The flowpath format version survives restarts in a file of its own.
void write_fpg_version_in_file(tqp_instance_t *inst);
void set_fpg_version_from_file(tqp_instance_t *inst);

// --- line cutter (line_cutter.cpp) ----------------------------------------------------------------------------

// Cuts a block that ends at a newline into lines and runs each. buf[len] must be writable. 0, or -1 when the identity
// record failed (get_tsa_id).
int tq_process_data(tqp_instance_t *inst, char *buf, size_t len, int is_test_running);

// --- partition switch (partition_switch.cpp) ------------------------------------------------------------------

// Moves the instance on by one partition and opens its raw file there; *filepath is rewritten. 1: open, 0: missing.
int switch_to_next_partition(tqp_instance_t *inst, FILE **raw_fp, std::string *filepath);

// After a switch: makes the done file of the partition just left, if no other instance still reads it.
void check_and_create_partition_done_file(tqp_instance_t *inst, int64_t left_partition);

// Where an instance reads from now on, without a switch; nowhere_to_read when it leaves for good. It may have been the
// last in the way of partitions that others have left: they are finished here.
void tqp_take_place(tqp_instance_t *inst, int64_t partition);
constexpr int64_t nowhere_to_read = INT64_MAX;

// The instance has read its raw file in its partition to the end. What is appended after that is not waited for.
void tqp_note_file_read(const tqp_instance_t *inst);

// Names of the partition's raw files that hold whole lines nobody has read, neither in this process nor according to
// their offset files.
std::vector<std::string> tqp_unread_files(int64_t partition) WLLB_REQUIRES(check_and_create_partition_done_file_mutex);

bool tqp_is_partition_done(int64_t partition);

// Makes a partition's done file, keeps it open for late rows, tells the instances. The caller holds the mutex.
void tqp_create_partition_done_file(int64_t partition) WLLB_REQUIRES(check_and_create_partition_done_file_mutex);

// The oldest partition without a done file of the unbroken run that ends at `this_partition`; empty when that one has
// its done file. 0, or -1 when the chain cannot be read.
int get_partion_number_to_start_with(std::string this_partition, std::string *out);
