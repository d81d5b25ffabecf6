// Tag texts: what is merged with what, one row and one id for each text, over instances and restarts.
#include "tag_ids.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"
#include "tqp_tags.h"

#include "output_files_fixture.h"
#include "test_run.h"

#include <thread>

namespace {

class tag_texts : public output_files {
protected:
  tag_texts() { tqp_init_norm_table(); }

  ~tag_texts() override {
    tqp_free_global_texts(inst);
    tqp_free_local_maps(inst);
    tqp_free_norm_table();
  }

  static void tell(tqp_instance_t *to, std::string records) { tq_process_data(to, records.data(), records.size(), 1); }

  std::string rows() const { return file_text(common("TQTags.csv")); }
};

TEST_F(tag_texts, sets_are_merged_with_the_fullest_global_text) {
  tell(inst, "112,4,{\"c\":3}\n111,{\"b\":2}\n112,4,{\"c\":3}\n110,{\"a\":1}\n112,5,{\"c\":[3,4]}\n112,4,{\"c\":3}\n");
  EXPECT_EQ("1,'{\"c\":3}'\n2,'{\"b\":2}'\n3,'{\"b\":2,\"c\":3}'\n4,'{\"a\":1}'\n5,'{\"a\":1,\"b\":2}'\n"
            "6,'{\"a\":1,\"b\":2,\"c\":[3,4]}'\n7,'{\"a\":1,\"b\":2,\"c\":3}'\n",
            rows());
  const int expected[] = {0, 4, 2, 5, 7, 6};
  for (int local_id = 0; local_id < 6; ++local_id)
    EXPECT_EQ(expected[local_id], inst->tags_map.at_or_zero(local_id)) << local_id;
  EXPECT_EQ(8U, inst->global_attributes_len);
  EXPECT_EQ(13U, inst->global_attr_tags_len);
  tell(inst, "110,{\"a\":9}\n"); // what the table holds stays
  EXPECT_EQ(4U, lookup_name_str_32(key_tags, "{\"a\":1}"));
  EXPECT_STREQ("{\"a\":9,\"b\":2}", inst->global_attr_tags);
  const std::string before = rows();
  std::string line = "{\"a\":7}behind"; // from the recovery file: the end is the last byte, and nothing is written
  char *cursor = line.data();
  tqp_set_global_tags_and_attributes(inst, &cursor, line.data() + 6, 0, TAG_KIND_ATTRIBUTES);
  EXPECT_STREQ("{\"a\":7,\"b\":2}", inst->global_attr_tags);
  EXPECT_EQ(before, rows());
}

TEST_F(tag_texts, odd_texts_are_joined_as_they_are_and_bad_records_change_nothing) {
  tell(inst, "110,\n111,\n112,\n112,5\n112,-1,{}\n112,134217728,{}\n112,99999999999999999999,{}\n" +
                 std::string("110,\0\n", 6));
  EXPECT_EQ("", rows());
  EXPECT_EQ(nullptr, inst->global_attributes);
  tell(inst, "112,5,\n110,x\n111,y\n112,5,,z\n112,6,\n112,100000,it's\n");
  EXPECT_EQ("1,''\n2,'x'\n3,'y'\n4,','\n5,',z'\n6,',t's'\n", rows())
      << "a join costs a byte of both, whatever they are";
  const std::string inner = "\"l\":\"" + std::string(300000, 'x') + "\"";
  tell(inst, "110,{" + inner + "}\n111,{\"m\":1}\n112,6,{" + inner + "}\n");
  EXPECT_NE(std::string::npos, rows().find(",'{" + inner + ",\"m\":1," + inner + "}'\n"));
}

// Two instances tell the same texts at the same time: whoever comes first, each text has one id and one row.
TEST_F(tag_texts, one_row_for_a_text_of_many_instances) {
  tqp_instance_t other;
  begin_instance(other, "tier_server_other");
  std::string records;
  for (int i = 4; i < 400; ++i)
    records += wllb_format("112,%d,{\"n\":%d}\n", i, i);
  std::thread beside([&] { tell(&other, records); });
  tell(inst, records);
  beside.join();
  EXPECT_EQ(396U, lines_of(rows()).size());
  for (int i = 4; i < 400; ++i)
    EXPECT_TRUE(inst->tags_map.at_or_zero(i) > 0 && inst->tags_map.at_or_zero(i) == other.tags_map.at_or_zero(i)) << i;
  tqp_free_local_maps(&other);
  end_instance(other);
}

// A repeated record changes nothing, and a flowpath after the restart names the text that was told before it.
TEST_F(tqp_test_run, tags_keep_their_ids_over_a_restart) {
  const std::string labels = "110,{\"a\":1}\n111,{\"b\":2}\n112,5,{\"c\":3}\n91,Db,Tier,Store\n";
  const std::string rows = "1,'{\"a\":1}'\n2,'{\"b\":2}'\n3,'{\"a\":1,\"b\":2}'\n4,'{\"a\":1,\"b\":2,\"c\":3}'\n";
  const auto flowpath = [](int fpi, const char *tag) {
    const std::string tuple = wllb_format("%d:%d:0:%d", fpi, fpi, fpi);
    return "2," + tuple + ",1000,0,1,0,1,,1,1,1,1,0,0,C,main,1,1000\n4," + tuple + ",200,10,1:0:0:0:0,9,-,0,-,0," +
           tag + ",1,C,17:99_0_0__17:99_1_9_1:0:0:0:0___\n";
  };
  raw(identity() + method(17, "a.b.C.m()V") + labels + flowpath(71, "5") + flowpath(72, "-1") + flowpath(73, "-"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(rows, common("TQTags.csv"));
  const std::string topology = read("topology/tqIntegrationPoint.conf");
  append_raw(labels + flowpath(74, "5") + flowpath(75, "6") + "112,6,{\"c\":3}\n" + flowpath(76, "6") + "10,\n");
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(rows, common("TQTags.csv"));
  EXPECT_EQ(1, occurrences(topology, "\"destTier\": \"Store\""));
  EXPECT_EQ(topology, read("topology/tqIntegrationPoint.conf"));
  EXPECT_EQ(1, occurrences(trace(), "Auto discovery topology(91) json file = "));
  std::string tags;
  for (const std::string &row : lines_of(data("TQFlowPath.csv")))
    tags += row.substr(row.rfind(',') + 1) + " ";
  EXPECT_EQ("4 3 0 4 0 4 ", tags);
}

} // namespace
