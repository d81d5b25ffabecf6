// Global ids of tag texts, over the concurrent text table.
//   In      a counter of ids given out, texts of the instances
//   Out     an id for each text; key_tags, and the copies it points to
//   Thread  set-up and tear-down on main, get_norm_id on any: the table and the counter are lock-free
//   Failure memory that cannot be had ends the process
#include "tag_ids.h"

#include <algorithm>
#include <cstring>

static constexpr const char *copy_label = "Allocation of 112 json";

void init_folly_hash() {
  folly_init(0);
}

void tqp_init_norm_table() {
  key_tags = get_new_hash_table_str_32();
}

// --- copies of texts ---------------------------------------------------------------------------------------------

// Stands in front of a copied text; the chain lets all copies be given back with the table.
struct kept_text {
  kept_text *before;
  size_t size; // bytes, with this head
};

static std::atomic<kept_text *> newest_kept_text;

static char *text_of(kept_text *kept) {
  return reinterpret_cast<char *>(kept + 1);
}

// A copy of text_length + 1 bytes, NULs behind the text's end.
static kept_text *copy_text(const char *text, int text_length) {
  const auto room = static_cast<size_t>(std::max(text_length, 0));
  const size_t size = sizeof(kept_text) + room + 1;
  auto *kept = static_cast<kept_text *>(wllb_new_block(size, copy_label));
  kept->size = size;
  memcpy(text_of(kept), text, strnlen(text, room));
  return kept;
}

static void keep_text(kept_text *kept) {
  kept->before = newest_kept_text;
  while (!newest_kept_text.compare_exchange_weak(kept->before, kept)) {
  }
}

void tqp_free_norm_table() {
  wllb_free_hash_table_str_32(key_tags);
  key_tags = nullptr;
  kept_text *kept = newest_kept_text.exchange(nullptr);
  while (kept) {
    kept_text *before = kept->before;
    wllb_free_block(kept, kept->size, copy_label);
    kept = before;
  }
}

// --- ids -----------------------------------------------------------------------------------------------------------

// The next value of the counter, which no other thread gets.
static uint32_t take_tag_id(std::atomic<uint32_t> *counter) {
  uint32_t expected = *counter;
  while (!cas32(counter, expected, expected + 1)) {
    const uint32_t now = *counter;
    wllb_trace(1, "Warning",
               "cas32, lock could not be acquired properly, count = %u, count_expected = %u, count_desired = %u", now,
               expected, expected + 1);
    expected = now;
  }
  return expected + 1;
}

// wllb_string_absent when another thread added the text first.
static uint32_t add_copy(const char *text, int text_length, uint32_t id) {
  kept_text *kept = copy_text(text, text_length);
  const uint32_t added = add_name_str_32(key_tags, text_of(kept), id);
  if (added == wllb_string_absent)
    wllb_free_block(kept, kept->size, copy_label);
  else
    keep_text(kept);
  return added;
}

bool get_norm_id(std::atomic<uint32_t> *counter, const char *text, int text_length, uint32_t *out_id, int /*kind*/) {
  *out_id = lookup_name_str_32(key_tags, text);
  if (*out_id != wllb_string_absent)
    return true;
  const uint32_t id = take_tag_id(counter);
  // Added with the id just taken, not with the counter as it stands now: two texts never share an id.
  const bool lost = add_copy(text, text_length, id) == wllb_string_absent;
  *out_id = lost ? lookup_name_str_32(key_tags, text) : id;
  return lost;
}
