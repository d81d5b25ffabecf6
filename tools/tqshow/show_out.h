// What every part of tqshow prints with: a large buffer, columns, colours.
//   In      texts that are fit for a terminal (names are loaded so; all else goes through put_safe())
//   Out     standard output
//   Thread  one
//   Failure a standard output that takes no more: failed(), and nothing more is written
#pragma once

#include "tqread_names.h"
#include "tqread_run.h"

#include <cstdint>
#include <string>
#include <string_view>

enum show_colour : uint8_t { NO_COLOUR, DIM, BOLD, CYAN, RED, YELLOW };

struct show_out {
  bool colours = false;
  const char *guide = "| "; // of one level of a tree

  ~show_out() { flush(); }

  show_out() = default;
  show_out(const show_out &) = delete;
  show_out &operator=(const show_out &) = delete;

  show_out &put(std::string_view text) {
    held.append(text);
    return *this;
  }

  show_out &number(int64_t value);
  show_out &real(double value, int decimals); // without zeros at its end

  // Text of a file: control characters become '?', invalid bytes U+FFFD, what is longer than `most` ends in "...".
  show_out &put_safe(std::string_view text, size_t most);

  // One cell: padded to `width` characters; longer ones are not cut.
  show_out &left(std::string_view text, size_t width);
  show_out &right(std::string_view text, size_t width);
  show_out &right(int64_t value, size_t width);

  show_out &begin_colour(show_colour colour);
  show_out &end_colour(show_colour colour);

  // Ends the line, and writes when much is held.
  void end_line();
  void flush();

  bool failed() const { return has_failed; }

private:
  std::string held;
  bool has_failed = false;
};

// How many columns of a terminal a text takes: its characters.
size_t show_width(std::string_view text);

// A name of at most `most` bytes, "#5" when there is none.
std::string show_name(const tqread::name_table &names, tqread::name_kind kind, int64_t id, size_t most);
