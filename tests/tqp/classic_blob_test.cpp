// The classic form of the sequence blob: tokens and what they become, failures and their words, the clock, methods closed
// by force, random trees against a plain model, pieces, damage.

#include "output_files_fixture.h"

#include "tqp_async_handling.h"
#include "tqp_method_timing.h"
#include "tqp_recovery.h"
#include "tqp_run_time_v2.h"

#include <array>
#include <map>
#include <numeric>
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
      {"17_0:5_120_0_", "1017:0_0:5:0_120"},
      // Number 0 with a flag is the form without a number, the flag stays.
      {"17_0:0:3_120_0_", "1017:0_0::3_120"},
      // Below 0 a thread is not shown on the entry, nor is the flag; on the exit it is.
      {"17:-2_0:5:1_7_0_17:-2_1_3_0___", "1017_0:5_7_1017:-2_1_10_0:0:0:0:0"},
      {"17:99:1:" + long_task + "_0_1_0_", "1017:99:1:" + long_task.substr(0, 62) + "_0::0_1"},
      // The second token has no task of its own.
      {"17:9:1:abc_0_1_0_18:9:1_0_2_0_", "1017:9:1:abc_0::0_1_1018:9:1_0::0_2"},
      {"17_0_10_0_17_3:8_5_2:1___", "1017:0_0::0_10_1017:0_3:8_15_2:1:0:0:0"},
      {"17_0_10_0_18_2_17_1_5____", "1017:0_0::0_10_1018_2_1017:0_1_15_0:0:0:0:0"},
      // Unknown, negative and unreadable ids are 0.
      {"777_0_1_0_-3_0_2_0_zz_0_3_0_", "0:0_0::0_1_0:0_0::0_2_0:0_0::0_3"},
      // Numbers as the C library reads them: blanks, signs, tails, saturation.
      {" +17:99999999999999999999_0x_ 12ms_0_", "1017:9223372036854775807_0::0_12"},
      // An empty field where a token should begin ends the text; what follows is not read.
      {"17_0_1_0__18_0_2_0_", "1017:0_0::0_1"},
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
  EXPECT_EQ(1, segment->async_flag);
  EXPECT_EQ(1150, flowpath().last_record_timestamp);
  EXPECT_EQ(1001, inst->fp_last_updated_ts_in_sec); // 1000 + 1150 / 1000
  // Thread 9 has no caller, so 17 keeps its 50 ms. Latest time: 1000 s and 1150 ms.
  EXPECT_EQ((method_sums{50, 50, 5, 5, 0, 0, 2, 2, 0, 0, 0, 0, 1, 1001150}), sums_of(1017));
  // Page 4 is norm 204; 17 was the first to count up the segment's number. Second: 1000 + 1100 / 1000.
  EXPECT_EQ("5,2.1,204,1017,0,0,0,50,5,1001,0,2,0,0\n", wllb_text_view(inst->bciarg_data_buf));
  EXPECT_EQ(1, segment->dbCallCounts);
  ASSERT_EQ(1, segment->sqlarray.used);
  EXPECT_EQ(40, segment->sqlarray.data[0].sql_id);
  EXPECT_EQ(50.0, segment->sqlarray.data[0].cumsqlexectime);
  EXPECT_EQ(1001100U, segment->sqlarray.data[0].startsqlbegintimestamp);
}

TEST_F(classic_blob, tokens_that_are_no_methods_stand_between) {
  // No method yet: ignored, without a trace in the text; the count of awaited responses moves all the same.
  EXPECT_EQ(0, run("e_a5_x7_17_0_30_0_e_"));
  EXPECT_EQ(1, traced("Error: Got 'a' before any method entry in seq blob for FPI : 5 in raw file, ignoring this. "));
  EXPECT_EQ(1, flowpath().pending_callouts_count);
  EXPECT_EQ("1017:0_0::0_30_e", text());
  EXPECT_EQ(0, run("e_"));
  EXPECT_EQ(0U, segment->response_time); // a piece without any method has none
  // A bad "C" leaves an empty token; a bad "G" ends the piece.
  EXPECT_EQ(-1, run("C7_18_0_40_0_G7_19_0_50_0_"));
  EXPECT_EQ("1017:0_0::0_30_e_e__1018:0_0::0_40_", text());
  // An "A" is taken before any method, and is bad without ':'.
  fresh();
  EXPECT_EQ(-1, run("A5_17_0_1_0_"));
  EXPECT_EQ("", text());
}

