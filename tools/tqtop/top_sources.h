// Where tqtop's numbers come from: the status file that the daemon writes on demand, the growth of raw and flowpath files,
// the monitors' samples, the dumps of flowpaths in flight.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

struct top_run {
  std::string base; // "<dir>/logs/TR<n>"
  pid_t pid = 0;    // of the daemon; 0: none is running
};

// One line of the status file.
struct top_position {
  std::string name, partition;
  int64_t file_size = 0; // bytes of the raw file
  int64_t processed = 0; // bytes of it that have been read
  int64_t remaining = 0; // partitions still to be switched to
};

// Kinds of errors that a health sample tells of an instance, since the sample before.
constexpr int top_error_kinds = 5;
extern const char *const top_error_names[top_error_kinds];
using top_errors = std::array<int64_t, top_error_kinds>;

// The daemon's pid by its pid file, 0 when it does not run.
pid_t top_find_daemon(const top_run &run);

// Has the status file written anew and reads it. False when nothing came within two seconds.
bool top_ask_status(const top_run &run, std::vector<top_position> *positions);

// Lines in bytes [from, to) of a file; what cannot be read has none.
int64_t top_count_lines(const std::string &path, int64_t from, int64_t to);

int64_t top_file_size(const std::string &path); // 0 when there is none
std::string top_raw_file(const top_run &run, const std::string &partition, const std::string &name);
std::string top_flowpath_file(const top_run &run, const std::string &partition, const std::string &name);

// The newest health sample of each instance in a file of sample lines, by instance name.
std::map<std::string, top_errors> top_read_samples(const std::string &path);

// Has every instance dump its flowpaths in flight, counts them and removes the dumps. Empty when another request is
// waiting, or nothing came within two seconds.
std::map<std::string, int64_t> top_ask_open_flowpaths(const top_run &run, const std::vector<top_position> &positions);
