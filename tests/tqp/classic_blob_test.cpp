// The classic form of the sequence blob: tokens and what they become, failures and their words, the clock, methods closed
// by force, random trees against a plain model, pieces, damage.

#include "output_files_fixture.h"

#include "tqp_async_handling.h"
#include "tqp_method_timing.h"
#include "tqp_recovery.h"
#include "tqp_run_time_v2.h"

#include <array>
#include <map>
#include <random>

namespace {

// Amounts of one method in the order of method_amounts, then calls and the latest time.
using method_sums = std::array<int64_t, 14>;

// What a segment holds after its pieces.
struct outcome {
  std::string text, signature;
  int64_t open_rows, entries, records, seq_num, last_record, cpu;
  uint64_t response;
  std::map<int, method_sums> sums; // by norm id

  friend bool operator==(const outcome &, const outcome &) = default;
};

class classic_blob : public output_files {
protected:
  int slot = -1;
  segment_fp_t *segment = nullptr;
  std::string next_line; // what stands behind the piece in its block

  classic_blob() {
    wllb_mp_init(&inst->tqp_flowpath_seg_pool, sizeof(segment_fp_t), 8, 8, 0);
    wllb_mp_init(&inst->tqp_flowpath_pending_seg_pool, sizeof(pending_segment_fp_t), 8, 8, 0);
    inst->bciarg_data_buf = {};
    for (int local_id = 1; local_id <= 99; ++local_id)
      tqp_store_loc2norm(inst, LOC2NORM_METHOD, local_id, 1000 + local_id);
    tqp_store_loc2norm(inst, LOC2NORM_BCI_ARG, 4, 204);
    tqp_store_sql(inst, 40, 940, 1);
    slot = get_concurrent_flowpath_free_idx(inst);
    tqp_occupy_flowpath(inst, slot, 5);
    trkey->log_level = wllb_trace_mask(3);
    fresh();
  }

  ~classic_blob() override {
    tqp_free_flowpath_store(inst);
    wllb_mp_destroy(&inst->tqp_flowpath_seg_pool);
    wllb_mp_destroy(&inst->tqp_flowpath_pending_seg_pool);
    tqp_free_local_maps(inst);
    wllb_text_free(inst->bciarg_data_buf, "instance buffer");
  }

  concurrent_flowpath_t &flowpath() const { return inst->con_fp_buf.data[slot]; }

  // A new segment 5 of tier 2 with the number 1.2.1 that began at second 1000.
  void fresh() {
    if (segment)
      remove_from_segment_array(inst, &flowpath(), 0, 5);
    segment = insert_in_segment_array(inst, &flowpath(), 5);
    segment->begin_ts = 1000;
    segment->flowpath_segment_tier = 2;
    number("1.2.1");
  }

  void number(std::string_view begin_seq_num) const {
    wllb_text_clear(segment->begin_seq_num);
    wllb_text_put(segment->begin_seq_num, begin_seq_num, "segfp->begin_seq_num");
  }

  // Parses one piece in a block of exactly its size.
  int run(std::string_view piece) const {
    const size_t size = piece.size() + 1 + next_line.size();
    const std::unique_ptr<char[]> block(new char[size]);
    memcpy(block.get(), piece.data(), piece.size());
    block[piece.size()] = '\n';
    memcpy(block.get() + piece.size() + 1, next_line.data(), next_line.size());
    blob_reader r = {inst, segment, slot, block.get(), block.get(), block.get() + piece.size(), 3};
    const int result = process_seq_blob_from_bci(&r);
    EXPECT_EQ(next_line, std::string(block.get() + piece.size() + 1, next_line.size()));
    return result;
  }

  // A number that the monitors read.
  uint32_t counted(uint32_t tqp_instance_mon_stat_info_t::*counter) const {
    wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
    return inst->tqp_instance_mon_stat_info.*counter;
  }

  std::string text() const { return std::string(wllb_text_view(segment->seq_blob)); }

  method_sums sums_of(int norm_id) const {
    for (int i = 0; i < segment->mtarray.used; ++i)
      if (const mtarray_t &m = segment->mtarray.data[i]; m.method_id == norm_id)
        return {m.cum_wall_time,
                m.cum_self_time,
                m.cum_cpu_time,
                m.cum_cpu_self_time,
                m.cum_wait_time,
                m.cum_wait_self_time,
                m.cum_sync_time,
                m.cum_sync_self_time,
                m.cum_io_time,
                m.cum_io_self_time,
                m.cum_suspension_time,
                m.cum_suspension_self_time,
                m.count,
                m.endtime};
    return {};
  }

