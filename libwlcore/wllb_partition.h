// Reads the partition layout of a test run: which partition is the newest, what each one says of its neighbours.
//   In      "<base>/.curPartition", "<base>/.vex_epoch.diff", "<base>/<partition>/.partition_info.txt"
//   Out     numbers and names; done files for empty partitions met on the walk back to the one to resume in
//   Thread  any
//   Failure -1, and for some a line on standard error; the caller decides
// Sample of a partition name: 20261122213000 (14 digits; a later partition has a larger number)
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

struct PartitionInfo {
  int64_t first_partition;
  int64_t start_partition;
  int64_t cur_partition;
  char cur_partition_name[65]; // cur_partition as text
  int64_t next_partition;      // 0 or less: none yet
  int64_t prev_partition;      // 0: none
  int64_t original_partition;
  long absolute_time;
  long vex_epoch_diff; // seconds
  int test_run_info_shr_mem_id;
  int wl_parent_pid;
  int wl_port;
  int reader_run_mode;
  char nlm_trace_level;
  char nlw_trace_level;
  char nlr_trace_level;
  char wldbu_trace_level;
  int version; // 0 when absent; not 0: partition names are UTC
};

// In and out record of the walk back.
struct DataFileInfo {
  char partition[65]; // in: where to begin; out: the partition found
  char file_path[2048];
  char full_file_name[2048];
  char full_offset_filename[2048];
  char err_msg[2049];    // what was met on the way, for a trace line
  int64_t partition_idx; // `partition` as number
  int numCsvFeild;
};

// Name of the file that marks a partition every instance has left; stands in its "tq/csv" directory.
constexpr const char *wllb_done_file_name = ".tqp_process_done_v2.txt";

// True for 14 digits.
bool is_partition(const char *name);

// The newest partition. 0: no ".curPartition" there; -1: unreadable, or a line without "=".
int64_t wllb_get_cur_partition(const char *dir);

// Seconds between the test's epoch and 1970. 0 when the file is missing, -1 on failure.
int64_t wllb_get_cur_epoch_diff(const char *dir);

// The same for who cannot do without: false when the file is missing or holds anything but one whole number.
bool wllb_read_epoch_diff(const char *dir, int64_t *diff);
std::string wllb_epoch_diff_path(const char *dir);

// Reads a partition's info. 0; -1 with a line on standard error when the file does not open.
int wllb_get_partition_info(const char *base, PartitionInfo *info, const char *partition);

// 0 with *out set; 1: none yet (NextPartition below 1 or not above the current one); -1: bad name or unreadable.
int wllb_get_next_partition(const char *wdir, int testidx, const char *partition, int64_t *out);

// 0 with *out set; 1: none (not between 0 and the current one); -1: bad name or unreadable.
int wllb_get_prev_partition(const char *base, const char *partition, int64_t *out);

// Finds the partition in which an instance's file is to be resumed, from info->partition backwards: the newest with
// both data and offset file, else the oldest one passed that has the data file. 0, or -1 when the first has no info.
int wllb_get_last_partition(const char *base, const char *subdir, const char *file, DataFileInfo *info);

// Begin of a partition in seconds of the test's epoch: the name's time less epoch_diff; 0 for an empty name.
// use_gmt: 1 the name is UTC, 0 local time, -1 as the partition's info says.
time_t wllb_get_vexepoch_time_from_partition(const char *partition, int64_t epoch_diff, int use_gmt, const char *base);
