// The field cursor, the line cutter and the discovery records, by damage.

#include "event_table.h"
#include "one_instance_run.h"
#include "record_errors.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>

// --- the cursor --------------------------------------------------------------------------------------------------

// What the separators of a record say, found the plain way.
static std::vector<std::string> split_plainly(const std::string &record) {
  std::vector<std::string> fields(1);
  for (const char c : record) {
    if (c == ',')
      fields.emplace_back();
    else
      fields.back() += c;
  }
  return fields;
}

TEST(field_cursor, gives_every_field_and_then_nothing_for_ever) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::string record;
    for (size_t len = random() % 12; len > 0; --len)
      record += "ab,"[random() % 3];
    SCOPED_TRACE(record);
    std::string line = record + "\nnext,line\n";
    char *const end = line.data() + record.size();
    char *cursor = line.data();
    const auto expected = split_plainly(record);
    for (size_t i = 0; i < expected.size(); ++i) {
      char *text;
      EXPECT_EQ(i + 1 < expected.size() ? 0 : -1, read_next_field(&text, &cursor, end, ','));
      EXPECT_EQ(expected[i], text);
    }
    for (int beyond = 0; beyond < 3; ++beyond) {
      char *text;
      EXPECT_EQ(-1, read_next_field(&text, &cursor, end, ','));
      EXPECT_STREQ("", text);
    }
    EXPECT_EQ("next,line\n", line.substr(record.size() + 1)); // the next line is not touched
  }
}

TEST(fpi_tuples, missing_parts_leave_their_values) {
  struct tuple_case {
    const char *text;
    int64_t a, b, c, d;
  };

  for (const tuple_case &t : {tuple_case{"1:2:3:4", 1, 2, 3, 4},
                              {"1", 1, -7, -7, -7},
                              {"1::3", 1, 0, 3, -7},
                              {"", 0, -7, -7, -7},
                              {"9223372036854775808:x:-5:1:9", INT64_MAX, 0, -5, 1}}) {
    std::string text = t.text;
    char *cursor = text.data();
    int64_t a = -7, b = -7, c = -7, d = -7;
    parse_fpi_tuple(&cursor, &a, &b, &c, &d);
    EXPECT_EQ(std::vector<int64_t>({t.a, t.b, t.c, t.d}), std::vector<int64_t>({a, b, c, d})) << t.text;
    EXPECT_EQ(nullptr, cursor);
  }
}

TEST(last_newline, is_looked_for_from_the_end_and_not_in_the_first_byte) {
  char one[] = "\n", many[] = "\nab\ncd", first_only[] = "\nabc";
  EXPECT_EQ(one, get_last_newline_ptr(one, 1));
  EXPECT_EQ(many + 3, get_last_newline_ptr(many, 6));
  EXPECT_EQ(nullptr, get_last_newline_ptr(first_only, 4));
  EXPECT_EQ(nullptr, get_last_newline_ptr(many, 0));
}

// --- one instance ----------------------------------------------------------------------------------------------------

class record_intake : public testing::Test {
protected:
  tqp_instance_t *inst = open_one_instance_run();

  ~record_intake() override { close_one_instance_run(inst); }

  uint32_t invalid() {
    wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
    return inst->tqp_instance_mon_stat_info.invalid_rawdata_count;
  }
};

