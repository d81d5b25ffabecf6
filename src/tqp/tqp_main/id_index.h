// Finds an aggregate's entry by its id in constant time, whatever the ids are: small, in the billions, negative.
//   Owned by the segment whose entries it indexes; all-zero bytes are a valid empty index
//   The ids stand in the index itself, so that a search touches no entry but the one it finds
#pragma once

#include "wllb_alloc.h"

#include <cstdint>
#include <cstring>

// Position of an entry plus 1, and its id; 0: free.
struct id_index_place {
  int32_t position_plus_1;
  int32_t id;
};

// Open addressing; at most half of the places are taken.
struct id_index_t {
  id_index_place *places; // `size` of them
  int32_t size;           // power of 2
};

// Where the search for an id begins. The index has room.
inline uint32_t id_index_home(const id_index_t &index, int32_t id) {
  return (static_cast<uint32_t>(id) * 2654435769U) >> (__builtin_clz(static_cast<unsigned>(index.size)) + 1);
}

// The place of an id, or the free one where it belongs.
inline id_index_place *id_index_look(const id_index_t &index, int32_t id) {
  const auto mask = static_cast<uint32_t>(index.size - 1);
  uint32_t at = id_index_home(index, id);
  while (index.places[at].position_plus_1 != 0 && index.places[at].id != id)
    at = (at + 1) & mask;
  return &index.places[at];
}

// Position of the id's entry; -1 when it has none.
inline int32_t id_index_find(const id_index_t &index, int32_t id) {
  return index.size == 0 ? -1 : id_index_look(index, id)->position_plus_1 - 1;
}

// Thousands of segments in flight do not fit into the caches. Whoever knows early which id will be looked for has its
// place fetched, and a little later the entry that the place most likely names.
inline void id_index_prefetch_place(const id_index_t &index, int32_t id) {
  if (index.size != 0)
    __builtin_prefetch(&index.places[id_index_home(index, id)]);
}

// Position of the entry that the id's place most likely names; -1 when the place is free.
inline int32_t id_index_guess(const id_index_t &index, int32_t id) {
  return index.size == 0 ? -1 : index.places[id_index_home(index, id)].position_plus_1 - 1;
}

inline void id_index_clear(id_index_t &index) {
  if (index.places)
    memset(index.places, 0, static_cast<size_t>(index.size) * sizeof *index.places);
}

inline void id_index_free(id_index_t &index, const char *label) {
  wllb_free_block(index.places, static_cast<size_t>(index.size) * sizeof *index.places, label);
  index = {};
}

inline void id_index_grow(id_index_t &index, const char *label) {
  const id_index_t old = index;
  const int32_t size = old.size == 0 ? 16 : old.size * 2;
  index = {static_cast<id_index_place *>(wllb_new_block(static_cast<size_t>(size) * sizeof(id_index_place), label)),
           size};
  for (int32_t i = 0; i < old.size; ++i)
    if (old.places[i].position_plus_1 != 0)
      *id_index_look(index, old.places[i].id) = old.places[i];
  wllb_free_block(old.places, static_cast<size_t>(old.size) * sizeof *old.places, label);
}

// Enters the entry at `position`, which is the last of `position` + 1 entries.
inline void id_index_add(id_index_t &index, int32_t id, int32_t position, const char *label) {
  if ((position + 1) * 2 > index.size)
    id_index_grow(index, label);
  *id_index_look(index, id) = {position + 1, id};
}