  outcome now() const {
    outcome o = {text(),
                 std::string(wllb_text_view(segment->signstr)),
                 segment->method_call_stack.used,
                 segment->entry_methods_count,
                 segment->entry_exit_methods_count,
                 segment->seq_num,
                 segment->last_record_timestamp,
                 segment->cumulative_cpu_time,
                 segment->response_time,
                 {}};
    for (int i = 0; i < segment->mtarray.used; ++i)
      o.sums[segment->mtarray.data[i].method_id] = sums_of(segment->mtarray.data[i].method_id);
    return o;
  }
};

// --- tokens -------------------------------------------------------------------------------------------------------

TEST_F(classic_blob, tokens_are_rewritten) {
  const std::string long_task(70, 'k');

  const struct {
    std::string piece, text;
  } rows[] = {
      // No ':' in the method field: thread 0, which counts as given. An entry shows "::flag" without a number.
      {"17_0_120_0_", "1017:0_0::0_120"},
      // The agent's duration of 35 becomes the end, 120 + 35.
      {"17:99_0_120_0_17:99_1_35_4:0:0:0:0___", "1017:99_0::0_120_1017:99_1_155_4:0:0:0:0"},
      {"17_0:5:1_120_0_", "1017:0_0:5:1_120"},
      {"17_0:5_120_0_", "1017:0_0:5:0_120"},
      // Number 0 with a flag is the form without a number, the flag stays.
      {"17_0:0:3_120_0_", "1017:0_0::3_120"},
      // Below 0 a thread is not shown on the entry, nor is the flag; on the exit it is.
      {"17:-2_0_7_0_", "1017_0_7"},
      {"17:-2_0:5:1_7_0_17:-2_1_3_0___", "1017_0:5_7_1017:-2_1_10_0:0:0:0:0"},
      {"17:99:1_0_7__", "1017:99:1_0::0_7"},
      {"17:99:x:abc_0_120_0_", "1017:99:1:abc_0::0_120"},
      {"17:99:1:" + long_task + "_0_1_0_", "1017:99:1:" + long_task.substr(0, 62) + "_0::0_1"},
      // The second token has no task of its own.
      {"17:9:1:abc_0_1_0_18:9:1_0_2_0_", "1017:9:1:abc_0::0_1_1018:9:1_0::0_2"},
      {"17_0_10_0_17_3:8_5_2:1___", "1017:0_0::0_10_1017:0_3:8_15_2:1:0:0:0"},
      {"17_0_10_0_17_4_5_1:2:3:4:5:6___", "1017:0_0::0_10_1017:0_4_15_1:2:3:4:5"},
      {"17_0_10_0_18_2_17_1_5____", "1017:0_0::0_10_1018_2_1017:0_1_15_0:0:0:0:0"},
      // Unknown, negative and unreadable ids are 0.
      {"777_0_1_0_-3_0_2_0_zz_0_3_0_", "0:0_0::0_1_0:0_0::0_2_0:0_0::0_3"},
      // Numbers as the C library reads them: blanks, signs, tails, saturation.
      {" +17:99999999999999999999_0x_ 12ms_0_", "1017:9223372036854775807_0::0_12"},
      // An empty field where a token should begin ends the text; what follows is not read.
      {"17_0_1_0__18_0_2_0_", "1017:0_0::0_1"},
      {"", ""},
  };

  for (const auto &row : rows) {
    SCOPED_TRACE(row.piece);
    fresh();
    EXPECT_EQ(0, run(row.piece));
    EXPECT_EQ(row.text, text());
  }
  EXPECT_EQ(0, traced("Found invalid"));
}

TEST_F(classic_blob, a_method_call_leaves_times_rows_and_counts) {
  tqp_generate_fp_signatures = 1;
  EXPECT_EQ(0, run("18_2_17_0_1100_4_18:9_0_1110_0_18:9_1_20_3:1:0:0:0___17_1_50_5:0:2:0:0_40_p=1_"));
  EXPECT_EQ(17, segment->entryPointId); // 18 set it first, but that was no entry
  EXPECT_EQ("1018_2_1017:0_0::0_1100_1018:9_0::0_1110_1018:9_1_1130_3:1:0:0:0_1017:0_1_1150_5:0:2:0:0", text());
  EXPECT_EQ(2, segment->entry_methods_count);
  EXPECT_EQ(4, segment->entry_exit_methods_count);
  EXPECT_EQ(1, segment->async_flag);
  EXPECT_EQ(8, segment->cumulative_cpu_time);
  EXPECT_EQ(1150, segment->last_record_timestamp);
  EXPECT_EQ(1150, flowpath().last_record_timestamp);
  EXPECT_EQ(1150U, segment->response_time);
  EXPECT_EQ(1001, inst->fp_last_updated_ts_in_sec); // 1000 + 1150 / 1000
  // Thread 9 has no caller, so 17 keeps its 50 ms. Latest time: 1000 s and 1150 ms.
  EXPECT_EQ((method_sums{50, 50, 5, 5, 0, 0, 2, 2, 0, 0, 0, 0, 1, 1001150}), sums_of(1017));
  EXPECT_EQ((method_sums{20, 20, 3, 3, 1, 1, 0, 0, 0, 0, 0, 0, 1, 1001130}), sums_of(1018));
  // Page 4 is norm 204; 17 was the first to count up the segment's number. Second: 1000 + 1100 / 1000.
  EXPECT_EQ("5,2.1,204,1017,0,0,0,50,5,1001,0,2,0,0\n", wllb_text_view(inst->bciarg_data_buf));
  EXPECT_EQ(1, segment->dbCallCounts);
  ASSERT_EQ(1, segment->sqlarray.used);
  EXPECT_EQ(40, segment->sqlarray.data[0].sql_id);
  EXPECT_EQ(50.0, segment->sqlarray.data[0].cumsqlexectime);
  EXPECT_EQ(1001100U, segment->sqlarray.data[0].startsqlbegintimestamp);
  // Norm id and event of entries and exits; never a page.
  EXPECT_EQ("10170"
            "10180"
            "10181"
            "10171",
            wllb_text_view(segment->signstr));
}

TEST_F(classic_blob, tokens_that_are_no_methods_stand_between) {
  // No method yet: ignored, without a trace in the text; the count of awaited responses moves all the same.
  EXPECT_EQ(0, run("e_a5_x7_17_0_30_0_e_"));
  EXPECT_EQ(1, traced("Error: Got 'a' before any method entry in seq blob for FPI : 5 in raw file, ignoring this. "));
  EXPECT_EQ(3, traced("ignoring this. "));
  EXPECT_EQ(1, flowpath().pending_callouts_count);
  EXPECT_EQ("1017:0_0::0_30_e", text());
  EXPECT_EQ(30U, segment->response_time); // the time of this piece's last method
  EXPECT_EQ(0, run("e_"));
  EXPECT_EQ("1017:0_0::0_30_e_e", text());
  EXPECT_EQ(0U, segment->response_time); // a piece without any method has none
  // A bad "C" leaves an empty token; a bad "G" ends the piece.
  EXPECT_EQ(-1, run("C7_18_0_40_0_G7_19_0_50_0_"));
  EXPECT_EQ("1017:0_0::0_30_e_e__1018:0_0::0_40_", text());
  // An "A" is taken before any method, and is bad without ':'.
  fresh();
  EXPECT_EQ(-1, run("A5_17_0_1_0_"));
  EXPECT_EQ(0, flowpath().pending_callouts_count);
  EXPECT_EQ("", text());
}

TEST_F(classic_blob, segments_are_announced_once) {
  EXPECT_EQ(0, run("17_0_1_0_x7_x7_t7_"));
  EXPECT_EQ(1, traced("Inserting in Pending Segment Array; main_fpi=5; begin seq#=1.2.7.1"));
  EXPECT_EQ(1, traced(" event_id = '3' self_fpi = '5' Pending Segments Count = '1'"));
  EXPECT_EQ(1, flowpath().pending_segments_count);
  EXPECT_EQ("1017:0_0::0_1_x1.2.7_x7_t7", text()); // the first callout carries the long number
  fresh();
  number("1");
  EXPECT_EQ(0, run("17_0_1_0_x07_")); // no dot: the announced number has no front
  EXPECT_EQ(1, traced("begin seq#=7.1"));
  EXPECT_EQ(2, flowpath().pending_segments_count);
}

// --- failures -----------------------------------------------------------------------------------------------------

TEST_F(classic_blob, a_token_that_breaks_off_ends_the_piece) {
  next_line = "4,5:5:0:5,17_0_1_0_\n"; // in sight of the parser, but none of its business
  const std::string front = "17_0_1_0_";
  const std::string kept = "1017:0_0::0_1_";

  const struct {
    std::string token, words, text;
  } rows[] = {
      {"17", "method id not found.", kept},
      {"17_0", "event id not found.", kept},
      {"17_2", "event id not found.", kept},
      {"zz", "event id not found.", kept}, // no digit: taken for a method first
      {"17_0_5", "Time not found.", kept},
      {"17_0_5_0", "page id not found.", kept},
      {"17_1_5_4", "CPU time not found.", kept},
      {"17_1_5_4_9", "SQL id not found.", kept},
  };

  for (const auto &row : rows) {
    SCOPED_TRACE(row.token);
    fresh();
    const std::string message = "; Found invalid method data at character number 10 in sequence blob. (" +
                                std::string(14, ' ') + row.token.substr(0, 2) + " ...) " + row.words;
    const int before = traced(message);
    EXPECT_EQ(-1, run(front + row.token));
    EXPECT_EQ(before + 1, traced(message));
    EXPECT_EQ(row.text, text());
  }
  // The parameter field is not checked: the exit counts, and the parser finds no token behind the line. That place is
  // character 22: 20 of the piece, then the newline.
  fresh();
  EXPECT_EQ(-1, run(front + "17_1_5_4__p"));
  EXPECT_EQ("1017:0_0::0_1_1017:0_1_6_4:0:0:0:0_", text());
  EXPECT_EQ(1, traced("character number 22 in sequence blob. (                 ...) method id not found."));
  // So it is behind a callout without its '_'.
  fresh();
  EXPECT_EQ(-1, run(front + "e"));
  EXPECT_EQ("1017:0_0::0_1_e_", text());
  // At most 16 bytes are quoted.
  fresh();
  EXPECT_EQ(-1, run("12345678901234567890"));
  EXPECT_EQ(1, traced("character number 1 in sequence blob. (1234567890123456 ...) method id not found."));
  EXPECT_EQ(0U, counted(&tqp_instance_mon_stat_info_t::invalid_rawdata_count));
}

TEST_F(classic_blob, exits_without_entries) {
  segment->bci_urlid = 6;
  // A method behind the last one is only told; then 18 does not match, and the rest is dropped.
  EXPECT_EQ(-1, run("17_0_1_0_18:3_1_5_4:9_s_p_19_0_1_0_"));
  EXPECT_EQ(
      1,
      traced(
          "; Current Method Exit Record Does not match with Method Entry Record in the in memory call stack. string '18_1_5___' event_id = 1, self_fpi = 5, method_id = 18, norm_method_id = 1018, thread_id = 3, cpu_time = 4, sql_index = s, bci_urlid = 6, "));
  EXPECT_EQ(1U, counted(&tqp_instance_mon_stat_info_t::invalid_rawdata_count));
  EXPECT_EQ(2, segment->entry_exit_methods_count);
  EXPECT_EQ("1017:0_0::0_1_", text());
  // The next piece is joined by one more '_', whatever stands there.
  EXPECT_EQ(-2, run("17_1_5_4___18_1_1_0___"));
  EXPECT_EQ("1017:0_0::0_1__1017:0_1_6_4:0:0:0:0_", text());
  EXPECT_EQ(
      1,
      traced(
          "FPI = 5Found invalid method data at character number 1 in sequence blob. (              17 ...) Since call stack is empty, subsequent entry and exit records will be ignored for this flowpathinstance."));
  EXPECT_EQ(
      1,
      traced(
          "FPI = 5Found invalid method data at character number 12 in sequence blob. (              18 ...) Method entry record missing for exit record. Since call stack is empty, subsequent entry and exit records will be ignored for this flowpathinstance."));
  EXPECT_EQ(1U, counted(&tqp_instance_mon_stat_info_t::entry_record_missing_count));
  // An event of no known kind ends the piece without a word.
  fresh();
  const int told = traced("Found invalid");
  EXPECT_EQ(-1, run("17_0_1_0_17_7_5_17_1_5_4___"));
  EXPECT_EQ(told, traced("Found invalid"));
}

TEST_F(classic_blob, too_many_records_truncate) {
  std::string pairs;
  for (int i = 0; i < 80; ++i)
    pairs += "17_0_0_0_17_1_0_0___"; // two records each
  max_entry_exit_records_in_an_fp = 100;
  EXPECT_EQ(1, run("18_0_0_0_" + pairs));
  EXPECT_EQ(101, segment->entry_exit_methods_count); // the first count above the limit
  EXPECT_EQ(
      1,
      traced(
          "Truncating flowpath (FPI = 5) because entry/exit methods count exceeded limit 100, App Instance: tier_server_app, Raw data file line # 0"));
  fresh();
  max_entry_exit_records_in_an_fp = 0;
  EXPECT_EQ(1, run("17_0_0_0_"));
  EXPECT_EQ("", text());
  fresh();
  max_entry_exit_records_in_an_fp = 1000000;
  wllb_text_room(segment->seq_blob, size_t{513} << 20U, "segment");
  segment->seq_blob.len = (size_t{512} << 20U) - 1; // and the '_' that joins
  EXPECT_EQ(1, run("17_0_0_0_"));
}

// --- the clock ----------------------------------------------------------------------------------------------------

TEST_F(classic_blob, time_never_runs_backwards) {
  const std::string entry_words = "FPI 5. Timestamp (50) is less than previous method timestamp (100).";
  const std::string exit_words = "FPI 5. Timestamp (90) is less than previous method timestamp (100).";
  const std::string entry_hint = "There may be more error messages for this FlowPath logged at trace level 3.";
  const std::string exit_hint = "There may be more error messages for this FlowPath logged at trace level 2.";
  // 50 counts as 100. The exit would end at 90 and ends at 100, with a duration of 0; but its caller is charged what
  // the agent said: 17 keeps 60 - -10.
  EXPECT_EQ(0, run("17_0_100_0_18_0_50_0_18_1_-10_0___17_1_60_0___"));
  EXPECT_EQ("1017:0_0::0_100_1018:0_0::0_100_1018:0_1_100_0:0:0:0:0_1017:0_1_160_0:0:0:0:0", text());
  EXPECT_EQ((method_sums{60, 70, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1000160}), sums_of(1017));
  EXPECT_EQ(1, traced("at character number 12 in sequence blob. (              18 ...) " + entry_words + entry_hint));
  EXPECT_EQ(1, traced(exit_words));
  EXPECT_EQ(0, traced(exit_words + "There")); // the segment is marked by now
  EXPECT_EQ(1, inst->sum_rep_counters[SUM_REP_CNT_BAD_TIMESTAMP_FPG2]);
  EXPECT_EQ(2U, counted(&tqp_instance_mon_stat_info_t::invalid_method_timestamp_count));
  // Another segment of the partition: an entry is told from level 2, an exit at level 1.
  trkey->log_level = wllb_trace_mask(1);
  fresh();
  EXPECT_EQ(0, run("17_0_100_0_18_0_50_0_"));
  EXPECT_EQ(1, traced(entry_words));
  fresh();
  EXPECT_EQ(0, run("17_0_100_0_17_1_-10_0___"));
  EXPECT_EQ(1, traced(exit_words + exit_hint));
  EXPECT_EQ(3, inst->sum_rep_counters[SUM_REP_CNT_BAD_TIMESTAMP_FPG2]);
  // Equal times are in order.
  fresh();
  EXPECT_EQ(0, run("17_0_100_0_18_0_100_0_18_1_0_0___"));
  EXPECT_EQ(4U, counted(&tqp_instance_mon_stat_info_t::invalid_method_timestamp_count));
}

// --- methods closed by force ------------------------------------------------------------------------------------------

TEST_F(classic_blob, an_exit_closes_what_lies_above_it) {
  // 1 calls 2 calls 3 calls 4; 4 ends at 30, 3 never; 2 ends at 35.
  EXPECT_EQ(0, run("1_0_0_0_2_0_10_0_3_0_20_4_4_0_22_0_4_1_8_6:1___2_1_25_9___"));
  // 3 ends with the last record, at 30.
  EXPECT_EQ("1001:0_0::0_0_1002:0_0::0_10_1003:0_0::0_20_1004:0_0::0_22_1004:0_1_30_6:1:0:0:0_1003:0_1_30_0_"
            "1002:0_1_35_9:0:0:0:0",
            text());
  EXPECT_EQ(3, segment->method_call_stack.used);
  EXPECT_EQ(7, segment->seq_num);
  // 3 gives its child's times as its own and keeps none; 2 is charged with 4's times, not with 3's.
  EXPECT_EQ((method_sums{10, 0, 6, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 1000030}), sums_of(1003));
  EXPECT_EQ((method_sums{25, 17, 9, 3, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1000035}), sums_of(1002));
  // Its argument row has the net wall time, 10 - 8, and no other times.
  EXPECT_EQ("5,2.3,204,1003,0,0,0,2,0,1000,0,0,0,0\n", wllb_text_view(inst->bciarg_data_buf));
  // The next normal pop takes the closed rows with it, and 1 is the caller of both.
  EXPECT_EQ(0, run("5_0_40_0_5_1_2_0___"));
  EXPECT_EQ(1, segment->method_call_stack.used);
  EXPECT_EQ(0, run("1_1_100_0___"));
  EXPECT_EQ(0, segment->method_call_stack.used);
  EXPECT_EQ((method_sums{100, 100 - 25 - 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1000100}), sums_of(1001));
}

TEST_F(classic_blob, threads_do_not_close_each_other) {
  // The top row is of another thread: 2 ends below it, nothing is forced, 1 is charged.
  EXPECT_EQ(0, run("1:7_0_0_0_2:7_0_1_0_3:8_0_2_0_2:7_1_9_0___"));
  EXPECT_EQ("1001:7_0::0_0_1002:7_0::0_1_1003:8_0::0_2_1002:7_1_10_0:0:0:0:0", text());
  EXPECT_EQ(9, segment->method_call_stack.data[0].children_time);
  EXPECT_EQ(0, segment->method_call_stack.data[2].children_time);
  // The right method on the wrong thread is no exit of it; with a single row there is nothing below the top.
  EXPECT_EQ(-1, run("3:7_1_1_0___"));
  fresh();
  EXPECT_EQ(-1, run("1:7_0_0_0_1:8_1_1_0___"));
  // Nor does thread -1 look at the top row.
  fresh();
  EXPECT_EQ(-1, run("1:7_0_0_0_2:7_0_1_0_2:-1_1_1_0___"));
  // Thread -1 finds any thread's row, but closes only rows of its own above.
  fresh();
  EXPECT_EQ(0, run("1:7_0_0_0_2:7_0_1_0_3:-1_0_2_0_1:-1_1_5_0___"));
  EXPECT_EQ("1001:7_0::0_0_1002:7_0::0_1_1003_0_2_1003:-1_1_2_0_1001:-1_1_5_0:0:0:0:0", text());
  const method_call_stack_t *const rows = segment->method_call_stack.data;
  EXPECT_EQ(1, rows[0].deleted);
  EXPECT_EQ(0, rows[1].deleted);
  EXPECT_EQ(1, rows[2].deleted);
}

// --- random trees ---------------------------------------------------------------------------------------------------

// One token of a random tree.
struct tree_op {
  enum { ENTRY, EXIT, BARE, MARK } kind;