TEST_F(record_intake, every_discovery_with_each_field_missing_empty_and_huge) {
  struct kind {
    const char *record; // well formed, new text, local id 9
    std::function<int()> norm_id;
    bool id_may_be_huge = false;
  };

  const auto in = [&](const wllb_zarray<int> &map) { return [&map] { return map.at_or_zero(9); }; };
  const kind kinds[] = {
      {"5,a.B.c()V,9", in(inst->method_map)},
      {"7,/u,9", in(inst->url_map)},
      {"7,9,/u2", in(inst->url_map)},
      {"26,r,9", in(inst->resource_map)},
      {"32,9,E", in(inst->excp_cls_map)},
      {"33,T,9", in(inst->excp_thr_cls_map)},
      {"34,9,M", in(inst->excp_thr_mtd_map)},
      {"35,msg,9", in(inst->excp_msg_map)},
      {"36,9,C", in(inst->excp_cause_map)},
      {"37,st,9", in(inst->excp_st_map)},
      {"41,Page,9", in(inst->bci_arg_id_map)},
      {"6,hdr,9", [&] { return inst->http_header_map.at_or_zero(9).norm_http_header_id + 1; }},
      {"22,5,9,select 1",
       [&] { return sql_query_map_read_loc2norm(inst->sql_query_map.data, 9, inst->sql_query_map_size, nullptr); },
       true},
      {"23,select 2,9",
       [&] { return sql_query_map_read_loc2norm(inst->sql_query_map.data, 9, inst->sql_query_map_size, nullptr); },
       true},
  };
  for (const kind &k : kinds) {
    SCOPED_TRACE(k.record);
    const auto fields = split_plainly(k.record);
    std::string cut = fields[0];
    uint32_t before = invalid();
    run_block(inst, cut + ",\n"); // nothing behind the event id
    EXPECT_LE(invalid(), before + 1);
    for (size_t i = 1; i + 1 < fields.size(); ++i) { // the record ends behind field i
      cut += "," + fields[i];
      before = invalid();
      run_block(inst, cut + "\n");
      EXPECT_LE(invalid(), before + 1);
    }
    for (size_t i = 1; i < fields.size(); ++i)
      for (const std::string &odd : {std::string(), std::string("-1"), std::string("99999999999999999999"),
                                     std::string(20000, '7'), std::string(20000, 'x'), std::string("\xFF\x01'\"")}) {
        auto damaged = fields;
        damaged[i] = odd;
        std::string line = damaged[0];
        for (size_t j = 1; j < damaged.size(); ++j)
          line += "," + damaged[j];
        run_block(inst, line + "\n");
      }
    run_block(inst, std::string(k.record) + "\n");
    EXPECT_GT(k.norm_id(), 0); // after all that, the good record still works
  }
  EXPECT_LT(inst->method_map.size, max_local_id); // nothing grew for an id that no map takes
}

TEST_F(record_intake, maps_grow_in_their_steps_and_only_as_far_as_told) {
  run_block(inst, "26,a,4095\n");
  EXPECT_EQ(4096, inst->resource_map.size);
  run_block(inst, "26,b,4096\n");
  EXPECT_EQ(8192, inst->resource_map.size);
  run_block(inst, "26,c,134217727\n");
  EXPECT_EQ(134217728, inst->resource_map.size);
  EXPECT_EQ(1, inst->resource_map.at_or_zero(4095));
  EXPECT_EQ(3, inst->resource_map.at_or_zero(134217727));
  EXPECT_EQ(0, inst->resource_map.at_or_zero(134217728));
}

TEST_F(record_intake, later_discoveries_win_except_for_queries) {
  run_block(inst, "26,first,5\n26,second,5\n23,select 1,9\n22,select 1,9\n");
  EXPECT_EQ(2, inst->resource_map.at_or_zero(5));
  int8_t type = 0;
  EXPECT_EQ(norm_id_flag, sql_query_map_read_loc2norm(inst->sql_query_map.data, 9, inst->sql_query_map_size, &type));
  EXPECT_EQ(1, type);
  const std::string page(300, 'p');
  run_block(inst, "41,7," + page + "\n41,8," + page.substr(0, 254) + "\n41,9," + page.substr(0, 255) + "\n");
  EXPECT_EQ(inst->bci_arg_id_map.at_or_zero(7), inst->bci_arg_id_map.at_or_zero(8)); // 300 bytes are kept as 254
  EXPECT_NE(inst->bci_arg_id_map.at_or_zero(8), inst->bci_arg_id_map.at_or_zero(9)); // 255 are not cut
}

