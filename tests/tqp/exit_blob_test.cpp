// The exit form of a blob: what its tokens become, whatever the tree, the cuts and the damage; signatures.

#include "output_files_fixture.h"

#include "segment_arrays.h"
#include "tqp_async_handling.h"
#include "tqp_recovery.h"
#include "tqp_run_time_v2.h"

#include <algorithm>
#include <array>
#include <climits>
#include <map>
#include <random>

namespace {

// One segment of one flowpath. Local methods 1 to 99 have the norm ids 101 to 199, pages 1 to 99 have 501 to 599.
class exit_blob : public output_files {
protected:
  segment_fp_t segment = {};
  int slot_number = -1;

  exit_blob() {
    inst->bciarg_data_buf = {};
    slot_number = get_concurrent_flowpath_free_idx(inst);
    tqp_occupy_flowpath(inst, slot_number, 5);
    for (int id = 1; id < 100; ++id) {
      tqp_store_loc2norm(inst, LOC2NORM_METHOD, id, 100 + id);
      tqp_store_loc2norm(inst, LOC2NORM_BCI_ARG, id, 500 + id);
    }
    begin_segment();
  }

  ~exit_blob() override {
    tqp_free_segment_memory(&segment);
    tqp_free_flowpath_store(inst);
    tqp_free_local_maps(inst);
    wllb_text_free(inst->bciarg_data_buf, "test");
  }

  void begin_segment() {
    tqp_free_segment_memory(&segment);
    segment.self_fpi = 5;
    segment.begin_ts = 1000;
    segment.flowpath_segment_tier = 7;
    wllb_text_put(segment.begin_seq_num, "1", "segfp->begin_seq_num");
  }

  concurrent_flowpath_t &slot() { return inst->con_fp_buf.data[slot_number]; }

  int rows() const { return segment.method_call_stack.used; }

  // Reads one piece out of a block of its own size, so that a byte too far is noticed.
  int read(const std::string &piece) {
    std::vector<char> line(piece.begin(), piece.end());
    line.push_back('\n');
    char *const start = line.data();
    blob_reader r = {inst, &segment, slot_number, start, start, start + piece.size(), 43};
    return process_seq_blob_from_bci_ex(&r);
  }

  // The whole blob, as it stands at the end of the segment.
  std::string written() {
    create_sqb_and_append_fp_signature(inst, &segment);
    EXPECT_EQ(0, rows());
    EXPECT_EQ(segment.seq_blob.len, strlen(wllb_text_str(segment.seq_blob)));
    return std::string(wllb_text_view(segment.seq_blob));
  }

  std::string text_of(const std::string &blob) {
    begin_segment();
    read(blob);
    return written();
  }

