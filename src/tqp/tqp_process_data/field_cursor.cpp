// The field cutter of raw records; see the header.

#include "field_cursor.h"

#include <cstring>
#include <initializer_list>

char *cut_next_field(char **p_cursor, char *end_of_record, char separator, bool *ended) {
  char *const c = *p_cursor;
  char *const end = end_of_record;
  *ended = true;
  if (c > end) { // behind the last field
    *end = 0;
    return end;
  }
  // A NUL under the cursor is the separator that was cut last; an empty field begins there.
  char *const from = c < end && *c == 0 ? c + 1 : c;
  char *const cut = static_cast<char *>(memchr(from, separator, static_cast<size_t>(end - from)));
  if (!cut) {
    *end = 0;
    *p_cursor = end + 1;
    return c;
  }
  *ended = false;
  *cut = 0;
  *p_cursor = cut + 1 < end && cut[1] == separator ? cut : cut + 1;
  return c;
}

int read_next_field(char **out, char **p_cursor, char *end_of_record, char separator) {
  bool ended;
  *out = cut_next_field(p_cursor, end_of_record, separator, &ended);
  return ended ? -1 : 0;
}

// NOLINTNEXTLINE(readability-non-const-parameter): the loop writes through all four
void parse_fpi_tuple(char **p_text, int64_t *a, int64_t *b, int64_t *c, int64_t *d) {
  const char *text = *p_text;
  if (!text)
    return;
  *p_text = nullptr;
  for (int64_t *target : {a, b, c, d}) {
    const char *stop;
    const int64_t number = tqp_read_number(text, &stop);
    if (target)
      *target = number;
    text = strchr(stop, ':');
    if (!text)
      return;
    ++text;
  }
}