  int method, thread;
  int64_t time;                     // ms, of an exit too
  int64_t duration = 0;             // of an exit
  std::array<int64_t, 5> used = {}; // of an exit

  std::string token() const {
    switch (kind) {
    case ENTRY:
      return wllb_format("%d:%d_0_%ld_0_", method, thread, static_cast<long>(time));
    case EXIT:
      return wllb_format("%d:%d_1_%ld_%ld:%ld:%ld:%ld:%ld___", method, thread, duration, used[0], used[1], used[2],
                         used[3], used[4]);
    case BARE:
      return wllb_format("%d_2_", method);
    default:
      return "e_";
    }
  }
};

// Up to three threads that call, return, and now and then forget to tell a return. Ends with all methods of thread 1 left.
std::vector<tree_op> random_tree(std::mt19937 &random, bool forgetful) {
  struct open_method {
    int method;
    int64_t since;
  };

  std::vector<open_method> open[4];
  std::vector<tree_op> ops;
  const auto below = [&](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); };
  const auto leave = [&](int thread, size_t depth, int64_t time) {
    const open_method left = open[thread][depth];
    open[thread].resize(depth);
    ops.push_back(
        {tree_op::EXIT, left.method, thread, time, time - left.since, {below(9), below(5), below(5), 0, below(3)}});
  };
  int64_t time = below(50);
  for (int step = 0; step < 30; ++step) {
    const int thread = ops.empty() ? 1 : 1 + below(3);
    time += below(4);
    const int choice = ops.empty() ? 9 : below(10);
    if (choice == 0)
      ops.push_back({tree_op::BARE, 1 + below(99), 0, time});
    else if (choice == 1)
      ops.push_back({tree_op::MARK, 0, 0, time});
    else if (choice < 6 && open[thread].size() > 1) { // the bottom method stays, so that the stack is never empty
      const auto depth = static_cast<int>(open[thread].size()) - 1;
      leave(thread, static_cast<size_t>(forgetful ? 1 + below(depth) : depth), time);
    } else { // forgetful threads never have a method twice, so that each exit means one row
      const int method = forgetful ? 1 + step : 1 + below(12);
      open[thread].push_back({method, time});
      ops.push_back({tree_op::ENTRY, method, thread, time});
    }
  }
  while (!open[1].empty())
    leave(1, open[1].size() - 1, time += 1);
  return ops;
}