  mtarray_t sums_of(int32_t norm_id) const {
    for (int32_t i = 0; i < segment.mtarray.used; ++i)
      if (segment.mtarray.data[i].method_id == norm_id)
        return segment.mtarray.data[i];
    return {};
  }
};

// A calls B, then C. B and C end first.
const std::string a_calls_b_and_c = "2:99_1:2:3_2_10:20_4_5:1:2:3:4_0|"
                                    "3:99:1_1:4:5_2_40:15_0_1_1|"
                                    "1:99_1:1:6_1_5:60_0_9:1:1:1:1_0|";

// --- worked by hand ------------------------------------------------------------------------------------------------

TEST_F(exit_blob, methods_come_out_in_call_order_with_absolute_ends) {
  tqp_generate_fp_signatures = 1;
  EXPECT_EQ(0, read(a_calls_b_and_c));
  EXPECT_EQ("", wllb_text_view(segment.seq_blob));
  EXPECT_EQ(40, slot().last_record_timestamp) << "the newest start, not the last one";
  EXPECT_EQ("101:99_0:1:0_5_102:99_0:2:0_10_102:0_1:3:0_30_5:1:2:3:4_103:99:1_0:4:1_40_103:0_1:5:1_55_1:0:0:0:0_"
            "101:0_1:6:0_65_9:1:1:1:1",
            written());
  EXPECT_EQ(3, segment.entry_methods_count);
  EXPECT_EQ(1000 * 1000 + 20, sums_of(102).endtime) << "the start does not go into the time stamp";
  EXPECT_EQ(101, segment.entryPointId) << "the norm id";
  // Norm id and event, of an entry the page too: 101 0 0, 102 0 504, 102 1, 103 0 0, 103 1, 101 1.
  EXPECT_EQ("10100102050410211030010311011", wllb_text_view(segment.signstr));
}

TEST_F(exit_blob, side_texts_stand_behind_the_exit_they_belong_to) {
  EXPECT_EQ(0, read("8_2|9_2|2_1:2:3_2_0:1_0_1_0|e|C7:1:2:5:1:3:9:0|1_1:1:6_1_0:9_0_1_0|e|"));
  EXPECT_EQ(4, segment.entry_exit_methods_count) << "two for each method without instrumentation";
  EXPECT_EQ("101:0_0:1:0_0_102:0_0:2:0_0_102:0_1:3:0_1_1:0:0:0:0e_C107_108_2_109_2_101:0_1:6:0_9_1:0:0:0:0e",
            written());
  // One that no method finishes after stays out of this text, and goes with the next method.
  read("8_2|");
  EXPECT_EQ(0, rows());
  read("3_1:7:8_1_0:1_0_1_0|");
  EXPECT_TRUE(written().ends_with("103:0_1:8:0_1_1:0:0:0:0_108_2"));
}

TEST_F(exit_blob, argument_rows_carry_no_self_time) {
  slot().last_record_timestamp = 0;
  read("2:99_1:2:3_1_4321:20_4_5:1:2:3:4_0|3_1:4:5_1_40:15_0_1_1|4_1:6:9_1_40:15_77777_1_1|");
  tqp_enable_bciarg = 0;
  read("2:99_1:12:13_1_4321:20_4_5:1:2:3:4_0|");
  EXPECT_EQ("5,7.3,504,102,0,0,0,0,0,1004,0,0,0,0\n", wllb_text_view(inst->bciarg_data_buf));
}

TEST_F(exit_blob, a_segment_that_goes_on_finds_the_threads_of_its_rows) {
  read("2:77_1:2:3_2_0:1_0_1_0|1:88_1:1:6_1_0:9_0_1_0|");
  written(); // rows in their order: A 88, B 77, B's exit, A's exit
  wllb_text_clear(segment.seq_blob);
  read("3:5_1:7:8_1_0:1_0_1_0|3:5_1:9:10_1_0:1_0_1_0|");
  EXPECT_EQ("103:5_0:7:0_0_103:77_1:8:0_1_1:0:0:0:0_103:5_0:9:0_0_103:0_1:10:0_1_1:0:0:0:0", written());
}

// --- tokens that store nothing ---------------------------------------------------------------------------------------

TEST_F(exit_blob, refused_tokens_count_twice_and_are_told) {
  const struct {
    const char *token, *told; // told: quoted text and words, null for nothing
    int entries = 0;
  } cases[] = {
      {"17:99", "character number 1 in sequence blob. (           17:99 ...) method id not found."},
      {"17_", "character number 1 in sequence blob. (              17 ...) entry_exit flag is not found."},
      {"17_1:2:3_4", ") depth is not found."},
      {"17_1:2:3_-4_5", ") depth should not be less then 1."},
      {"17_1:2:3_1_5:6", ") start_time and duration not found."},
      {"17_1:2:3_1_5:6_7", ") page_name_id not found."},
      {"17_1:2:3_1_5:6_0_1:2:3", ") cpu_time not found."},
      {"12345678901234567890:1_1", "(1234567890123456 ...) depth is not found."},
      {"17_0", nullptr, 1},
      {"17_-256", nullptr, 1},
      {"17_258", nullptr},
  };

  const char *const front = "Error in Raw Data, App Instance: tier_server_app,Raw data file line # 0 Found invalid ";
  for (const auto &c : cases) {
    SCOPED_TRACE(c.token);
    begin_segment();
    const int told_before = traced(front), words_before = c.told ? traced(c.told) : 0;
    EXPECT_EQ(0, read(std::string(c.token) + "|"));
    EXPECT_EQ(0, rows());
    EXPECT_EQ(0, segment.seq_blob_start);
    EXPECT_EQ(2, segment.entry_exit_methods_count);
    EXPECT_EQ(c.entries, segment.entry_methods_count);
    EXPECT_EQ(told_before + (c.told ? 1 : 0), traced(front));
    EXPECT_TRUE(!c.told || traced(c.told) == words_before + 1);
  }
  EXPECT_EQ(0, read("17_0|bcd|"));
  EXPECT_EQ(1, traced("atcharacter number 6 in sequence blob. (             bcd ...) method id not found."));
}

TEST_F(exit_blob, any_other_flag_is_a_finished_method) {
  for (const char *flag : {"1", "3", "-1", "255", "257", "1 ", "1x"}) {
    begin_segment();
    EXPECT_EQ(0, read(std::string("17_") + flag + "_1_5:6_0_1_0|"));
    EXPECT_EQ("117:0_0:-1:0_5_117:0_1:-1:0_11_1:0:0:0:0", written());
  }
}

TEST_F(exit_blob, callouts_wait_for_a_finished_method) {
  trkey->log_level = wllb_trace_mask(2);
  EXPECT_EQ(0, read("17_0|a1:2:3|a1:2:3|A|e|T1|t|c1|E1|g1|"));
  EXPECT_EQ(1, slot().pending_callouts_count) << "counted all the same";
  EXPECT_EQ(9, traced("' before any method entry in seq blob for FPI: 5 in raw file, ignoring this."));
  EXPECT_EQ(0, rows());
  // A method comes through behind a broken callout; a broken group ends the piece, a broken cache call does not.
  EXPECT_EQ(0, read("1_1:1:2_1_0:1_0_1_0|T|C7|e|"));
  EXPECT_EQ(-1, read("G7|e|1_1:3:4_1_0:1_0_1_0|"));
  EXPECT_EQ("101:0_0:1:0_0_101:0_1:2:0_1_1:0:0:0:0e", written());
}

TEST_F(exit_blob, only_refused_tokens_fill_the_limit) {
  trkey->log_level = wllb_trace_mask(3);
  max_entry_exit_records_in_an_fp = 100;
  std::string entries;
  for (int i = 0; i < 60; ++i) {
    entries += "17_0|";
    EXPECT_EQ(0, read("17_1_1_0:1_0_1_0|"));
  }
  EXPECT_EQ(1, read(entries));
  EXPECT_EQ(51, segment.entry_methods_count) << "102 is above 100";
  EXPECT_EQ(1, traced("Truncating flowpath (FPI = 5) because entry/exit methods count exceeded limit 100"));
  EXPECT_EQ(0, read("17_0")) << "no token, no limit";
}

// --- any tree ------------------------------------------------------------------------------------------------------

class random_trees : public exit_blob {
protected:
  using amounts = std::array<int, 6>; // duration first

