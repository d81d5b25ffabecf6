// Blocks keep what was written, are zero elsewhere, and end the process when there are none left.
#include "wllb_alloc.h"

#include "wllb_multi_thread_trace_log.h"
#include "wllb_test_dir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED_HEAP
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED_HEAP
#endif

static constexpr size_t border = 131072; // from here on blocks are whole pages
static constexpr size_t no_such_size = size_t{1} << 61U;

static void expect_bytes(const void *block, size_t from, size_t to, int value) {
  const auto *bytes = static_cast<const unsigned char *>(block);
  for (size_t i = from; i < to; ++i) {
    if (bytes[i] != value) {
      ADD_FAILURE() << "byte " << i << " of " << from << ".." << to << " is " << int{bytes[i]} << ", not " << value;
      return;
    }
  }
}

TEST(wllb_alloc, a_resized_block_keeps_its_bytes_and_is_zero_behind_them) {
  const size_t sizes[] = {0, 1, 100, border - 1, border, border + 1, 3 * border + 5, 40 * border};
  for (const size_t from : sizes) {
    for (const size_t to : sizes) {
      SCOPED_TRACE(testing::Message() << from << " to " << to);
      void *block = wllb_new_block(from, "test");
      expect_bytes(block, 0, std::max<size_t>(from, 1), 0);
      memset(block, 0xA5, from);
      block = wllb_grow_block(block, from, to, "test");
      expect_bytes(block, 0, std::min(from, to), 0xA5);
      expect_bytes(block, std::min(from, to), to, 0);
      memset(block, 0x5A, to);
      block = wllb_grow_block(block, to, from, "test"); // and back: what was cut off must not come again
      block = wllb_grow_block(block, from, to, "test");
      expect_bytes(block, 0, std::min(from, to), 0x5A);
      expect_bytes(block, std::max<size_t>(std::min(from, to), 1), to, 0);
      wllb_free_block(block, to, "test");
    }
  }
}

TEST(wllb_alloc, a_null_block_is_a_new_one_and_freeing_it_does_nothing) {
  for (const size_t size : {size_t{0}, size_t{10}, border}) {
    void *block = wllb_grow_block(nullptr, 77, size, "test");
    expect_bytes(block, 0, size, 0);
    wllb_free_block(block, size, "test");
    wllb_free_block(nullptr, size, "test");
  }
}

