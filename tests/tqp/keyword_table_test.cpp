// The keyword file: plain keywords of each sort at the edges of their range, the odd ones by their own rules, and
// nonsense. What a keyword accepts is written down here apart from the rows it is tested against.
#include "tqp_parse_keywords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>

namespace {
enum kind { RANGE, TRUTH, NON_ZERO, DIGITS };

struct told_row {
  const char *keyword;
  int *value;
  int64_t min, max, unit; // min and max in the unit of the word
  int def;
  kind accepts = RANGE;
};

constexpr int64_t ANY = INT_MIN, MOST = INT_MAX, KB = 1024;

// clang-format off
const std::vector<told_row> told = {
  {"TQP_OMIT_NON_WL_FLOWPATHS", &omit_non_wl_flowpaths, 0, 1, 1, 0, TRUTH},
  {"TQP_SEQ_BLOB_IN_FILE_MIN_SIZE", &tqp_seq_blob_in_file_min_size, 1, 2000000000, 1, 64},
  {"TQP_MAX_BUFFERED_HTTP_HEADER_BUFSIZE", &max_buffered_http_header_bufsize, 1, 1024, KB, 65536},
  {"TQP_MAX_BUFFERED_SQL_TABLE_BUFSIZE", &max_buffered_sql_table, 32, 1024, KB, 32768},
  {"TQP_DEBUG_LOGLEVEL", &tqp_debug_loglevel, 0, MOST, 1, 0, DIGITS},
  {"TQP_FREE_FP_MIN_SQB_SIZE", &tqp_free_fp_min_sqb_size, ANY, MOST, 1, 32768, NON_ZERO},
  {"MAX_BUFFERED_SQB_BUFSIZE", &max_buffered_sqb_bufsize, 8, 1048576, KB, 8388608},
  {"TQP_DUMP_URC", &tqp_dump_urc, ANY, MOST, 1, 0},
  {"TQP_NUM_NONPREP_SQL_LOAD_AT_INIT", &tqp_num_nonprep_sql_load_at_init, -1, MOST, 1, 2500},
  {"DEFAULT_TQP_ERRLOG_THROTTLE_INTERVAL_SEC", &tqp_errlog_throttle_interval, 11, 86400, 1, 300},
  {"TQP_SECS_TO_HOLD_FP_FOR_PENDING_ASYNC_RESP", &secs_to_hold_fp_for_pending_async_resp, 1, 60, 1, 60},
};

// clang-format on

int value_after(const told_row &row, const std::string &word) {
  const int64_t number = std::clamp<int64_t>(strtoll(word.c_str(), nullptr, 10), INT_MIN, INT_MAX);
  if (row.accepts == TRUTH)
    return number != 0;
  const bool refused = row.accepts == NON_ZERO ? number == 0
                       : row.accepts == DIGITS ? word.find_first_not_of("0123456789") != std::string::npos
                                               : number < row.min || row.max < number;
  return refused ? row.def : static_cast<int>(number * row.unit);
}

using trace_lines = std::vector<std::string>; // severity|message

class keyword_file : public ::testing::Test {
protected:
  keyword_file() {
    char made[] = "/tmp/keyword_file_XXXXXX";
    dir = mkdtemp(made);
    path = dir + "/TQKeywords.conf";
    wllb_trace_partition = 0;
    trkey = wllb_init_mt_trace_log_ex(dir.c_str(), 0, "trace.log", 4, 100);
    tqp_keywords_init();
  }

  ~keyword_file() override {
    wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
    tqp_keywords_init();
    std::filesystem::remove_all(dir);
  }

  int read(std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
    return read_config_file_and_parse_tq_keywords(path.c_str(), &err_msg);
  }

  int read_anew(std::string_view content) {
    tqp_keywords_init();
    std::error_code none; // there is no file before the first line
    std::filesystem::resize_file(dir + "/trace.log", 0, none);
    return read(content);
  }

  trace_lines lines() const {
    std::ifstream file(dir + "/trace.log", std::ios::binary);
    trace_lines found;
    for (std::string line; std::getline(file, line);) {
      size_t severity = 0;
      for (int field = 0; field < 5; ++field)
        severity = line.find('|', severity) + 1;
      if (!line.empty() && line[0] != '#')
        found.push_back(line.substr(severity));
    }
    return found;
  }

  std::string dir, path, err_msg;
};
} // namespace

