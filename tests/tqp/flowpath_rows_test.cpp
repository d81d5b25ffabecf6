// Lines of segments, rows of flowpaths, and the blob file they point into: every column, which partition's file it goes
// to, when the row comes, and that no row ever stands before the bytes it names.

#include "late_files_fixture.h"
#include "watched_writes.h"

#include "tqp_async_handling.h"

#include "wllb_compression.h"

#include <algorithm>
#include <array>
#include <climits>
#include <functional>
#include <map>
#include <random>

namespace {

// Fields of a line or row; a comma inside of double quotes separates nothing.
std::vector<std::string> fields_of(const std::string &text) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (const char c : text) {
    quoted ^= c == '"';
    if (c == ',' && !quoted)
      fields.emplace_back();
    else if (c != '\n')
      fields.back() += c;
  }
  return fields;
}

long occurrences(const std::string &text, char c) {
  return std::count(text.begin(), text.end(), c);
}

class flowpath_rows : public late_files {
protected:
  static constexpr int64_t not_wl_initiated = int64_t{1} << 62;
  const std::string previous_name = "20261122203000";
  int slot = -1;

  flowpath_rows() {
    wllb_mp_init(&inst->tqp_flowpath_seg_pool, sizeof(segment_fp_t), 8, 8, 0);
    wllb_mp_init(&inst->tqp_flowpath_pending_seg_pool, sizeof(pending_segment_fp_t), 8, 8, 0);
    tqp_seq_blob_in_file_version = 'A';
    wllb_copy_text(inst->prev_partition_name, sizeof inst->prev_partition_name, previous_name);
    start(81);
  }

  ~flowpath_rows() override {
    tqp_free_flowpath_store(inst);
    wllb_mp_destroy(&inst->tqp_flowpath_seg_pool);
    wllb_mp_destroy(&inst->tqp_flowpath_pending_seg_pool);
    wllb_zarray_free(inst->recent_fpi_array, {.first = 0, .step = 1, .label = "recent_fpi_array"});
  }

  concurrent_flowpath_t *fp() const { return &inst->con_fp_buf.data[slot]; }

  // A flowpath in a slot of its own.
  void start(int64_t main_fpi) {
    slot = get_concurrent_flowpath_free_idx(inst);
    tqp_occupy_flowpath(inst, slot, main_fpi);
  }

  // Cleans the slot as completion does.
  void clean() {
    while (fp()->seg_arr.used > 0)
      remove_from_segment_array(inst, fp(), fp()->seg_arr.used - 1, 0);
    while (fp()->pending_seg_arr.used > 0)
      remove_from_pending_segment_array(inst, fp(), 0);
    tqp_free_flowpath_slot(inst, slot);
  }

  static void set(wllb_text &text, std::string_view value) {
    wllb_text_clear(text);
    wllb_text_put(text, value, "test");
  }

  // A segment as its header leaves it: known, and expected by its number.
  segment_fp_t *segment(int64_t self_fpi, const char *begin_seq_num, std::string_view blob = "blob") const {
    segment_fp_t *made = insert_in_segment_array(inst, fp(), self_fpi);
    set(made->begin_seq_num, begin_seq_num);
    set(made->seq_blob, blob);
    tqp_announce_segment(inst, fp(), begin_seq_num);
    return made;
  }

  segment_fp_t *main_segment() const { return segment(fp()->main_fpi, "1"); }

  // What is given of a segment's texts goes to the file and into a line.
  void dump(segment_fp_t *finished) const { csv_dump_flowpath(inst, slot, finished); }

  // The row of a flowpath of one segment, after `change` had a hand in it; empty when none is written.
  std::string row_of(const std::function<void(segment_fp_t *)> &change, int64_t main_fpi = 1000) {
    const size_t before = rows().size();
    start(main_fpi);
    segment_fp_t *main = main_segment();
    change(main);
    dump(main);
    const std::string row = rows().substr(before);
    EXPECT_EQ(row.empty() ? 0 : 1, fp()->fp_over_flag);
    clean();
    return row;
  }

  // --- what came out ---
  std::string rows() const { return file_text(data("TQFlowPath.csv")); }

  std::string blob_path(const std::string &of_partition) const {
    return root + "/webapps/logs/TR1001/" + of_partition + "/tq/sqb/5";
  }

  std::string blobs() const { return file_text(blob_path(partition)); }

