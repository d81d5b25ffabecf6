// Bytes of recovery files: files with holes, and a new content that takes the place of the old one at once. Private to
// this group.
#pragma once

#include "tqp_main.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

// Opens an empty file beside `path`, owned as data files are. Null when it cannot be made.
FILE *tqp_begin_replacing(const std::string &path);

// Closes it and, when it is `whole` and the system took all of it, puts it in the place of `path`; else it is removed
// and `path` keeps what it has. A kill at any moment leaves the one or the other. True when `path` is new.
bool tqp_end_replacing(FILE *file, const std::string &path, bool whole);

// Calls part(begin, end) for each stretch of [0, len) that the file holds, not for its holes; false when one did.
template <class F> bool tqp_for_each_data(int fd, int64_t len, const F &part) {
  for (int64_t at = 0; at < len;) {
    const int64_t data = lseek(fd, at, SEEK_DATA);
    if (data < 0 && errno == ENXIO)
      return true; // nothing but a hole from here on
    const int64_t hole = data < 0 ? len : lseek(fd, data, SEEK_HOLE);
    const int64_t begin = std::max(at, data); // data is -1 where holes cannot be asked for
    const int64_t end = hole < begin ? len : std::min(len, hole);
    if (begin >= end)
      return begin >= len;
    if (!part(begin, end))
      return false;
    at = end;
  }
  return true;
}
