// The concurrent table of texts: the four operations over a concurrent hash map.
//   In      texts that live longer than the table; it compares and hashes them through the kept pointers
//   Out     their 32-bit values
//   Thread  any, no lock of the caller's; only get_new and free belong to one thread
//   Failure memory that cannot be had ends the process; wrong arguments find and add nothing
#include "wllb_string_table.h"

#include "wllb_alloc.h"

#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

#include <tbb/concurrent_unordered_map.h>

namespace {

struct text_hash {
  size_t operator()(const char *text) const { return std::hash<std::string_view>()(text); }
};

struct text_equal {
  bool operator()(const char *a, const char *b) const { return strcmp(a, b) == 0; }
};

// The map's memory: blocks as everywhere else.
template <class T> struct block_allocator {
  using value_type = T;

  block_allocator() = default;

  template <class U> block_allocator(const block_allocator<U> &) {} // NOLINT(google-explicit-constructor): rebinding

  T *allocate(size_t n) { return static_cast<T *>(wllb_new_block(n * sizeof(T), "wllb_string_table")); }

  void deallocate(T *block, size_t n) { wllb_free_block(block, n * sizeof(T), "wllb_string_table"); }

  bool operator==(const block_allocator &) const { return true; }
};

} // namespace

struct wllb_string_table {
  tbb::concurrent_unordered_map<const char *, uint32_t, text_hash, text_equal,
                                block_allocator<std::pair<const char *const, uint32_t>>>
      values;
};

void folly_init(int /*unused*/) {}

wllb_string_table *get_new_hash_table_str_32() {
  return new wllb_string_table;
}

void wllb_free_hash_table_str_32(wllb_string_table *table) {
  delete table;
}

uint32_t lookup_name_str_32(const wllb_string_table *table, const char *text) {
  if (!table || !text)
    return wllb_string_absent;
  const auto found = table->values.find(text);
  return found == table->values.end() ? wllb_string_absent : found->second;
}

uint32_t add_name_str_32(wllb_string_table *table, const char *text, uint32_t value) {
  if (!table || !text || value == wllb_string_absent)
    return wllb_string_absent;
  return table->values.emplace(text, value).second ? value : wllb_string_absent;
}

int cas32(std::atomic<uint32_t> *address, uint32_t expected, uint32_t desired) {
  return address->compare_exchange_strong(expected, desired) ? 1 : 0;
}