// --- failures -----------------------------------------------------------------------------------------------------

TEST_F(classic_blob, a_token_that_breaks_off_ends_the_piece) {
  next_line = "4,5:5:0:5,17_0_1_0_\n"; // in sight of the parser, but none of its business

  const struct {
    const char *token, *words, *text = "";
  } rows[] = {
      {"17", "10 in sequence blob. (              17 ...) method id not found."},
      {"17_0", " ...) event id not found."},
      {"zz", "10 in sequence blob. (              zz ...) event id not found."}, // no digit: taken for a method first
      {"17_0_5", " ...) Time not found."},
      {"17_0_5_0", " ...) page id not found."},
      {"17_1_5_4", " ...) CPU time not found."},
      {"17_1_5_4_9", " ...) SQL id not found."},
      {"12345678901234567890", "10 in sequence blob. (1234567890123456 ...) method id not found."},
      // The parameter field is not checked: the exit counts, and the parser finds no token behind the line. That place
      // is character 22: 20 of the piece, then the newline.
      {"17_1_5_4__p", "22 in sequence blob. (                 ...) method id not found.", "1017:0_1_6_4:0:0:0:0_"},
      // So it is behind a callout without its '_'.
      {"e", "12 in sequence blob. (                 ...) method id not found.", "e_"},
  };

  for (const auto &row : rows) {
    SCOPED_TRACE(row.token);
    fresh();
    const int before = traced(row.words);
    EXPECT_EQ(-1, run(std::string("17_0_1_0_") + row.token));
    EXPECT_EQ(before + 1, traced(row.words));
    EXPECT_EQ(std::string("1017:0_0::0_1_") + row.text, text());
  }
}

TEST_F(classic_blob, exits_without_entries) {
  segment->bci_urlid = 6;
  // A method behind the last one is only told; then 18 does not match, and the rest is dropped.
  EXPECT_EQ(-1, run("17_0_1_0_18:3_1_5_4:9_s_p_19_0_1_0_"));
  EXPECT_EQ(1, traced("string '18_1_5___' event_id = 1, self_fpi = 5, method_id = 18, norm_method_id = 1018, "
                      "thread_id = 3, cpu_time = 4, sql_index = s, bci_urlid = 6, "));
  EXPECT_EQ("1017:0_0::0_1_", text());
  // The next piece is joined by one more '_', whatever stands there.
  EXPECT_EQ(-2, run("17_1_5_4___18_1_1_0___"));
  EXPECT_EQ("1017:0_0::0_1__1017:0_1_6_4:0:0:0:0_", text());
  EXPECT_EQ(1, traced("at character number 1 in sequence blob. (              17 ...) Since call stack is empty, "));
  EXPECT_EQ(1, traced("at character number 12 in sequence blob. (              18 ...) Method entry record missing"));
  // An event of no known kind ends the piece without a word.
  fresh();
  const int told = traced("Found invalid");
  EXPECT_EQ(-1, run("17_0_1_0_17_7_5_17_1_5_4___"));
  EXPECT_EQ(told, traced("Found invalid"));
  const wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
  EXPECT_EQ(1U, inst->tqp_instance_mon_stat_info.invalid_rawdata_count);
  EXPECT_EQ(1U, inst->tqp_instance_mon_stat_info.entry_record_missing_count);
}

