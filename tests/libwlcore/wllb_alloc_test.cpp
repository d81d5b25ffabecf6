// Blocks keep what was written, are zero elsewhere, and end the process when there are none left.
#include "wllb_alloc.h"

#include "wllb_multi_thread_trace_log.h"
#include "wllb_test_dir.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

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
  const size_t sizes[] = {0, 1, border - 1, border, 3 * border + 5, 40 * border};
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

TEST(wllb_alloc, an_array_grows_to_the_first_size_and_then_by_whole_steps) {
  const int64_t rows[][5] = {// first, step, have, needed, grown
                             {64, 3, 0, 0, 0},   {64, 3, 0, 1, 64}, {64, 3, 0, 65, 67}, {64, 3, 64, 64, 64},
                             {64, 3, 5, 12, 14}, {0, 1, 0, 7, 7},   {7, 0, 0, 29, 56},  {0, 0, 0, 5, 8}};
  for (const auto &[first, step, have, needed, grown] : rows)
    EXPECT_EQ(grown, wllb_grown_size(have, needed, {first, step, "test"})) << have << " " << needed;
  const int64_t huge = int64_t{1} << 40U;
  EXPECT_EQ(huge * 2, wllb_grown_size(huge, huge + 1, {16, 0, "test"}));
  EXPECT_EQ(INT64_MAX, wllb_grown_size(1, INT64_MAX, {1, 0, "test"}));
}

TEST(wllb_alloc_death, memory_that_cannot_be_had_ends_the_process_with_the_common_text) {
  const char *const text = "^Failed to Realloc Malloced size 2305843009213693952, msg=the label$";
  EXPECT_EXIT(wllb_new_block(no_such_size, "the label"), testing::ExitedWithCode(255), text);
  for (const size_t size : {size_t{10}, border}) {
    void *block = wllb_new_block(size, "test");
    EXPECT_EXIT(wllb_grow_block(block, size, no_such_size, "the label"), testing::ExitedWithCode(255), text);
    wllb_free_block(block, size, "test");
  }
}

// --- traces -------------------------------------------------------------------------------------------------

TEST(wllb_alloc_traces, every_allocation_has_its_lines_at_level_4_only) {
  for (const int level : {4, 3}) {
    const wllb_test_dir dir;
    trkey = wllb_init_mt_trace_log_ex(dir.path.c_str(), 7, "trace.log", level, 1);
    wllb_trace_partition = 7;
    std::string expected;
    for (const size_t size : {size_t{100}, border * 2}) {
      const size_t other = size == 100 ? border : 100; // across the border
      void *first = wllb_new_block(size, "test");
      void *moved = wllb_grow_block(first, size, other, "test");
      wllb_free_block(moved, other, "test");
      expected += wllb_format("Malloced  $%p$ size %zu, msg=test\n", first, size);
      if (moved != first) // a block that stays where it is has no lines
        expected += wllb_format("Freed  $%p$ size %zu, msg=test\nRealloced  $%p$ size %zu, msg=test\n", first, size,
                                moved, other);
      expected += wllb_format("Freed pointer $%p$, msg=test\n", moved);
    }
    std::string messages; // of all lines, one a line
    std::istringstream lines(file_text(dir / "7/trace.log"));
    for (std::string line; std::getline(lines, line);)
      if (line.find("|Info|") != std::string::npos)
        messages += line.substr(line.rfind('|') + 1) + "\n";
    EXPECT_EQ(level == 4 ? expected : "", messages);
    wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
  }
}
