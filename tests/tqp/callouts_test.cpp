// Callout, grouped query and cache tokens in both forms of the blob: the rewritten token, the callout row, the counts.
// Method 7 is kept as 107, query 40 as 4040, resource 9 as 909; the segment is 1.2.1, began at 1000 s, its parent is 55.

#include "output_files_fixture.h"

#include "side_texts.h"
#include "tqp_recovery.h"
#include "tqp_run_time_v2.h"
#include "tqp_sql_timing.h"

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

namespace {

struct token_case {
  std::string token, text; // text: as a segment's first callout
  std::string row;
};

// As first callout. A case for each kind, for each way in which a token may end, and for what is read twice or lost.
const token_case callout_cases[] = {
    // delays "::", status empty
    {"T12:7:3.5:1:-:100:::::", "T1.2.12:107:3.5:1:0:100:0:::", "55,T,1.2.12,0,107,1,0,1000,3.5,,0,0,,,0,0,0,0,0"},
    // everything there; a query parameter goes on to the end of the token
    {"T5:7:10:5:40:2500:9:3:4:200:id=5:6", "T1.2.5:107:10:5:4040:2500:909:3:4:200:id=5:6",
     "55,T,1.2.5,0,107,5,4040,1002,10,200,0,909,3,4,0,0,0,0,0"},
    // an empty delay field: the other fields of a "T" are read, those of the others are not
    {"T5:7:1:11:-:5:9:::404", "T1.2.5:107:1:11:0:5:909:::404", "55,T,1.2.5,0,107,11,0,1000,1,404,0,909,,,0,0,0,0,0"},
    // the token ends with the empty field, with a single delay, with both
    {"g5:7:1:26:-:5::8", "g1.2.5:107:1:26:0:5:0:", "55,g,1.2.5,0,107,26,0,1000,1,,0,0,,,0,0,0,0,0"},
    {"t5:7:1:99:-:5::8:2:301:p", "t1.2.5:107:1:99:0:5:0:8:2:301", "55,t,1.2.5,0,107,99,0,1000,1,301,0,0,8,2,0,0,0,0,0"},
    // the token ends with its start, or before it
    {"x5:7:1:99:-:1999", "x1.2.5:107:1:99:0:1999:0:", "55,x,1.2.5,0,107,99,0,1001,1,,0,0,,,0,0,0,0,0"},
    // unknown ids; a query outside the database group is not translated
    {"T5:8:1:99:40:0:10", "T1.2.5:0:1:99:0:0:0:", "55,T,1.2.5,0,0,99,0,1000,1,,0,0,,,0,0,0,0,0"},
    // the status of an error stays when the token ends with the first delay; is lost when it ends before, or goes on
    {"E7:7:4:99:-:1500:500:9:77", "E1.2.7:107:4:99:0:1500:500:909",
     "55,E,1.2.7,0,107,99,0,1001,4,500,0,909,,,0,0,0,0,1"},
    {"E7:7:4:99:-:1500:500:9", "E1.2.7:107:4:99:0:1500::909", "55,E,1.2.7,0,107,99,0,1001,4,,0,909,,,0,0,0,0,1"},
    {"E7:7:4:99:-:1500:500:9:1:2:late:p", "E1.2.7:107:4:99:0:1500:late:909:1:2",
     "55,E,1.2.7,0,107,99,0,1001,4,late,0,909,1,2,0,0,0,0,1"},
    // an empty status takes the resource along
    {"E7:7:4:99:-:1500::9:1", "E1.2.7:107:4:99:0:1500::0", "55,E,1.2.7,0,107,99,0,1001,4,,0,0,,,0,0,0,0,1"},
    // call and response: the other flowpath is 900, the row of the response alone has it; the flag has 8 bits
    {"a3:12:1:900:7:4:1:-:50:200:9:5", "a1.2.3:107:4:1:0:50:909:12:900",
     "55,a,1.2.3,12,107,1,0,1000,4,200,1,909,,,0,0,0,0,0"},
    {"A3:12:257:900:7:4:1:-:50:200", "A1.2.3:107:4:1:0:50:0:12:900", "900,A,1.2.3,12,107,1,0,1000,4,,1,0,,,0,0,0,0,0"},
    {"t5", "t1.2.5", "55,t,1.2.5,-1,-1,-1,-1,1000,,,0,0,,,0,0,0,0,0"},
    {"e", "e", ""},
};

// These have no number of the segment; their row has the whole one as long as no callout has been written.
const token_case group_cases[] = {
    {"G7:2:40:5:1:9:20:3:1", "G107:2:4040:5:1:9:20:3:1",
     "55,G,1.2.1.,0,107,2:40:5:1:9:20:3:1,4040,1000,0,-,0,0,-,,0,0,0,0,0"},
    {"C7:1:2:5:1:3:9:2", "C107", "55,C,1.2.1.,0,107,,0,1000,0,-,0,0,-,,,,,5,2"},
    {"C7:1:2:5:1", "C107", "55,C,1.2.1.,0,107,,0,1000,0,-,0,0,-,,,0,0,5,0"},
};

const char *const bad_tokens[] = {
    // clang-format off
  "T5", "c5", "g5", "E5", "a5", "A5", "a3:12:1:900",                                 // without ':'
  "T5:7", "t5:7:1", "x5:", "e:7:1:2", "a3:12", "a3:12:1", "A3:1:2:3:7",              // cut in the common part
  "E7:7:4:99:-", "E7:7:4:99:-:15", "A3:1:2:3:7:4:1:-:50",                            // without a status
  "G7", "G7:2", "G7:2:40", "C7",
}; // clang-format on

class callouts : public output_files {
protected:
  static constexpr wllb_growth slot_growth = {.first = 1, .step = 1, .label = "con_fp_buf"};
  segment_fp_t segment = {};
  int event_id = TQ_EV_SEQ_BLOB_INCOMPLETE;