// The same on paper: a vector of rows, printed texts.
struct model {
  struct row {
    int method, thread;
    int64_t since;
    std::array<int64_t, 6> children = {}; // wall, then as tree_op::used
    bool closed = false;
  };

  std::vector<row> rows;
  outcome o = {};

  void put(const std::string &token) { o.text += (o.text.empty() ? "" : "_") + token; }

  static void add(std::array<int64_t, 6> &to, const std::array<int64_t, 6> &what) {
    for (size_t i = 0; i < 6; ++i)
      to[i] += what[i];
  }

  void count(int method, const std::array<int64_t, 6> &total, const std::array<int64_t, 6> &own, int64_t time) {
    method_sums &sums = o.sums[method];
    for (size_t i = 0; i < 6; ++i) {
      sums[2 * i] += total[i];
      sums[2 * i + 1] += own[i];
    }
    ++sums[12];
    sums[13] = std::max(sums[13], 1000000 + time);
  }

  void force(size_t i) {
    row &r = rows[i];
    ++o.seq_num;
    put(wllb_format("%d:%d_1_%ld_0", r.method, r.thread, o.last_record));
    std::array<int64_t, 6> total = r.children;
    total[0] = o.last_record - r.since;
    count(r.method, total, {}, o.last_record);
    add(rows[i - 1].children, r.children);
    r.closed = true;
  }

