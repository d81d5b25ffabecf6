// The keyword file: each plain keyword at the edges of its range, the odd ones by their own rules, and nonsense.
// What a keyword accepts and says is written down here a second time, apart from the rows it is tested against.
#include "tqp_parse_keywords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <sys/stat.h>

namespace {
enum echo { SILENT, WORD, NUMBER, BARE }; // what a complaint repeats; BARE: nothing, and it has no common front

enum kind { RANGE, TRUTH, NON_ZERO, DIGITS };

struct told_row {
  const char *keyword;
  int *value;
  int64_t min, max, unit; // min and max in the unit of the word
  int def;
  echo says = SILENT;
  std::string text = {}; // up to the repeated value
  int shown = INT_MIN;   // the default as printed, where it differs
  kind accepts = RANGE;
};

constexpr int64_t ANY = INT_MIN, MOST = INT_MAX, KB = 1024;
const std::string kilobytes = " allowed range is between 8 and 1048576, (units are kilobytes)";
const std::string to_1024k = " allowed range is between 8 and 1024K, ";
const std::string two_gb = " allowed between 1 byte and 2000000000 bytes (=2 GB) ";
const std::string twelve_hours = " allowed range is between  0 (Sec)  and 43200 (sec) i.e. 12 Hours ";
const std::string ten_million = " allowedvalues are between range 0 and 10000000, ";
const std::string flag_words = " allowedvalues are 0 or 1, ";
const std::string zero_and_one = " allowed between 0 and 1, ";
const std::string async_words =
    "secs_to_clean_seg_array_main_fp allowed range is between  0 (Sec)  and  70(sec)setting default value = 60";

// clang-format off
const std::vector<told_row> told = {
  {"TQP_TRACE_LEVEL", &tq_trace_level, 0, 4, 1, 1, WORD, "TQP_TRACE_LEVEL allowed range is  between  0 and 4, "},
  {"TQP_EXTENDED_METADATA", &tqp_extended_metadata, 0, 1, 1, 0, WORD, "TQP_EXTENDED_METADATA allowed values are 0 and 1 "},
  {"TQP_OMIT_NON_WL_FLOWPATHS", &omit_non_wl_flowpaths, 0, 1, 1, 0, SILENT, {}, INT_MIN, TRUTH},
  {"TQP_EXCLUDE_FLOWPATHS_OUTSIDE_TESTIDX", &exclude_flowpaths_outside_testidx, 0, 1, 1, 0, SILENT, {}, INT_MIN, TRUTH},
  {"TQP_TR_RUNNING_STATUS_POLL_INTERVAL", &tsrun_poll_interval, 1, MOST, 1, 10000},
  {"TQP_NEW_RAW_DATA_POLL_INTERVAL", &tqp_new_raw_data_poll_interval, 1, MOST, 1, 500},
  {"TQP_SEQ_BLOB_IN_FILE_MIN_SIZE", &tqp_seq_blob_in_file_min_size, 1, 2000000000, 1, 64, NUMBER, "TQP_SEQ_BLOB_IN_FILE_MIN_SIZE" + two_gb},
  {"TQP_SEQ_BLOB_COMPRESSION_BUFFER_INIT_SIZE", &tqp_seq_blob_compression_buffer_init_size, 1, 2000000000, 1, 1024, NUMBER, "TQP_SEQ_BLOB_COMPRESSION_BUFFER_INIT_SIZE" + two_gb},
  {"TQP_INIT_CONCURRENT_FLOWPATHS", &init_concurrent_flowpaths, 8, 10485760, 1, 64, WORD, "INIT_CONCURRENT_FLOWPATHS allowed range is  between  8 and 10485760, "},
  {"TQP_DELTA_CONCURRENT_FLOWPATHS", &delta_concurrent_flowpaths, 8, 10485760, 1, 16, WORD, "TQP_DELTA_CONCURRENT_FLOWPATHS allowed range is  between  8 and 10485760, "},
  {"TQP_MAX_BUFFERED_META_DATA_BUFSIZE", &max_buffered_meta_data_bufsize, 8, 1048576, KB, 65536, WORD, "MAX_BUFFERED_META_DATA_BUFSIZE" + kilobytes},
  {"TQP_MAX_BUFFERED_BCI_ARG_BUFSIZE", &max_buffered_bci_arg_bufsize, 1, 1024, KB, 8192, WORD, "MAX_BUFFERED_BCI_ARG_BUFSIZE" + kilobytes},
  {"TQP_MAX_BUFFERED_HTTP_HEADER_BUFSIZE", &max_buffered_http_header_bufsize, 1, 1024, KB, 65536, WORD, "MAX_BUFFERED_HTTP_HEADER_BUFSIZE" + kilobytes},
  {"TQP_MAX_BUFFERED_EXCEPTION_DATA_BUFSIZE", &max_buffered_excp_data_bufsize, 1, 1024, KB, 65536, WORD, "MAX_BUFFERED_EXCEPTION_DATA_BUFSIZE" + kilobytes},
  {"TQP_MAX_BUFFERED_HTTP_HEADER_MD_BUFSIZE", &max_buffered_http_header_md_bufsize, 1, 1024, KB, 8192, WORD, "MAX_BUFFERED_HTTP_HEADER_MD_BUFSIZE" + kilobytes},
  {"TQP_MAX_BUFFERED_FLOWPATH_BUFSIZE", &max_buffered_flowpath_bufsize, 8, 1048576, KB, 4194304, WORD, "MAX_BUFFERED_FLOWPATH_BUFSIZE" + kilobytes},
  {"TQP_MAX_BUFFERED_JMS_BUFSIZE", &max_buffered_jms_bufsize, 1, 1024, KB, 32768, WORD, "MAX_BUFFERED_JMS_BUFSIZE" + to_1024k},
  {"TQP_MAX_BUFFERED_MEM_ALLOC_BUFSIZE", &max_buffered_mem_alloc_table, 1, 1024, KB, 16384, WORD, "MAX_BUFFERED_MEM_ALLOC_BUFSIZE" + to_1024k},
  {"TQP_MAX_BUFFERED_SQL_TABLE_BUFSIZE", &max_buffered_sql_table, 32, 1024, KB, 32768, WORD, "MAX_BUFFERED_SQL_TABLE_BUFSIZE allowed range is between 32k and 1024K, "},
  {"TQP_MAX_BUFFERED_SQL_RECORD_TABLE_BUFSIZE", &max_buffered_sql_record_table, 1, 1024, KB, 16384, WORD, "MAX_BUFFERED_SQL_RECORD_TABLE_BUFSIZE_DEFAULT" + to_1024k},
  {"TQP_DEBUG_LOGFILE_ROLLOVER_SIZE", &logfile_rollover_size, 1, 102400, 1, 100, NUMBER, "DEBUG_LOGFILE_ROLLOVER_SIZE allowed range is between  1 (MB)  and 102400 (i.e. 100 GB), "},
  {"TQP_FORCE_UPLOAD_TIMEOUT", &force_upload_timeout, 0, 2592000, 1, 10, NUMBER, "force_upload_timeout allowed range is between  0 (Sec)  and 2592000000 (sec) i.e. 30 Days "},
  {"TQP_SECS_TO_MARK_AN_FP_DEAD", &secs_to_mark_an_fp_dead, 0, 43200, 1, 600, NUMBER, "secs_to_mark_an_fp_dead" + twelve_hours},
  {"TQP_SECS_TO_CLEAN_DEAD_FLOWPATHS", &secs_to_clean_dead_flowpaths, 0, 43200, 1, 60, NUMBER, "secs_to_clean_dead_flowpaths" + twelve_hours},
  {"TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2", &max_entry_exit_records_in_an_fp, 0, 10000000, 1, 1000000, NUMBER, "MAX_ENTRY_EXIT_RECORDS_IN_AN_FP" + ten_million},
  {"TQP_METHOD_TIMING_CSV_FLUSH_INTERVAL_SECS", &method_timing_csv_flush_interval_secs, 0, 10000000, 1, 300, NUMBER, "METHOD_TIMING_CSV_FLUSH_INTERVAL_SECS" + ten_million},
  {"TQP_LOWER_PROCESS_PRIORITY_FLAG", &lower_process_priority_flag, 0, 1, 1, 0, NUMBER, "LOWER_PROCESS_PRIORITY_FLAG" + flag_words},
  {"TQP_DISABLE_DUMPING_CAPTURED_HTTP_BODY", &disable_dumping_captured_http_body, 0, 1, 1, 0, NUMBER, "DISABLE_DUMPING_CAPTURED_HTTP_BODY" + flag_words},
  {"TQP_FORCE_ADD_URC_FOR_WL_FPI_IN_MAPPING_RECORD", &force_add_urc_for_wl_fpi_in_mapping_record, 0, 1, 1, 0, NUMBER, "force_add_urc_for_wl_fpi_in_mapping_record" + flag_words},
  {"TQP_DEBUG_LOGLEVEL", &tqp_debug_loglevel, 0, MOST, 1, 0, BARE, "TQP_DEBUG_LOGLEVEL value is not numeric, set default to 0.", INT_MIN, DIGITS},
  {"TQP_FORCE_ADD_URC_FOR_MISSING_FP_MAPPING_RECORD", &force_add_urc_for_missing_fp_mapping_record, ANY, MOST, 1, 0},
  {"TQP_FREE_FP_MIN_SQB_SIZE", &tqp_free_fp_min_sqb_size, ANY, MOST, 1, 32768, BARE, "TQP_FREE_FP_MIN_SQB_SIZE value is not numeric, setting default to 32768.", INT_MIN, NON_ZERO},
  {"MAX_BUFFERED_SQB_BUFSIZE", &max_buffered_sqb_bufsize, 8, 1048576, KB, 8388608, WORD, "MAX_BUFFERED_SQB_BUFSIZE allowed range is between 8 and 1048576K, ", 8192},
  {"TQP_GENERATE_FP_SIGNATURES", &tqp_generate_fp_signatures, ANY, MOST, 1, 0},
  {"TQP_MIN_RESPTIME_TO_FILTER_L1_FP", &tqp_min_resptime_to_filter_l1_fp, ANY, MOST, 1, 0},
  {"TQP_DUMP_URC", &tqp_dump_urc, ANY, MOST, 1, 0},
  {"TQP_META_DATA_RECOVERY_RETRY_TIMEOUT_IN_SEC", &tqp_meta_data_recovery_retry_timeout_in_sec, 0, 2000000000, 1, 60, NUMBER, "TQP_META_DATA_RECOVERY_RETRY_TIMEOUT_IN_SEC allowed between 0 seconds and 2000000000, "},
  {"TQP_MAX_SUC_META_DATA_REQ_COUNT_PER_PARTITION", &tqp_max_suc_meta_data_req_count_per_partition, ANY, MOST, 1, 100},
  {"TQP_SQL_START_NORM_ID", &tqp_sql_start_norm_id, 0, 2000000000, 1, 0, NUMBER, "TQP_SQL_START_NORM_ID allowed between 0 and 2000000000, "},
  {"TQP_ENABLE_SQL_TIMING", &tqp_enable_sql_timing, 0, 1, 1, 1, NUMBER, "TQP_ENABLE_SQL_TIMING" + zero_and_one},
  {"TQP_ENABLE_SQL_RECORD", &tqp_enable_sql_record, 0, 1, 1, 0, NUMBER, "TQP_ENABLE_SQL_RECORD" + zero_and_one},
  {"TQP_MAX_BEGIN_SEQ_LEN", &tqp_max_begin_seq_len, 0, MOST, 1, 8912, BARE, "ERROR: TQP_MAX_BEGIN_SEQ_LEN is not numeric, set default value 8912", INT_MIN, DIGITS},
  {"TQP_MAX_SQL_INDEX_FROM_BCI", &tqp_max_sql_index_from_bci, 0, 2000000000, 1, 4096, NUMBER, "TQP_MAX_SQL_INDEX_FROM_BCI allowed "},
  {"TQP_ENABLE_BCIARG", &tqp_enable_bciarg, 0, 1, 1, 1, NUMBER, "TQP_ENABLE_BCIARG" + zero_and_one},
  {"TQP_ENABLE_METADATA_RECOVERY", &tqp_enable_metadata_recovery, 0, 1, 1, 1, NUMBER, "TQP_ENABLE_METADATA_RECOVERY" + zero_and_one},
  {"TQP_ALLOW_REQ_DETAIL_BEFORE_SQB_BEGIN_REC", &tqp_allow_req_detail_before_sqb_begin_rec, 0, 1, 1, 1, NUMBER, "TQP_ALLOW_REQ_DETAIL_BEFORE_SQB_BEGIN_REC" + zero_and_one},
  {"TQP_FREE_FP_MEM_ON_COMPLETION", &tqp_free_fp_mem_on_completion, 0, 1, 1, 1, WORD, "TQP_FREE_FP_MEM_ON_COMPLETION allowed values are 0 and 1 ", 0},
  {"TQP_BINARY_FORMAT_FOR_METHOD_TIMING", &tqp_binary_format_for_method_timing, 0, 1, 1, 1, NUMBER, "TQP_BINARY_FORMAT_FOR_METHOD_TIMING" + zero_and_one},
  {"ENABLE_FP_STAT_MONITOR", &enable_fp_stat_mon, 0, 1, 1, 0, NUMBER, "enable_fp_stat_mon allowedbetween 0 and 1, "},
  {"TQP_ENABLE_SQL_METADATA_RECOVERY", &tqp_enable_sql_metadata_recovery, 0, 1, 1, 1},
  {"TQP_THRESHOLD_DIFF_BET_FP_AND_ENTRY_MTD_RESPTIME_SEC", &tqp_threshold_diff_bet_fp_and_entry_mtd_resptime, 1, MOST, 1, 900},
  {"TQP_NUM_NONPREP_SQL_LOAD_AT_INIT", &tqp_num_nonprep_sql_load_at_init, -1, MOST, 1, 2500, WORD, "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT allowed ALL or some insigned integer value"},
  {"TQP_SQL_NONPREP_ROLLOVER_SIZE_MB", &tqp_sql_nonprep_rollover_size_mb, 0, MOST, 1, 100},
  {"DEFAULT_TQP_ERRLOG_THROTTLE_INTERVAL_SEC", &tqp_errlog_throttle_interval, 11, 86400, 1, 300},
  {"DEFAULT_TQP_APPEND_PARENT_FPI_TO_CORRID", &tqp_append_parent_fpi_to_corrid, 0, 1, 1, 0},
  {"TQP_MAX_FP_SEGMENTS_COUNT", &tqp_max_fp_segments_count, 1, MOST, 1, 50000},
  {"TQP_SECS_TO_HOLD_FP_FOR_PENDING_ASYNC_RESP", &secs_to_hold_fp_for_pending_async_resp, 1, 60, 1, 60, BARE, async_words},
  {"TQP_SEC_TO_CHECK_PENDING_ASYNC_RESP_FP", &sec_to_check_pending_async_resp_fp, 1, 60, 1, 60, BARE, async_words},
  {"TQP_MAX_CALLOUT_LEN_ALLOWED_IN_KB", &tqp_max_callout_len_allowed_in_kb, ANY, MOST, 1, 512},
  {"TQP_ADD_PID_TO_CGROUPS", &tqp_add_pid_to_cgroups, 0, 1, 1, 1},
  {"TQP_COPY_RECOVERY_FILES_IN_PARTITIONS", &tqp_copy_recovery_files, 0, 1, 1, 0},
  {"TQP_PRINT_SUMMARY_REPORT", &tqp_print_summary_report, 0, 1, 1, 0},
};

// clang-format on

bool only_digits(const std::string &word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
}

int number_of(const std::string &word) {
  return static_cast<int>(std::clamp<int64_t>(strtoll(word.c_str(), nullptr, 10), INT_MIN, INT_MAX));
}

bool accepts(const told_row &row, const std::string &word) {
  const int number = number_of(word);
  switch (row.accepts) {
  case TRUTH:
    return true;
  case NON_ZERO:
    return number != 0;
  case DIGITS:
    return only_digits(word);
  case RANGE:
    break;
  }
  return row.min <= number && number <= row.max;
}

int value_after(const told_row &row, const std::string &word) {
  const int number = number_of(word);
  if (!accepts(row, word))
    return row.def;
  return row.accepts == TRUTH ? number != 0 : static_cast<int>(number * row.unit);
}

bool may_hold(const told_row &row, int value) {
  return value == row.def || (value % row.unit == 0 && row.min <= value / row.unit && value / row.unit <= row.max);
}

struct trace_line {
  std::string severity, text;
  bool operator==(const trace_line &) const = default;
};

std::ostream &operator<<(std::ostream &out, const trace_line &line) {
  return out << line.severity << "|" << line.text;
}

using trace_lines = std::vector<trace_line>;

class keyword_file : public ::testing::Test {
protected:
  void SetUp() override {
    char made[] = "/tmp/keyword_file_XXXXXX";
    ASSERT_TRUE(mkdtemp(made));
    dir = made;
    path = dir + "/TQKeywords.conf";
    wllb_trace_partition = 0;
    trkey = wllb_init_mt_trace_log_ex(dir.c_str(), 0, "trace.log", 4, 100);
    ASSERT_TRUE(trkey);
    tqp_keywords_init();
  }

