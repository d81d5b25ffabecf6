// Reads the partition layout of a test run and finds the partition in which an instance's file is to be resumed.
//   In      ".curPartition", ".vex_epoch.diff", "<partition>/.partition_info.txt": text files of another process that
//           may be missing, cut or wrong in any byte
//   Out     numbers and names; done files of empty partitions passed on the walk back
//   Thread  any; the walk back runs under its caller's lock for done files
//   Failure -1, and for some a line on standard error
// Sample of an info file: "#Start Partition, ...\nFirstPartition=20261122213000\n...\nPreviousPartition=0\nVersion=1\n"
#include "wllb_partition.h"

#include "wllb_output_file.h"
#include "wllb_util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

bool is_partition(const char *name) {
  return name && strlen(name) == 14 && wllb_is_numeric(name);
}

// --- name=value files -----------------------------------------------------------------------------------------

// 0 when `path` is a regular file that may be read, otherwise an errno value.
static int why_unreadable(const std::string &path) {
  struct stat file = {};
  if (stat(path.c_str(), &file) != 0)
    return errno;
  if (!S_ISREG(file.st_mode))
    return S_ISDIR(file.st_mode) ? EISDIR : EINVAL;
  return access(path.c_str(), R_OK) == 0 ? 0 : errno;
}

static bool same_name(std::string_view given, std::string_view name) {
  return given.size() == name.size() && strncasecmp(given.data(), name.data(), name.size()) == 0;
}

// The decimal number at the head of a value, held within 64 bits; 0 when there is none.
static int64_t value_number(std::string_view value) {
  return strtoll(std::string(value).c_str(), nullptr, 10);
}

int64_t wllb_get_cur_partition(const char *dir) {
  const std::string path = wllb_format("%s/.curPartition", dir);
  if (!wllb_path_exists(path.c_str()))
    return 0;
  if (why_unreadable(path) != 0)
    return -1;
  const std::string text = wllb_read_small_file(path.c_str());
  int64_t partition = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = wllb_take_piece(&rest, '\n');
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos)
      return -1;
    if (same_name(line.substr(0, equals), "CurPartitionIdx"))
      partition = value_number(line.substr(equals + 1));
  }
  return partition;
}

std::string wllb_epoch_diff_path(const char *dir) {
  return wllb_format("%s/.vex_epoch.diff", dir);
}

bool wllb_read_epoch_diff(const char *dir, int64_t *diff) {
  const std::string text = wllb_read_small_file(wllb_epoch_diff_path(dir).c_str());
  const std::vector<std::string> words = wllb_words(text, 2);
  char *end = nullptr;
  errno = 0;
  *diff = words.size() == 1 ? strtoll(words[0].c_str(), &end, 10) : 0;
  return end && end != words[0].c_str() && *end == '\0' && errno == 0;
}

int64_t wllb_get_cur_epoch_diff(const char *dir) {
  int64_t diff = 0;
  if (!wllb_path_exists(wllb_epoch_diff_path(dir).c_str()))
    return 0;
  return wllb_read_epoch_diff(dir, &diff) ? diff : -1;
}

// --- partition info -------------------------------------------------------------------------------------------

// A line of the info file and the one field it fills; none for what is accepted and ignored.
struct partition_info_row {
  std::string_view name;
  int64_t PartitionInfo::*wide = nullptr;
  int PartitionInfo::*number = nullptr;
  char PartitionInfo::*level = nullptr;
};

// clang-format off
constexpr partition_info_row partition_info_rows[] = {
  {.name = "FirstPartition",    .wide = &PartitionInfo::first_partition},
  {.name = "StartPartition",    .wide = &PartitionInfo::start_partition},
  {.name = "CurrentPartition",  .wide = &PartitionInfo::cur_partition},
  {.name = "PreviousPartition", .wide = &PartitionInfo::prev_partition},
  {.name = "NextPartition",     .wide = &PartitionInfo::next_partition},
  {.name = "OriginalPartition", .wide = &PartitionInfo::original_partition},
  {.name = "AbsoluteTime",      .wide = &PartitionInfo::absolute_time},
  {.name = "VexEpocDiff",       .wide = &PartitionInfo::vex_epoch_diff},
  {.name = "TRInfoShmKey",      .number = &PartitionInfo::test_run_info_shr_mem_id},
  {.name = "WlParentPID",       .number = &PartitionInfo::wl_parent_pid},
  {.name = "WlPort",            .number = &PartitionInfo::wl_port},
  {.name = "ReaderRunMode",     .number = &PartitionInfo::reader_run_mode},
  {.name = "NLMTraceLevel",     .level = &PartitionInfo::nlm_trace_level},
  {.name = "NLWTraceLevel",     .level = &PartitionInfo::nlw_trace_level},
  {.name = "NLRTraceLevel",     .level = &PartitionInfo::nlr_trace_level},
  {.name = "WLDBUTraceLevel",   .level = &PartitionInfo::wldbu_trace_level},
  {.name = "Version",           .number = &PartitionInfo::version},
  {.name = "wllogs"},
  {.name = "tqlogs"},
  {.name = "raw_data"},
};

