// Recovery files with holes in them. Private to this group.
#pragma once

#include "data_files.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

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