  void TearDown() override {
    if (trkey)
      wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
    tqp_keywords_init();
    std::filesystem::remove_all(dir);
  }

  // The result of reading a file with this content; its trace lines are found in lines().
  int read(std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
    std::error_code none;
    std::filesystem::resize_file(dir + "/trace.log", 0, none);
    return read_config_file_and_parse_tq_keywords(path.c_str(), &err_msg);
  }

  int read_anew(std::string_view content) {
    tqp_keywords_init();
    return read(content);
  }

  // Severity and message of each trace line. A message's own closing newline is not told apart from none.
  trace_lines lines() const {
    std::ifstream file(dir + "/trace.log", std::ios::binary);
    trace_lines found;
    for (std::string line; std::getline(file, line);)
      if (!line.empty() && line[0] != '#')
        found.push_back(cut(line));
    return found;
  }

  std::string complaint(const told_row &row, const std::string &word) const {
    if (row.says == BARE)
      return row.text;
    const std::string given = row.says == WORD ? word : std::to_string(number_of(word));
    const std::string shown = std::to_string(row.shown == INT_MIN ? row.def : row.shown);
    return front() + row.text + "read value = " + given + ", setting default value = " + shown;
  }

  std::string front() const { return "ERROR: reading configuration file " + path + ". "; }

