// How tqtop's pictures look: a table of at most 80 columns, or a line of JSON.
//   In      one row an instance; what is not known has no value
//   Out     text
//   Thread  one
//   Failure none
// Sample:  Orders_ord01_orders     20260302100000   12.4M     0    1841     7.5     -   3
#pragma once

#include "top_sources.h"

#include <optional>

struct top_row {
  std::string instance, partition;
  std::optional<int64_t> lag = {};                  // bytes of the present raw file not yet read
  int64_t partitions_left = 0;                      // still to be switched to
  std::optional<double> lines = {}, flowpaths = {}; // a second, over the interval
  std::optional<int64_t> open = {};                 // flowpaths in flight
  std::optional<top_errors> errors = {};            // since the health sample before
};

// One picture as text, a line each; names of instances are cut in the middle, control characters replaced.
std::string top_table(pid_t pid, const std::vector<top_row> &rows);

// The same as one line of JSON; null is what is not known.
std::string top_json(pid_t pid, const std::vector<top_row> &rows);

// What the headings mean.
extern const char *const top_legend;
