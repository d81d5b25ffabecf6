// The concurrent text table; how it fares with many threads, the tests of tags tell.
#include "wllb_string_table.h"

#include <gtest/gtest.h>

TEST(string_table, keeps_the_first_value_of_a_text) {
  folly_init(0);
  wllb_string_table *table = get_new_hash_table_str_32();
  EXPECT_EQ(wllb_string_absent, lookup_name_str_32(table, "a"));
  EXPECT_NE(wllb_string_absent, add_name_str_32(table, "a", 0));
  EXPECT_EQ(wllb_string_absent, add_name_str_32(table, std::string("a").c_str(), 5)); // other pointer, same text
  EXPECT_EQ(0U, lookup_name_str_32(table, std::string("a").c_str()));
  EXPECT_EQ(wllb_string_absent, lookup_name_str_32(table, "ab"));
  EXPECT_EQ(wllb_string_absent, add_name_str_32(table, "b", wllb_string_absent)); // would look absent for ever
  EXPECT_NE(wllb_string_absent, add_name_str_32(table, "b", wllb_string_absent - 1));
  EXPECT_EQ(wllb_string_absent - 1, lookup_name_str_32(table, "b"));
  wllb_free_hash_table_str_32(table);
}
