// The agent sends its metadata anew: maps and flowpaths go, recovery files and outputs stay.

#include "one_instance_run.h"
#include "output_files_fixture.h"
#include "tqp_async_handling.h"
#include "tqp_recovery.h"

namespace {

class resend : public testing::Test {
protected:
  tqp_instance_t *inst = open_one_instance_run();

  ~resend() override { close_one_instance_run(inst); }

  // The file of a map after a discovery, which may be saved.
  std::string discover(int bit, int local_id, bool save) const {
    tqp_store_loc2norm(inst, bit, local_id, 7);
    if (bit == LOC2NORM_SQL)
      tqp_store_sql(inst, local_id, 7, 1);
    if (bit == LOC2NORM_HTTP_HEADER)
      tqp_store_http_header(inst, local_id, 7, "Host");
    write_loc2norm_rec_file(inst, save ? 1 << bit : 0);
    return file_text(make_loc2_norm_file_path(inst, loc2norm_rows[bit].file_name));
  }
};

TEST_F(resend, a_map_is_new_but_its_file_stays_until_the_next_discovery) {
  const size_t new_entries[__NUM_LOC2NORM_BITS__] = {16384, 0, 0, 0, 0, 0, 0, 4096, 0, 0, 16384, 4096, 16384};
  int local_id = 0;
  for (const int asked : {0, 5, 6, 7, 21, 26, 32, 33, 34, 35, 36, 37, 41, 112, 999, -1}) {
    SCOPED_TRACE(asked);
    std::string before[__NUM_LOC2NORM_BITS__];
    for (int bit = 0; bit < __NUM_LOC2NORM_BITS__; ++bit) {
      discover(bit, 39999, false);
      before[bit] = discover(bit, 40000, true);
      discover(bit, ++local_id, false);
    }
    run_block(inst, "11,1," + std::to_string(asked) + "\n");
    write_loc2norm_rec_file(inst, 65535);
    EXPECT_EQ(norm_id_flag, inst->url_map.data[0]);
    for (const loc2norm_row &row : loc2norm_rows) {
      const bool cleared = asked == 0 || asked == -1 || asked == row.kind;
      EXPECT_EQ(cleared, file_text(make_loc2_norm_file_path(inst, row.file_name)) == before[row.bit]) << row.file_name;
      const int64_t entries = row.map ? (inst->*row.map).size : 0;
      EXPECT_TRUE(!row.map || cleared == (entries == static_cast<int64_t>(new_entries[row.bit]))) << entries;
      const std::string after = discover(row.bit, ++local_id, true);
      EXPECT_EQ(cleared, after.size() < before[row.bit].size()) << "the file holds nothing old: " << row.file_name;
    }
  }
}

TEST_F(resend, flowpaths_go_without_output_unless_the_record_is_short) {
  for (const auto &[record, dropped, cleared] : {std::tuple{"11,1,999\n", true, false},
                                                 {"11,1,x\n", true, true},
                                                 {"11,\n", false, true},
                                                 {"11,1\n", false, true},
                                                 {"11,1,\n", false, false}}) {
    SCOPED_TRACE(record);
    for (const int64_t fpi : {100, 200, 300}) {
      const int slot = get_concurrent_flowpath_free_idx(inst);
      tqp_occupy_flowpath(inst, slot, fpi);
      insert_in_segment_array(inst, &inst->con_fp_buf.data[slot], fpi);
      tqp_announce_segment(inst, &inst->con_fp_buf.data[slot], "1.1");
    }
    discover(LOC2NORM_METHOD, 1, false);
    inst->disable_req_metadata_from_bci = inst->bt_category_flag = 1;
    run_block(inst, record);
    EXPECT_EQ(0, inst->disable_req_metadata_from_bci + inst->bt_category_flag);
    EXPECT_EQ(cleared ? 0 : 7, inst->method_map.data[1]);
    EXPECT_EQ(dropped, inst->last_occupied_fp_idx == -1 && tqp_find_flowpath(inst, 200) == -1);
    EXPECT_EQ("", file_text(std::string(inst->csvfilepath) + "TQFlowPath.csv"));
  }
}

} // namespace
