// A growing text and the one way of putting numbers, characters and texts behind it.
//   In      values; room is made as needed, in steps that double
//   Out     bytes that are NUL-terminated whenever the text has memory; all-zero bytes are a valid empty text
//   Thread  the owner's
//   Failure memory that cannot be had ends the process; the label names the buffer
#pragma once

#include "wllb_alloc.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

struct wllb_text {
  char *data;  // null: no memory yet
  size_t len;  // bytes, without the NUL
  size_t size; // bytes of memory
};

// Makes room for `more` bytes and the NUL behind the text.
inline void wllb_text_room(wllb_text &t, size_t more, const char *label) {
  const size_t needed = t.len + more + 1;
  if (needed <= t.size)
    return;
  size_t size = t.size < 64 ? 128 : t.size + t.size / 2;
  if (size < needed)
    size = needed;
  t.data = static_cast<char *>(wllb_grow_block(t.data, t.size, size, label));
  t.size = size;
}

// The text as a C string; "" without memory.
inline const char *wllb_text_str(const wllb_text &t) {
  return t.data && t.len ? t.data : "";
}

inline std::string_view wllb_text_view(const wllb_text &t) {
  return {wllb_text_str(t), t.len};
}

// Empties the text; its memory stays.
inline void wllb_text_clear(wllb_text &t) {
  t.len = 0;
  if (t.data)
    t.data[0] = 0;
}

inline void wllb_text_free(wllb_text &t, const char *label) {
  wllb_free_block(t.data, t.size, label);
  t = {};
}

// Cuts the text to its first `len` bytes.
inline void wllb_text_cut(wllb_text &t, size_t len) {
  if (len < t.len) {
    t.len = len;
    t.data[len] = 0;
  }
}

// Writes a row or token piece by piece: room is made once, then the pieces go in without further tests. `most` bytes is
// all that may be put; numbers take 20 at most each.
struct wllb_putter {
  char *at;

  wllb_putter(wllb_text &t, size_t most, const char *label) {
    wllb_text_room(t, most, label);
    at = t.data + t.len;
  }

  wllb_putter &put(char c) {
    *at++ = c;
    return *this;
  }

  wllb_putter &put(std::string_view s) {
    memcpy(at, s.data(), s.size());
    at += s.size();
    return *this;
  }

  wllb_putter &num(int64_t v) {
    at = std::to_chars(at, at + 20, v).ptr;
    return *this;
  }

  wllb_putter &unum(uint64_t v) {
    at = std::to_chars(at, at + 20, v).ptr;
    return *this;
  }

  // Ends the writing; the text now reaches to here.
  void done(wllb_text &t) const {
    t.len = static_cast<size_t>(at - t.data);
    *at = 0;
  }
};

// One piece at a time, where speed does not matter.
inline void wllb_text_put(wllb_text &t, std::string_view s, const char *label) {
  wllb_putter(t, s.size(), label).put(s).done(t);
}