  std::string line_of(const char *begin_seq_num) const {
    const auto *entry = search_pending_segment_array_using_begin_seq_number(inst, fp(), begin_seq_num);
    return entry ? std::string(wllb_text_view(entry->segment_csv_str)) : "none";
  }

  static std::string inflated(const std::string &file, size_t offset, size_t length) {
    std::string text;
    if (offset + length > file.size() || wllb_decomp_do(file.data() + offset, length, 1U << 24U, &text) != 0)
      return "damaged";
    return text;
  }

  // The list that a row's reference names, as it stands in the file now.
  std::string list_of(const std::string &row) const {
    const std::string reference = fields_of(row).at(10), front = "C:1:" + partition + ":";
    EXPECT_EQ(front, reference.substr(0, front.size()));
    char *end = nullptr;
    const size_t offset = std::strtoul(reference.c_str() + front.size(), &end, 10);
    return inflated(blobs(), offset, std::strtoul(end + 1, nullptr, 10));
  }

  uint32_t processed() const {
    wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
    return inst->tqp_instance_mon_stat_info.processed_flowpath_count;
  }
};

// --- columns --------------------------------------------------------------------------------------------------------

// Numbers fields that follow each other.
template <class T, class... F> void number(T *record, int first, F... fields) {
  ((record->*fields = static_cast<std::remove_reference_t<decltype(record->*fields)>>(first++)), ...);
}

using S = segment_fp_t;

TEST_F(flowpath_rows, a_row_has_the_sums_of_its_segments_and_a_line_its_own_numbers) {
  segment_fp_t *side = segment(82, "1.2"), *main = main_segment();
  for (auto [s, first] : {std::pair{side, 1001}, {main, 2001}})
    number(s, first, &S::cumulative_cpu_time, &S::entry_methods_count, &S::call_out_count, &S::fp_cputime,
           &S::totalError, &S::dbCallCounts, &S::httpCalloutCount, &S::jmsCallCount, &S::coherenceCount,
           &S::fp_waittime, &S::fp_synctime, &S::fp_iotime, &S::fp_suspensiontime, &S::qTimeinMS);
  side->gcOver = 1;
  main->gcOver = 2;
  main->response_time = 0xFFFFFFFFFFFFFFFF; // the row shows it without a sign
  record_array_room(fp()->ipmrt, 2, 8, "test");
  fp()->ipmrt.data[0] = {43, 44};
  fp()->ipmrt.data[1] = {430, 440};
  fp()->ipmrt.used = 2;
  dump(side);
  const auto line = fields_of(line_of("1.2"));
  dump(main);
  const auto row = fields_of(rows());
  ASSERT_EQ(47U, line.size());
  ASSERT_EQ(48U, row.size());
  const size_t columns[][2] = {{13, 17}, {15, 19}, {18, 21}, {21, 24}, {22, 25}, {25, 27}, {26, 28},
                               {27, 29}, {29, 30}, {35, 36}, {36, 37}, {37, 38}, {38, 39}, {39, 40}};
  for (size_t i = 0; i < std::size(columns); ++i) {
    EXPECT_EQ(std::to_string(3002 + 2 * i), row[columns[i][0]]) << i;
    EXPECT_EQ(std::to_string(1001 + i), line[columns[i][1]]) << i;
  }
  EXPECT_EQ("18446744073709551615", row[40]);
  EXPECT_EQ("\"{43,430}\" \"{44,440}\" 2", row[42] + " " + row[43] + " " + row[44]);
  EXPECT_EQ("1", line[41]);
}

TEST_F(flowpath_rows, a_url_is_its_norm_id_or_the_flag_alone) {
  tqp_store_loc2norm(inst, LOC2NORM_URL, 0, 70);
  tqp_store_loc2norm(inst, LOC2NORM_URL, 2, 72);
  const std::string flag = "1073741824";
  const std::map<int64_t, std::string> url_of = {{-1, "70"}, {INT64_MIN, "70"}, {0, "70"},    {1, flag},
                                                 {2, "72"},  {4095, flag},      {4096, flag}, {INT64_MAX, flag}};
  for (const auto &[local_id, shown] : url_of) {
    const std::string row = row_of([id = local_id](segment_fp_t *main) { main->bci_urlid = id; });
    EXPECT_EQ(shown, fields_of(row).at(19)) << local_id;
    EXPECT_EQ(shown, fields_of(list_of(row)).at(22)) << local_id;
  }
}

