// Units into SQLite: rows with their positions or neither, sums merged, names replaced, newer schemas refused.
#include "tqdb_driver.h"
#include "tqdb_query.h"
#include "tqdb_schema.h"
#include "tqdb_views.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sqlite3.h>

using namespace tqdb;

namespace {

struct sqlite_file : ::testing::Test {
  std::string dir = ::testing::TempDir() + "tqdb_sqlite_" + std::to_string(getpid());
  load_target target;
  load_scope scope;
  load_state state;
  std::unique_ptr<load_driver> driver;

  void SetUp() override {
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    std::string error;
    ASSERT_TRUE(parse_target("sqlite:" + dir + "/t.sqlite", &target, &error)) << error;
    scope = {1001, 0, dir};
    reopen();
  }

  void TearDown() override {
    driver.reset();
    std::filesystem::remove_all(dir);
  }

  void reopen() {
    driver.reset();
    std::string error;
    driver = make_driver(target, &error);
    ASSERT_NE(driver, nullptr) << error;
    ASSERT_EQ(driver->open(scope, &state), TQDB_READY) << driver->error();
    ASSERT_EQ(driver->begin_loading(false), TQDB_TAKEN) << driver->error();
  }

  // One answer as text: cells joined by '|', rows by newlines.
  std::string ask(std::string_view sql) const {
    std::string error, text;
    const std::unique_ptr<connection> c = connect(target, &error);
    if (!c)
      return error;
    cells rows;
    const answer a = ask_all(*c, sql, {}, &rows);
    for (const auto &row : rows) {
      for (size_t i = 0; i < row.size(); ++i)
        text += (i ? "|" : text.empty() ? "" : "\n") + text_of(row[i]);
    }
    return a.end == TQDB_COMPLETE ? text : "failed: " + a.error;
  }

  static row_batch flowpath_rows(int64_t from, int64_t count) {
    row_batch rows(TQDB_FLOWPATH);
    for (int64_t fpi = from; fpi < from + count; ++fpi) {
      rows.row({1, 0, fpi * 100});
      for (const column &c : table_of(TQDB_FLOWPATH).columns) {
        if (is_text(c.type))
          rows.text("text " + std::string(c.name));
        else
          rows.integer(std::string_view(c.name) == "fpi" ? fpi : 7);
      }
    }
    return rows;
  }

  static row_batch minute_row(int64_t flowpaths, int64_t longest) {
    row_batch rows(TQDB_TIER_MINUTE);
    rows.row({});
    for (const column &c : table_of(TQDB_TIER_MINUTE).columns) {
      const std::string_view name = c.name;
      rows.integer(name == "minute_utc_ms" ? 60000
                   : name == "longest_ms"  ? longest
                   : c.role == TQDB_KEY    ? 3
                                           : flowpaths);
    }
    return rows;
  }
};

} // namespace

TEST_F(sqlite_file, rows_and_positions_go_in_together_or_not_at_all) {
  load_position there;
  there.file = 1;
  there.inode = UINT64_MAX; // kept as the same bits
  there.taken = 500;
  there.rows = 5;
  ASSERT_EQ(driver->add(flowpath_rows(1, 5)), TQDB_TAKEN) << driver->error();
  ASSERT_EQ(driver->commit({{"a.csv", there}}), TQDB_TAKEN) << driver->error();
  ASSERT_EQ(driver->add(flowpath_rows(6, 5)), TQDB_TAKEN);
  reopen(); // as after a kill: the second unit was not committed
  EXPECT_EQ(ask("SELECT count(*), min(fpi), max(fpi), max(thread) FROM flowpath"), "5|1|5|text thread");
  ASSERT_EQ(state.positions.size(), 1U);
  EXPECT_EQ(state.positions["a.csv"].taken, 500);
  EXPECT_EQ(state.positions["a.csv"].inode, UINT64_MAX);
  there.taken = -1;
  load_position renamed = state.positions["a.csv"];
  ASSERT_EQ(driver->commit({{"a.csv", there}, {"a.csv.prev", renamed}}), TQDB_TAKEN);
  reopen();
  EXPECT_EQ(state.positions.count("a.csv"), 0U);
  EXPECT_EQ(state.positions["a.csv.prev"].taken, 500);
}

TEST_F(sqlite_file, sums_are_merged_and_names_replaced) {
  for (const auto &[flowpaths, longest] : {std::pair<int64_t, int64_t>{2, 900}, {3, 40}}) {
    ASSERT_EQ(driver->add(minute_row(flowpaths, longest)), TQDB_TAKEN) << driver->error();
    row_batch url(TQDB_URL);
    url.row({});
    url.integer(9);
    url.text(longest == 900 ? "/old" : "/new, 'quoted'");
    ASSERT_EQ(driver->add(url), TQDB_TAKEN) << driver->error();
    ASSERT_EQ(driver->commit({}), TQDB_TAKEN);
  }
  EXPECT_EQ(ask("SELECT flowpaths, longest_ms, le_100000 FROM tier_minute"), "5|900|5");
  EXPECT_EQ(ask("SELECT id, text FROM url"), "9|/new, 'quoted'");
}