TEST_F(record_intake, identity_needs_its_six_fields_and_the_files_name) {
  struct identity_case {
    const char *record;
    int result;
  };

  for (const identity_case &c : {identity_case{"0,Tier,Server,App,3,4,5\n", 0},
                                 {"0,Tier,Server,App,3,4,\n", 0},
                                 {"0,Tier,Server,App,3,4\n", -1},
                                 {"0,Tier,Server\n", -1},
                                 {"0,\n", -1},
                                 {"0,Tier,Other,App,3,4,5\n", -1},
                                 {"0,Tier,Server,Ap,3,4,5\n", 0},
                                 {"0,Tier,Server,App2,3,4,5\n", -1}}) {
    inst->get_tsa_id = 0;
    EXPECT_EQ(c.result, run_block(inst, std::string(c.record) + "5,a.B.c()V,1\n")) << c.record;
    EXPECT_EQ(c.result == 0, inst->sum_rep_counters[SUM_REP_CNT_TQ_EV_METHOD_DISCOVERY] > 0) << "the rest of the block";
    inst->sum_rep_counters[SUM_REP_CNT_TQ_EV_METHOD_DISCOVERY] = 0;
  }
  inst->get_tsa_id = 0;
  run_block(inst, "99,x,FPGVersion:2.0,DOTNET\n");
  EXPECT_EQ(2.0F, inst->fpg_version);
  EXPECT_EQ(1, inst->agent_type);
  run_block(inst, "99,x,FPGVersion:3.0,RUBY\n");
  EXPECT_EQ(0.0F, inst->fpg_version);
  EXPECT_EQ(-1, inst->agent_type);
  run_block(inst, "99,x,FPGVersion:1.0,JAVA\n99,x\n"); // a record that ends early forgets the version
  EXPECT_EQ(0.0F, inst->fpg_version);
  set_fpg_version_from_file(inst);
  EXPECT_EQ(1.0F, inst->fpg_version); // and leaves the file alone
}

static int64_t told_time;

TEST_F(record_intake, repeated_errors_are_told_once_an_interval) {
  const auto clock_before = wllb_clock_ms;
  wllb_clock_ms = [] { return told_time; };
  const rawerr_log_counter_t &c = inst->rawerr_log_counter[RAWERR_META_DATA];
  tqp_errlog_throttle_interval = 300;
  told_time = 1000000;
  for (int i = 0; i < 5; ++i)
    dump_tqp_error_log(inst, RAWERR_META_DATA, "lost");
  EXPECT_EQ(5, c.throttle_count);
  told_time += 300999; // 300 whole seconds: not above the interval
  dump_tqp_error_log(inst, RAWERR_META_DATA, "lost");
  EXPECT_EQ(6, c.throttle_count);
  told_time += 1;
  dump_tqp_error_log(inst, RAWERR_META_DATA, "lost");
  EXPECT_EQ(1, c.throttle_count); // told with the number in between, and counting begins anew
  EXPECT_EQ(7, c.g_count);
  EXPECT_EQ(told_time, c.throttle_timestamp);
  wllb_clock_ms = clock_before;
}

TEST_F(record_intake, bytes_of_a_captured_body_go_to_its_file_over_block_borders) {
  const std::string path = std::string(inst->csvfilepath) + "body";
  snprintf(inst->httpbody_file_path_name, sizeof inst->httpbody_file_path_name, "%s", path.c_str());
  inst->httpbody_remaining_bytes = 12; // eleven bytes and the record's newline
  run_block(inst, "first,\n");
  EXPECT_EQ(5, inst->httpbody_remaining_bytes);
  EXPECT_EQ(0, inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]); // not read as a line
  run_block(inst, "more\n26,r,1\n");
  EXPECT_EQ(0, inst->httpbody_remaining_bytes);
  EXPECT_EQ("first,\nmore", wllb_read_small_file(path.c_str()));
  EXPECT_EQ(2, inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]); // the body's end is read again as a line
  EXPECT_EQ(1, inst->resource_map.at_or_zero(1));
}