// clang-format on

static bool set_info_field(PartitionInfo *info, std::string_view name, std::string_view value) {
  for (const partition_info_row &row : partition_info_rows) {
    if (!same_name(name, row.name))
      continue;
    const int64_t number = value_number(value);
    if (row.wide)
      info->*row.wide = number;
    if (row.number)
      info->*row.number = static_cast<int>(number);
    if (row.level)
      info->*row.level = static_cast<char>(number);
    return true;
  }
  return false;
}

static void parse_info(PartitionInfo *info, std::string_view text, const std::string &path) {
  while (!text.empty()) {
    const std::string_view line = wllb_take_piece(&text, '\n');
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line[0] == '#')
      continue;
    if (!set_info_field(info, line.substr(0, equals), line.substr(equals + 1)))
      fprintf(stderr, "Unknown field is recieved at line =%s in file = %s\n", std::string(line).c_str(), path.c_str());
  }
}

int wllb_get_partition_info(const char *base, PartitionInfo *info, const char *partition) {
  *info = {};
  const std::string path = wllb_format("%s/%s/.partition_info.txt", base, partition);
  // A name with a slash would lead out of the test run.
  const int error = strchr(partition, '/') ? EINVAL : why_unreadable(path);
  if (error != 0) {
    fprintf(stderr, "Unable to open partition %s file %s in read mode. Error: %s\n", partition, path.c_str(),
            wllb_strerror(error).c_str());
    return -1;
  }
  parse_info(info, wllb_read_small_file(path.c_str()), path);
  wllb_copy_text(info->cur_partition_name, sizeof info->cur_partition_name, std::to_string(info->cur_partition));
  return 0;
}

// --- neighbours -----------------------------------------------------------------------------------------------

// The info of a partition whose name comes from outside. Both directions tell a failure in the same words.
static int get_neighbours(const char *base, const char *partition, PartitionInfo *info) {
  if (!is_partition(partition)) {
    fprintf(stderr, "Invalid partition %s\n", partition ? partition : "");
    return -1;
  }
  if (wllb_get_partition_info(base, info, partition) == 0)
    return 0;
  fprintf(stderr, "Error in getting next partition\n");
  return -1;
}

// A next partition that is not newer counts as none, so that no walk can go in a circle.
int wllb_get_next_partition(const char *wdir, int testidx, const char *partition, int64_t *out) {
  PartitionInfo info;
  if (get_neighbours(wllb_format("%s/logs/TR%d", wdir, testidx).c_str(), partition, &info) != 0)
    return -1;
  if (info.next_partition < 1 || info.next_partition <= value_number(partition))
    return 1;
  *out = info.next_partition;
  return 0;
}

int wllb_get_prev_partition(const char *base, const char *partition, int64_t *out) {
  PartitionInfo info;
  if (get_neighbours(base, partition, &info) != 0)
    return -1;
  if (info.prev_partition <= 0 || info.prev_partition >= value_number(partition))
    return 1;
  *out = info.prev_partition;
  return 0;
}

// --- the walk back --------------------------------------------------------------------------------------------

static bool is_empty_or_missing_directory(const char *path) {
  std::error_code error;
  const std::filesystem::directory_iterator first(path, error);
  return error || first == std::filesystem::directory_iterator();
}

// Marks a partition in which nothing was recorded as done. When it has a raw data directory, what is looked into is
// the directory "buffer" below the process's working directory, and not the raw data.
static void check_raw_data_directory_and_create_offset(const char *base, const char *partition, const char *subdir) {
  if (!*base || !*partition || !*subdir)
    return;
  const std::string csv_dir = wllb_format("%s/%s/tq/csv", base, partition);
  const std::string done_file = wllb_format("%s/%s", csv_dir.c_str(), wllb_done_file_name);
  if (wllb_path_exists(done_file.c_str()))
    return;
  const bool has_raw_data = wllb_path_exists(wllb_format("%s/%s/%s", base, partition, subdir).c_str());
  const bool empty = has_raw_data ? is_empty_or_missing_directory("buffer") : wllb_is_directory(csv_dir.c_str());
  if (empty)
    const wllb_fd made(wllb_open_output(done_file.c_str(), O_WRONLY | O_CREAT));
}

// One search; the partition looked at stands in info.
struct walk_back {
  const char *base;
  const char *subdir;
  const char *file;
  DataFileInfo *info;
  int64_t candidate = 0; // oldest partition passed that has the data file without an offset; 0 before any
};

static void append_error(DataFileInfo *info, const std::string &text) {
  const size_t used = strlen(info->err_msg);
  wllb_copy_text(info->err_msg + used, sizeof info->err_msg - used, text);
}

static void name_files(const walk_back &walk) {
  DataFileInfo *info = walk.info;
  wllb_copy_text(info->full_file_name, sizeof info->full_file_name,
                 wllb_format("%s/%s/%s/%s", walk.base, info->partition, walk.subdir, walk.file));
  wllb_copy_text(info->full_offset_filename, sizeof info->full_offset_filename,
                 wllb_format("%s/%s/%s/.%s.offset", walk.base, info->partition, walk.subdir, walk.file));
}