  callouts() {
    tqp_store_loc2norm(inst, LOC2NORM_METHOD, 7, 107);
    tqp_store_loc2norm(inst, LOC2NORM_RESOURCE, 9, 909);
    for (int id = 1; id <= 60; ++id)
      tqp_store_sql(inst, id, 4000 + id, 1);
    wllb_zarray_reserve(inst->con_fp_buf, 1, slot_growth);
    tqp_max_callout_len_allowed_in_kb = 512;
    begin("1.2.1");
  }

  ~callouts() override {
    end();
    wllb_zarray_free(inst->con_fp_buf, slot_growth);
    tqp_free_local_maps(inst);
  }

  concurrent_flowpath_t &slot() const { return inst->con_fp_buf.data[0]; }

  // A fresh segment, with one finished method on its stack.
  void begin(std::string_view number) {
    end();
    wllb_text_put(segment.begin_seq_num, number, "test");
    segment.self_fpi = 66;
    segment.parent_fpi = 55;
    segment.begin_ts = 1000;
    record_array_room(segment.method_call_stack, 2, 2, "test");
    segment.method_call_stack.used = 2;
  }

  void end() {
    method_call_stack_free(&segment);
    for (auto text : {&segment_fp_t::begin_seq_num, &segment_fp_t::seq_blob, &segment_fp_t::callout_buf})
      wllb_text_free(segment.*text, "test");
    tqp_free_sql_sums(&segment);
    record_array_free(slot().ipmrt, "ipmrt");
    slot() = {};
    segment = {};
  }

  bool exit_form() const { return event_id == TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT; }

  // Runs a token that stands at the end of a piece, in memory of its own.
  int run(const std::string &token) {
    const std::string front = "17_0_10_0_", piece = front + token;
    const std::unique_ptr<char[]> bytes(new char[piece.size() + 1]);
    memcpy(bytes.get(), piece.c_str(), piece.size() + 1);
    char *const at = bytes.get() + front.size();
    blob_reader r = {inst, &segment, 0, bytes.get(), at, bytes.get() + piece.size(), event_id};
    return token[0] == 'G'   ? handle_grouped_queries(&r, at)
           : token[0] == 'C' ? handle_coherence(&r, at)
                             : handle_callout(&r, at);
  }

