// Slot pool and big buffer: who gets which slot, how both grow, and what is left at the end.
#include "wllb_big_buf.h"
#include "wllb_mem_pool.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct numbered_slot {
  wllb_mp_slot head;
  int64_t number;
};

} // namespace

class wllb_mem_pool : public testing::Test {
protected:
  wllb_mp_handler pool = {};

  void set_up(int init, int increment, int max = 0, int slot_size = sizeof(numbered_slot), int locked = 0) {
    ASSERT_EQ(0, wllb_mp_init(&pool, slot_size, init, increment, locked));
    wllb_mp_set_max(&pool, max);
  }

  numbered_slot *get() { return static_cast<numbered_slot *>(wllb_mp_get_slot(&pool)); }

  // Slots until the pool refuses, with the number of chunks after each.
  std::vector<int> chunks_while_getting(int at_most) {
    std::vector<int> chunks;
    while (static_cast<int>(chunks.size()) < at_most && get())
      chunks.push_back(pool.num_malloced_slot);
    return chunks;
  }

  void TearDown() override { wllb_mp_destroy(&pool); }
};

TEST_F(wllb_mem_pool, a_slot_size_below_a_head_is_refused_and_gives_no_slot) {
  for (const int size : {0, -1, INT_MIN, static_cast<int>(sizeof(wllb_mp_slot)) - 1}) {
    EXPECT_EQ(1, wllb_mp_init(&pool, size, 8, 8, 0)) << size;
    EXPECT_EQ(nullptr, get());
    wllb_mp_destroy(&pool);
  }
  EXPECT_EQ(0, wllb_mp_init(&pool, sizeof(wllb_mp_slot), 8, 8, 0));
  EXPECT_EQ(0, pool.num_malloced_slot); // no memory before the first slot
}

TEST_F(wllb_mem_pool, chunks_grow_by_the_increment_up_to_the_limit) {
  struct {
    int init, increment, max;
    std::vector<int> chunk_sizes; // of the first three at most
  } const rows[] = {
      {8, 8, 0, {8, 8, 8}},
      {8, 3, 0, {8, 3, 3}},
      {0, -1, 0, {10, 10, 10}},
      {-5, 0, 0, {10, 10, 10}},
      {8, 8, 20, {8, 8, 4}},
      {8, 8, 8, {8}},
      {8, 8, 5, {5}},
      {8, 8, 1, {1}},
      {8, 8, 17, {8, 8, 1}},
      {8, 8, 24, {8, 8, 8}},
      {1, 100, 102, {1, 100, 1}},
      {INT_MAX, 8, 3, {3}},
      {4, INT_MAX, 6, {4, 2}},
  };

  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.init << " " << row.increment << " " << row.max);
    set_up(row.init, row.increment, row.max);
    std::vector<int> expected;
    for (size_t chunk = 0; chunk < row.chunk_sizes.size(); ++chunk)
      expected.insert(expected.end(), static_cast<size_t>(row.chunk_sizes[chunk]), static_cast<int>(chunk) + 1);
    EXPECT_EQ(expected, chunks_while_getting(row.max > 0 ? 1000 : static_cast<int>(expected.size())));
    if (row.max > 0) {
      EXPECT_EQ(nullptr, get());
      EXPECT_STREQ("Memory pool max limit reached", pool.error_text);
    }
    wllb_mp_destroy(&pool);
  }
}

TEST_F(wllb_mem_pool, a_limit_can_be_lifted_and_a_slot_given_back_needs_none) {
  set_up(2, 2, 2);
  numbered_slot *first = get();
  get();
  EXPECT_EQ(nullptr, get());
  wllb_mp_free_slot(&pool, first);
  EXPECT_EQ(first, get());
  EXPECT_EQ(nullptr, get());
  wllb_mp_set_max(&pool, 0);
  EXPECT_NE(nullptr, get());
}

// Takes and gives back at random, next to a model: a queue of free slots and what each slot last held.
TEST_F(wllb_mem_pool, freed_slots_come_back_oldest_first_with_their_contents) {
  set_up(8, 8);
  std::mt19937 random(20261122);
  std::vector<numbered_slot *> busy;
  std::deque<numbered_slot *> freed;
  int64_t next_number = 1;
  for (int round = 0; round < 20000; ++round) {
    const int fresh_left = pool.num_malloced_slot * 8 - static_cast<int>(busy.size() + freed.size());
    if (busy.empty() || random() % 100 < 52) {
      numbered_slot *slot = get();
      ASSERT_NE(nullptr, slot);
      if (fresh_left == 0 && !freed.empty()) {
        ASSERT_EQ(freed.front(), slot);
        ASSERT_NE(0, slot->number);
        freed.pop_front();
      } else {
        ASSERT_EQ(0, slot->number); // of a fresh chunk
      }
      slot->number = next_number++;
      busy.push_back(slot);
    } else {
      const size_t which = random() % busy.size();
      wllb_mp_free_slot(&pool, busy[which]);
      freed.push_back(busy[which]);
      busy.erase(busy.begin() + static_cast<std::ptrdiff_t>(which));
    }
  }
  std::vector<numbered_slot *> listed;
  for (wllb_mp_slot *slot = pool.busy_head; slot; slot = slot->next)
    listed.push_back(reinterpret_cast<numbered_slot *>(slot));
  EXPECT_EQ(busy, listed); // oldest first, as taken
  EXPECT_EQ(pool.busy_tail, &busy.back()->head);
}

