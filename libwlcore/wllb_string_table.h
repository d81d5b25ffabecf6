// A concurrent table from texts to 32-bit values: look-ups beside inserts without a lock of the caller's.
//   In      texts that outlive the table (it keeps the pointer)
//   Out     the value, or wllb_string_absent
//   Thread  any
#pragma once

#include <atomic>
#include <cstdint>

struct wllb_string_table;

constexpr uint32_t wllb_string_absent = 4294967295U;

// Prepares the library; main calls it before anything else here. The argument has no meaning.
void folly_init(int unused);
// An empty table. Owned by the caller, given back with wllb_free_hash_table_str_32.
wllb_string_table *get_new_hash_table_str_32();
void wllb_free_hash_table_str_32(wllb_string_table *table);
uint32_t lookup_name_str_32(const wllb_string_table *table, const char *text);
// Adds a text that is not there yet. wllb_string_absent when another thread was first, else some other value.
uint32_t add_name_str_32(wllb_string_table *table, const char *text, uint32_t value);
// Atomic compare and swap; non-zero on success.
int cas32(std::atomic<uint32_t> *address, uint32_t expected, uint32_t desired);
