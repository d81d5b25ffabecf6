// What the two arrays of a slot have in common: entries from a pool, appended as they come, and an order that is made
// only when somebody searches.
//   In      a slot's array, the pool its entries come from
//   Out     entries that stay where they are; the array of pointers moves when it grows
//   Thread  the instance's
//   Failure memory that cannot be had ends the process; a pool that gives no slot gives null
#pragma once

#include "tqp_main.h"

#include <algorithm>
#include <iterator>

// Values of the sorted flags. A search trusts ORDER_KNOWN alone.
constexpr int8_t ORDER_UNKNOWN = 0;
constexpr int8_t ORDER_KNOWN = 1;
constexpr int8_t ORDER_BUT_LAST = 2; // pending entries only: the last one alone is out of place

// --- memory of entries that nobody uses: freed, every field zeroed ----------------------------------------------
void tqp_free_segment_memory(segment_fp_t *segment);
void tqp_free_pending_segment_memory(pending_segment_fp_t *entry);

// A pool slot at the end of the array, with what it held before; null when the pool gives none.
template <class T> T *tqp_append_pool_slot(record_array<T *> &array, wllb_mp_handler *pool, const char *label) {
  constexpr int32_t step = 8;
  record_array_room(array, array.used + 1, step, label);
  auto *entry = static_cast<T *>(wllb_mp_get_slot(pool));
  if (entry)
    array.data[array.used++] = entry;
  return entry;
}

// Gives an entry back to its pool and closes its gap; the others keep their order.
template <class T> void tqp_remove_pool_slot(record_array<T *> &array, wllb_mp_handler *pool, int index) {
  wllb_mp_free_slot(pool, array.data[index]);
  std::move(array.data + index + 1, array.data + array.used, array.data + index);
  --array.used;
}

// Stable, and ends well with a comparison that contradicts itself. `spare` has room for half of the entries. Halves
// that follow each other already cost one comparison.
template <class T, class Compare> void tqp_merge_sort(T *at, int32_t count, T *spare, const Compare &compare) {
  if (count < 2)
    return;
  const int32_t half = count / 2;
  tqp_merge_sort(at, half, spare, compare);
  tqp_merge_sort(at + half, count - half, spare, compare);
  if (compare(at[half - 1], at[half]) <= 0)
    return;
  std::copy(at, at + half, spare);
  const T *left = spare, *left_end = spare + half, *right = at + half, *right_end = at + count;
  while (left != left_end)
    *at++ = right == right_end || compare(*left, *right) <= 0 ? *left++ : *right++;
}

template <class T, class Compare>
void tqp_sort_array(record_array<T *> &array, const char *label, const Compare &compare) {
  T *few[32];
  const int32_t half = array.used / 2;
  if (half <= static_cast<int32_t>(std::size(few))) {
    tqp_merge_sort(array.data, array.used, few, compare);
    return;
  }
  const size_t size = static_cast<size_t>(half) * sizeof(T *);
  auto *spare = static_cast<T **>(wllb_new_block(size, label));
  tqp_merge_sort(array.data, array.used, spare, compare);
  wllb_free_block(spare, size, label);
}

// Halves the array until compare_to_key(entry) is 0. Index of that entry, -1 when there is none.
template <class T, class CompareToKey>
int tqp_find_in_order(const record_array<T *> &array, const CompareToKey &compare_to_key) {
  int low = 0, high = array.used - 1;
  while (low <= high) {
    const int middle = low + (high - low) / 2;
    const auto order = compare_to_key(array.data[middle]);
    if (order == 0)
      return middle;
    if (order < 0)
      low = middle + 1;
    else
      high = middle - 1;
  }
  return -1;
}