  std::string dir, path, err_msg;

private:
  static trace_line cut(const std::string &line) {
    size_t field = 0, severity = 0;
    for (int i = 0; i < 6; ++i) {
      severity = field;
      field = line.find('|', field) + 1;
    }
    return {line.substr(severity, field - severity - 1), line.substr(field)};
  }
};

std::vector<std::string> words_to_try(const told_row &row) {
  std::vector<std::string> words = {
      "x", "0", "2", "7abc", "+9", "-0", "%d%s%n", "99999999999999999999", "-99999999999999999999", "4294967297"};
  for (const int64_t edge : {row.min, row.max})
    for (const int64_t step : {-1, 0, 1})
      words.push_back(std::to_string(edge + step));
  return words;
}
} // namespace

TEST_F(keyword_file, plain_keywords_take_their_range_and_nothing_else) {
  for (const told_row &row : told) {
    for (const std::string &word : words_to_try(row)) {
      SCOPED_TRACE(row.keyword + (" " + word));
      // The value before is one that only a change can explain.
      tqp_keywords_init();
      *row.value = -77;
      ASSERT_EQ(0, read(row.keyword + (" " + word) + "\n"));
      EXPECT_EQ(value_after(row, word), *row.value);
      const bool complains = !accepts(row, word) && row.says != SILENT;
      EXPECT_EQ(complains ? trace_lines({{"Error", complaint(row, word)}}) : trace_lines(), lines());
    }
    for (const told_row &other : told)
      EXPECT_TRUE(&other == &row || *other.value == other.def) << row.keyword << " changed " << other.keyword;
  }
}

