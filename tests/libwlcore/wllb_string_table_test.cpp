// The concurrent text table: one winner for each text, and everybody agrees on the winner's value.
#include "wllb_string_table.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>

namespace {

class string_table : public testing::Test {
protected:
  static constexpr uint32_t threads = 8, texts = 1000;

  void SetUp() override {
    folly_init(0);
    table = get_new_hash_table_str_32();
    for (uint32_t i = 0; i < texts; ++i)
      names.push_back("{\"tag\":\"" + std::to_string(i) + "\"}");
  }

  void TearDown() override { wllb_free_hash_table_str_32(table); }

  wllb_string_table *table = nullptr;
  std::vector<std::string> names;
};

} // namespace

TEST_F(string_table, keeps_the_first_value_of_a_text) {
  EXPECT_EQ(wllb_string_absent, lookup_name_str_32(table, "a"));
  EXPECT_NE(wllb_string_absent, add_name_str_32(table, "a", 0));
  EXPECT_EQ(wllb_string_absent, add_name_str_32(table, std::string("a").c_str(), 5)); // other pointer, same text
  EXPECT_EQ(0U, lookup_name_str_32(table, std::string("a").c_str()));
  EXPECT_EQ(wllb_string_absent, lookup_name_str_32(table, "ab"));
  EXPECT_EQ(wllb_string_absent, add_name_str_32(table, "b", wllb_string_absent)); // would look absent for ever
  EXPECT_NE(wllb_string_absent, add_name_str_32(table, "b", wllb_string_absent - 1));
  EXPECT_EQ(wllb_string_absent - 1, lookup_name_str_32(table, "b"));
}

TEST_F(string_table, each_text_has_one_winner_and_all_threads_see_its_value) {
  std::array<std::vector<uint32_t>, threads> seen;
  std::vector<std::atomic<int>> winners(texts);
  std::atomic<uint32_t> waiting{threads};
  const auto work = [&](uint32_t t) {
    for (--waiting; waiting > 0;)
      std::this_thread::yield();
    for (uint32_t i = 0; i < texts; ++i) {
      const uint32_t n = (i + t * 37) % texts;
      if (add_name_str_32(table, names[n].c_str(), t * texts + n) != wllb_string_absent)
        ++winners[n];
      seen[t].push_back(lookup_name_str_32(table, names[n].c_str()));
    }
  };
  std::vector<std::thread> running;
  for (uint32_t t = 0; t < threads; ++t)
    running.emplace_back(work, t);
  for (std::thread &thread : running)
    thread.join();
  for (uint32_t n = 0; n < texts; ++n) {
    EXPECT_EQ(1, winners[n]);
    const uint32_t value = lookup_name_str_32(table, names[n].c_str());
    EXPECT_EQ(n, value % texts);
    for (uint32_t t = 0; t < threads; ++t)
      EXPECT_EQ(value, seen[t][(n + texts - t * 37 % texts) % texts]);
  }
}