TEST_F(classic_blob, too_many_records_truncate) {
  std::string pairs;
  for (int i = 0; i < 80; ++i)
    pairs += "17_0_0_0_17_1_0_0___"; // two records each
  max_entry_exit_records_in_an_fp = 100;
  EXPECT_EQ(1, run("18_0_0_0_" + pairs));
  EXPECT_EQ(101, segment->entry_exit_methods_count); // the first count above the limit
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
  // 50 counts as 100. The exit would end at 90 and ends at 100, with a duration of 0; but its caller is charged what
  // the agent said: 17 keeps 60 - -10.
  EXPECT_EQ(0, run("17_0_100_0_18_0_50_0_18_1_-10_0___17_1_60_0___"));
  EXPECT_EQ("1017:0_0::0_100_1018:0_0::0_100_1018:0_1_100_0:0:0:0:0_1017:0_1_160_0:0:0:0:0", text());
  EXPECT_EQ((method_sums{60, 70, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1000160}), sums_of(1017));
  EXPECT_EQ(1, traced(entry_words + "There may be more error messages for this FlowPath logged at trace level 3."));
  EXPECT_EQ(1, traced(exit_words));
  EXPECT_EQ(0, traced(exit_words + "There")); // the segment is marked by now
  EXPECT_EQ(1, inst->sum_rep_counters[SUM_REP_CNT_BAD_TIMESTAMP_FPG2]);
  // Another segment of the partition: an entry is told from level 2, an exit at level 1.
  trkey->log_level = wllb_trace_mask(1);
  for (const char *piece : {"17_0_100_0_18_0_50_0_", "17_0_100_0_17_1_-10_0___"}) {
    fresh();
    EXPECT_EQ(0, run(piece));
  }
  EXPECT_EQ(1, traced(entry_words));
  EXPECT_EQ(1, traced(exit_words + "There may be more error messages for this FlowPath logged at trace level 2."));
  EXPECT_EQ(3, inst->sum_rep_counters[SUM_REP_CNT_BAD_TIMESTAMP_FPG2]);
  // Equal times are in order.
  fresh();
  EXPECT_EQ(0, run("17_0_100_0_18_0_100_0_18_1_0_0___"));
  EXPECT_EQ(3, inst->sum_rep_counters[SUM_REP_CNT_BAD_TIMESTAMP_FPG2]);
}

// --- methods closed by force ------------------------------------------------------------------------------------------

TEST_F(classic_blob, an_exit_closes_what_lies_above_it) {
  // 1 calls 2 calls 3 calls 4; 4 ends at 30, 3 never; 2 ends at 35.
  EXPECT_EQ(0, run("1_0_0_0_2_0_10_0_3_0_20_4_4_0_22_0_4_1_8_6:1___2_1_25_9___"));
  // 3 ends with the last record, at 30.
  EXPECT_EQ("1001:0_0::0_0_1002:0_0::0_10_1003:0_0::0_20_1004:0_0::0_22_1004:0_1_30_6:1:0:0:0_1003:0_1_30_0_"
            "1002:0_1_35_9:0:0:0:0",
            text());
  // 3 gives its child's times as its own and keeps none; 2 is charged with 4's times, not with 3's.
  EXPECT_EQ((method_sums{10, 0, 6, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 1000030}), sums_of(1003));
  EXPECT_EQ((method_sums{25, 17, 9, 3, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1000035}), sums_of(1002));
  // Its argument row has the net wall time, 10 - 8, and no other times.
  EXPECT_EQ("5,2.3,204,1003,0,0,0,2,0,1000,0,0,0,0\n", wllb_text_view(inst->bciarg_data_buf));
  // The next normal pop takes the closed rows with it, and 1 is the caller of both.
  EXPECT_EQ(0, run("5_0_40_0_5_1_2_0___1_1_100_0___"));
  EXPECT_EQ(0, segment->method_call_stack.used);
  EXPECT_EQ((method_sums{100, 100 - 25 - 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1000100}), sums_of(1001));
}

