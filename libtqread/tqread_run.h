// A test run on disk: its epoch, its partitions, its instances, and where their files are.
//   In      a working directory and the number of a test run
//   Out     names in order, paths, times
//   Thread  any; a test_run is only read once it has been opened
//   Failure an error record; a directory that cannot be read has no entries
#pragma once

#include "tqread_error.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tqread {

struct test_run {
  std::string work_dir;     // holds "logs" and, usually as a link to it, "webapps/logs"
  int number = 0;           // of the test run
  std::string base;         // "<work_dir>/logs/TR<number>", without a slash at its end
  int64_t epoch_diff_s = 0; // seconds from 1970 to the test's epoch; row readers need it, nobody else
};

// Opens a test run. An error when there is none; a test run without an epoch file counts from 1970.
error open_run(const std::string &work_dir, int number, test_run *run);

// Names of partitions (14 digits), oldest first; of the instances that have a directory of rows in one, sorted by bytes.
// Names with control characters, '/' and hidden names are left out.
std::vector<std::string> partitions(const test_run &run);
std::vector<std::string> instances(const test_run &run, std::string_view partition);

// Paths below the test run's directory. Names are taken as they are: pass only those that the lists above gave.
std::string common_path(std::string_view file);                                                     // "tq/csv/<file>"
std::string row_path(std::string_view partition, std::string_view instance, std::string_view file); // rows in text
std::string timing_path(std::string_view partition, std::string_view instance);                     // rows in binary

// A path below the test run's directory as one that can be opened.
std::string full_path(const test_run &run, std::string_view below);

// ms since 1970 of a second, or of a millisecond, of the test's epoch; what 64 bits do not hold becomes the nearest end.
int64_t utc_ms_of_s(int64_t epoch_diff_s, int64_t test_s);
int64_t utc_ms_of_ms(int64_t epoch_diff_s, int64_t test_ms);

// "2026-11-22 10:00:05" or, with milliseconds, "2026-11-22 10:00:05.014", in UTC. Years outside 0 to 9999: the number.
std::string utc_text(int64_t utc_ms, bool with_ms);

// Reads "2026-11-22", "2026-11-22 10:00", "...:05", "...:05.014" (a 'T' for the blank and a 'Z' at the end are taken), 14
// digits as in a partition's name, or '@' and seconds since 1970, all in UTC. False: not a time.
bool read_utc_text(std::string_view text, int64_t *utc_ms);

} // namespace tqread
