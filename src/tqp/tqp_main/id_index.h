// Finds an aggregate's entry by its id in constant time, whatever the ids are: small, in the billions, negative.
//   Owned by the segment whose entries it indexes; all-zero bytes are a valid empty index
#pragma once

#include "wllb_alloc.h"

#include <cstdint>
#include <cstring>

// Open addressing over positions + 1; at most half of the places are taken.
struct id_index_t {
  int32_t *places; // `size` of them, 0: free
  int32_t size;    // power of 2
};

inline uint32_t id_index_place(int32_t id, int32_t size) {
  return (static_cast<uint32_t>(id) * 2654435769U) >> (__builtin_clz(static_cast<unsigned>(size)) + 1);
}

// Position of `id` among the first `count` entries, whose ids `id_of(position)` tells; -1 when absent.
template <class IdOf> int32_t id_index_find(const id_index_t &index, int32_t id, const IdOf &id_of) {
  if (index.size == 0)
    return -1;
  const auto mask = static_cast<uint32_t>(index.size - 1);
  for (uint32_t place = id_index_place(id, index.size) & mask;; place = (place + 1) & mask) {
    const int32_t position = index.places[place] - 1;
    if (position < 0 || id_of(position) == id)
      return position;
  }
}

inline void id_index_put(id_index_t &index, int32_t id, int32_t position) {
  const auto mask = static_cast<uint32_t>(index.size - 1);
  uint32_t place = id_index_place(id, index.size) & mask;
  while (index.places[place] != 0)
    place = (place + 1) & mask;
  index.places[place] = position + 1;
}

inline void id_index_clear(id_index_t &index) {
  if (index.places)
    memset(index.places, 0, static_cast<size_t>(index.size) * sizeof *index.places);
}

inline void id_index_free(id_index_t &index, const char *label) {
  wllb_free_block(index.places, static_cast<size_t>(index.size) * sizeof *index.places, label);
  index = {};
}

// Enters the entry at `position`, which is the last of `position` + 1; grows and re-enters all when half full.
template <class IdOf> void id_index_add(id_index_t &index, int32_t position, const IdOf &id_of, const char *label) {
  if ((position + 1) * 2 > index.size) {
    const int32_t size = index.size == 0 ? 16 : index.size * 2;
    id_index_free(index, label);
    index = {static_cast<int32_t *>(wllb_new_block(static_cast<size_t>(size) * sizeof(int32_t), label)), size};
    for (int32_t i = 0; i < position; ++i)
      id_index_put(index, id_of(i), i);
  }
  id_index_put(index, id_of(position), position);
}
