// Reads the fields of a blob's tokens in place, with read_next_field's results, and the numbers in them. Nearly every
// field is a number of a few digits and there are five of them in a token: hence no calls and no copies here.
//   In      a cursor in a piece of a blob and the piece's end
//   Out     fields cut by a NUL, numbers with the C library's results: blanks and signs, junk is 0, saturation
//   Failure a field asked for behind the end is empty and the last one, again and again; the next line is never touched
// Sample:  "17:99_0__" gives "17:99", "0", "" as fields; "17:99" gives 17 and 99 as parts
#pragma once

#include "field_cursor.h"

#include <cstddef>
#include <cstring>
#include <iterator>

// One field; a NUL ends it.
struct blob_field {
  char *text;
  bool last; // the line ended before a '_' did
};

// Nothing is left to read: the cursor is on a NUL or on the newline. Behind the newline the answer is no, so that whoever
// goes on there asks for a field and learns that it is missing.
inline bool tqp_at_text_end(const char *pos, const char *end) {
  return pos <= end && (*pos == 0 || *pos == '\n');
}

// First '_' in [from, end), or null.
inline char *tqp_find_cut(char *from, char *end) {
  char *const near = end - from > 12 ? from + 12 : end;
  for (; from < near; ++from)
    if (*from == '_')
      return from;
  return from < end ? static_cast<char *>(memchr(from, '_', static_cast<size_t>(end - from))) : nullptr;
}

// A NUL under the cursor is the '_' that was cut last; an empty field begins there.
inline blob_field tqp_next_blob_field(char *&pos, char *end) {
  char *const text = pos <= end ? pos : end;
  char *const cut = tqp_find_cut(text < end && *text == 0 ? text + 1 : text, end);
  if (!cut) {
    *end = 0;
    pos = end + 1;
    return {text, true};
  }
  *cut = 0;
  pos = cut[1] == '_' && cut + 1 < end ? cut : cut + 1;
  return {text, false};
}

inline int64_t tqp_blob_number(const char *text) {
  return tqp_read_number(text);
}

// The number of milliseconds at the start of a text, with the C library's result. Digits with at most one point among
// them are exact in a double while they are few, and so is the power of ten: one division then rounds as the library.
inline double tqp_blob_decimal(const char *text) {
  constexpr double powers[] = {1, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  constexpr auto most_exact_digits = static_cast<ptrdiff_t>(std::size(powers)) - 1;
  uint64_t digits = 0;
  const char *at = text, *point = nullptr;
  for (; tqp_is_digit(*at) || (*at == '.' && !point); ++at)
    if (*at == '.')
      point = at;
    else
      digits = digits * 10 + static_cast<unsigned char>(*at - '0');
  const ptrdiff_t count = at - text - (point ? 1 : 0);
  if (*at != 0 || count < 1 || count > most_exact_digits)
    return strtod(text, nullptr);
  return static_cast<double>(digits) / powers[point ? at - point - 1 : 0];
}

// The number at *text, which moves behind the next ':' and is null when there is none.
inline int64_t tqp_next_part(char **text) {
  const char *digits_end;
  const int64_t value = tqp_read_number(*text, &digits_end);
  char *const stop = *text + (digits_end - *text);
  char *const colon = *stop == ':' ? stop : *stop == 0 ? nullptr : strchr(stop, ':');
  *text = colon ? colon + 1 : nullptr;
  return value;
}

// The numbers of one field.
struct blob_numbers {
  int64_t value[5];
  char *second; // where the second one begins
};

// Reads a field of at most `most` plain numbers joined by ':' in one pass, which nearly every field is. How many there
// were; 0 for any other field, and then nothing has been read.
inline int tqp_next_blob_numbers(char *&pos, const char *end, int most, blob_numbers *out) {
  char *at = pos;
  if (at >= end)
    return 0;
  for (int n = 0; n < most; ++n) {
    const char *const begin = at;
    uint64_t value = 0;
    for (; tqp_is_digit(*at); ++at)
      value = value * 10 + static_cast<unsigned char>(*at - '0');
    if (at == begin || at - begin > most_plain_digits || value > INT64_MAX)
      return 0;
    out->value[n] = static_cast<int64_t>(value);
    if (*at == '_') {
      *at = 0;
      pos = at[1] == '_' ? at : at + 1;
      return n + 1;
    }
    if (*at != ':')
      return 0;
    ++at;
    if (n == 0)
      out->second = at;
  }
  return 0;
}

// Sums of agents' numbers wrap around.
inline int64_t tqp_wrap_sum(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

inline int64_t tqp_wrap_less(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
