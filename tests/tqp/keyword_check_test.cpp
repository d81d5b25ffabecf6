// What the check of a keyword file says, beside what the parser makes of the same file.
#include "keyword_check.h"
#include "keyword_rows.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdlib.h>

namespace {
class keyword_check : public ::testing::Test {
protected:
  keyword_check() {
    char made[] = "/tmp/keyword_check_XXXXXX";
    close(mkstemp(made));
    path = made;
    tqp_keywords_init();
  }

  ~keyword_check() override {
    tqp_keywords_init();
    unlink(path.c_str());
  }

  // The findings as "LINE KEYWORD WHAT".
  std::vector<std::string> findings(const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
    std::vector<std::string> texts;
    for (const kw_finding &f : kw_check_file(path.c_str()).list)
      texts.push_back(std::to_string(f.line) + " " + f.keyword + " " + f.what);
    return texts;
  }

  int value_after_parsing(const kw_row &row, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
    tqp_keywords_init();
    std::string err_msg;
    EXPECT_EQ(0, read_config_file_and_parse_tq_keywords(path.c_str(), &err_msg));
    return *row.value;
  }

  std::string path;
};

// The number before " is used" or " is read"; the word itself when there is no finding.
long number_told(const std::vector<std::string> &findings, const std::string &word) {
  if (findings.empty())
    return strtol(word.c_str(), nullptr, 10);
  const std::string &text = findings[0];
  const size_t end = text.rfind(" is ");
  return strtol(text.c_str() + text.rfind(' ', end - 1), nullptr, 10);
}
} // namespace

TEST_F(keyword_check, says_which_value_the_parser_takes) {
  int compared = 0;
  for (const kw_row &row : kw_rows) {
    if (row.own || row.rule == KW_TRUTH || row.unused || (row.fixed && !row.read_before_fixing))
      continue;
    const auto at = [](int64_t n) { return std::to_string(n); };
    for (const std::string &word : {at(int64_t{row.min} - 1), at(row.min), at(row.max), at(int64_t{row.max} + 1),
                                    std::string("x"), std::string("5x"), std::string("0"), std::string("-1")}) {
      SCOPED_TRACE(std::string(row.keyword) + " " + word);
      const std::string line = std::string(row.keyword) + " " + word + "\n";
      const int64_t told = int64_t{number_told(findings(line), word)} * row.unit;
      EXPECT_EQ(value_after_parsing(row, line), static_cast<int>(told));
      ++compared;
    }
  }
  EXPECT_GT(compared, 300);
}

TEST_F(keyword_check, finds_what_is_wrong_and_says_where) {
  EXPECT_EQ(
      (std::vector<std::string>{
          "1 TQP_TRACE_LEVEl is not a keyword; the nearest is TQP_TRACE_LEVEL",
          "2 trace_level is not a keyword",
          "6 TQP_DUMP_URC has no value and is passed over",
          "7 TQP_DUMP_URC has no value",
          "9 TQP_DUMP_URC was set in line 8; this line holds",
          "10 TQP_FORCE_UPLOAD_TIMEOUT has no effect: 10 is always used",
          "11 TQP_DEBUG_LOGLEVEL has no effect: nothing uses it any more",
          "12 ?[31mRED is not a keyword",
      }),
      findings(
          "TQP_TRACE_LEVEl 2\ntrace_level 2\n# TQP_NO 1\n\n \t \nTQP_DUMP_URC\nTQP_DUMP_URC # later\n"
          "TQP_DUMP_URC 1 # on\n\tTQP_DUMP_URC 1\nTQP_FORCE_UPLOAD_TIMEOUT 5\nTQP_DEBUG_LOGLEVEL 3\n"
          "\033[31mRED 1\nTQP_DEBUG_LOGFILE_ROLLOVER_SIZE 5\nTQP_MAP_UNKNOWN_SQL_QUERY_TO_CUSTOM_QUERY_STR a b\n"));
}

