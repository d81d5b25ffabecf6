// Texts and numbers of files that nobody vouches for.
//   In      bytes
//   Out     numbers, pieces as views into the bytes, texts that are safe to show
//   Thread  any
//   Failure false, or the caller's other value
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tqread {

// Optional '-' and decimal digits, nothing else, within 64 bits. False leaves *value as it was.
bool read_number(std::string_view text, int64_t *value);
int64_t number_or(std::string_view text, int64_t otherwise);

// The same, but a number between 2^63 and 2^64 is taken as well, as its bit pattern: sums of agents' numbers wrap around.
bool read_wrapping_number(std::string_view text, int64_t *value);

// A decimal number with or without a fraction; never "inf" or "nan".
bool read_real(std::string_view text, double *value);

// Takes the text before the next separator off the front of *rest, and the separator. At the end: all there is.
std::string_view take_piece(std::string_view *rest, char separator);

// How many pieces `text` has between separators; the first `most` are stored. An empty text has one.
size_t split(std::string_view text, char separator, std::string_view *pieces, size_t most);

// Appends the text with U+FFFD in the place of each invalid byte sequence. Valid UTF-8 comes out as it is.
void append_utf8(std::string_view text, std::string *out);

// Appends the text for a terminal or for one line of a report: valid UTF-8 as above, and '?' for each control character
// (C0, DEL, C1) and for each character that changes the direction of text or has no width of its own line. What is longer
// than `most` bytes ends in "..."; characters are never cut in two.
void append_printable(std::string_view text, size_t most, std::string *out);
std::string printable(std::string_view text, size_t most);

// Whether a text matches a pattern in which '*' stands for any text and '?' for one byte; other bytes stand for
// themselves. Takes time in proportion to both lengths multiplied, at most.
bool matches_wildcards(std::string_view text, std::string_view pattern);

} // namespace tqread