TEST_F(sqlite_file, only_one_loader_for_a_test_run_and_no_newer_schema) {
  std::string error;
  const std::unique_ptr<load_driver> second = make_driver(target, &error);
  EXPECT_EQ(second->open(scope, &state), TQDB_IN_USE);
  EXPECT_EQ(second->open({1002, 0, dir}, &state), TQDB_READY) << second->error();
  driver.reset();
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(target.path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "INSERT INTO schema_version VALUES (99)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(second->open(scope, &state), TQDB_REFUSED);
  EXPECT_NE(second->error().find("version 99"), std::string::npos);
  EXPECT_EQ(connect(target, &error), nullptr);
  EXPECT_NE(error.find("version 99"), std::string::npos);
}

TEST_F(sqlite_file, dropping_a_test_run_leaves_the_others) {
  ASSERT_EQ(driver->add(flowpath_rows(1, 5)), TQDB_TAKEN);
  ASSERT_EQ(driver->commit({{"a.csv", {}}}), TQDB_TAKEN);
  scope.testrun = 1002;
  reopen();
  ASSERT_EQ(driver->add(flowpath_rows(1, 3)), TQDB_TAKEN);
  ASSERT_EQ(driver->commit({{"a.csv", {}}}), TQDB_TAKEN);
  ASSERT_EQ(driver->drop_testrun(1001, -1), TQDB_TAKEN) << driver->error();
  EXPECT_EQ(ask("SELECT testrun, count(*) FROM flowpath GROUP BY testrun"), "1002|3");
  EXPECT_EQ(ask("SELECT testrun, count(*) FROM load_position GROUP BY testrun"), "1002|1");
}

TEST_F(sqlite_file, questions_have_limits_and_cannot_write) {
  ASSERT_EQ(driver->add(flowpath_rows(1, 200)), TQDB_TAKEN);
  ASSERT_EQ(driver->commit({}), TQDB_TAKEN);
  std::string error;
  const std::unique_ptr<connection> c = connect(target, &error);
  ASSERT_NE(c, nullptr) << error;
  cells rows;
  EXPECT_EQ(ask_all(*c, "SELECT fpi FROM flowpath WHERE fpi > ?2 AND thread <> ?1 ORDER BY fpi",
                    std::vector<value>{std::string_view("'; DROP TABLE flowpath; --"), int64_t{10}}, &rows,
                    {20, 10000, 1000})
                .end,
            TQDB_MORE_ROWS);
  EXPECT_EQ(rows.size(), 20U);
  EXPECT_EQ(text_of(rows[0][0]), "11");
  EXPECT_EQ(
      ask_all(*c, "SELECT count(*) FROM flowpath a, flowpath b, flowpath c, flowpath d", {}, &rows, {10, 50, 1000}).end,
      TQDB_OUT_OF_TIME);
  EXPECT_EQ(ask_all(*c, "DELETE FROM flowpath", {}, &rows).end, TQDB_FAILED);
  EXPECT_EQ(ask_all(*c, "SELECT no_such_column FROM flowpath", {}, &rows).end, TQDB_FAILED);
  EXPECT_EQ(ask("SELECT count(*) FROM flowpath"), "200");
}

TEST_F(sqlite_file, every_view_answers) {
  for (const view &v : views())
    EXPECT_EQ(ask("SELECT count(*) FROM " + std::string(v.name)), "0") << v.name;
}

TEST(percentile, is_exact_at_the_steps_and_linear_between_them) {
  // 100 durations of 1..100 ms: the histogram is the identity at its bounds
  std::string row;
  for (const int32_t bound : duration_bounds())
    row += (row.empty() ? "" : ", ") + std::to_string(std::min(bound, 100)) + " AS le_" + std::to_string(bound);
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  for (const auto &[level, wanted] : {std::pair<double, double>{0.5, 50}, {0.95, 95}, {0.99, 99}, {0.05, 5}}) {
    sqlite3_stmt *s = nullptr;
    const std::string sql = "SELECT " + percentile_sql(level, "n", "longest", false) +
                            " FROM (SELECT 100 AS n, 100 AS longest, " + row + ")";
    ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    ASSERT_EQ(sqlite3_step(s), SQLITE_ROW);
    EXPECT_NEAR(sqlite3_column_double(s, 0), wanted, 1e-9);
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
}

TEST(targets, are_read_or_refused_with_a_reason) {
  load_target t;
  std::string error;
  ASSERT_TRUE(parse_target("clickhouse://db1.example:9123/perf?cluster=two&password_file=/etc/tqu/ch", &t, &error))
      << error;
  EXPECT_EQ(t.host + " " + std::to_string(t.port) + " " + t.database + " " + t.cluster + " " + t.password_file,
            "db1.example 9123 perf two /etc/tqu/ch");
  ASSERT_TRUE(parse_target("clickhouse://[::1]", &t, &error)) << error;
  EXPECT_EQ(t.host + " " + std::to_string(t.port) + " " + t.database, "::1 8123 default");
  ASSERT_TRUE(parse_target("postgresql://loader@h:5433/perf?service=tq", &t, &error)) << error;
  for (const char *bad : {"", "sqlite:", "mysql://x", "postgresql://u:secret@h/db", "postgresql://h/db?password=secret",
                          "clickhouse://u:secret@h/", "clickhouse://", "clickhouse://h:0/", "clickhouse://h:99999/",
                          "clickhouse://h/a;b", "clickhouse://h/db?x=1", "clickhouse://h/db?cluster=a'b"}) {
    EXPECT_FALSE(parse_target(bad, &t, &error)) << bad;
    EXPECT_EQ(error.find("secret"), std::string::npos) << error;
  }
}