TEST_F(flowpath_rows, the_duration_reaches_from_the_earliest_begin_to_the_latest_end) {
  const int64_t rules[][6] = {// begin, in ms, end, in ms, end of the asynchronous call, shown
                              {1000, 0, 1700, 0, 0, 700},          {1000, 1100, 1700, 0, 0, 600},
                              {1000, 0, 1700, 1800, 0, 800},       {1000, 1100, 1700, 1850, 1850, 750},
                              {1000, 1100, 1700, 1850, 1851, 751}, {1000, 0, 1700, 0, 1699, 700},
                              {2000, 0, 1700, 0, 0, -300},         {INT64_MAX, 0, INT64_MIN, 0, 0, 1}};
  inst->partition_begintime = LONG_MIN;
  for (const auto &rule : rules) {
    const std::string row = row_of([&](segment_fp_t *) {
      fp()->begin_ts = rule[0];
      fp()->begin_ts_in_ms = rule[1];
      fp()->end_ts = rule[2];
      fp()->end_ts_in_ms = rule[3];
      fp()->aync_call_end_time = rule[4];
    });
    EXPECT_EQ(std::to_string(rule[5]), fields_of(row).at(8));
  }
}

TEST_F(flowpath_rows, the_parent_stands_behind_the_correlation_when_told_to) {
  for (const int keyword : {0, 1})
    for (const int64_t parent : {0, -7}) {
      tqp_append_parent_fpi_to_corrid = keyword;
      const std::string row = row_of([&](segment_fp_t *main) {
        fp()->parent_fpi = parent;
        wllb_copy_text(main->correlationid, sizeof main->correlationid, "corr");
      });
      EXPECT_EQ(!keyword ? "corr" : parent ? "corr:-7" : "corr:", fields_of(row).at(20));
      EXPECT_EQ("corr", fields_of(list_of(row)).at(23));
    }
}

// The sanitized run sees a byte too many.
TEST_F(flowpath_rows, the_longest_numbers_and_texts_have_their_room) {
  memset(inst->partition_name, '9', sizeof inst->partition_name - 1);
  inst->tierID = inst->serverID = inst->appID = INT32_MIN;
  fp()->main_fpi = INT64_MIN;
  segment_fp_t *main = main_segment();
  for (auto text : {&S::dynamic_data_buf, &S::request_body_buf})
    set(main->*text, std::string(9000, 't'));
  memset(main->url_query_parm_str, 0x80, sizeof main->url_query_parm_str);
  fp()->root_fpi = fp()->parent_fpi = fp()->fp_cputime = fp()->qTimeinMS = INT64_MIN;
  record_array_room(fp()->ipmrt, 4000, 4000, "test");
  fp()->ipmrt.used = 4000;
  std::fill_n(&fp()->ipmrt.data[0], 4000, std::decay_t<decltype(fp()->ipmrt.data[0])>{INT32_MIN, INT32_MIN});
  dump(main);
  const auto fields = fields_of(rows());
  EXPECT_EQ(48U, fields.size());
  EXPECT_EQ(1024U, fields.at(14).size());
  EXPECT_EQ(size_t{4000 * 12 + 3}, fields.at(42).size());
}

// --- when the row comes -----------------------------------------------------------------------------------------------

TEST_F(flowpath_rows, the_row_comes_with_the_last_segment_whichever_that_is) {
  dump(segment(82, "1.2"));
  dump(main_segment());
  EXPECT_EQ(1, occurrences(rows(), '\n'));
  EXPECT_EQ(2U, processed());
  clean();

  start(91);
  segment_fp_t *main = main_segment();
  segment_fp_t *first = segment(92, "1.2"), *second = segment(93, "1.3");
  dump(main);
  EXPECT_EQ(0U, main->seq_blob.len) << "it waits without its blob";
  dump(first);
  EXPECT_EQ(1, occurrences(rows(), '\n'));
  fp()->pending_callouts_count = 1;
  dump(second);
  EXPECT_EQ(1, occurrences(rows(), '\n'));
  EXPECT_EQ(5U, processed());
  EXPECT_EQ(1, fp()->seg_arr.used);
  fp()->pending_callouts_count = 0;
  dump(segment(94, "1.3")); // comes again: releases the main segment, which counts once more
  EXPECT_EQ(2, occurrences(rows(), '\n'));
  EXPECT_EQ(7U, processed());
  EXPECT_EQ("3       |91", list_of(rows().substr(rows().find('\n') + 1)).substr(0, 11));
  EXPECT_EQ(1, fp()->fp_over_flag);
}