static size_t resident_bytes() {
  size_t total = 0;
  size_t resident = 0;
  FILE *statm = fopen("/proc/self/statm", "re");
  EXPECT_EQ(2, fscanf(statm, "%zu %zu", &total, &resident));
  fclose(statm);
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

TEST(wllb_alloc, untouched_pages_cost_nothing_even_after_growth) {
#ifdef SANITIZED_HEAP
  GTEST_SKIP() << "blocks come from the watched heap";
#endif
  const size_t before = resident_bytes();
  size_t size = border;
  auto *block = static_cast<char *>(wllb_new_block(size, "test"));
  for (; size < size_t{1} << 30U; size *= 2) {
    block[size - 1] = 'x';
    block = static_cast<char *>(wllb_grow_block(block, size, size * 2, "test"));
  }
  EXPECT_LT(resident_bytes(), before + (size_t{4} << 20U));
  EXPECT_EQ('x', block[size / 2 - 1]);
  EXPECT_EQ('\0', block[size - 1]);
  wllb_free_block(block, size, "test");
  EXPECT_LT(resident_bytes(), before + (size_t{1} << 20U));
}

// --- growth -------------------------------------------------------------------------------------------------

TEST(wllb_alloc, an_array_grows_to_the_first_size_and_then_by_whole_steps) {
  for (const int64_t first : {0, 1, 7, 64}) {
    for (const int64_t step : {0, 1, 3, 64}) {
      const wllb_growth growth = {first, step, "test"};
      for (int64_t have = 0; have < 70; have += 3) {
        for (int64_t needed = 0; needed < 300; ++needed) {
          int64_t expected = have == 0 && needed > 0 ? first : have;
          if (expected == 0 && needed > 0 && step == 0)
            expected = 1; // nothing to double
          while (expected < needed)
            expected += step > 0 ? step : expected;
          ASSERT_EQ(expected, wllb_grown_size(have, needed, growth)) << first << step << " " << have << " " << needed;
        }
      }
    }
  }
}

TEST(wllb_alloc, huge_needs_do_not_overflow) {
  const int64_t huge = int64_t{1} << 40U;
  EXPECT_EQ(huge, wllb_grown_size(0, huge, {16, 0, "test"}));
  EXPECT_EQ(huge * 2, wllb_grown_size(huge, huge + 1, {16, 0, "test"}));
  EXPECT_EQ(huge + 4096, wllb_grown_size(16384, huge + 1, {16384, 4096, "test"}));
  EXPECT_EQ(INT64_MAX, wllb_grown_size(1, INT64_MAX, {1, 0, "test"}));
}

TEST(wllb_alloc, an_array_reads_as_zero_wherever_nothing_was_written) {
  constexpr wllb_growth growth = {.first = 16384, .step = 4096, .label = "test"};
  wllb_zarray<int64_t> array;
  for (const int64_t outside : {INT64_MIN, int64_t{-1}, int64_t{0}, INT64_MAX})
    EXPECT_EQ(0, array.at_or_zero(outside));
  for (const int64_t last : {0, 16383, 16384, 20479, 20480, 300000}) {
    wllb_zarray_reserve(array, last + 1, growth);
    ASSERT_GT(array.size, last);
    EXPECT_EQ(0, (array.size - 16384) % 4096);
    EXPECT_EQ(0, array.at_or_zero(last));
    array.data[last] = last + 1;
  }
  EXPECT_EQ(16384, array.at_or_zero(16383));
  int64_t written = 0;
  for (int64_t i = 0; i < array.size; ++i)
    written += array.at_or_zero(i) != 0 ? 1 : 0;
  EXPECT_EQ(6, written);
  EXPECT_EQ(0, array.at_or_zero(array.size));
  EXPECT_EQ(0, array.at_or_zero(-1));
  wllb_zarray_free(array, growth);
  EXPECT_EQ(0, array.size);
  EXPECT_EQ(nullptr, array.data);
}

// --- the end ------------------------------------------------------------------------------------------------

TEST(wllb_alloc_death, memory_that_cannot_be_had_ends_the_process_with_the_common_text) {
  const char *const text = "^Failed to Realloc Malloced size 2305843009213693952, msg=the label$";
  EXPECT_EXIT(wllb_new_block(no_such_size, "the label"), testing::ExitedWithCode(255), text);
  for (const size_t size : {size_t{10}, border}) {
    void *block = wllb_new_block(size, "test");
    EXPECT_EXIT(wllb_grow_block(block, size, no_such_size, "the label"), testing::ExitedWithCode(255), text);
    wllb_free_block(block, size, "test");
  }
}

TEST(wllb_alloc_death, operator_new_ends_the_process_in_the_same_way) {
#ifdef SANITIZED_HEAP
  GTEST_SKIP() << "the sanitizer's operator new asks no handler";
#endif
  volatile size_t size = no_such_size;
  EXPECT_EXIT((wllb_install_new_handler(), static_cast<void>(::operator new(size))), testing::ExitedWithCode(255),
              "^Failed to Realloc Malloced size 0, msg=operator new$");
}

TEST(wllb_alloc_death, an_exit_flushes_both_streams_and_runs_nothing_else) {
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        atexit([] { fputs("late", stderr); });
        fputs("half a line", stdout);
        wllb_exit(3);
      },
      testing::ExitedWithCode(3), "^half a line$");
}

// --- traces -------------------------------------------------------------------------------------------------

class wllb_alloc_traces : public testing::Test {
protected:
  const wllb_test_dir dir;

  void open_trace(int level) { trkey = wllb_init_mt_trace_log_ex(dir.path.c_str(), 7, "trace.log", level, 1); }

  void TearDown() override {
    wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
  }

  // The messages of all lines, one a line.
  std::string messages() {
    std::string found;
    std::istringstream lines(wllb_test_read(dir / "7/trace.log"));
    for (std::string line; std::getline(lines, line);) {
      if (line.find("|Info|") != std::string::npos)
        found += line.substr(line.rfind('|') + 1) + "\n";
    }
    return found;
  }
};

TEST_F(wllb_alloc_traces, every_allocation_has_its_lines_at_level_4) {
  open_trace(4);
  wllb_trace_partition = 7;
  for (const size_t size : {size_t{100}, border * 2}) {
    void *first = wllb_new_block(size, "the block");
    std::string expected = messages();
    EXPECT_TRUE(expected.ends_with(wllb_format("Malloced  $%p$ size %zu, msg=the block\n", first, size))) << expected;
    void *same = wllb_grow_block(first, size, size, "the block");
    EXPECT_TRUE(same != first || expected == messages());                               // what did not move is not told
    void *moved = wllb_grow_block(same, size, size == 100 ? border : 100, "the block"); // across the border
    expected = messages();
    const std::string pair =
        wllb_format("Freed  $%p$ size %zu, msg=the block\nRealloced  $%p$ size %zu, msg=the block\n", same, size, moved,
                    size == 100 ? border : 100);
    EXPECT_TRUE(expected.ends_with(pair)) << expected;
    wllb_free_block(moved, size == 100 ? border : 100, "the block");
    EXPECT_EQ(expected + wllb_format("Freed pointer $%p$, msg=the block\n", moved), messages());
  }
}

TEST_F(wllb_alloc_traces, other_levels_know_nothing_of_allocations) {
  open_trace(3);
  wllb_trace_partition = 7;
  wllb_free_block(wllb_new_block(100, "the block"), 100, "the block");
  EXPECT_EQ("", messages());
}