  row take(const tree_op &op) {
    const int method = 1000 + op.method;
    row taken = rows.back();
    if (taken.method == method && taken.thread == op.thread) {
      do
        rows.pop_back();
      while (!rows.empty() && rows.back().closed);
      return taken;
    }
    size_t at = rows.size() - 2;
    while (rows[at].method != method || rows[at].thread != op.thread || rows[at].closed)
      --at;
    for (size_t i = rows.size() - 1; i > at; --i)
      if (rows[i].thread == op.thread && !rows[i].closed)
        force(i);
    rows[at].closed = true;
    return rows[at];
  }

  void leave(const tree_op &op) {
    const std::array<int64_t, 6> total = {op.duration, op.used[0], op.used[1], op.used[2], op.used[3], op.used[4]};
    const row left = take(op);
    for (auto caller = rows.rbegin(); caller != rows.rend(); ++caller)
      if (caller->thread == op.thread && !caller->closed) {
        add(caller->children, total);
        break;
      }
    ++o.seq_num;
    put(wllb_format("%d:%d_1_%ld_%ld:%ld:%ld:%ld:%ld", left.method, op.thread, op.time, total[1], total[2], total[3],
                    total[4], total[5]));
    std::array<int64_t, 6> own = {total[0] - left.children[0]};
    for (size_t i = 1; i < 6; ++i)
      own[i] = std::max<int64_t>(0, total[i] - left.children[i]);
    count(left.method, total, own, op.time);
    o.cpu += total[1];
    o.signature += wllb_format("%d1", left.method);
  }