static void go_to_partition(const walk_back &walk, int64_t partition) {
  walk.info->partition_idx = partition;
  wllb_copy_text(walk.info->partition, sizeof walk.info->partition, std::to_string(partition));
  name_files(walk);
}

// Only for the trace: what the agent wrote is text, so the eight bytes are seldom a number below the size.
static void compare_offset_with_data(DataFileInfo *info) {
  const auto idx = static_cast<long long>(info->partition_idx);
  const wllb_fd file(wllb_open_plain(info->full_offset_filename, O_RDONLY));
  if (file.fd < 0) {
    append_error(info, wllb_format("Error in opening offset file in %lld;", idx));
    return;
  }
  int64_t offset = 0;
  const ssize_t got = read(file.fd, &offset, sizeof offset);
  struct stat data = {};
  if (got != static_cast<ssize_t>(sizeof offset))
    append_error(info, wllb_format("Error in reading offset file in %lld;", idx));
  else if (stat(info->full_file_name, &data) == 0 && offset > data.st_size)
    append_error(info, wllb_format("Offset %lld is less than size of data file %d;", static_cast<long long>(offset),
                                   static_cast<int>(data.st_size)));
}

enum walk_step { WALK_ON, WALK_FOUND, WALK_STAY, WALK_FALL_BACK };

// What the two files of the partition at hand mean for the search.
static walk_step look_at_files(walk_back *walk, bool has_previous) {
  DataFileInfo *info = walk->info;
  const auto idx = static_cast<long long>(info->partition_idx);
  const bool has_data = wllb_path_exists(info->full_file_name);
  if (wllb_path_exists(info->full_offset_filename)) {
    if (has_data)
      return WALK_FOUND;
    append_error(info, wllb_format("data file is not present in %lld;", idx));
    return has_previous ? WALK_ON : WALK_FALL_BACK;
  }
  append_error(info, wllb_format("offset file not present in partition %lld. Moving to prev partition;", idx));
  if (has_data)
    walk->candidate = info->partition_idx;
  if (has_previous)
    return WALK_ON;
  return walk->candidate == info->partition_idx ? WALK_STAY : WALK_FALL_BACK;
}

// One round: reads the info of the partition at hand and judges its files. *previous is where to go on WALK_ON.
static walk_step look_at_partition(walk_back *walk, int round, int64_t *previous, bool *unreadable) {
  DataFileInfo *info = walk->info;
  if (round > 0)
    check_raw_data_directory_and_create_offset(walk->base, info->partition, walk->subdir);
  PartitionInfo about;
  *unreadable = wllb_get_partition_info(walk->base, &about, info->partition) != 0;
  if (*unreadable) {
    append_error(info, wllb_format(".partition_info file not found in partition %lld;",
                                   static_cast<long long>(info->partition_idx)));
    return WALK_FALL_BACK;
  }
  *previous = about.prev_partition;
  const bool has_previous = about.prev_partition > 0;
  if (!has_previous && round == 0)
    return WALK_STAY;
  if (about.prev_partition >= info->partition_idx)
    return WALK_FALL_BACK;
  return look_at_files(walk, has_previous);
}

// Each round goes to a smaller partition, so the walk ends on any chain.
int wllb_get_last_partition(const char *base, const char *subdir, const char *file, DataFileInfo *info) {
  walk_back walk = {.base = base, .subdir = subdir, .file = file, .info = info};
  info->err_msg[0] = '\0';
  info->partition_idx = value_number(info->partition);
  name_files(walk);
  for (int round = 0;; ++round) {
    int64_t previous = 0;
    bool unreadable = false;
    const walk_step step = look_at_partition(&walk, round, &previous, &unreadable);
    if (round == 0 && unreadable)
      return -1;
    if (step == WALK_ON) {
      go_to_partition(walk, previous);
      continue;
    }
    if (step == WALK_FALL_BACK)
      go_to_partition(walk, walk.candidate);
    if (step == WALK_FOUND)
      compare_offset_with_data(info);
    return 0;
  }
}

// --- time -----------------------------------------------------------------------------------------------------

static bool partition_names_are_utc(int use_gmt, const char *base, const char *partition) {
  if (use_gmt != -1)
    return use_gmt != 0;
  PartitionInfo info;
  return wllb_get_partition_info(base, &info, partition) == 0 && info.version != 0;
}

time_t wllb_get_vexepoch_time_from_partition(const char *partition, int64_t epoch_diff, int use_gmt, const char *base) {
  if (!partition || !*partition)
    return 0;
  tm when = {};
  const char *end = strptime(partition, "%Y%m%d%H%M%S", &when);
  if (!end || *end)
    return 0;
  when.tm_isdst = -1;
  const time_t begin = partition_names_are_utc(use_gmt, base, partition) ? timegm(&when) : mktime(&when);
  time_t in_test = 0;
  return __builtin_sub_overflow(begin, epoch_diff, &in_test) ? 0 : in_test;
}
