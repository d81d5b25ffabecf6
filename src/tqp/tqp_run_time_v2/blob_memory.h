// The memory that a segment's blob and signature source are said to have: it grows by the parsers' own steps, decides when
// a large blob is given back, and stands in the map dumps. What the texts really have is up to the growth helper. Private
// to this group.
#pragma once

#include "tqp_main.h"

constexpr int64_t blob_memory_step = 1024;

// One step more when less than `ahead` bytes and a NUL would be left.
inline void tqp_count_memory_step(int64_t &size, const wllb_text &text, int64_t ahead) {
  if (static_cast<int64_t>(text.len) + ahead >= size)
    size += blob_memory_step;
}

// As many steps as it takes.
inline void tqp_count_memory_steps(int64_t &size, const wllb_text &text, int64_t ahead) {
  while (static_cast<int64_t>(text.len) + ahead >= size)
    size += blob_memory_step;
}

inline void tqp_count_memory_of(int64_t &size, int64_t needed) {
  if (needed > size)
    size = needed;
}