  void run(const tree_op &op) {
    const int method = 1000 + op.method;
    if (op.kind == tree_op::BARE)
      return put(wllb_format("%d_2", method));
    if (op.kind == tree_op::MARK) {
      ++o.seq_num;
      return put("e");
    }
    ++o.records;
    if (op.kind == tree_op::EXIT) {
      leave(op);
    } else {
      rows.push_back({method, op.thread, op.time});
      put(wllb_format("%d:%d_0::0_%ld", method, op.thread, op.time));
      o.signature += wllb_format("%d0", method);
      ++o.entries;
      ++o.seq_num;
    }
    o.last_record = op.time;
  }

  outcome end() {
    o.open_rows = static_cast<int64_t>(rows.size());
    o.response = static_cast<uint64_t>(o.last_record);
    return o;
  }
};

TEST_F(classic_blob, random_trees_agree_with_the_model_whole_and_in_pieces) {
  tqp_generate_fp_signatures = 1;
  trkey->log_level = wllb_trace_mask(1);
  std::mt19937 random(20261122);
  for (int tree = 0; tree < 120; ++tree) {
    SCOPED_TRACE(tree);
    const std::vector<tree_op> ops = random_tree(random, tree % 2 != 0);
    model paper;
    std::string whole;
    for (const tree_op &op : ops) {
      paper.run(op);
      whole += op.token();
    }
    SCOPED_TRACE(whole);
    fresh();
    ASSERT_EQ(0, run(whole));
    const outcome expected = paper.end();
    ASSERT_EQ(expected.text, text());
    ASSERT_TRUE(expected == now());
    // In two pieces at each boundary; a cut at 0 stands for pieces of one token.
    for (size_t cut = 0; cut <= ops.size(); ++cut) {
      std::vector<std::string> pieces(cut == 0 ? ops.size() : 2);
      for (size_t i = 0; i < ops.size(); ++i)
        pieces[cut == 0 ? i : i >= cut] += ops[i].token();
      fresh();
      for (const std::string &piece : pieces)
        EXPECT_EQ(0, run(piece));
      ASSERT_TRUE(expected == now()) << cut << "\n" << text();
    }
  }
  EXPECT_EQ(0, traced("Found invalid"));
}

