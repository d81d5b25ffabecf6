// The directories and small files of a test run that stand there before any agent's data.
//   In      the working directory, the test run number, the partitions' begin times
//   Out     files under WORKDIR/logs/TR<n>; WORKDIR/webapps/logs as a link to ../logs
//   Thread  one
//   Failure -1 with a line on standard error that names the file
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct sample_layout_t {
  std::string base;               // WORKDIR/logs/TR<n>
  std::vector<std::string> names; // of the partitions, oldest first: YYYYMMDDHHMMSS in UTC
  std::vector<int64_t> begins;    // of the partitions, in seconds since 1970
};

// The test's epoch in seconds since 1970; agents count from there. 2020-01-01 00:00:00 UTC.
constexpr int64_t sample_epoch = 1577836800;

constexpr int64_t sample_partition_seconds = 3600;

// Names the partitions: the first one begins at `start` (14 digits, UTC), each of the others an hour after the one
// before. False when `start` is no such time, or one before the epoch.
bool sample_plan_layout(sample_layout_t *layout, const std::string &work_dir, int testrun, int partitions,
                        const std::string &start);

// Makes everything but the raw data files. `keywords`: lines of the keyword file; `monitored`: the parent takes
// monitors. 0 or -1; a test run that stands there already is an error.
int sample_make_layout(const sample_layout_t &layout, const std::string &work_dir, int testrun,
                       const std::string &keywords, bool monitored);

// Makes one more partition, the newest from now on, behind the others: `begin` is a time after theirs. Its raw data
// files are the caller's to make. 0 or -1.
int sample_add_partition(sample_layout_t *layout, int64_t begin);

// Writes a small file anew; a reader sees the old bytes or the new ones. 0 or -1.
int sample_replace_file(const std::string &path, std::string_view bytes);

// Makes an empty raw data file. Its descriptor, for the caller to close, or -1.
int sample_open_raw_file(const sample_layout_t &layout, size_t partition, const std::string &instance_name);

// All of `bytes` at the end of a file. 0, or -1 with a line on standard error.
int sample_write(int fd, std::string_view bytes);