TEST_F(keyword_file, a_keyword_alone_is_reported_and_changes_nothing) {
  std::vector<std::string> keywords = {"TQ_FPI_MASK", "TQ_CSV_FILE_PATH", "TQP_MONITORS",
                                       "TQ_ENABLE_CAPTURE_DB_TIMING"};
  for (const told_row &row : told)
    keywords.push_back(row.keyword);
  for (const std::string &keyword : keywords) {
    ASSERT_EQ(0, read_anew(keyword + " \t\r\n"));
    EXPECT_EQ(trace_lines({{"Error", "error keyword = " + keyword + ",  text1 = "}}), lines());
  }
  for (const told_row &row : told)
    EXPECT_EQ(row.def, *row.value) << row.keyword;
  wllb_change_atb_mt_trace_log_core(trkey, 1, 0);
  read("TQP_TRACE_LEVEL\n");
  EXPECT_EQ(trace_lines(), lines()) << "level 2";
}

TEST_F(keyword_file, lines_and_words) {
  // The last of each of these sets TQP_DUMP_URC to 7, or leaves 0.
  const std::string piece(131070, 'x');
  const std::pair<std::string, int> files[] = {
      {"TQP_DUMP_URC 7", 7},
      {" \t TQP_DUMP_URC\t \v7\r\n", 7},
      {"TQP_DUMP_URC 5\nTQP_DUMP_URC 7 # later wins\n", 7},
      {"\n#\n# TQP_DUMP_URC 1\n\r\nUNKNOWN_KEYWORD 9\nTQP_DUMP_URC 7\n", 7},
      {"#TQP_DUMP_URC 7\n", 0},
      {"  #TQP_DUMP_URC 7\n", 0},
      {"\r TQP_DUMP_URC 7\n", 0},
      {"tqp_dump_urc 7\n", 0},
      {"TQP_DUMP_URCX 7\nTQP_DUMP_UR 7\n", 0},
      {"TQP_DUMP_URC x 7\n", 0},
      {std::string("TQP_DUMP_URC\0 7\n", 16), 0},
      {std::string("\0\n\0TQP_DUMP_URC 1\nTQP_DUMP_URC 7\0 1\n", 36), 7},
      {"#" + piece + "TQP_DUMP_URC 7\n", 7},  // the line is read in two pieces
      {"#" + piece + "yTQP_DUMP_URC 7\n", 0}, // one byte more, and the second is no keyword
      {"TQP_DUMP_URC 7" + std::string(300000, ' ') + "9\n", 7},
  };
  for (const auto &[content, expected] : files) {
    SCOPED_TRACE(content.substr(0, 60));
    EXPECT_EQ(0, read_anew(content));
    EXPECT_EQ(expected, tqp_dump_urc);
  }
}