TEST_F(keyword_check, odd_keywords_have_their_own_rules) {
  const std::pair<const char *, const char *> cases[] = {
      {"TQP_PERIODIC_SCANDIR_TIME 0", ""},
      {"TQP_PERIODIC_SCANDIR_TIME 300", ""},
      {"TQP_PERIODIC_SCANDIR_TIME 1h", ""},
      {"TQP_PERIODIC_SCANDIR_TIME 2m", "'2m' is below 5 minutes; 300 s is used"},
      {"TQP_PERIODIC_SCANDIR_TIME 5x", "'5x' is not a time; 1800 s is used"},
      {"TQP_PERIODIC_SCANDIR_TIME 0h", "'0h' is not a time; 1800 s is used"},
      {"TQP_DELETED_INSTANCE_CLEANUP_DELAY 12", ""},
      {"TQP_DELETED_INSTANCE_CLEANUP_DELAY 0", "'0' is not a number above 0 with m, h or d; 3d is used"},
      {"TQP_DELETED_INSTANCE_CLEANUP_DELAY 3w", "'3w' is not a number above 0 with m, h or d; 3d is used"},
      {"TQ_ENABLE_CAPTURE_DB_TIMING 1 0", "has 2 flags of 10; the missing ones are 0"},
      {"TQ_ENABLE_CAPTURE_DB_TIMING 1 1 1 1 1 1 0 0 0 0", ""},
      {"TQP_MONITORS 1", ""},
      {"TQP_MONITORS 1 x", "'x' is not a number; it has no effect"},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 1 D", "version 'D' is not A, B or C; B is used"},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 2", "'2' is not 0 or 1; 1 is used"},
      {"TQP_SEQ_BLOB_IN_FILE_FLAG 1 A 0", "size '0' is not 1 or more; 10000 is used"},
      {"TQP_MEMPOOL_SETTINGS 0 0 0", ""},
      {"TQP_MEMPOOL_SETTINGS 1 0", "first count '0' is not 1 or more; 64 is used"},
      {"TQP_NUM_NONPREP_SQL_LOAD_AT_INIT all", ""},
      {"TQP_NUM_NONPREP_SQL_LOAD_AT_INIT -2", "'-2' is not ALL, or -1 or more; 2500 is used"},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 0", ""},
      {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA 29", "'29' is not 0, or 30 to 86400; 120 is used"},
      {"TQ_FPI_MASK TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;", ""},
      {"TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX 5",
       "has no effect: replaced by TQP_MAX_ENTRY_EXIT_RECORDS_IN_AN_FP_EX2"},
  };
  for (const auto &[line, what] : cases) {
    SCOPED_TRACE(line);
    const std::string words = line;
    const std::string front = "1 " + words.substr(0, words.find(' ')) + " ";
    const std::vector<std::string> found = findings(words + "\n");
    EXPECT_EQ(*what ? std::vector<std::string>{front + what} : std::vector<std::string>{}, found);
  }
  const std::vector<std::string> fatal = findings("TQ_FPI_MASK TQEID:58:5;AppID:46:10;TS:8:38;SeqNo:0:8;\n");
  ASSERT_EQ(1U, fatal.size());
  EXPECT_NE(std::string::npos, fatal[0].find("The process will not start"));
  EXPECT_EQ(15U, tqe_id_mask_num); // the check changes nothing
}

TEST_F(keyword_check, bears_long_lines_many_findings_and_no_file) {
  const std::vector<std::string> found = findings("A" + std::string(200000, 'B') + " 1\nTQP_TRACE_LEVEL 9\n");
  ASSERT_GE(found.size(), 2U);
  for (const std::string &text : found)
    EXPECT_LT(text.size(), 300U);
  EXPECT_EQ("2 TQP_TRACE_LEVEL '9' is not 0 to 4; 1 is used", found.back());
  std::string many;
  for (int i = 0; i < 5000; ++i)
    many += "NO_KEYWORD_" + std::to_string(i) + " 1\n";
  EXPECT_EQ(kw_most_findings, findings(many).size());
  EXPECT_EQ(4000U, kw_check_file(path.c_str()).more);
  EXPECT_EQ(1U, kw_check_file("/nowhere/TQKeywords.conf").list.size());
}