  std::mt19937 random{20261122};
  int next_seq = 0;
  std::vector<std::string> tokens; // in the order of the ends
  std::string text;
  std::map<int, std::array<int64_t, 13>> sums; // by norm id

  int upto(int most) { return static_cast<int>(random() % (static_cast<unsigned>(most) + 1)); }

  // A method with all that it calls: its tokens, and what should become of them.
  amounts call(int depth) {
    const int local_id = upto(110), id = local_id >= 1 && local_id < 100 ? 100 + local_id : 0; // some unknown
    const int flag = upto(2), start = upto(100000), start_seq = ++next_seq, calls = depth < 9 ? upto(4) : 0;
    const std::string thread = std::to_string(upto(3)) + (upto(9) == 0 ? ":1" : "");
    text += wllb_format("%s%d:%s_0:%d:%d_%d", text.empty() ? "" : "_", id, thread.c_str(), start_seq, flag, start);
    amounts total = {}, children = {};
    for (int left = calls; left > 0; --left) {
      const amounts child = call(depth + 1);
      for (size_t i = 0; i < 6; ++i)
        children[i] += child[i];
    }
    for (int &amount : total)
      amount = upto(calls == 0 ? 20 : 60);
    const int end_seq = ++next_seq, marks = upto(7) == 0 ? 1 + upto(2) : 0;
    const bool bare = upto(5) == 0; // a method without instrumentation
    const std::string used = wllb_format("%d:%d:%d:%d:%d", total[1], total[2], total[3], total[4], total[5]);
    text += wllb_format("_%d:0_1:%d:%d_%d_%s", id, end_seq, flag, start + total[0], used.c_str());
    text += std::string(static_cast<size_t>(marks), 'e') + (bare ? "_108_2" : "");
    tokens.push_back((bare ? "8_2|" : "") + wllb_format("%d:%s_1:%d:%d_%d_%d:%d_%d_%s_%d|", local_id, thread.c_str(),
                                                        start_seq, end_seq, depth, start, total[0],
                                                        upto(3) == 0 ? upto(110) : 0, used.c_str(), flag));
    tokens.insert(tokens.end(), static_cast<size_t>(marks), "e|");
    for (size_t i = 0; i < 6; ++i) {
      sums[id][2 * i] += total[i];
      sums[id][2 * i + 1] += total[0] > children[0] ? total[i] - children[i] : 0;
    }
    ++sums[id][12];
    return total;
  }