  std::string text() const {
    if (!exit_form())
      return wllb_text_str(segment.seq_blob);
    std::string whole;
    side_piece piece;
    for (size_t place = segment.method_call_stack.data[1].callout_info.first; place != 0; place = piece.next) {
      const char *const at = segment.side_texts.data + place - 1;
      memcpy(&piece, at, sizeof piece);
      whole.append(at + sizeof piece, piece.len);
    }
    return whole;
  }

  std::string rows() const { return std::string(wllb_text_view(segment.callout_buf)); }

  static bool is_group(const std::string &token) { return token[0] == 'G' || token[0] == 'C'; }

  // The number of rows in the text is the one that is counted.
  void expect_rows_agree() const {
    const std::string all = rows();
    EXPECT_EQ(segment.callout_count, all.empty() ? 0 : 1 + std::count(all.begin(), all.end(), '|'));
    EXPECT_EQ(segment.callout_len, static_cast<int32_t>(all.size()));
  }
};

TEST_F(callouts, first_and_later_tokens_in_both_forms) {
  for (const int form : {TQ_EV_SEQ_BLOB_INCOMPLETE, TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT})
    for (const token_case &row : callout_cases) {
      SCOPED_TRACE(row.token);
      event_id = form;
      begin("1.2.1");
      const bool copied = row.row.empty();
      std::string first = row.text;
      if (exit_form() && row.token.ends_with("id=5:6")) // no query parameter in this form
        first = "T1.2.5:107:10:5:4040:2500:909:3:4:200";
      std::string later = first;
      if (!copied)
        later.erase(1, 4); // "1.2."
      const std::string lead = exit_form() && !copied ? "_" : "";
      EXPECT_EQ(0, run(row.token));
      EXPECT_EQ(lead + first, text());
      EXPECT_EQ(row.row, rows());
      EXPECT_EQ(copied ? 0 : 1, segment.f_skip_adding_seq_num_for_call_out);
      EXPECT_EQ(0, run(row.token));
      EXPECT_EQ(lead + first + lead + later, text());
      EXPECT_EQ(copied ? "" : row.row + "|" + row.row, rows());
      EXPECT_EQ(2, segment.seq_num);
      EXPECT_EQ("1.2.1", wllb_text_view(segment.begin_seq_num));
      expect_rows_agree();
    }
}

TEST_F(callouts, groups_have_no_number_and_no_place_in_the_order) {
  for (const int form : {TQ_EV_SEQ_BLOB_INCOMPLETE, TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT})
    for (const token_case &row : group_cases) {
      SCOPED_TRACE(row.token);
      event_id = form;
      begin("1.2.1");
      EXPECT_EQ(0, run(row.token));
      EXPECT_EQ((exit_form() ? "_" : "") + row.text, text());
      EXPECT_EQ(row.row, rows());
      EXPECT_EQ(0, segment.seq_num);
      EXPECT_EQ(0, segment.f_skip_adding_seq_num_for_call_out);
      segment.f_skip_adding_seq_num_for_call_out = 1;
      run(row.token);
      std::string later = row.row;
      EXPECT_EQ(row.row + "|" + later.replace(5, 6, "1.2."), rows());
    }
}

TEST_F(callouts, a_segment_number_without_a_dot) {
  begin("1");
  EXPECT_EQ(0, run("t5") + run("T6:7:1:99:-") + run("C7:1"));
  EXPECT_EQ("t.5T6:107:1:99:0:0:0:C107", text());
  EXPECT_EQ(
      "55,t,1.5,-1,-1,-1,-1,1000,,,0,0,,,0,0,0,0,0|55,T,1.6,0,107,99,0,1000,1,,0,0,,,0,0,0,0,0|55,C,1.,0,107,,0,1000,0,-,0,0,-,,0,0,0,0,0",
      rows());
}

TEST_F(callouts, what_each_kind_counts) {
  using counts = std::array<int, 6>; // callouts, errors, web, messages, cache, database
  const std::pair<const char *, counts> expected[] = {
      {"T5:7:1:99:-:5", {1, 0, 0, 0, 0, 0}},
      {"T5:7:1:1:-:5", {1, 0, 1, 0, 0, 0}},
      {"T5:7:1:26:-:5", {1, 0, 1, 0, 0, 0}},
      {"T5:7:1:11:-:5", {1, 0, 0, 1, 0, 0}},
      {"T5:7:1:13:-:5", {1, 0, 0, 1, 0, 0}},
      {"T5:7:1:14:-:5", {1, 0, 0, 0, 0, 0}},
      {"t5:7:1:1:-:5", {0, 0, 1, 0, 0, 0}},
      {"E5:7:1:1:-:5:500", {1, 1, 1, 0, 0, 0}},
      {"a5:1:1:9:7:1:1:-:5:200", {1, 0, 0, 0, 0, 0}},
      {"A5:1:1:9:7:1:1:-:5:200", {0, 0, 1, 0, 0, 0}},
      {"T5", {1, 0, 0, 0, 0, 0}},
      {"E7:7:4:1:-:15", {1, 1, 0, 0, 0, 0}},
      {"G7:2:40:5:1:9:20:3:4", {0, 4, 0, 0, 0, 0}},
      {"C7:1:2:5:1:3:9:2", {5, 2, 0, 0, 5, 0}},
  };
  for (const auto &[token, wanted] : expected) {
    begin("1.2.1");
    run(token);
    EXPECT_EQ(wanted, (counts{segment.call_out_count, segment.totalError, segment.httpCalloutCount,
                              segment.jmsCallCount, segment.coherenceCount, segment.dbCallCounts}))
        << token;
  }
}

TEST_F(callouts, bad_tokens_leave_nothing_but_their_line) {
  for (const int form : {TQ_EV_SEQ_BLOB_INCOMPLETE, TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT})
    for (const std::string token : bad_tokens) {
      SCOPED_TRACE(token);
      event_id = form;
      begin("1.2.1");
      EXPECT_EQ(-1, run(token));
      EXPECT_EQ("", text() + rows());
      EXPECT_EQ(0, segment.seq_num + slot().ipmrt.used);
    }
  begin("1.2.1");
  run("T5:7:1:99:-:5:");
  EXPECT_EQ(0, traced("id 0 is negative or 0"));
  run("T5:7:1:99:-:5:0");
  EXPECT_EQ(1, traced("id 0 is negative or 0")) << "a resource that is there is asked for";
  EXPECT_EQ(2 * 7, traced("; Found invalid tier/thread calout data at character number 11 in sequence blob. ("));
  EXPECT_EQ(2, traced("(              E7 ...) Start time not found."));
  const wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
  EXPECT_EQ(2U * 7, inst->tqp_instance_mon_stat_info.invalid_rawdata_count);
}

TEST_F(callouts, the_end_of_a_plain_call_moves_the_clock_on_but_never_back) {
  const std::pair<const char *, int64_t> steps[] = {
      {"T12:7:3.5:1:-:100:::::", 104}, // the ceiling of 103.5
      {"T12:7:3:1:-:100", 104},         {"T12:7:4.001:1:-:100", 105},        {"E12:7:4:1:-:9000:500", 105},
      {"A1:1:1:9:7:1:1:-:9000:5", 105}, {"t5:7: 1e2:1:-:+6.5", 107},         {"T12:7:nan:1:-:200", 200},
      {"T12:7:-50:1:-:251", 201},       {"T12:7:1e300:1:-:1e300", INT64_MAX}};
  for (const auto &[token, clock] : steps) {
    run(token);
    EXPECT_EQ(clock, segment.last_record_timestamp) << token;
  }
}

TEST_F(callouts, the_worst_time_of_each_integration_point) {
  for (const char *worst : {"10.9", "30.9", "20.9"})
    for (int id = 20; id < 50; ++id) {
      tqp_store_loc2norm(inst, LOC2NORM_METHOD, id, 100 + id);
      run(wllb_format("c1:%d:%s:1:-:0", id, worst));
    }
  run("T1:50:1e300:1:-:0");
  ASSERT_EQ(31, slot().ipmrt.used); // the unknown one is a point like any other
  for (int i = 0; i < 31; ++i) {
    EXPECT_EQ(i < 30 ? 120 + i : 0, slot().ipmrt.data[i].id);
    EXPECT_EQ(i < 30 ? 30 : INT32_MAX, slot().ipmrt.data[i].max_resp_time);
  }
}

TEST_F(callouts, a_database_call_with_a_start_goes_on_to_the_sums) {
  tqp_enable_sql_timing = 1;
  EXPECT_EQ(0, run("T5:7:10.5:5:40:2500") + run("E6:7:1:5:40:100:500") + run("T7:7:1:5:40"));
  EXPECT_EQ(2, segment.dbCallCounts);
  ASSERT_EQ(1, segment.sqlarray.used);
  EXPECT_EQ(11.5, segment.sqlarray.data[0].cumsqlexectime);
  EXPECT_EQ(1U, segment.sqlarray.data[0].failedquerycount);
}

TEST_F(callouts, rows_past_the_limit_are_dropped_and_long_ones_cut) {
  wllb_change_atb_mt_trace_log_core(trkey, 3, 0);
  tqp_max_callout_len_allowed_in_kb = 3;
  const std::string status(3000, 's');
  EXPECT_EQ(0, run("T5:7:1:99:-:5:9:1:2:" + status));
  const std::string front = "55,T,1.2.5,0,107,99,0,1000,1,", cut = front + status.substr(0, 2047 - front.size());
  EXPECT_EQ(cut, rows());
  EXPECT_EQ("T1.2.5:107:1:99:0:5:909:1:2:" + status, text());     // the token is whole
  EXPECT_EQ(0, run("t5") + run("T5:7:1:99:-:5:9:1:2:" + status)); // begins below 3072
  EXPECT_TRUE(rows().starts_with(cut + "|55,t,1.2.5,-1,-1,-1,-1,1000,,,0,0,,,0,0,0,0,0|" + front + "sss"));
  EXPECT_EQ(0, run("t6"));
  EXPECT_EQ(2 * 2047 + 46, segment.callout_len);
  expect_rows_agree();
  EXPECT_EQ(1, traced("length of fp = '4140'. so skipping the data of flowpath = '66' from callouts"));
}

// Every token cut at every byte, without each of its colons, with each of them twice, and with numbers out of bounds.
std::vector<std::string> damaged(const std::string &token) {
  std::vector<std::string> all;
  for (size_t i = 1; i < token.size(); ++i) {
    all.push_back(token.substr(0, i));
    if (token[i] == ':') {
      all.push_back(token.substr(0, i) + token.substr(i + 1));
      all.push_back(token.substr(0, i) + ":" + token.substr(i));
      const std::string rest = token.substr(std::min(token.find(':', i + 1), token.size()));
      for (const char *number : {"-9223372036854775808", "99999999999999999999", "2147483647", "-1e308", "nan(1)"})
        all.push_back(token.substr(0, i + 1) + number + rest);
    }
  }
  return all;
}

TEST_F(callouts, damaged_tokens_are_written_whole_or_not_at_all) {
  std::vector<std::string> tokens(std::begin(bad_tokens), std::end(bad_tokens));
  for (const token_case &row : callout_cases)
    tokens.push_back(row.token);
  for (const token_case &row : group_cases)
    tokens.push_back(row.token);
  for (const int form : {TQ_EV_SEQ_BLOB_INCOMPLETE, TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT})
    for (const std::string &token : tokens)
      for (const std::string &bad : damaged(token)) {
        SCOPED_TRACE(bad);
        event_id = form;
        begin("1.2.1");
        segment.totalError = segment.call_out_count = segment.seq_num = INT32_MAX; // sums wrap around
        const int result = run(bad);
        const bool copied = bad[0] == 'e' && bad.find(':') == bad.npos;
        ASSERT_TRUE(result == 0 || result == -1);
        EXPECT_EQ(result == 0 && !copied ? 1 : 0, segment.callout_count);
        EXPECT_EQ(result == 0, !text().empty());
        EXPECT_EQ(result == 0 && !is_group(bad), segment.seq_num == INT32_MIN);
        expect_rows_agree();
        run(token);
        expect_rows_agree();
      }
}

} // namespace