TEST_F(classic_blob, threads_do_not_close_each_other) {
  // The top row is of another thread: 2 ends below it, nothing is forced, 1 is charged.
  EXPECT_EQ(0, run("1:7_0_0_0_2:7_0_1_0_3:8_0_2_0_2:7_1_9_0___"));
  EXPECT_EQ(9, segment->method_call_stack.data[0].children_time);
  EXPECT_EQ(0, segment->method_call_stack.data[2].children_time);
  // The right method on the wrong thread is no exit of it.
  EXPECT_EQ(-1, run("3:7_1_1_0___"));
  // Nor does thread -1 look at the top row.
  fresh();
  EXPECT_EQ(-1, run("1:7_0_0_0_2:7_0_1_0_2:-1_1_1_0___"));
  // Thread -1 finds any thread's row, but closes only rows of its own above.
  fresh();
  EXPECT_EQ(0, run("1:7_0_0_0_2:7_0_1_0_3:-1_0_2_0_1:-1_1_5_0___"));
  EXPECT_EQ("1001:7_0::0_0_1002:7_0::0_1_1003_0_2_1003:-1_1_2_0_1001:-1_1_5_0:0:0:0:0", text());
}

// --- random trees ---------------------------------------------------------------------------------------------------

using amounts = std::array<int64_t, 6>; // wall time, then the five that an exit tells

// Up to three threads that call, return, and now and then forget to tell a return; and on paper what becomes of it.
struct paper_calls {
  struct row {
    int method, thread;
    int64_t since;
    amounts children = {};
    bool closed = false;
  };

  std::mt19937 &random;
  std::vector<row> rows = {};
  std::vector<std::string> tokens = {};
  outcome o = {};
  long time = 0;

  int below(size_t limit) { return static_cast<int>(random() % limit); }

  void put(const std::string &token) { o.text += (o.text.empty() ? "" : "_") + token; }

  static void add(amounts &to, const amounts &what) {
    for (size_t i = 0; i < 6; ++i)
      to[i] += what[i];
  }

  std::vector<size_t> open_rows(int thread) const {
    std::vector<size_t> open;
    for (size_t i = 0; i < rows.size(); ++i)
      if (rows[i].thread == thread && !rows[i].closed)
        open.push_back(i);
    return open;
  }

  void count(int method, const amounts &total, const amounts &own, int64_t end) {
    method_sums &sums = o.sums[1000 + method];
    for (size_t i = 0; i < 6; ++i) {
      sums[2 * i] += total[i];
      sums[2 * i + 1] += own[i];
    }
    ++sums[12];
    sums[13] = std::max(sums[13], 1000000 + end);
    ++o.seq_num;
  }

  void force(size_t i) {
    row &r = rows[i];
    put(wllb_format("%d:%d_1_%ld_0", 1000 + r.method, r.thread, static_cast<long>(o.last_record)));
    amounts total = r.children;
    total[0] = o.last_record - r.since;
    count(r.method, total, {}, o.last_record);
    add(rows[i - 1].children, r.children);
    r.closed = true;
  }

  void enter(int method, int thread) {
    tokens.push_back(wllb_format("%d:%d_0_%ld_0_", method, thread, time));
    rows.push_back({method, thread, time});
    put(wllb_format("%d:%d_0::0_%ld", 1000 + method, thread, time));
    o.signature += wllb_format("%d0", 1000 + method);
    ++o.entries;
    ++o.seq_num;
    ++o.records;
    o.last_record = time;
  }

  void leave(size_t at) {
    for (size_t i = rows.size() - 1; i > at; --i)
      if (rows[i].thread == rows[at].thread && !rows[i].closed)
        force(i);
    rows[at].closed = true;
    const row left = rows[at];
    if (at == rows.size() - 1)
      while (!rows.empty() && rows.back().closed)
        rows.pop_back();
    const amounts total = {time - left.since, below(9), below(5), below(5), 0, below(3)};
    const std::vector<size_t> callers = open_rows(left.thread);
    if (!callers.empty())
      add(rows[callers.back()].children, total);
    const std::string used = wllb_format("%d:%d:%d:0:%d", static_cast<int>(total[1]), static_cast<int>(total[2]),
                                         static_cast<int>(total[3]), static_cast<int>(total[5]));
    tokens.push_back(
        wllb_format("%d:%d_1_%ld_%s___", left.method, left.thread, static_cast<long>(total[0]), used.c_str()));
    put(wllb_format("%d:%d_1_%ld_%s", 1000 + left.method, left.thread, time, used.c_str()));
    amounts own = {total[0] - left.children[0]};
    for (size_t i = 1; i < 6; ++i)
      own[i] = std::max<int64_t>(0, total[i] - left.children[i]);
    count(left.method, total, own, time);
    o.cpu += total[1];
    o.signature += wllb_format("%d1", 1000 + left.method);
    ++o.records;
    o.last_record = time;
  }