  void expect_sums() const {
    EXPECT_EQ(sums.size(), static_cast<size_t>(segment.mtarray.used));
    for (const auto &[id, sum] : sums) {
      const mtarray_t m = sums_of(id);
      const std::array<int64_t, 13> got = {
          m.cum_wall_time, m.cum_self_time,      m.cum_cpu_time,        m.cum_cpu_self_time,
          m.cum_wait_time, m.cum_wait_self_time, m.cum_sync_time,       m.cum_sync_self_time,
          m.cum_io_time,   m.cum_io_self_time,   m.cum_suspension_time, m.cum_suspension_self_time,
          m.count};
      EXPECT_EQ(sum, got) << id;
    }
  }
};

TEST_F(random_trees, come_out_as_they_were_called_however_the_blob_is_cut) {
  tqp_enable_bciarg = 0;
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(round);
    begin_segment();
    next_seq = 0;
    tokens.clear();
    text.clear();
    sums.clear();
    for (int roots = 1 + upto(2); roots > 0; --roots)
      call(1);
    std::string piece;
    for (const std::string &token : tokens) {
      piece += token;
      if (upto(3) == 0) {
        EXPECT_EQ(0, read(piece + "17_1:2")); // a token that the line cut off
        piece.clear();
      }
    }
    EXPECT_EQ(0, read(piece));
    EXPECT_EQ(next_seq, rows());
    expect_sums();
    EXPECT_EQ(text, written());
    EXPECT_EQ(next_seq / 2, segment.entry_methods_count);
  }
}

// --- order ---------------------------------------------------------------------------------------------------------

