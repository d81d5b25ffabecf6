// Cuts a segment's blob and callout text into tokens and rows.
//   In      inflated texts that may be damaged
//   Out     tokens and rows, views into the texts
//   Thread  any
//   Failure a token of kind bad; the next one is looked for after it
// tqread_tree.h makes a tree of the tokens; few need them one by one.
#pragma once

#include "tqread_records.h"

#include <cstdint>
#include <string_view>

namespace tqread {

// --- tokens -------------------------------------------------------------------------------------------------------

enum class token_kind : uint8_t { entry, exit, uninstrumented, callout, bad };

// What is there of a callout. Durations and starts stand as the agent sent them.
struct callout_token {
  char letter = 0;         // "TtxcgeEaA", 'G', 'C'
  bool is_bare = false;    // nothing but letter and number
  std::string_view number; // after the letter: "12", or "1.2.12" on a segment's first one
  int64_t backend_id = 0, query_id = 0, resource_id = 0;
  std::string_view duration_ms, backend_type, start_ms; // the start counts from the segment's begin; G: the type alone
  std::string_view status, parameter;
  std::string_view net_request_ms, net_response_ms;
  std::string_view values;                 // G: "count:four values:errors"
  int64_t parent_number = 0, flowpath = 0; // a, A
};

// One token. Times are milliseconds since the segment's begin; ids are norm ids.
struct blob_token {
  token_kind kind;
  std::string_view text; // all of it
  int64_t method_id;
  bool has_thread, is_async;
  int64_t thread_id;
  std::string_view task_id;
  bool has_number;
  int64_t number;      // sequence number
  bool logs;           // entry: dynamic logging, or custom data
  int64_t time_ms;     // entry: when; exit: when it ended
  int64_t times_ms[5]; // exit: CPU, wait, sync, I/O, suspension
  bool is_forced;      // exit: written because a method below it ended
  int event_parts;     // of the event field: 3 on the exits of the exit form
  callout_token callout;
};

struct blob_cursor {
  explicit blob_cursor(std::string_view text); // finds out the form; the text stays the caller's

  // False at the end. Empty pieces, which damaged raw data leaves behind, are passed over.
  bool next(blob_token *token);

  bool is_exit_form() const { return exit_form_; }

private:
  std::string_view rest_;
  bool exit_form_ = false;
};

// --- callout rows -------------------------------------------------------------------------------------------------

struct callout_rows {
  callout_rows(std::string_view text, int64_t epoch_diff_s) : rest_(text), epoch_diff_s_(epoch_diff_s) {}

  // The next row. False at the end, and when what follows is no row: then left_over() is not empty.
  bool next(callout_record *row);

  bool was_cut() const { return cut_; } // the row read last was cut at 2047 bytes: its last columns are 0 or empty

  std::string_view left_over() const { return rest_; }

private:
  std::string_view rest_;
  int64_t epoch_diff_s_;
  bool cut_ = false;
};

// Summed calls of a grouped row: the numbers of a 'G' stand in its type, those of a 'C' in its last columns.
struct group_numbers {
  int64_t type = 0, count = 0, errors = 0;
  double shortest_ms = 0, longest_ms = 0, total_ms = 0; // 0: not given
};

// False when the row is neither a 'G' nor a 'C'.
bool read_group(const callout_record &row, group_numbers *numbers);

// The same for a 'G' token's values.
bool read_group_values(std::string_view values, group_numbers *numbers);

// --- backend types --------------------------------------------------------------------------------------------------

enum class backend_group : uint8_t { other, database, http, messaging };

struct backend_type {
  int64_t number;
  const char *name;   // for people: "HTTP"
  const char *system; // in the field's conventions for traces: "http"; null: there is none
  backend_group group;
};

// What is known of a type; of an unknown one the number, null names and the group other.
backend_type backend_type_of(int64_t number);

// Whether a callout of this type names a query.
bool is_database(std::string_view type);

// Words for a callout's letter: "call", "grouped queries", ...
const char *words_of_callout(char letter);

} // namespace tqread