TEST_F(keyword_file, plain_keywords_take_their_range_and_nothing_else) {
  for (const told_row &row : told) {
    std::vector<std::string> words = {"x", "0", "2", "7abc", "+9", "-0", "-99999999999999999999", "4294967297"};
    for (const int64_t edge : {row.min, row.max})
      for (const int64_t step : {-1, 0, 1})
        words.push_back(std::to_string(edge + step));
    for (const std::string &word : words) {
      tqp_keywords_init();
      *row.value = -77; // only a change can explain another one
      ASSERT_EQ(0, read(row.keyword + (" " + word) + "\n"));
      EXPECT_EQ(value_after(row, word), *row.value) << row.keyword << " " << word;
    }
    for (const told_row &other : told)
      EXPECT_TRUE(&other == &row || *other.value == other.def) << row.keyword << " changed " << other.keyword;
  }
}

TEST_F(keyword_file, lines_and_words) {
  // The last of each of these sets TQP_DUMP_URC to 7, or leaves 0.
  const std::string piece(131070, 'x');
  const std::pair<std::string, int> files[] = {
      {" \t TQP_DUMP_URC\t \v7\r\n", 7},
      {"\n#\n# TQP_DUMP_URC 1\n\r\nUNKNOWN_KEYWORD 9\nTQP_DUMP_URC 5\nTQP_DUMP_URC 7 # later wins", 7},
      {"  #TQP_DUMP_URC 7\n\r TQP_DUMP_URC 7\n", 0},
      {"tqp_dump_urc 7\nTQP_DUMP_URCX 7\nTQP_DUMP_UR 7\nTQP_DUMP_URC x 7\n", 0},
      {std::string("TQP_DUMP_URC\0 7\n", 16), 0},
      {std::string("\0\n\0TQP_DUMP_URC 1\nTQP_DUMP_URC 7\0 1\n", 36), 7},
      {"#" + piece + "TQP_DUMP_URC 7\n", 7},  // the line is read in two pieces
      {"#" + piece + "yTQP_DUMP_URC 7\n", 0}, // one byte more, and the second is no keyword
      {"TQP_DUMP_URC 7" + std::string(300000, ' ') + "9\n", 7},
  };
  for (const auto &[content, expected] : files) {
    EXPECT_EQ(0, read_anew(content));
    EXPECT_EQ(expected, tqp_dump_urc) << content.substr(0, 60);
  }
}

TEST_F(keyword_file, only_a_regular_file_is_opened) {
  ASSERT_EQ(0, mkfifo((dir + "/fifo").c_str(), 0600));
  for (const std::string &bad : {dir + "/fifo", dir + "/none", dir, std::string("/dev/null")}) {
    EXPECT_EQ(-1, read_config_file_and_parse_tq_keywords(bad.c_str(), &err_msg));
    EXPECT_EQ("Error in opening file " + bad + "\n", err_msg);
  }
}

// --- flowpath number ----------------------------------------------------------------------------------------

namespace {
using layout = std::vector<uint64_t>; // start, bits and mask of each field from the top down

layout current_layout() {
  layout found;
  for (const auto &[start, bits, mask] :
       {std::tuple(tqe_id_starting_bit_location, tqe_id_no_of_bits, tqe_id_mask_num),
        {tqe_app_id_starting_bit_location, tqe_app_id_no_of_bits, tqe_app_id_mask_num},
        {tqe_ts_starting_bit_location, tqe_ts_no_of_bits, tqe_ts_mask_num},
        {tqe_seqno_starting_bit_location, tqe_seqno_of_bits, tqe_seqno_mask_num}})
    found.insert(found.end(), {static_cast<uint64_t>(start), static_cast<uint64_t>(bits), mask});
  return found;
}

const layout default_layout = {56, 4, 15, 46, 10, 1023, 8, 38, 274877906943, 0, 8, 255};
} // namespace

TEST_F(keyword_file, a_good_fpi_layout_sets_bits_and_masks) {
  const std::string nothing(18, ';');
  const std::pair<std::string, layout> good[] = {
      {"SeqNo:0:8:junk;TS:8:38;AppID:46:10;TQEID:56:4", default_layout},
      {"TQEIDx:57:5;;Other:1:1;AppIDx:47:9;TSx:10:37;SeqNox:1:9;",
       {57, 5, 31, 47, 9, 511, 10, 37, (1ULL << 37) - 1, 1, 9, 511}},
      {nothing + "TQEID:62:0;AppID:62:0;TS:62:0;SeqNo:0:62", {62, 0, 0, 62, 0, 0, 62, 0, 0, 0, 62, (1ULL << 62) - 1}},
  };
  for (const auto &[value, expected] : good) {
    EXPECT_EQ(0, read_anew("TQ_FPI_MASK " + value + "\nTQP_DUMP_URC 3\n"));
    EXPECT_EQ(expected, current_layout()) << value;
    EXPECT_EQ(3, tqp_dump_urc);
  }
}