  // Ends with all methods of thread 1 left.
  void grow(bool forgetful) {
    enter(1, 1);
    for (int step = 1; step < 30; ++step) {
      const int thread = 1 + below(3), choice = below(10);
      const std::vector<size_t> open = open_rows(thread);
      time += below(4);
      if (choice == 0) {
        tokens.push_back("7_2_");
        put("1007_2");
      } else if (choice == 1) {
        tokens.push_back("e_");
        put("e");
        ++o.seq_num;
      } else if (choice < 6 && open.size() > 1) { // the bottom method stays, so that the stack is never empty
        leave(open[forgetful ? 1 + static_cast<size_t>(below(open.size() - 1)) : open.size() - 1]);
      } else { // forgetful threads never have a method twice, so that each exit means one row
        enter(forgetful ? 1 + step : 1 + below(12), thread);
      }
    }
    for (std::vector<size_t> open; !(open = open_rows(1)).empty(); leave(open.back()))
      ++time;
    o.open_rows = static_cast<int64_t>(rows.size());
    o.response = static_cast<uint64_t>(o.last_record);
  }
};

TEST_F(classic_blob, random_trees_agree_with_the_model_whole_and_in_pieces) {
  tqp_generate_fp_signatures = 1;
  trkey->log_level = wllb_trace_mask(1);
  std::mt19937 random(20261122);
  for (int tree = 0; tree < 120; ++tree) {
    SCOPED_TRACE(tree);
    paper_calls paper = {random};
    paper.grow(tree % 2 != 0);
    const std::vector<std::string> &ops = paper.tokens;
    const outcome &expected = paper.o;
    const std::string whole = std::accumulate(ops.begin(), ops.end(), std::string());
    SCOPED_TRACE(whole);
    fresh();
    ASSERT_EQ(0, run(whole));
    ASSERT_EQ(expected.text, text());
    ASSERT_TRUE(expected == now());
    // In two pieces at each boundary; a cut at 0 stands for pieces of one token.
    for (size_t cut = 0; cut <= ops.size(); ++cut) {
      std::vector<std::string> pieces(cut == 0 ? ops.size() : 2);
      for (size_t i = 0; i < ops.size(); ++i)
        pieces[cut == 0 ? i : i >= cut] += ops[i];
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
  using namespace std::string_view_literals;
  tqp_generate_fp_signatures = 1;
  trkey->log_level = 0;
  const std::string good = "17:99_0_120_4_18:99:1:ab_0:5:1_121_0_19_2_e_x7_t8_G7:2:40:5:1:9:20:3:1_C7:1:2:5:1:3:9:0_"
                           "T12:7:3.5:1:-:100:::::_21:98_0_130_0_17:99_1_35_4:0:0:0:0_40_p_21:98_3:6_5_1___";
  const auto survive = [&](const std::string &piece) {
    fresh();
    for (const std::string &one : {piece, good}) {
      const int result = run(one);
      EXPECT_TRUE(result == 0 || result == -1 || result == -2) << result << " " << piece;
      const auto &stack = segment->method_call_stack;
      ASSERT_TRUE(0 <= stack.used && stack.used <= stack.room);
      ASSERT_EQ(segment->seq_blob.len, strlen(wllb_text_str(segment->seq_blob)));
    }
  };
  for (size_t i = 0; i <= good.size(); ++i) {
    survive(good.substr(0, i));
    for (const std::string_view put :
         {"\0"sv, "_"sv, ":"sv, "-"sv, "9"sv, "7"sv, "\n"sv, "x"sv, "A"sv, "G"sv, "T"sv, "\xff"sv,
          "9223372036854775807"sv, "-9223372036854775808"sv, "99999999999999999999"sv})
      if (i < good.size())
        survive(std::string(good).replace(i, 1, put));
  }
}

} // namespace
