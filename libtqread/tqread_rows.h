// Reads rows into typed records: one line, all rows between two places of a file, or a whole file.
//   In      bytes of row files, in text or (method timing) in binary, that may be damaged, cut or still growing
//   Out     records; a bad row comes with its place and reason, and the next one follows
//   Thread  each reader is one thread's
//   Failure a bad row: reason(); a file that cannot be opened reads as an empty one with an error
#pragma once

#include "tqread_error.h"
#include "tqread_tables.h"

#include "wllb_util.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tqread {

constexpr size_t longest_row = size_t{64} << 20U;  // bytes; a longer one is bad, and is passed over without being kept
constexpr size_t method_timing_record_bytes = 144; // of one binary row

// --- one row ----------------------------------------------------------------------------------------------------

// Reads one line without its newline. Null, or what is wrong with it: a constant text. *record is then half filled.
// The record's texts are views into `line`.
const char *read_row(const table &of, std::string_view line, int64_t epoch_diff_s, any_record *record);

// Takes the next segment's line off the front of a list of segments, up to the '|' after it. Null, or what is wrong: then
// the list is as it was.
const char *take_segment_row(std::string_view *list, int64_t epoch_diff_s, any_record *record);

// Reads the 19 columns of a callout row; what is no number becomes 0, since a row may be cut.
void read_callout_cells(const std::string_view *cells, int64_t epoch_diff_s, any_record *record);

// One binary row of method timing, of method_timing_record_bytes. Null, or what is wrong.
const char *read_binary_timing(const char *bytes, int64_t epoch_diff_s, method_timing_record *record);

// --- the rows of a piece of a file --------------------------------------------------------------------------------

// Whole rows that the caller has read:
//   for (row_cursor rows(table, binary, bytes, from, epoch); rows.next();)
//     if (rows.reason()) set_aside(rows.at_byte(), rows.reason()); else take(rows.record.as<flowpath_record>());
struct row_cursor {
  any_record record; // of the row read last, when it is good

  // `bytes` stay the caller's; `from` is their place in the file.
  row_cursor(const table &of, bool binary_rows, std::string_view bytes, int64_t from, int64_t epoch_diff)
      : table_(of), binary_(binary_rows), begin_(bytes), rest_(bytes), from_(from), epoch_diff_s_(epoch_diff) {}

  bool next(); // false: there are no more

  const char *reason() const { return reason_; } // what is wrong with the row; null: nothing

  int64_t at_byte() const { return from_ + at_; } // where the row begins in the file

  int64_t number() const { return number_; } // of the row in these bytes, from 1

  std::string_view bytes() const { return line_; } // of the row, without its newline

private:
  const table &table_;
  bool binary_;
  std::string_view begin_, rest_, line_;
  int64_t from_, epoch_diff_s_, at_ = 0, number_ = 0;
  const char *reason_ = nullptr;
};

// --- lines of a file ----------------------------------------------------------------------------------------------

// Reads a file line by line, or record by record, from any place, in large blocks. A line without a newline at the end of
// a growing file is not complete: it is not given. Memory: a block, or the longest line, at most longest_row.
struct line_file {
  // Bytes behind `to` are not read. record_bytes: 0 for lines, else the size of each record.
  // A path that is no plain file gives no lines.
  explicit line_file(const std::string &path, int64_t from = 0, int64_t to = INT64_MAX, size_t record_bytes = 0);

  // The next whole line without its newline, or record; good until the next call. False at the end.
  bool next(std::string_view *line);

  bool is_open() const { return file_.fd >= 0; }

  bool too_long() const { return too_long_; } // the line read last is longer than longest_row: it comes empty

  int64_t left_over() const { return end_of_bytes_ - at_; } // at the end: bytes of a row that is not complete

  int64_t number() const { return number_; } // of the line read last, from 1

  int64_t at_byte() const { return line_at_; } // where it begins

  int64_t end() const { return at_; } // behind its newline: where to go on another time

  uint64_t inode() const { return inode_; }

  const std::string &open_error() const { return open_error_; } // why it is not open; "": it is

private:
  bool fill();
  bool skip_line();
  bool next_record(std::string_view *record);
  wllb_fd file_;
  std::string block_, open_error_;
  size_t begin_ = 0, end_ = 0; // unread bytes of the block
  size_t record_bytes_ = 0;
  int64_t end_of_bytes_ = 0; // where the block's bytes end in the file
  int64_t to_ = 0, at_ = 0, line_at_ = 0, number_ = 0;
  uint64_t inode_ = 0;
  bool too_long_ = false;
};

// --- the rows of a whole file ---------------------------------------------------------------------------------------

struct test_run;

// All rows of a file of the test run; `below` as row_path() and its neighbours give it. Binary when it ends in ".dat".
//   for (row_file rows(run, path, table_of(table_id::exception)); rows.next();)
//     if (rows.reason()) report(rows.fault()); else take(rows.record.as<exception_record>());
struct row_file {
  any_record record; // of the row read last, when it is good; its texts live until the next call of next()
  line_file lines;   // places and numbers

  row_file(const test_run &run, std::string below, const table &of, int64_t from = 0, int64_t to = INT64_MAX);

  bool next();

  const char *reason() const { return reason_; } // null: the row is good

  error fault() const; // with path and row number

  std::string_view bytes() const { return line_; } // of the row, without its newline; until the next call of next()

private:
  std::string below_;
  const table &table_;
  int64_t epoch_diff_s_;
  bool binary_;
  std::string_view line_;
  const char *reason_ = nullptr;
};

} // namespace tqread