TEST_F(keyword_file, a_bad_fpi_layout_ends_the_parsing) {
  const std::string sum = "Sum of Starting bit location in ", rest = ";AppID:46:10;TS:8:38;SeqNo:0:8;";
  std::string late = "TQEID:56:4;AppID:46:10;TS:8:38;";
  for (int i = 0; i < 17; ++i)
    late += "Other:1:1;";
  const std::pair<std::string, std::string> bad[] = {
      {"TQEID:56:4;TQEID:56:4;TS", "Invalid Values"}, // before the double name
      {"TS:8:38;AppID:1:1;AppIDs:-1:-1;TSO:8:38;", "The value of AppID is passed Two Times in Keyword."},
      {";", "The value of TQEID is not passed in Keyword."},
      {late + "SeqNo:0:8", "The value of SeqNo is not passed in Keyword."}, // behind the twentieth token
      {"TQEID:-1:99999999999999" + rest, "No Value can be negative."},
      {"TQEID:1:99;AppID:46:99;TS:8:99;SeqNo:2147483647:2147483647;",
       sum + "SeqNo + Num bits in SeqNo <= TIMESTAMP(TS) starting bit locaton."},
      {"TQEID:56:4;AppID:46:10;TS:8:39;SeqNo:0:8;", sum + "TS + Num bits in TS <= AppID starting bit location."},
      {"TQEID:58:5" + rest, sum + "TQEID + Num bits in TQEID <= 62."},
  };
  for (const auto &[value, reason] : bad) {
    EXPECT_EQ(-1, read_anew("TQ_FPI_MASK " + value + "\nTQP_DUMP_URC 3\n"));
    EXPECT_EQ("Invaild Format in TQ_FPI_MASK Keyword. " + reason +
                  " Example <TQ_FPI_MASK TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;>",
              err_msg);
    EXPECT_EQ(default_layout, current_layout());
    EXPECT_EQ(0, tqp_dump_urc) << "lines behind it are not read";
  }
}

// --- odd keywords -------------------------------------------------------------------------------------------

TEST_F(keyword_file, keywords_of_several_numbers_or_odd_rules) {
  using values = std::vector<int *>;
  const values blob = {&tqp_seq_blob_in_file_flag, &tqp_seq_blob_in_file_version, &tqp_seq_blob_in_file_rollover_size};
  const values upload = {&tqdbu_rd_inst_count, &tqdbu_rd_inst_skip_sleep}, ring = {&max_fi_array_entries};
  const values timing = {&tqp_enable_jdbc_call,     &tqp_enable_redix_call, &tqp_enable_mongodb_call,
                         &tqp_enable_bigquery_call, &tqp_enable_ftp_call,   &tqp_enable_dynamo_call};
  const values pool = {&tqp_mempool_config_mode, &tqp_num_tqp_instances_init, &tqp_num_tqp_instances_delta};
  const values monitors = {&tqp_enable_auto_mon_reg, &tqp_enable_auto_mon_instance_reg};
  const values load = {&tqp_num_nonprep_sql_load_at_init}, interval = {&interval_to_dump_sql_timing_data};
  const std::tuple<values, std::string, std::vector<int>> cases[] = {
      {blob, "TQP_SEQ_BLOB_IN_FILE_FLAG 0 C", {0, 'C', 10000}},
      {blob, "TQP_SEQ_BLOB_IN_FILE_FLAG 0 A 9\nTQP_SEQ_BLOB_IN_FILE_FLAG 2 D 0", {1, 'B', 10000}},
      {upload, "TQDBU_RD_INST_COUNT_AND_SKIP 3", {3, 0}},
      {timing, "TQ_ENABLE_CAPTURE_DB_TIMING 1 2 3 4 5 6 7 8 9 10 11", {1, 2, 3, 8, 9, 10}},
      {timing, "TQ_ENABLE_CAPTURE_DB_TIMING 1 0", {1, 0, 0, 0, 0, 0}},
      {pool, "TQP_MEMPOOL_SETTINGS 0 5 6", {0, 64, 64}},
      {pool, "TQP_MEMPOOL_SETTINGS 1 5 6\nTQP_MEMPOOL_SETTINGS 2 0 7x", {2, 64, 64}},
      {monitors, "TQP_MONITORS 0 1\nTQP_MONITORS -1 +1", {0, 1}},
      {ring, "TQP_MAX_CONCURRENT_THREADS_IN_JVM -3", {0}},
      {load, "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT aLLes", {-1}},
      {interval, "TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA x", {0}},
      {interval, "TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 86401", {120}},
  };
  for (const auto &[places, content, expected] : cases) {
    EXPECT_EQ(0, read_anew(content));
    std::vector<int> found;
    for (const int *value : places)
      found.push_back(*value);
    EXPECT_EQ(expected, found) << content;
  }
}

