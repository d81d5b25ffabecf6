// What could not be read, where, and why.
//   In      the place and the reason, from whichever room met the fault
//   Out     one record, one text
//   Thread  any
//   Failure none
// The library never prints, never throws and never ends the process: what goes wrong comes back as such a record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tqread {

enum class place_unit : uint8_t {
  whole_file, // `at` means nothing
  row,        // `at` counts rows of the file from 1
  byte        // `at` counts bytes of the file from 0
};

struct error {
  std::string path; // of the file, below the test run's directory where it lies there; "" when there is no file
  place_unit unit = place_unit::whole_file;
  int64_t at = 0;
  std::string reason; // plain words, without the place; "": nothing is wrong

  explicit operator bool() const { return !reason.empty(); }
};

// "20261122100000/tq/csv/Shop/TQFlowPath.csv row 3: the row has not 48 columns". Path and reason may hold bytes of
// hostile files: the text is fit for a terminal and is valid UTF-8.
std::string error_text(const error &error);

} // namespace tqread