TEST_F(random_trees, rows_are_in_the_order_of_their_numbers_and_equal_ones_as_they_came) {
  for (const int64_t range : {int64_t{1}, int64_t{3}, int64_t{300}, int64_t{70000}, int64_t{20000000},
                              int64_t{INT32_MAX}, int64_t{UINT32_MAX}}) {
    SCOPED_TRACE(range);
    std::string blob;
    std::vector<std::pair<int32_t, std::string>> expected;
    for (int i = 0; i < 500; ++i) {
      const int64_t least = range == UINT32_MAX ? INT32_MIN : range > INT32_MAX / 2 ? 0 : -range / 2;
      const auto start = static_cast<int32_t>(least + random() % range),
                 end = static_cast<int32_t>(least + random() % range);
      blob += wllb_format("1_1:%d:%d_1_%d:0_0_0_0|", start, end, i);
      expected.emplace_back(start, wllb_format("101:0_0:%d:0_%d", start, i));
      expected.emplace_back(end, wllb_format("101:0_1:%d:0_%d_0:0:0:0:0", end, i));
    }
    std::stable_sort(expected.begin(), expected.end(), [](auto &a, auto &b) { return a.first < b.first; });
    std::string ordered;
    for (const auto &row : expected)
      ordered += (ordered.empty() ? "" : "_") + row.second;
    const std::string got = text_of(blob);
    if (range <= INT32_MAX)
      EXPECT_EQ(ordered, got);
    else
      EXPECT_EQ(ordered.size(), got.size()) << "in no order, but whole";
  }
}

TEST_F(exit_blob, the_difference_of_the_numbers_decides_and_it_wraps_around) {
  std::string blob, highest, lowest;
  for (int i = 0; i < 40; ++i) {
    blob += wllb_format("1_1:-2147483648:2147483647_1_%d:0_0_0_0|", i);
    highest += wllb_format("101:0_1:2147483647:0_%d_0:0:0:0:0_", i);
    lowest += wllb_format("101:0_0:-2147483648:0_%d_", i);
  }
  EXPECT_EQ(highest + lowest, text_of(blob) + "_");
}

// --- depth ---------------------------------------------------------------------------------------------------------

TEST_F(exit_blob, depth_may_rise_by_ten_thousand_above_the_room) {
  const struct {
    std::vector<int> accepted;
    int room, refused;
  } cases[] = {{{}, 0, 10001}, {{1, 16, 33}, 48, 10049}, {{10000, 3}, 10000, 20001}, {{10000, 10000}, 10016, 20017}};

  for (const auto &c : cases) {
    begin_segment();
    for (const int depth : c.accepted)
      EXPECT_EQ(0, read(wllb_format("1_1:1:2_%d_0:1_0_1_0|", depth)));
    EXPECT_EQ(c.room, segment.ctarray.room);
    EXPECT_EQ(0, read(wllb_format("1_1:1:2_%d_0:1_0_1_0|", c.refused)));
    EXPECT_EQ(1, traced(wllb_format("Critical: Error in method,  depth %d is exceeding its limit previous depth is %d",
                                    c.refused, c.room)));
    EXPECT_EQ(2 * c.accepted.size(), static_cast<size_t>(rows()));
    EXPECT_EQ(0, segment.entry_exit_methods_count) << "a method that is lost counts as little as one that is kept";
  }
  begin_segment();
  record_array_room(segment.ctarray, 995000, 995000, "fp->ctarray");
  read("1_1:1:2_1000001_0:1_0_1_0|");
  EXPECT_EQ(0, rows()) << "no method is deeper than a million";
  read("1_1:1:2_1000000_0:1_0_1_0|");
  EXPECT_EQ(1000000, segment.ctarray.room);
}

// --- hostile pieces ------------------------------------------------------------------------------------------------

TEST_F(exit_blob, a_piece_cut_anywhere_is_its_whole_tokens) {
  const std::string blob =
      "8_2|9_0|" + a_calls_b_and_c + "e|e|8:1:2_2|C7:1:2:5:1:3:9:0|5:-1_1:7:8_1_99:1_4_1:2_7|x7|e|";
  for (size_t cut = 0; cut <= blob.size(); ++cut) {
    SCOPED_TRACE(cut);
    const size_t bar = cut == 0 ? blob.npos : blob.rfind('|', cut - 1);
    const std::string whole = text_of(bar == blob.npos ? "" : blob.substr(0, bar + 1));
    EXPECT_EQ(whole, text_of(blob.substr(0, cut)));
    EXPECT_EQ(whole, text_of(blob.substr(0, cut) + std::string(1, '\0') + blob.substr(cut)));
  }
}

