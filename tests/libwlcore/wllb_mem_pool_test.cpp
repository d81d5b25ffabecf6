// Slot pool and big buffer: who gets which slot, how both grow, and what is left at the end.
#include "wllb_big_buf.h"
#include "wllb_mem_pool.h"

#include <climits>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct numbered_slot {
  wllb_mp_slot head;
  int64_t number;
};

class wllb_mem_pool : public testing::Test {
protected:
  wllb_mp_handler pool = {};

  void set_up(int init, int increment, int max = 0, int locked = 0) {
    ASSERT_EQ(0, wllb_mp_init(&pool, sizeof(numbered_slot), init, increment, locked));
    wllb_mp_set_max(&pool, max);
  }

  numbered_slot *get() { return static_cast<numbered_slot *>(wllb_mp_get_slot(&pool)); }

  void TearDown() override { wllb_mp_destroy(&pool); }
};

class wllb_big_buf : public testing::Test {
protected:
  bigbuf_t bb = {};

  void TearDown() override { wllb_bigbuf_free(&bb); }
};

} // namespace

TEST_F(wllb_mem_pool, chunks_grow_by_the_increment_up_to_the_limit) {
  struct {
    int init, increment, max;
    std::vector<int> chunk_sizes; // of the first three at most
  } const rows[] = {
      {8, 3, 0, {8, 3, 3}},       {-5, 0, 0, {10, 10, 10}}, {8, 8, 20, {8, 8, 4}},   {8, 8, 8, {8}},
      {1, 100, 102, {1, 100, 1}}, {INT_MAX, 8, 3, {3}},     {4, INT_MAX, 6, {4, 2}},
  };

  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.init << " " << row.increment << " " << row.max);
    set_up(row.init, row.increment, row.max);
    std::vector<int> expected;
    for (size_t chunk = 0; chunk < row.chunk_sizes.size(); ++chunk)
      expected.insert(expected.end(), static_cast<size_t>(row.chunk_sizes[chunk]), static_cast<int>(chunk) + 1);
    std::vector<int> chunks; // how many there are after each slot
    while ((row.max > 0 || chunks.size() < expected.size()) && get())
      chunks.push_back(pool.num_malloced_slot);
    EXPECT_EQ(expected, chunks);
    if (row.max > 0) { // a slot given back needs no new one
      void *const held = pool.busy_head;
      wllb_mp_free_slot(&pool, held);
      EXPECT_EQ(held, get());
      EXPECT_EQ(nullptr, get());
    }
    wllb_mp_destroy(&pool);
  }
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

TEST_F(wllb_mem_pool, with_the_lock_no_slot_has_two_owners) {
  set_up(2, 2, 0, 1);
  std::vector<std::thread> threads;
  for (int64_t number = 1; number <= 4; ++number) {
    threads.emplace_back([this, number] {
      for (int round = 0; round < 2000; ++round) {
        numbered_slot *one = get();
        numbered_slot *two = get();
        one->number = two->number = number;
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

// --- big buffer ---------------------------------------------------------------------------------------------

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
