// The files of a test run as a loader meets them: which there are, and whole rows of one.
//   In      directories and growing files of the daemon
//   Out     names, sizes, bytes
//   Thread  one
//   Failure what is not there, or is no plain file, is passed over
#pragma once

#include "wllb_util.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct upload_file {
  int64_t partition; // 0: common to all
  std::string path;  // below the test run's directory
  int64_t size;      // bytes, when it was listed
};

// Adds the files of names, and those of one partition, in the order of their paths.
void upload_list_common(const std::string &run_dir, std::vector<upload_file> *files);
void upload_list_partition(const std::string &run_dir, int64_t partition, std::vector<upload_file> *files);

// Adds these files of one partition, with their sizes of now.
void upload_list_named(const std::string &run_dir, int64_t partition, const std::set<std::string> &paths,
                       std::vector<upload_file> *files);

// Path below the test run's directory of a partition's done file.
std::string upload_done_path(int64_t partition);

// Adds the paths that a done file's line means: "jvmid,appID,instance/file". Other lines add nothing.
void upload_late_paths(int64_t partition, std::string_view line, std::set<std::string> *paths);

// A plain file that is read from any place; closed at the end of its scope.
struct upload_reader {
  wllb_fd file;
  uint64_t inode = 0;
  int64_t size = 0;
  bool records = false; // binary records, not lines

  upload_reader(const std::string &run_dir, const std::string &path);

  // Whole rows from `from` on, none from behind `limit`; some megabytes at most, unless one row is longer. Empty: none.
  std::string rows(int64_t from, int64_t limit) const;
  int64_t count(std::string_view rows) const;
};