TEST_F(keyword_file, only_a_regular_file_is_opened) {
  const std::string fifo = dir + "/fifo", absent = dir + "/none/at/all";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (const std::string &bad : {fifo, absent, dir, std::string("/dev/null")}) {
    err_msg.clear();
    EXPECT_EQ(-1, read_config_file_and_parse_tq_keywords(bad.c_str(), &err_msg));
    EXPECT_EQ("Error in opening file " + bad + "\n", err_msg);
  }
  EXPECT_EQ(0, read(""));
}

// --- flowpath number ----------------------------------------------------------------------------------------

namespace {
using layout = std::vector<uint64_t>; // start and bits of each field from the top down, then the masks

layout current_layout() {
  layout found;
  for (const int *value :
       {&tqe_id_starting_bit_location, &tqe_id_no_of_bits, &tqe_app_id_starting_bit_location, &tqe_app_id_no_of_bits,
        &tqe_ts_starting_bit_location, &tqe_ts_no_of_bits, &tqe_seqno_starting_bit_location, &tqe_seqno_of_bits})
    found.push_back(static_cast<uint64_t>(*value));
  found.insert(found.end(), {tqe_id_mask_num, tqe_app_id_mask_num, tqe_ts_mask_num, tqe_seqno_mask_num});
  return found;
}

const layout default_layout = {56, 4, 46, 10, 8, 38, 0, 8, 15, 1023, 274877906943, 255};
} // namespace

TEST_F(keyword_file, a_good_fpi_layout_sets_bits_and_masks) {
  const std::string nothing(18, ';');
  const std::pair<std::string, layout> good[] = {
      {"TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;", default_layout},
      {"SeqNo:0:8:junk;TS:8:38;AppID:46:10;TQEID:56:4", default_layout},
      {"TQEIDx:57:5;;Other:1:1;AppIDx:47:9;TSx:10:37;SeqNox:1:9;",
       {57, 5, 47, 9, 10, 37, 1, 9, 31, 511, (1ULL << 37) - 1, 511}},
      {"TQEID:62:0;AppID:62:0;TS:62:0;SeqNo:0:62", {62, 0, 62, 0, 62, 0, 0, 62, 0, 0, 0, (1ULL << 62) - 1}},
      {nothing + "TQEID:0:62;AppID:0:0;TS:0:0;SeqNo:0:0", {0, 62, 0, 0, 0, 0, 0, 0, (1ULL << 62) - 1, 0, 0, 0}},
  };
  EXPECT_EQ(default_layout, current_layout());
  for (const auto &[value, expected] : good) {
    SCOPED_TRACE(value);
    EXPECT_EQ(0, read_anew("TQ_FPI_MASK " + value + "\nTQP_DUMP_URC 3\n"));
    EXPECT_EQ(expected, current_layout());
    EXPECT_EQ(3, tqp_dump_urc);
  }
}

TEST_F(keyword_file, a_bad_fpi_layout_ends_the_parsing) {
  // clang-format off
  const std::string seqno_sum = "Sum of Starting bit location in SeqNo + Num bits in SeqNo <= TIMESTAMP(TS) starting bit locaton.";
  const std::string ts_sum = "Sum of Starting bit location in TS + Num bits in TS <= AppID starting bit location.";
  const std::string app_sum = "Sum of Starting bit location in AppID + Num bits in AppID <= TQEID starting bit locaton.";
  // clang-format on
  const std::string tqeid_sum = "Sum of Starting bit location in TQEID + Num bits in TQEID <= 62.";
  const std::string rest = ";AppID:46:10;TS:8:38;SeqNo:0:8;";
  std::string late = "TQEID:56:4;AppID:46:10;TS:8:38;";
  for (int i = 0; i < 17; ++i)
    late += "Other:1:1;";
  const std::pair<std::string, std::string> bad[] = {
      {"x", "Invalid Values"},
      {"TQEID:56" + rest, "Invalid Values"},
      {"TQEID:56:4;TQEID:56:4;TS", "Invalid Values"}, // before the double name
      {"TQEID:56:4;TQEID:56:4" + rest, "The value of TQEID is passed Two Times in Keyword."},
      {"TS:8:38;AppID:1:1;AppIDs:-1:-1;TSO:8:38;", "The value of AppID is passed Two Times in Keyword."},
      {"TS:8:38;TSO:8:38;", "The value of TS is passed Two Times in Keyword."},
      {"SeqNo:-1:8;SeqNo:0:8;", "The value of SeqNo is passed Two Times in Keyword."},
      {";", "The value of TQEID is not passed in Keyword."},
      {"tqeid:56:4" + rest, "The value of TQEID is not passed in Keyword."},
      {"TQEID:-56:4;TS:8:38;", "The value of AppID is not passed in Keyword."},
      {"TQEID:56:4;AppID:46:10;", "The value of TS is not passed in Keyword."},
      {"TQEID:56:4;AppID:46:10;TS:8:38", "The value of SeqNo is not passed in Keyword."},
      {late + "SeqNo:0:8", "The value of SeqNo is not passed in Keyword."}, // behind the twentieth token
      {"TQEID:-1:99999999999999" + rest, "No Value can be negative."},
      {"TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:-9999999999;", "No Value can be negative."},
      {"TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:9;", seqno_sum},
      {"TQEID:1:99;AppID:46:99;TS:8:99;SeqNo:2147483647:2147483647;", seqno_sum},
      {"TQEID:56:4;AppID:46:10;TS:8:39;SeqNo:0:8;", ts_sum},
      {"TQEID:1:99;AppID:46:99;TS:2147483647:99999999999;SeqNo:0:8;", ts_sum},
      {"TQEID:56:4;AppID:46:11;TS:8:38;SeqNo:0:8;", app_sum},
      {"TQEID:56:999999999999;AppID:56:64;TS:8:38;SeqNo:0:8;", app_sum},
      {"TQEID:58:5" + rest, tqeid_sum},
      {"TQEID:99999999999:99999999999" + rest, tqeid_sum},
      {"TQEID:2147483647:0;AppID:200:64;TS:136:64;SeqNo:0:64;", tqeid_sum},
  };
  for (const auto &[value, reason] : bad) {
    SCOPED_TRACE(value);
    EXPECT_EQ(-1, read_anew("TQ_FPI_MASK " + value + "\nTQP_DUMP_URC 3\n"));
    EXPECT_EQ("Invaild Format in TQ_FPI_MASK Keyword. " + reason +
                  " Example <TQ_FPI_MASK TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;>",
              err_msg);
    EXPECT_EQ(default_layout, current_layout());
    EXPECT_EQ(0, tqp_dump_urc) << "lines behind it are not read";
  }
}

