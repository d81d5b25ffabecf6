// Two sample test runs in one database: what the files have is there, the sums are those of the rows, and the questions of
// docs/database.md are answered.
#include "test_run.h"
#include "wllb_util.h"

#include <filesystem>

namespace {

class database : public tqp_test_run {
protected:
  const std::string url = "sqlite:" + directory + "/both.sqlite";

  std::string loader(int testrun, const std::vector<std::string> &words) const {
    std::vector<std::string> argv = {TQP_BINARY_DIR "/tqu_db_upload", "--dir",      directory, "--testrun",
                                     std::to_string(testrun),         "--database", url};
    argv.insert(argv.end(), words.begin(), words.end());
    const wllb_run_result result = wllb_run_program(argv);
    EXPECT_EQ(0, result.exit_status) << result.output;
    return result.output;
  }

  void make_and_load(int testrun, int seed) const {
    const std::string n = std::to_string(testrun);
    EXPECT_EQ(0, wllb_run_program({TQP_BINARY_DIR "/tq_sample", "--dir", directory, "--testrun", n, "--seed",
                                   std::to_string(seed), "--flowpaths", "100"})
                     .exit_status);
    EXPECT_EQ(0, wllb_run_program({TQP_BINARY_DIR "/tqp", "-t", n, "-W", directory, "-m", "0"}).exit_status);
    loader(testrun, {});
  }
};

} // namespace

TEST_F(database, holds_what_the_files_have_and_answers_questions) {
  make_and_load(1001, 1);
  make_and_load(1002, 2);
  for (const int testrun : {1001, 1002}) {
    EXPECT_NE(loader(testrun, {"--verify"}).find("are as in the files"), std::string::npos);
    EXPECT_NE(loader(testrun, {"--status"}).find(" 0 bytes behind, 0 rows rejected, 0 mended"), std::string::npos);
  }
  const std::string docs = wllb_read_small_file(TQP_SOURCE_DIR "/docs/database.md");
  int questions = 0;
  for (size_t at = 0; (at = docs.find("```sql\n", at)) != docs.npos; ++questions) {
    at += 7;
    const std::string sql = docs.substr(at, docs.find("```", at) - at);
    EXPECT_LT(1U, lines_of(loader(1001, {"--ask", sql})).size()) << "no answer to " << sql;
  }
  EXPECT_EQ(10, questions);

  static constexpr const char *same[][2] = {
      // sums, and the facts that they sum up
      {"SELECT testrun, tier, url_id, method_id, timings, calls, self_ms, self_cpu_ms, longest_self_ms FROM transaction_method",
       "SELECT testrun, tier, url_id, method_id, count(*), sum(calls), sum(self_ms), sum(self_cpu_ms), max(longest_self_ms) "
       "FROM method_timing GROUP BY 1, 2, 3, 4"},
      {"SELECT testrun, tier, url_id, query_id, executions, failed, total_us, longest_us FROM transaction_query",
       "SELECT testrun, tier, url_id, query_id, sum(executions), sum(failed), sum(cast(round(total_ms * 1000) AS INTEGER)), "
       "max(cast(round(longest_ms * 1000) AS INTEGER)) FROM sql_timing GROUP BY 1, 2, 3, 4"},
      {"SELECT testrun, tier, url_id, sum(flowpaths), sum(errors), sum(duration_ms), max(longest_ms), sum(le_400) "
       "FROM transaction_minute GROUP BY 1, 2, 3",
       "SELECT testrun, tier, url_id, count(*), sum(errors), sum(duration_ms), max(duration_ms), sum(duration_ms <= 400) "
       "FROM flowpath GROUP BY 1, 2, 3"},
      {"SELECT testrun, tier, class_id, message_id, sum(exceptions), min(first_utc_ms), max(last_utc_ms) "
       "FROM exception_sum GROUP BY 1, 2, 3, 4",
       "SELECT testrun, tier, class_id, message_id, count(*), min(utc_ms), max(utc_ms) FROM exception GROUP BY 1, 2, 3, 4"},
      {"SELECT testrun, tier, sum(db_calls + backend_calls), sum(db_us + backend_us) FROM tier_minute GROUP BY 1, 2",
       "SELECT testrun, tier, sum(calls), sum(total_us) FROM backend_sum GROUP BY 1, 2"},
  };
  for (const auto &[sums, facts] : same) {
    EXPECT_LT(1U, lines_of(loader(1001, {"--ask", facts})).size());
    for (const auto &[one, other] : {std::pair(sums, facts), std::pair(facts, sums)})
      EXPECT_EQ(1U, lines_of(loader(1001, {"--ask", std::string(one) + " EXCEPT " + other})).size()) << one;
  }
  // percentiles of the histogram beside exact ones: at most a step apart
  EXPECT_EQ(
      1U, lines_of(loader(1001, {"--ask",
                                 "SELECT t.tier, p95_ms, exact_ms FROM tiers t JOIN (SELECT testrun, tier, duration_ms "
                                 "AS exact_ms, percent_rank() OVER (PARTITION BY testrun, tier ORDER BY duration_ms) "
                                 "AS p FROM flowpath) f ON f.testrun = t.testrun AND f.tier = t.tier AND p BETWEEN "
                                 "0.94 AND 0.96 WHERE abs(p95_ms - exact_ms) > 0.27 * exact_ms"}))
              .size());
  loader(1001, {"--drop-testrun", "1001"});
  EXPECT_NE(loader(1002, {"--verify"}).find("are as in the files"), std::string::npos);
  EXPECT_EQ("0",
            lines_of(loader(1001, {"--ask", "SELECT count(*) AS n FROM method_timing WHERE testrun = 1001"})).back());
}