// --- damage -------------------------------------------------------------------------------------------------------

TEST_F(classic_blob, damage_stays_in_bounds) {
  tqp_generate_fp_signatures = 1;
  trkey->log_level = 0;
  const std::string good = "17:99_0_120_4_18:99:1:ab_0:5:1_121_0_19_2_e_x7_t8_G7:2:40:5:1:9:20:3:1_C7:1:2:5:1:3:9:0_"
                           "T12:7:3.5:1:-:100:::::_21:98_0_130_0_17:99_1_35_4:0:0:0:0_40_p_21:98_3:6_5_1___";
  int checked = 0;
  const auto survive = [&](const std::string &piece) {
    fresh();
    for (const std::string &one : {piece, good}) {
      const int result = run(one);
      EXPECT_TRUE(result == 0 || result == -1 || result == -2) << result << " " << piece;
      const auto &stack = segment->method_call_stack;
      ASSERT_TRUE(0 <= stack.used && stack.used <= stack.room);
      ASSERT_EQ(segment->seq_blob.len, strlen(wllb_text_str(segment->seq_blob)));
    }
    ++checked;
  };
  for (size_t i = 0; i <= good.size(); ++i) {
    survive(good.substr(0, i));
    for (const char put : {'\0', '_', ':', '-', '9', '7', '\n', 'x', 'A', 'G', 'T', '\xff'})
      if (i < good.size())
        survive(good.substr(0, i) + put + good.substr(i + 1));
  }
  for (const char *const number : {"9223372036854775807", "-9223372036854775808", "99999999999999999999", "2147483648"})
    for (const std::string form :
         {"%s:%s:1_0:%s:%s_%s_%s_%s:%s_1_%s_%s:%s:%s:%s:%s___", "1_0_%s_0_2_0_1_0_2_1_%s_%s___1_1_%s_%s___"}) {
      std::string piece = form;
      for (size_t at; (at = piece.find("%s")) != piece.npos;)
        piece.replace(at, 2, number);
      std::string many; // the longest tokens there are, across the blob's growth
      for (int i = 0; i < 30; ++i)
        many += piece;
      survive(many);
    }
  EXPECT_GT(checked, 2000);
}

} // namespace