// --- odd keywords -------------------------------------------------------------------------------------------

TEST_F(keyword_file, keywords_with_several_numbers) {
  // clang-format off
  const std::vector<int *> blob = {&tqp_seq_blob_in_file_flag, &tqp_seq_blob_in_file_version, &tqp_seq_blob_in_file_rollover_size},
      upload = {&tqdbu_rd_inst_count, &tqdbu_rd_inst_skip_sleep},
      timing = {&tqp_enable_jdbc_call, &tqp_enable_redix_call, &tqp_enable_mongodb_call, &tqp_enable_casscendra_call, &tqp_enable_neo4j_call,
                &tqp_enable_cloundant_call, &tqp_enable_bigtable_call, &tqp_enable_bigquery_call, &tqp_enable_ftp_call, &tqp_enable_dynamo_call},
      pool = {&tqp_mempool_config_mode, &tqp_num_tqp_instances_init, &tqp_num_tqp_instances_delta},
      monitors = {&tqp_enable_auto_mon_reg, &tqp_enable_auto_mon_instance_reg}, large = {&tqp_mon_large_flowpath_method_count},
      ring = {&max_fi_array_entries}, load = {&tqp_num_nonprep_sql_load_at_init}, similarity = {&tqp_enable_string_similarity_for_sql};


  const struct {
    const std::vector<int *> &values;
    std::string content;
    std::vector<int> expected;
  } cases[] = {
      {blob, "", {1, 'B', 10000}}, {blob, "TQP_SEQ_BLOB_IN_FILE_FLAG 0 A 77", {0, 'A', 77}},
      {blob, "TQP_SEQ_BLOB_IN_FILE_FLAG 0 C", {0, 'C', 10000}},
      {blob, "TQP_SEQ_BLOB_IN_FILE_FLAG 1", {1, 'B', 10000}},
      {blob, "TQP_SEQ_BLOB_IN_FILE_FLAG 0 A 9\nTQP_SEQ_BLOB_IN_FILE_FLAG 2 D 0", {1, 'B', 10000}},
      {upload, "", {0, 5}}, {upload, "TQDBU_RD_INST_COUNT_AND_SKIP -3 8", {-3, 8}},
      {upload, "TQDBU_RD_INST_COUNT_AND_SKIP 3", {3, 0}}, {timing, "", {1, 1, 1, 1, 1, 1, 0, 0, 0, 0}},
      {timing, "TQ_ENABLE_CAPTURE_DB_TIMING 1 0", {1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {timing, "TQ_ENABLE_CAPTURE_DB_TIMING 0 1 0 1 0 1 0 1 0 1 7", {0, 1, 0, 1, 0, 1, 0, 1, 0, 1}},
      {timing, "TQ_ENABLE_CAPTURE_DB_TIMING 1 2 3 4 5 6 7 8 9 10", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
      {pool, "", {0, 64, 64}}, {pool, "TQP_MEMPOOL_SETTINGS 0 5 6", {0, 64, 64}},
      {pool, "TQP_MEMPOOL_SETTINGS 1 5 6", {1, 5, 6}}, {pool, "TQP_MEMPOOL_SETTINGS -1 1", {-1, 1, 64}},
      {pool, "TQP_MEMPOOL_SETTINGS 1 5 6\nTQP_MEMPOOL_SETTINGS 2 0 7x", {2, 64, 64}}, {monitors, "", {1, 0}},
      {monitors, "TQP_MONITORS 0 1", {0, 1}}, {monitors, "TQP_MONITORS 0", {0, 0}},
      {monitors, "TQP_MONITORS 0 1\nTQP_MONITORS -1 +1", {0, 1}}, {large, "", {10000}},
      {large, "TQP_MON_LARGE_FLOWPATH_METHOD_COUNT 0", {0}},
      {large, "TQP_MON_LARGE_FLOWPATH_METHOD_COUNT 5\nTQP_MON_LARGE_FLOWPATH_METHOD_COUNT -5", {5}},
      {ring, "", {512}}, {ring, "TQP_MAX_CONCURRENT_THREADS_IN_JVM 3", {3}},
      {ring, "TQP_MAX_CONCURRENT_THREADS_IN_JVM -3", {0}}, {load, "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT all", {-1}},
      {load, "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT aLLes", {-1}}, {load, "TQP_NUM_NONPREP_SQL_LOAD_AT_INIT AL", {0}},
      {similarity, "TQP_SQL_QUERY_SIMILARITY_PERCENTAGE 1 5", {1}},
      {similarity, "TQP_SQL_QUERY_SIMILARITY_PERCENTAGE 2 5", {0}},
  };

  // clang-format on

  for (const auto &each : cases) {
    SCOPED_TRACE(each.content);
    EXPECT_EQ(0, read_anew(each.content));
    std::vector<int> found;
    for (const int *value : each.values)
      found.push_back(*value);
    EXPECT_EQ(each.expected, found);
  }
}

TEST_F(keyword_file, odd_keywords_trace_their_own_words) {
  const std::string blob = front() + "TQP_SEQ_BLOB_IN_FILE_FLAG allowed";
  // clang-format off
  const std::string interval = "interval_to_dump_sql_timing_data allowed range is between  30 (Sec)  and  86400(sec)setting default value = 120";
  const std::pair<std::string, trace_lines> cases[] = {
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 2 bad -5",
       {{"Error", blob + "values are 0 or 1, read value = 2, setting default value = 1"},
        {"Error", blob + " values for version (second) field are A, B or C, read value = b, setting default value = B"},
        {"Error", blob + " values for file rollover size (third) field are between 1 (MB) and 2000000000 MB (=2 TB) read value = -5, setting default value = 10000"}}},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 1 C 1", {}},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 29", {{"Error", interval}}},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 86401", {{"Error", interval}}},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA -1", {{"Error", interval}}},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 30", {}},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 0",
       {{"Info", "'interval_to_dump_sql_timing_data' value is zero. SQL Timing data is dumped into TQSQLTiming.csv after completion of flowpath"}}},
      {"TQ_RAWDATA_FILE_PATH /a", {{"Error", "ERROR: TQC_TMP_PATH keyword has been discontinued. We can use it BY MULTIDISK_PATH tqprocesseddata Keyword in scenario"}}},
      {"TQ_CSV_FILE_PATH /a", {{"Error", "ERROR: TQP_TMP_PATH keyword has been discontinued. We can use it BY MULTIDISK_PATH raw_data Keyword in scenario"}}},
      {"TQP_RAW_DATA_BUF_SIZE 1024", {}},
  };
  // clang-format on
  for (const auto &[content, expected] : cases) {
    SCOPED_TRACE(content);
    EXPECT_EQ(0, read_anew(content));
    EXPECT_EQ(expected, lines());
  }
  const std::string gone =
      "TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX is not supported now. Use TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2";
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, read_anew("TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX 5"));
  EXPECT_EQ(gone + "\n", testing::internal::GetCapturedStderr());
  EXPECT_EQ(trace_lines({{"Error", gone}}), lines());
  EXPECT_EQ(1000000, max_entry_exit_records_in_an_fp);
}