TEST_F(wllb_mem_pool, slots_of_any_size_are_aligned_and_apart) {
  for (int size = sizeof(wllb_mp_slot); size < 70; ++size) {
    set_up(5, 3, 0, size);
    const size_t payload = static_cast<size_t>(size) - sizeof(wllb_mp_slot);
    std::vector<char *> slots;
    for (int i = 0; i < 11; ++i) {
      slots.push_back(static_cast<char *>(wllb_mp_get_slot(&pool)));
      EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(slots.back()) % alignof(std::max_align_t));
      memset(slots.back() + sizeof(wllb_mp_slot), 'a' + i, payload);
    }
    for (int i = 0; i < 11; ++i)
      EXPECT_EQ(std::string(payload, static_cast<char>('a' + i)),
                std::string(slots[static_cast<size_t>(i)] + sizeof(wllb_mp_slot), payload));
    wllb_mp_destroy(&pool);
  }
}

// A leak checker tells when a chunk is not found.
TEST_F(wllb_mem_pool, all_chunks_are_found_at_the_end_whoever_holds_their_slots) {
  for (int busy = 0; busy <= 12; ++busy) {
    set_up(4, 4);
    std::vector<numbered_slot *> slots;
    for (int i = 0; i < 12; ++i)
      slots.push_back(get());
    for (int i = 11; i >= busy; --i)
      wllb_mp_free_slot(&pool, slots[static_cast<size_t>(i)]);
    if (busy % 2 == 0) {
      wllb_mp_free_all_slots(&pool);
      EXPECT_EQ(nullptr, pool.busy_head);
      EXPECT_EQ(nullptr, pool.busy_tail);
    }
    for (int i = 0; i < 12; ++i)
      EXPECT_EQ(i % 4 == 0 ? 1 : 0, slots[static_cast<size_t>(i)]->head.slot_status & 1);
    wllb_mp_destroy(&pool);
    EXPECT_EQ(nullptr, pool.free_head);
    EXPECT_EQ(0, pool.num_malloced_slot);
    EXPECT_EQ(0, pool.slot_size);
    EXPECT_EQ(nullptr, get());
  }
}

TEST_F(wllb_mem_pool, a_null_slot_does_nothing) {
  set_up(2, 2);
  wllb_mp_free_slot(&pool, nullptr);
  EXPECT_EQ(nullptr, pool.free_head);
}

TEST_F(wllb_mem_pool, with_the_lock_no_slot_has_two_owners) {
  set_up(2, 2, 0, sizeof(numbered_slot), 1);
  std::vector<std::thread> threads;
  for (int64_t number = 1; number <= 4; ++number) {
    threads.emplace_back([this, number] {
      for (int round = 0; round < 2000; ++round) {
        numbered_slot *one = get();
        numbered_slot *two = get();
        one->number = two->number = number;
        EXPECT_NE(one, two);
        EXPECT_EQ(number, one->number);
        wllb_mp_free_slot(&pool, two);
        wllb_mp_free_slot(&pool, one);
      }
    });
  }
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(nullptr, pool.busy_head);
  EXPECT_LE(pool.num_malloced_slot, 4);
}

TEST(wllb_mem_pool_death, a_chunk_that_cannot_be_had_ends_the_process_with_1) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's heap ends the process in its own way";
#endif
  wllb_mp_handler pool = {};
  ASSERT_EQ(0, wllb_mp_init(&pool, 1 << 30, INT_MAX, 1, 0));
  EXPECT_EXIT(wllb_mp_get_slot(&pool), testing::ExitedWithCode(1),
              "^Out of Memory \\(size = -?[0-9]+\\): Allocating memory pool \n$");
}

// --- big buffer ---------------------------------------------------------------------------------------------

class wllb_big_buf : public testing::Test {
protected:
  bigbuf_t bb = {};

  void TearDown() override { wllb_bigbuf_free(&bb); }
};