TEST_F(keyword_file, complaints_repeat_the_word_or_its_number_and_the_default) {
  const std::string front = "Error|ERROR: reading configuration file " + path + ". ";
  const std::string blob = front + "TQP_SEQ_BLOB_IN_FILE_FLAG allowed";
  const std::pair<std::string, trace_lines> cases[] = {
      {"MAX_BUFFERED_SQB_BUFSIZE %d%s%n",
       {front + "MAX_BUFFERED_SQB_BUFSIZE allowed range is between 8 and 1048576K, read value = %d%s%n, "
                "setting default value = 8192"}}, // in another unit
      {"TQP_MAX_SQL_INDEX_FROM_BCI -7x",
       {front + "TQP_MAX_SQL_INDEX_FROM_BCI allowed read value = -7, setting default value = 4096"}},
      {"TQP_DEBUG_LOGLEVEL +1", {"Error|TQP_DEBUG_LOGLEVEL value is not numeric, set default to 0."}},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 2 bad -5",
       {blob + "values are 0 or 1, read value = 2, setting default value = 1",
        blob + " values for version (second) field are A, B or C, read value = b, setting default value = B",
        blob + " values for file rollover size (third) field are between 1 (MB) and 2000000000 MB (=2 TB) "
               "read value = -5, setting default value = 10000"}},
      {"TQ_ENABLE_CAPTURE_DB_TIMING \t\r\n", {"Error|error keyword = TQ_ENABLE_CAPTURE_DB_TIMING,  text1 = "}},
  };
  for (const auto &[content, expected] : cases) {
    EXPECT_EQ(0, read_anew(content));
    EXPECT_EQ(expected, lines());
  }
  EXPECT_EQ(1, tqp_enable_jdbc_call) << "a keyword alone changes nothing";
}

TEST_F(keyword_file, percentages_periods_and_delays) {
  for (const auto &[words, expected] :
       {std::pair("0 12.5", 12.5), {"1 100", 100}, {"1 100.1", 90}, {"1 -0.5", 90}, {"1 nan", 90}}) {
    read(std::string("TQP_SQL_QUERY_SIMILARITY_PERCENTAGE ") + words);
    EXPECT_EQ(expected, tqp_sql_query_similarity_percentage) << words;
  }
  const std::pair<std::string, long> periods[] = {
      {"10", 300},  {"301", 301},  {"6M", 360},   {"1h", 3600},
      {"0", 0},     {"-3", -3},    {"301s", 301}, {"7mins", 420},
      {"5x", 1800}, {"-3m", 1800}, {"0s", 1800},  {"9223372036854775807h", INT64_MAX / 1000}};
  for (const auto &[word, expected] : periods) {
    tqp_periodic_scandir_time = -77;
    read("TQP_PERIODIC_SCANDIR_TIME " + word);
    EXPECT_EQ(expected, tqp_periodic_scandir_time) << word;
  }
  const std::pair<std::string, std::string> delays[] = {
      {"12", "12 hour"}, {"0", "3 days"},    {"5m", "5 min"},
      {"6H", "6 hour"},  {"0d", "0 days"},   {"5x", "3 days"},
      {"m", "3 days"},   {"5;id", "3 days"}, {"99999999999d", "2147483647 days"}};
  for (const auto &[word, expected] : delays) {
    read_anew("TQP_DELETED_INSTANCE_CLEANUP_DELAY " + word);
    EXPECT_EQ(expected, deleted_instance_cleanup_delay) << word;
  }
}

TEST_F(keyword_file, text_for_unknown_queries) {
  const std::string keyword = "TQP_MAP_UNKNOWN_SQL_QUERY_TO_CUSTOM_QUERY_STR";
  read(keyword + " first\n \t" + keyword + " \t select  *  from\tt \r\n" + keyword + " \n");
  EXPECT_STREQ("select  *  from\tt \r\n", dummy_query) << "a keyword alone is passed over";
}

TEST_F(keyword_file, values_put_back_after_parsing) {
  max_buffered_sql_table = tq_trace_level = tqp_enable_auto_mon_reg = -77;
  tqp_fix_reset_keywords();
  EXPECT_EQ(32768, max_buffered_sql_table);
  EXPECT_EQ(-77, tq_trace_level);
  tqc_reset_kw_values();
  EXPECT_EQ(1, tq_trace_level);
  EXPECT_EQ(-77, tqp_enable_auto_mon_reg);
}
