// Passes over a test run's files: each takes what has come since the one before.
//   In      partitions, done files, rows; a driver
//   Out     calls to the driver
//   Thread  one
//   Failure of the driver, by return value
#pragma once

#include "upload_driver.h"
#include "upload_files.h"

#include <functional>

struct upload_partition {
  int64_t number;
  bool finished;              // done, and taken to its end: only late rows can come
  int64_t done_read;          // bytes of its done file
  std::set<std::string> late; // files that a line of its done file has named
};

struct upload_rounds {
  upload_options options;
  upload_driver *driver;              // the caller's
  std::function<bool()> told_to_stop; // asked between two pieces
  upload_positions positions;
  std::vector<upload_partition> partitions; // oldest first
};

enum upload_passed { UPLOAD_NOTHING_NEW, UPLOAD_TOOK_SOME, UPLOAD_DRIVER_FAILED };

// One pass over all there is. May end early when told to stop.
upload_passed upload_pass(upload_rounds *rounds);