TEST_F(flowpath_rows, segments_that_come_again_or_unexpected_change_nothing) {
  segment_fp_t *main = main_segment();
  segment_fp_t *side = segment(82, "1.2");
  segment(83, "1.3");
  side->cumulative_cpu_time = 5;
  dump(side);
  const std::string line = line_of("1.2"), file = blobs();
  segment_fp_t *again = segment(82, "1.2", "another blob");
  again->cumulative_cpu_time = 7;
  dump(again);
  EXPECT_EQ(line, line_of("1.2"));
  EXPECT_EQ(file, blobs());
  EXPECT_EQ(5, fp()->cumulative_cpu_time);
  EXPECT_EQ(2, fp()->pending_segments_count);
  set(main->begin_seq_num, "2"); // nobody expects it
  const int used = fp()->seg_arr.used;
  dump(main);
  EXPECT_EQ(1, traced("in pending segment array using begin seq num ('2') for main_fpi=81; self_fpi=81"));
  EXPECT_EQ(used - 1, fp()->seg_arr.used);
  EXPECT_EQ("", rows());
}

TEST_F(flowpath_rows, a_forced_row_goes_out_with_what_has_come) {
  segment_fp_t *main = main_segment();
  segment(82, "1.2");
  main->begin_ts = 5;
  main->response_time = 250;
  fp()->force_complete_flag = 1;
  dump(main);
  for (const auto &[column, shown] : {std::pair{8, "250"}, {11, "5"}, {12, "5"}})
    EXPECT_EQ(shown, fields_of(rows()).at(static_cast<size_t>(column)));
  EXPECT_EQ("1       |81,", list_of(rows()).substr(0, 12));
  clean();

  start(91);
  fp()->force_complete_flag = 1;
  fp()->begin_ts = 2007000;
  fp()->end_ts = 2009000;
  main = main_segment();
  main->begin_ts = 5;
  dump(main);
  EXPECT_EQ("2000", fields_of(rows().substr(rows().find('\n') + 1)).at(8)) << "times that are there stay";
}

TEST_F(flowpath_rows, flowpaths_of_other_origin_are_counted_or_left_out) {
  const auto unchanged = [](segment_fp_t *) {};
  EXPECT_NE("", row_of(unchanged, not_wl_initiated + 1));
  EXPECT_EQ(1, inst->sum_rep_counters[SUM_REP_CNT_NON_WL_FLOWPATH]);
  omit_non_wl_flowpaths = 1;
  EXPECT_EQ("", row_of([&](segment_fp_t *) { fp()->pending_segments_count = 0; }, not_wl_initiated + 2));
  EXPECT_EQ(1U + 2U, processed()) << "it is looked at once more, and then no more";
  EXPECT_NE("", row_of(unchanged, not_wl_initiated - 1));
  EXPECT_EQ(1, inst->sum_rep_counters[SUM_REP_CNT_NON_WL_FLOWPATH]);
}

TEST_F(flowpath_rows, fast_flowpaths_of_one_method_are_left_out_when_told_to) {
  for (const char category_flag : {0, 1, 2})
    for (const int keyword : {0, 100})
      for (const int methods : {0, 1, 2})
        for (const uint64_t response_time : {0, 99, 100}) {
          inst->bt_category_flag = category_flag;
          tqp_min_resptime_to_filter_l1_fp = keyword;
          const std::string row = row_of([&](segment_fp_t *main) {
            main->entry_methods_count = methods;
            main->response_time = response_time;
          });
          const bool left_out = category_flag == 1 && keyword == 100 && methods == 1 && response_time < 100;
          EXPECT_EQ(left_out, row.empty()) << int{category_flag} << keyword << methods << response_time;
        }
}

// --- late data --------------------------------------------------------------------------------------------------------