TEST_F(exit_blob, any_byte_may_be_any_other_or_a_number_beyond_all_bounds) {
  using namespace std::string_view_literals;
  tqp_generate_fp_signatures = 1;
  const std::string blob = "8_2|e|a1:2:3|" + a_calls_b_and_c +
                           "T1:2:3:4:5:6|E1:2:3|A1:2:3|C7:1:2:5:1:3:9:0|G1:2:3:4|g1|5:-1_1:7:8_1_99:1_4_1:2_7|";
  const std::string huge(400, '9');
  for (size_t at = 0; at < blob.size(); ++at)
    for (const std::string_view put : {"\0"sv, "|"sv, "_"sv, ":"sv, "-"sv, " "sv, "9"sv, "e"sv, "G"sv, "\xff"sv,
                                       "-9223372036854775808"sv, std::string_view(huge)}) {
      SCOPED_TRACE(wllb_format("%zu ", at).append(put));
      const std::string damaged = std::string(blob).replace(at, 1, put);
      begin_segment();
      const int result = read(damaged), stored = rows();
      EXPECT_TRUE(result == 0 || result == -1);
      EXPECT_EQ(0, stored % 2);
      const std::string text = written();
      EXPECT_EQ(text.empty(), stored == 0);
      EXPECT_EQ(text.npos, text.find('|'));
    }
}

// --- signatures ----------------------------------------------------------------------------------------------------

std::string packed(std::string digits) {
  std::string out(2 * digits.size() + 1, '#');
  const int length = tq_string_compress(digits.data(), out.data(), static_cast<int>(digits.size()));
  EXPECT_EQ(static_cast<int>(strlen(out.c_str())), length);
  return out.c_str();
}

TEST(signature, ninety_pairs_have_a_symbol_and_ten_have_two) {
  EXPECT_EQ("1\\0", packed("0190"));
  EXPECT_EQ("c.3", packed("123"));
  EXPECT_EQ("05.x", packed("-7+5x")) << "junk is defined";
  std::string symbols;
  for (int pair = 0; pair < 90; ++pair)
    symbols += packed(wllb_format("%02d", pair));
  EXPECT_EQ("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVXYZ~`!@#$%^&*()_-+={}[]:;\" <>|?/", symbols);
}

TEST_F(exit_blob, segments_with_the_same_path_share_a_signature) {
  create_csv_metadata_files(inst->commoncsvfilepath);
  int is_new;
  {
    wllb_hold hold(key_signature_mutex);
    wllb_init_norm_id_table(&key_signature, 64);
    wllb_get_or_gen_norm_id(&key_signature, "DummySignature", 14, &is_new);
  }
  EXPECT_EQ(0, generate_signature(inst, segment.signstr)) << "signatures were off";
  tqp_generate_fp_signatures = 1;
  for (const int id : {1, 1, 2}) {
    text_of(id == 1 ? a_calls_b_and_c : "1_1_1_0:1_0_0_0|");
    EXPECT_EQ(id, generate_signature(inst, segment.signstr));
  }
  wllb_text_clear(segment.signstr);
  wllb_text_put(segment.signstr, "999", "fp->signstr");
  EXPECT_EQ(3, generate_signature(inst, segment.signstr)) << "one that grows when it is packed";
  wllb_text_clear(segment.signstr);
  EXPECT_EQ(-1, generate_signature(inst, segment.signstr));
  EXPECT_EQ("aa1254alau13b1.1,1\naa11.1,2\n\\9.9,3\n", file_text(common("TQFPSignature.csv")));
  wllb_hold hold(key_signature_mutex);
  wllb_obj_hash_destroy(&key_signature);
}

} // namespace