TEST_F(keyword_file, intervals_and_percentages) {
  const std::pair<std::string, int> intervals[] = {{"0", 0},         {"x", 0},       {"1", 120}, {"30", 30},
                                                   {"86400", 86400}, {"86401", 120}, {"-1", 120}};
  for (const auto &[word, expected] : intervals) {
    read("TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA " + word);
    EXPECT_EQ(expected, interval_to_dump_sql_timing_data) << word;
  }
  const std::pair<std::string, double> percentages[] = {
      {"0 12.5", 12.5}, {"0 0", 0}, {"1 100", 100}, {"1 100.1", 90}, {"1 -0.5", 90}, {"1 nan", 90}, {"1 1e999", 90}};
  for (const auto &[words, expected] : percentages) {
    read("TQP_SQL_QUERY_SIMILARITY_PERCENTAGE " + words);
    EXPECT_EQ(expected, tqp_sql_query_similarity_percentage) << words;
  }
}

TEST_F(keyword_file, periods_of_discovery) {
  // clang-format off
  const std::pair<std::string, long> periods[] = {
      {"10", 300}, {"2m", 300}, {"1h", 3600}, {"5x", 1800}, {"0", 0}, {"300", 300}, {"301", 301}, {"301s", 301},
      {"6M", 360}, {"2H", 7200}, {"0s", 1800}, {"-3m", 1800}, {"x", 1800}, {"1S", 300}, {"-3", -3}, {"5 h", 300},
      {"7mins", 420}, {"1.5h", 1800}, {"99999999999999999999h", INT64_MAX / 1000}, {"99999999999999999999", INT64_MAX / 1000},
  };
  // clang-format on
  EXPECT_EQ(1800, tqp_periodic_scandir_time);
  for (const auto &[word, expected] : periods) {
    SCOPED_TRACE(word);
    tqp_periodic_scandir_time = -77;
    read("TQP_PERIODIC_SCANDIR_TIME " + word);
    EXPECT_EQ(expected, tqp_periodic_scandir_time);
    const trace_line refused = {
        "Error", "TQP_PERIODIC_SCANDIR_TIME keyword's value is not proper format, set default to 1800 sec"};
    const trace_line taken = {"Info", "Setting TQP_PERIODIC_SCANDIR_TIME keyword's value to " +
                                          std::to_string(expected) + " sec"};
    EXPECT_EQ(trace_lines({expected == 1800 ? refused : taken}), lines());
  }
  read("TQP_PERIODIC_SCANDIR_TIME 1800");
  EXPECT_EQ(trace_lines({{"Info", "Setting TQP_PERIODIC_SCANDIR_TIME keyword's value to 1800 sec"}}), lines());
}

TEST_F(keyword_file, times_with_units) {
  const std::pair<const char *, int64_t> times[] = {
      {"1s", 1000},    {"10S", 10000}, {"5m", 300000}, {"5M", 300000}, {"2h", 7200000},
      {"2H", 7200000}, {"1", -1},      {"1d", -1},     {"", -1},       {"s", -1},
      {"0s", -1},      {"-1h", -1},    {"1 s", -1},    {"3sec", 3000}, {"9223372036854775807h", INT64_MAX}};
  for (const auto &[text, expected] : times)
    EXPECT_EQ(expected, check_time_in_min_sec_or_hr(text)) << text;
}

