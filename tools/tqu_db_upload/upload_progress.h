// What a person sees of a load by hand: a line that is redrawn on a terminal, a plain line now and then elsewhere.
//   In      totals of the loader
//   Out     standard error
//   Thread  main
//   Failure none
#pragma once

#include "tqdb_load.h"

#include <chrono>
#include <string>

struct upload_progress {
  // bytes_there: of all row files, as far as they are not loaded yet.
  explicit upload_progress(int64_t bytes_there);

  void show(const tqdb::load_totals &totals);
  void clear() const; // takes the redrawn line away

  double seconds() const;

private:
  std::chrono::steady_clock::time_point begun_, shown_;
  int64_t bytes_there_;
  bool terminal_;
};

// Bytes of all row files of a test run.
int64_t upload_bytes_there(const std::string &base);

// "1,234,567"
std::string upload_with_commas(int64_t number);
