// Reads the fields of a record in place: separators become NULs, fields are pointers into the block.
//   In      a record between a cursor and its newline
//   Out     texts that are valid until the block is refilled
//   Failure reading behind the end gives an empty text, again and again; the next line is never touched
// Sample:  "a,,b," gives "a", "", "b" with 0 each, then "" with -1
#pragma once

#include <cstdint>
#include <cstdlib>

inline bool tqp_is_digit(char c) {
  return c >= '0' && c <= '9';
}

// As many digits as 64 bits without sign always hold.
constexpr int most_plain_digits = 19;

// The number at the start of a text, as strtoll reads it; *stop is where the plain digits end. Nearly every number is a
// few digits and nothing else: hence no call for those.
inline int64_t tqp_read_number(const char *text, const char **stop) {
  uint64_t value = 0;
  const char *at = text;
  for (; tqp_is_digit(*at); ++at)
    value = value * 10 + static_cast<unsigned char>(*at - '0');
  *stop = at;
  if (at - text > most_plain_digits || value > INT64_MAX || (at == text && *at != 0))
    return strtoll(text, nullptr, 10);
  return static_cast<int64_t>(value);
}

inline int64_t tqp_read_number(const char *text) {
  const char *stop;
  return tqp_read_number(text, &stop);
}

// 0: a separator stood before the end, more may follow; -1: this field was the last. *out is valid in both cases.
int read_next_field(char **out, char **p_cursor, char *end_of_record, char separator);

// The same with the text as result; *ended tells that this field was the last.
char *cut_next_field(char **p_cursor, char *end_of_record, char separator, bool *ended);

// Reads up to four numbers of "n1:n2:n3:n4" from *p_text into the pointers that are not null; missing parts leave
// their targets alone. *p_text becomes null. A null text does nothing.
void parse_fpi_tuple(char **p_text, int64_t *a, int64_t *b, int64_t *c, int64_t *d);

// A record being read straight down: ask for the fields, then ask once what was missing or left over.
struct tqp_fields {
  char *pos;            // unread bytes are [pos, end)
  char *end;            // the record's newline
  bool ended = false;   // the last field has been read
  bool missing = false; // a field was asked for behind it

  char *next(char separator = ',') {
    if (ended)
      missing = true;
    return cut_next_field(&pos, end, separator, &ended);
  }

  int64_t next_number() { return tqp_read_number(next()); }
};