TEST_F(flowpath_rows, a_flowpath_goes_to_the_partition_of_its_end) {
  enum { CURRENT, PREVIOUS, DROPPED };

  struct {
    int64_t end_ts;
    bool closed;
    int to;
    uint32_t previous_count, older_count;
  } const rules[] = {{0, false, CURRENT, 0, 0},        {2000000, false, CURRENT, 0, 0},
                     {1999999, false, PREVIOUS, 0, 0}, {1000000, false, PREVIOUS, 0, 0},
                     {999999, false, DROPPED, 0, 1},   {999999, true, DROPPED, 1, 1},
                     {1999999, true, DROPPED, 2, 1},   {2000000, true, CURRENT, 2, 1}};

  open_previous(FLOWPATH_CSV_FP);
  clean();
  auto &counts = inst->tqp_instance_mon_stat_info;
  for (const auto &rule : rules) {
    SCOPED_TRACE(rule.end_ts);
    if (rule.closed)
      tqp_close_stream(&inst->prev_csv_file_pointers[FLOWPATH_CSV_FP]);
    const auto sizes = [&] { return std::array{rows().size(), previous(FLOWPATH_CSV_FP).size(), done().size()}; };
    const auto before = sizes();
    start(81);
    fp()->end_ts = rule.end_ts;
    dump(main_segment());
    const auto after = sizes();
    EXPECT_EQ(rule.to == CURRENT, after[0] > before[0]);
    EXPECT_EQ(rule.to == PREVIOUS, after[1] > before[1]);
    EXPECT_EQ(rule.to == PREVIOUS, after[2] > before[2]);
    wllb_hold hold(counts.tqp_instance_mon_str_lock);
    EXPECT_EQ(rule.previous_count, counts.prv_partition_flowpath_count);
    EXPECT_EQ(rule.older_count, counts.older_partition_flowpath_count);
    clean();
  }
  EXPECT_EQ(2, traced("received for previous partition, whereas the flowpath csv file pointer is closed"));
  EXPECT_EQ(1, traced("received for previous to previous partition, whereas the flowpath csv file pointer is closed"));
  EXPECT_EQ("9,5,tier_server_app/TQFlowPath.csv\n", done().substr(0, 35));
}

TEST_F(flowpath_rows, late_blobs_go_to_the_previous_file_and_the_list_to_the_current_one) {
  open_previous(FLOWPATH_CSV_FP);
  dump(segment(82, "1.2", "own"));
  fp()->end_ts = 1500000;
  dump(segment(83, "1.3", "late"));
  dump(main_segment());
  EXPECT_EQ("late\nblob\n", file_text(blob_path(previous_name)));
  EXPECT_EQ(10, inst->prev_sqbfile_offset);
  EXPECT_EQ("", rows());
  const std::string row = previous(FLOWPATH_CSV_FP), list = list_of(row);
  EXPECT_NE(std::string::npos, list.find("|82,0," + partition + ",0,0,"));
  EXPECT_NE(std::string::npos, list.find("|83,0," + previous_name + ",0,4,")) << "where the current file stands";
  EXPECT_NE(std::string::npos, list.find("|81,0," + previous_name + ",0,4,"));
  EXPECT_EQ("own\n", blobs().substr(0, 4));
}

// --- the blob file ------------------------------------------------------------------------------------------------------

TEST_F(flowpath_rows, bytes_wait_until_the_buffer_would_be_full) {
  max_buffered_sqb_bufsize = 100;
  std::mt19937 random(20261122);
  std::string all, file;
  size_t waiting = 0;
  for (int step = 0; step < 600; ++step) {
    const size_t exact = 100 - waiting, odd = random() % 130;
    const size_t length = step % 7 == 0 ? exact : step % 11 == 0 ? exact - 1 : odd;
    const std::string data(length, static_cast<char>('a' + step % 26));
    const bool force = random() % 10 == 0;
    sqb_fwrite(inst, length ? data.data() : nullptr, length, force, false);
    all += data;
    waiting = force || waiting + length >= 100 ? 0 : waiting + length;
    ASSERT_EQ(waiting, inst->sqb_file_buf.len) << step;
    if (step % 10 == 0 || waiting == 0) {
      ASSERT_EQ(all.substr(0, all.size() - waiting), blobs()) << step;
    }
  }
  sqb_fwrite(inst, nullptr, 0, true, false);
  EXPECT_EQ(all, blobs());
}

