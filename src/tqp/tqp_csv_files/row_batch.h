// How rows of numbers are put together. Rows of one segment are collected on their way to a stream, so that a call of a
// writer costs one write a file.
//   In      rows, put piece by piece
//   Out     the stream's bytes, in order, past its own buffer, which nobody uses; a batch is written whole or not at all
//   Thread  the owner's; the record lives on its stack
#pragma once

#include "data_files.h"

#include "wllb_text.h"

#include <cmath>
#include <cstdio>
#include <limits>

// Bytes that a whole number takes at most, with the comma behind it.
constexpr size_t tqp_column_room = 21;

struct tqp_row_batch {
  FILE *file;        // null: closed, and then no row may be put
  bool used = false; // a row was put
  wllb_text rows;    // lies in `room`
  char room[32768];

  explicit tqp_row_batch(FILE *stream) : file(stream), rows{room, 0, sizeof room} {}

  tqp_row_batch(const tqp_row_batch &) = delete;
  tqp_row_batch &operator=(const tqp_row_batch &) = delete;

  // Begins a row of at most `most` bytes (below the size of the room); the caller ends it with done(rows).
  wllb_putter next_row(size_t most) {
    if (rows.len + most >= sizeof room)
      write_out();
    used = true;
    return {rows, most, "row batch"};
  }

  void write_out() {
    if (rows.len > 0)
      tqp_append_rows(file, wllb_text_view(rows));
    rows.len = 0;
  }

  void flush() { write_out(); }
};

// An agent's number as a sum can bear it: not a number counts as 0, an infinite one as the greatest there is.
inline double tqp_finite(double v) {
  constexpr double most = std::numeric_limits<double>::max();
  return std::isnan(v) ? 0.0 : v > most ? most : v < -most ? -most : v;
}

// Bytes that tqp_put_fixed takes at most: sign, 309 digits, point, 6 digits.
constexpr size_t tqp_fixed_room = 320;

// Puts a number as "%lf" prints it.
inline void tqp_put_fixed(wllb_putter &to, double v) {
  to.at = std::to_chars(to.at, to.at + tqp_fixed_room, tqp_finite(v), std::chars_format::fixed, 6).ptr;
}
