// The field cursor, the line cutter and the discovery records, by damage.

#include "blob_fields.h"
#include "event_table.h"
#include "one_instance_run.h"
#include "record_errors.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"

#include <gtest/gtest.h>

#include <cstring>
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

TEST(numbers, are_those_of_the_c_library) {
  const auto expect_same = [](const std::string &text) {
    EXPECT_EQ(strtoll(text.c_str(), nullptr, 10), tqp_read_number(text.c_str())) << text;
    const double expected = strtod(text.c_str(), nullptr), read = tqp_blob_decimal(text.c_str());
    EXPECT_EQ(0, memcmp(&expected, &read, sizeof read)) << text; // to the last bit, a NaN's too
  };
  // clang-format off
  for (const char *text : {"", ".", "5.", ".5", "-0", " 7", "+3", "1.2.3", "1e3", "0x10", "nan", "-inf", "1:2", "12a",
                           "9223372036854775807", "9223372036854775808", "18446744073709551616",
                           "00000000000000000000000000012", "999999999999999.", ".000000000000001", "9007199254740993"})
    // clang-format on
    expect_same(text);
  std::mt19937 random(1);
  for (int round = 0; round < 200000; ++round) {
    std::string text;
    for (size_t len = random() % 24; len > 0; --len)
      text += "01234567890123456789."[random() % 21];
    if (random() % 16 == 0 && !text.empty())
      text[random() % text.size()] = "-+ eE:x_"[random() % 8];
    expect_same(text);
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
};

TEST_F(record_intake, every_discovery_with_each_field_missing_empty_and_huge) {
  // Well formed, with new texts and the local id 9.
  for (const char *record :
       {"5,a.B.c()V,9", "7,/u,9", "7,9,/u2", "26,r,9", "32,9,E", "33,T,9", "34,9,M", "35,msg,9", "36,9,C", "37,st,9",
        "41,Page,9", "6,first,1", "6,hdr,9", "22,5,9,select 1", "23,select 2,9"}) {
    SCOPED_TRACE(record);
    const auto fields = split_plainly(record);
    std::string cut = fields[0];
    uint32_t before = bad_records(inst);
    run_block(inst, cut + ",\n"); // nothing behind the event id
    EXPECT_LE(bad_records(inst), before + 1);
    for (size_t i = 1; i + 1 < fields.size(); ++i) { // the record ends behind field i
      cut += "," + fields[i];
      before = bad_records(inst);
      run_block(inst, cut + "\n");
      EXPECT_LE(bad_records(inst), before + 1);
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
    run_block(inst, std::string(record) + "\n");
  }
  for (const loc2norm_row &row : loc2norm_rows) { // after all that, the good records still work
    const int sql = sql_query_map_read_loc2norm(inst->sql_query_map.data, 9, inst->sql_query_map_size, nullptr);
    EXPECT_GT(row.bit == LOC2NORM_HTTP_HEADER ? inst->http_header_map.at_or_zero(9).norm_http_header_id
              : row.bit == LOC2NORM_SQL       ? sql
              : row.bit == LOC2NORM_TAGS      ? 1
                                              : (inst->*row.map).at_or_zero(9),
              0)
        << row.file_name;
  }
  EXPECT_LT(inst->method_map.size, max_local_id); // nothing grew for an id that no map takes
}

TEST_F(record_intake, later_discoveries_win_except_for_queries) {
  run_block(inst, "26,last that a map takes,134217727\n26,first,5\n26,second,5\n23,select 1,9\n22,select 1,9\n");
  EXPECT_EQ(1, inst->resource_map.at_or_zero(134217727));
  EXPECT_EQ(3, inst->resource_map.at_or_zero(5));
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
  const auto clock_before = wllb_monotonic_ms;
  wllb_monotonic_ms = [] { return told_time; };
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
  wllb_monotonic_ms = clock_before;
}