TEST_F(flowpath_rows, no_row_stands_before_the_bytes_it_names) {
  int written = 0, early = 0;
  const write_watch look = [&](std::string_view bytes) {
    if (bytes.find("C:1:") != bytes.npos && bytes.find("|") == bytes.npos) { // a row, not a line of the trace
      ++written;
      early += list_of(std::string(bytes)).substr(0, 8) != "1       ";
    }
    return bytes.size();
  };
  watched_write = &look;
  for (const int points : {0, 10, 300, 5000}) {
    start(1000 + points);
    record_array_room(fp()->ipmrt, points, 5000, "test");
    fp()->ipmrt.used = points;
    dump(main_segment());
    clean();
  }
  watched_write = nullptr;
  EXPECT_EQ(4, written);
  EXPECT_EQ(0, early);
}

TEST_F(flowpath_rows, an_opened_file_is_emptied_or_gone_on_with) {
  const std::string path = blob_path(partition);
  mkdir_ex(path.c_str());
  mkdir_ex(blob_path(previous_name).c_str());
  put_file(blob_path(previous_name), "late bytes");
  for (const int resumed : {0, 1}) {
    resume_flag = resumed;
    put_file(path, "old");
    sqb_fwrite(inst, "new", 3, false, false);
    EXPECT_EQ(resumed ? 3 : 0, inst->sqbfile_offset - static_cast<int64_t>(inst->sqb_file_buf.len) + 3);
    EXPECT_EQ(10, inst->prev_sqbfile_offset) << "the previous file is never emptied";
    sqb_fwrite(inst, nullptr, 0, true, false);
    EXPECT_EQ(resumed ? "oldnew" : "new", blobs());
    tqp_close_stream(&inst->sqb_fp);
    tqp_close_stream(&inst->prev_sqb_fp);
  }
  sqb_fwrite(inst, "12345", 5, false, false);
  open_sqb_file(inst);
  EXPECT_EQ(6 + 5, inst->sqbfile_offset) << "what is buffered counts";
}

TEST_F(flowpath_rows, a_file_from_before_the_other_disk_is_gone_on_with) {
  const std::string path = blob_path(partition);
  mkdir_ex(path.c_str());
  put_file(path, "old");
  resume_flag = 1;
  disk_processed_path = root + "/disk";
  sqb_fwrite(inst, "new", 3, true, false);
  EXPECT_EQ("oldnew", file_text(path));
  EXPECT_EQ(6, inst->sqbfile_offset + 3);
}

TEST_F(flowpath_rows, the_file_moves_on_with_the_partition) {
  open_sqb_file(inst);
  FILE *const file = inst->sqb_fp;
  inst->sqbfile_offset = 5000000000;
  tqp_rotate_sqb_file(inst);
  EXPECT_EQ(nullptr, inst->sqb_fp);
  EXPECT_EQ(file, inst->prev_sqb_fp);
  EXPECT_EQ(705032704, inst->prev_sqbfile_offset) << "the low 32 bits";
  EXPECT_EQ(0, inst->sqbfile_offset);
  inst->prev_sqbfile_offset = INT32_MAX;
  segment_fp_t *main = main_segment();
  save_sqb_to_file_and_update_offset(inst, main, true);
  EXPECT_EQ(INT32_MIN + 4, inst->prev_sqbfile_offset);
  EXPECT_EQ("blob\n", blobs());
  tqp_rotate_sqb_file(inst);
  EXPECT_EQ(nullptr, inst->prev_sqb_fp);
  save_sqb_to_file_and_update_offset(inst, main, true); // lost without a word
  EXPECT_EQ("blob\n", blobs());
}

TEST_F(flowpath_rows, a_file_that_cannot_be_opened_is_tried_again) {
  const std::string path = blob_path(partition);
  mkdir_ex(path.c_str());
  block(path);
  segment_fp_t *main = main_segment();
  dump(main);
  EXPECT_EQ(1, traced("Error in opening file '" + path + "' for writing"));
  EXPECT_EQ(1, fp()->seg_arr.used);
  std::filesystem::remove(path);
  block(data("TQFlowPath.csv"));
  tqp_close_stream(&inst->csv_file_pointers[FLOWPATH_CSV_FP]);
  dump(main);
  EXPECT_EQ(1, traced("Could not write flowpath self_fpi = 81; main_fpi = 81 to CSV file"));
  EXPECT_EQ(0, fp()->fp_over_flag);
  clean();
  std::filesystem::remove(data("TQFlowPath.csv"));
  start(91);
  dump(main_segment());
  EXPECT_EQ("91,", rows().substr(0, 3));
  EXPECT_NE("damaged", list_of(rows()));
}

} // namespace