TEST_F(keyword_file, delay_of_the_cleanup) {
  // clang-format off
  const std::pair<std::string, std::string> delays[] = {
      {"12", "12 hour"}, {"0", "3 days"}, {"5m", "5 min"}, {"5M", "5 min"}, {"6h", "6 hour"}, {"6H", "6 hour"},
      {"2d", "2 days"}, {"2D", "2 days"}, {"0d", "0 days"}, {"5x", "3 days"}, {"x", "3 days"}, {"m", "3 days"},
      {"5;id", "3 days"}, {"99999999999d", "2147483647 days"},
  };
  // clang-format on
  for (const auto &[word, expected] : delays) {
    read_anew("TQP_DELETED_INSTANCE_CLEANUP_DELAY " + word);
    EXPECT_EQ(expected, deleted_instance_cleanup_delay) << word;
  }
}

TEST_F(keyword_file, text_for_unknown_queries) {
  const std::string keyword = "TQP_MAP_UNKNOWN_SQL_QUERY_TO_CUSTOM_QUERY_STR";
  EXPECT_EQ(nullptr, dummy_query);
  read(keyword + " first\n \t" + keyword + " \t select  *  from\tt \r\n");
  EXPECT_STREQ("select  *  from\tt \r\n", dummy_query);
  read(keyword + " no line end");
  EXPECT_STREQ("no line end", dummy_query);
  read(keyword + " \n");
  EXPECT_STREQ("no line end", dummy_query) << "a keyword alone is passed over";
  tqp_keywords_init();
  EXPECT_EQ(nullptr, dummy_query);
}

TEST_F(keyword_file, values_put_back_after_parsing) {
  // clang-format off
  const std::vector<std::pair<int *, int>> fixed = {
      {&init_concurrent_flowpaths, 64}, {&delta_concurrent_flowpaths, 16}, {&max_buffered_meta_data_bufsize, 65536},
      {&max_buffered_bci_arg_bufsize, 8192}, {&max_buffered_flowpath_bufsize, 4194304}, {&max_buffered_mem_alloc_table, 16384},
      {&max_buffered_sql_table, 32768}, {&max_buffered_sql_record_table, 16384}, {&logfile_rollover_size, 100},
      {&force_upload_timeout, 10}, {&omit_non_wl_flowpaths, 0}, {&exclude_flowpaths_outside_testidx, 0},
  };
  // clang-format on
  for (const told_row &row : told)
    *row.value = -77;
  tqp_fix_reset_keywords();
  for (const told_row &row : told) {
    const auto found =
        std::find_if(fixed.begin(), fixed.end(), [&](const auto &each) { return each.first == row.value; });
    EXPECT_EQ(found == fixed.end() ? -77 : found->second, *row.value) << row.keyword;
  }
  tqp_enable_auto_mon_reg = -77;
  tqc_reset_kw_values();
  EXPECT_EQ(1, tq_trace_level);
  EXPECT_EQ(-77, tqp_enable_auto_mon_reg);
}

// --- nonsense -----------------------------------------------------------------------------------------------

namespace {
std::string nonsense_word(std::mt19937 &random) {
  // clang-format off
  static const std::vector<std::string> nasty = {
      "0", "1", "-1", "2147483648", "-99999999999999999999", "%s%n", "nan", "ALL", "9223372036854775807h", "5m", "1e308",
      "\xff\xfe", "TQEID:62:0;AppID:62:0;TS:62:0;SeqNo:0:62", "TQEID:0:9999999999;;::",
  };
  // clang-format on
  if (random() % 3 != 0)
    return nasty[random() % nasty.size()];
  std::string bytes;
  for (size_t left = random() % 40; left > 0; --left)
    bytes += static_cast<char>(random());
  return bytes;
}

std::string nonsense_file(std::mt19937 &random) {
  // clang-format off
  static const std::vector<std::string> odd = {
      "TQ_FPI_MASK", "TQP_SEQ_BLOB_IN_FILE_FLAG", "TQP_PERIODIC_SCANDIR_TIME", "TQP_MEMPOOL_SETTINGS", "TQP_DELETED_INSTANCE_CLEANUP_DELAY",
      "TQP_MAP_UNKNOWN_SQL_QUERY_TO_CUSTOM_QUERY_STR", "TQP_SQL_QUERY_SIMILARITY_PERCENTAGE", "TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA",
  };
  // clang-format on
  std::string content;
  for (size_t line = random() % 60; line > 0; --line) {
    const size_t which = random() % (told.size() + 2 * odd.size());
    content += which < told.size() ? told[which].keyword : odd[which % odd.size()];
    for (size_t words = random() % 14; words > 0; --words)
      content += " \t\v"[random() % 3] + nonsense_word(random);
    content += random() % 8 ? '\n' : static_cast<char>(random());
  }
  return content;
}
} // namespace

TEST_F(keyword_file, nonsense_leaves_values_that_hold) {
  std::mt19937 random(20240607);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    read_anew(nonsense_file(random));
    for (const told_row &row : told)
      EXPECT_TRUE(may_hold(row, *row.value)) << row.keyword << " " << *row.value;
    EXPECT_TRUE(tqp_seq_blob_in_file_flag == 0 || tqp_seq_blob_in_file_flag == 1);
    EXPECT_TRUE(tqp_seq_blob_in_file_version >= 'A' && tqp_seq_blob_in_file_version <= 'C');
    EXPECT_GE(tqp_seq_blob_in_file_rollover_size, 1);
    EXPECT_TRUE(tqp_num_tqp_instances_init >= 1 && tqp_num_tqp_instances_delta >= 1);
    EXPECT_TRUE(tqp_sql_query_similarity_percentage >= 0 && tqp_sql_query_similarity_percentage <= 100);
    EXPECT_LT(strlen(deleted_instance_cleanup_delay), sizeof deleted_instance_cleanup_delay);
    EXPECT_EQ(0U, (tqe_seqno_mask_num << tqe_seqno_starting_bit_location) &
                      (tqe_ts_mask_num << tqe_ts_starting_bit_location));
    EXPECT_EQ(0U, (tqe_id_mask_num << tqe_id_starting_bit_location) >> 62U);
  }
}
