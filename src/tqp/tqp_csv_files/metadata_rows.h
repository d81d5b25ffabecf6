// What the writers of metadata rows share: the row cursor and the one way a row gets into a common file.
//   In      norm ids and texts
//   Out     whole rows at the end of the common files
//   Thread  any; the file's lock is taken inside
#pragma once

#include "tqp_csv_files.h"

#include <charconv>
#include <string_view>

// Writes a row's fields one behind the other; the memory behind `at` has room for them.
struct tqp_row_cursor {
  char *at;

  // Bytes that a number and the byte behind it take at most.
  static constexpr size_t number_room = 21;

  tqp_row_cursor &number(int64_t value, char after) {
    at = std::to_chars(at, at + number_room, value).ptr;
    *at++ = after;
    return *this;
  }

  tqp_row_cursor &text(std::string_view value) {
    at += value.copy(at, value.size());
    return *this;
  }
};

// How an instance's buffer for a query's row grows.
inline constexpr wllb_growth sql_table_growth = {
    .first = 2048, .step = 0, .label = "tqp_imap[jvmid]->sql_table_data_buf"};

// Appends a row to the common file `idx` (metadata_csv_idx) under its lock and flushes it; a closed file is opened
// first. False, after a trace line, when the row is lost. The two files of queries share one lock.
bool tqp_append_metadata_row(tqp_instance_t *inst, int idx, std::string_view row);

// Name of the common file `idx`.
const char *tqp_metadata_file_name(int idx);
