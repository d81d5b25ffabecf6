// How the maps from local ids to norm ids grow and what they hold.

#include "tqp_recovery.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

class local_maps : public testing::Test {
protected:
  tqp_instance_t instance;
  tqp_instance_t *inst = &instance;

  ~local_maps() override { tqp_free_local_maps(inst); }
};

TEST_F(local_maps, each_grows_by_its_own_steps) {
  for (const loc2norm_row &row : loc2norm_rows) {
    if (!row.map)
      continue;
    SCOPED_TRACE(row.file_name);
    const bool starts_large = row.bit == LOC2NORM_METHOD || row.bit == LOC2NORM_BCI_ARG;
    const int64_t first = starts_large ? 16384 : 4096;
    const std::map<int64_t, int64_t> sizes = {
        {first - 1, first}, {first, first + 4096}, {first + 20000, first + 20480}};
    for (const auto &[local_id, size] : sizes) {
      tqp_store_loc2norm(inst, row.bit, local_id, 7);
      EXPECT_EQ(size, (inst->*row.map).size) << local_id;
      EXPECT_EQ(7, (inst->*row.map).data[local_id]);
    }
    EXPECT_EQ(1 << row.bit, inst->loc2norm_unsaved_flags & 1 << row.bit);
  }
}

TEST_F(local_maps, ids_out_of_bounds_change_nothing) {
  for (const int64_t local_id : {int64_t{-1}, max_local_id + 1, INT64_MIN, INT64_MAX}) {
    for (int bit = 0; bit < __NUM_LOC2NORM_BITS__; ++bit)
      tqp_store_loc2norm(inst, bit, local_id, 7);
    tqp_store_http_header(inst, local_id, 7, "Host");
  }
  EXPECT_EQ(0, inst->loc2norm_unsaved_flags);
}

TEST_F(local_maps, a_later_header_wins_even_with_the_name_that_is_held) {
  tqp_store_http_header(inst, 9, 1, "Host");
  tqp_store_http_header(inst, 9, 2, "User-Agent");
  tqp_store_http_header(inst, 9, 3, inst->http_header_map.data[9].http_header_name);
  EXPECT_EQ(3, inst->http_header_map.data[9].norm_http_header_id);
  EXPECT_STREQ("User-Agent", inst->http_header_map.data[9].http_header_name);
}

TEST_F(local_maps, queries_stay_sorted_and_are_found) {
  int8_t type = 1;
  EXPECT_EQ(-1, sql_query_map_read_loc2norm(inst->sql_query_map.data, 5, 0, &type));
  EXPECT_EQ(255, static_cast<uint8_t>(type));
  std::map<int, int> model; // the first norm id of each local id
  std::mt19937 random(11);
  for (int i = 0; i < 20000; ++i) {
    const int loc_id = i < 10000 ? i * 3 : static_cast<int>(random() % 60000) - 20000; // rising, then anywhere
    tqp_store_sql(inst, loc_id, i, static_cast<int8_t>(i % 10));
    model.try_emplace(loc_id, i);
  }
  ASSERT_EQ(model.size(), static_cast<size_t>(inst->sql_query_map_size));
  const sql_query_map_t *entry = inst->sql_query_map.data;
  for (const auto &[loc_id, norm_id] : model) {
    EXPECT_EQ(loc_id, entry++->loc_id);
    ASSERT_EQ(norm_id, sql_query_map_read_loc2norm(inst->sql_query_map.data, loc_id, inst->sql_query_map_size, &type));
    ASSERT_EQ(norm_id % 10, type);
  }
  for (int loc_id = -20001; loc_id < 40001; ++loc_id)
    ASSERT_EQ(model.contains(loc_id),
              tqp_binary_search(inst->sql_query_map.data, 0, inst->sql_query_map_size - 1, loc_id) >= 0);
}

} // namespace