TEST_F(wllb_big_buf, bad_arguments_change_nothing) {
  EXPECT_EQ(-1, wllb_bigbuf_init(nullptr));
  for (const long size : {0L, -1L, LONG_MIN})
    EXPECT_EQ(-1, wllb_bigbuf_init_ex(&bb, size));
  ASSERT_EQ(0, wllb_bigbuf_init(&bb));
  EXPECT_EQ(1048576, bb.bufsize);
  EXPECT_EQ(-1, wllb_bigbuf_copy_into_bigbuf(nullptr, "a", 1));
  EXPECT_EQ(-1, wllb_bigbuf_copy_into_bigbuf(&bb, nullptr, 1));
  for (const long len : {-1L, LONG_MIN})
    EXPECT_EQ(-1, wllb_bigbuf_copy_into_bigbuf(&bb, "a", len));
  EXPECT_EQ(0, bb.offset);
  for (const long outside : {-1L, LONG_MIN, 1048576L, LONG_MAX})
    EXPECT_EQ(nullptr, wllb_bigbuf_get_value(&bb, outside));
  EXPECT_EQ(nullptr, wllb_bigbuf_get_value(nullptr, 0));
}

// The size that growing step by step reaches, told by the meaning of a free place.
static long size_after(long bufsize, long offset, long len) {
  while (offset + len + 1 >= bufsize)
    bufsize += 10240;
  return bufsize;
}

TEST_F(wllb_big_buf, growth_goes_by_whole_steps_and_offsets_stay_valid) {
  for (const long size : {1L, 2L, 100L, 10240L, 200000L}) {
    ASSERT_EQ(0, wllb_bigbuf_init_ex(&bb, size));
    std::vector<std::pair<long, std::string>> stored;
    for (const size_t len : {0, 1, 96, 97, 98, 99, 100, 10238, 10239, 10240, 10241, 20480, 150000, 1000000}) {
      const std::string text(len, static_cast<char>('a' + stored.size()));
      const long expected_size = size_after(bb.bufsize, bb.offset, static_cast<long>(len));
      const long offset = bb.offset;
      EXPECT_EQ(offset, wllb_bigbuf_copy_into_bigbuf(&bb, text.c_str(), len % 2 == 0 ? 0 : static_cast<long>(len)));
      EXPECT_EQ(offset + static_cast<long>(len) + 1, bb.offset);
      EXPECT_EQ(expected_size, bb.bufsize);
      stored.emplace_back(offset, text);
    }
    for (const auto &[offset, text] : stored)
      EXPECT_EQ(text, wllb_bigbuf_get_value(&bb, offset));
    wllb_bigbuf_free(&bb);
  }
}

TEST_F(wllb_big_buf, a_place_is_free_only_below_the_size) {
  ASSERT_EQ(0, wllb_bigbuf_init_ex(&bb, 100));
  ASSERT_EQ(0, wllb_bigbuf_copy_into_bigbuf(&bb, "123456789", 9));
  EXPECT_NE(0, wllb_bigbuf_chk_avail_space(&bb, 89));
  EXPECT_EQ(0, wllb_bigbuf_chk_avail_space(&bb, 90));
  EXPECT_EQ(0, wllb_bigbuf_chk_avail_space(&bb, LONG_MAX));
  wllb_bigbuf_realloc(&bb);
  EXPECT_EQ(10340, bb.bufsize);
  EXPECT_NE(0, wllb_bigbuf_chk_avail_space(&bb, 10329));
  EXPECT_EQ(0, wllb_bigbuf_chk_avail_space(&bb, 10330));
}

TEST_F(wllb_big_buf, a_length_that_is_no_texts_own_cuts_it_or_is_filled_with_zeros) {
  const std::vector<char> text = {'a', 'b', 'c', '\0'}; // nothing may be read behind it
  ASSERT_EQ(0, wllb_bigbuf_init_ex(&bb, 16));
  EXPECT_EQ(0, wllb_bigbuf_copy_into_bigbuf(&bb, text.data(), 2));
  EXPECT_EQ(3, wllb_bigbuf_copy_into_bigbuf(&bb, text.data(), 50000));
  EXPECT_EQ(50004, wllb_bigbuf_copy_into_bigbuf(&bb, text.data(), 0));
  EXPECT_EQ(50008, bb.offset);
  EXPECT_STREQ("ab", wllb_bigbuf_get_value(&bb, 0));
  EXPECT_STREQ("abc", wllb_bigbuf_get_value(&bb, 3));
  EXPECT_EQ(std::string(49998, '\0'), std::string(wllb_bigbuf_get_value(&bb, 6), 49998));
  EXPECT_STREQ("abc", wllb_bigbuf_get_value(&bb, 50004));
}

TEST_F(wllb_big_buf, a_length_beyond_all_memory_ends_the_process) {
  ASSERT_EQ(0, wllb_bigbuf_init_ex(&bb, 16));
  for (const long len : {LONG_MAX, LONG_MAX - 1, LONG_MAX / 4})
    EXPECT_EXIT(wllb_bigbuf_copy_into_bigbuf(&bb, "a", len), testing::ExitedWithCode(255),
                "Failed to Realloc Malloced");
}
