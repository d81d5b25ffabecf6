// The loader over hand-made files: every good row once whatever fails, every bad one set aside, and differences found.
#include "tqdb_load.h"
#include "tqdb_query.h"
#include "tqdb_threaded.h"
#include "tqdb_verify.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <sys/resource.h>

using namespace tqdb;
namespace fs = std::filesystem;

namespace {

// Hands calls on, and fails at one of them: before it is carried out, or after (the answer got lost).
struct failing_driver final : load_driver {
  std::unique_ptr<load_driver> inside;
  int calls_left;
  bool afterwards;

  failing_driver(std::unique_ptr<load_driver> of, int fail_at, bool after)
      : inside(std::move(of)), calls_left(fail_at), afterwards(after) {}

  template <class Call> take_result failing(Call call) {
    if (--calls_left != 0)
      return call();
    if (afterwards)
      call();
    return TQDB_AWAY;
  }

  open_result open(const load_scope &scope, load_state *state) override { return inside->open(scope, state); }

  take_result begin_loading(bool bulk) override { return inside->begin_loading(bulk); }

  take_result add(const row_batch &rows) override {
    return failing([&] { return inside->add(rows); });
  }

  take_result commit(const load_positions &changed) override {
    return failing([&] { return inside->commit(changed); });
  }

  void roll_back() override { inside->roll_back(); }

  take_result finish() override { return inside->finish(); }

  take_result drop_testrun(int32_t testrun, int32_t node) override { return inside->drop_testrun(testrun, node); }

  take_result drop_before(int64_t time_ms) override { return inside->drop_before(time_ms); }

  int64_t unit_bytes(bool /*bulk*/) const override { return 100; } // units of some rows
};

struct loading : ::testing::Test {
  const std::string dir = ::testing::TempDir() + "tqdb_loading_" + std::to_string(getpid());
  const std::string base = dir + "/logs/TR7/", partition = "20260302090000";
  const std::string facts = partition + "/tq/csv/Shop_web_app/";
  tqread::test_run run;
  std::string database = "sqlite:" + dir + "/t.sqlite";

  void SetUp() override {
    fs::remove_all(dir);
    put(".curPartition", "CurPartitionIdx=" + partition + "\n");
    put(".vex_epoch.diff", "1577836800\n");
    put(partition + "/.partition_info.txt", "PreviousPartition=0\nNextPartition=0\nVersion=1\n");
    ASSERT_FALSE(tqread::open_run(dir, 7, &run));
  }

  void TearDown() override { fs::remove_all(dir); }

  void put(const std::string &below, const std::string &text) const {
    fs::create_directories(fs::path(base + below).parent_path());
    std::ofstream(base + below, std::ios::binary | std::ios::app) << text;
  }

  load_target target() const {
    load_target t;
    std::string error;
    EXPECT_TRUE(parse_target(database, &t, &error)) << error;
    return t;
  }

  // Loads what is there. fail_at: the call that fails; 0: none. Returns how often the driver was opened.
  int load(int fail_at = 0, bool afterwards = false, bool threaded = false) const {
    std::unique_ptr<load_driver> driver =
        std::make_unique<failing_driver>(make_sqlite_driver(target()), fail_at, afterwards);
    if (threaded)
      driver = make_threaded(std::move(driver));
    loader l(run, {{7, 0, run.base}, false, false}, driver.get(), [] { return false; });
    int opened = 0;
    for (load_result r = load_result::away; r != load_result::nothing_new && opened < 5;) {
      if (r == load_result::away) {
        ++opened;
        EXPECT_EQ(l.open(), TQDB_READY) << l.error();
      }
      r = l.pass();
      EXPECT_NE(r, load_result::broken) << l.error();
    }
    EXPECT_EQ(l.finish(), load_result::nothing_new) << l.error();
    return opened;
  }

  // One answer as text: cells joined by '|', rows by newlines.
  std::string ask(const std::string &sql) const {
    std::string error, text;
    const std::unique_ptr<connection> c = connect(target(), &error);
    cells rows;
    const answer a = c ? ask_all(*c, sql, {}, &rows) : answer();
    for (const auto &row : rows)
      for (size_t i = 0; i < row.size(); ++i)
        text += (i ? "|" : text.empty() ? "" : "\n") + text_of(row[i]);
    return a.end == TQDB_COMPLETE ? text : "failed: " + error + a.error;
  }

  // Every row of every table, but for the order in which files were met.
  std::string everything() const {
    std::string text;
    for (const table &t : tables())
      text += std::string(t.name) + ":\n" +
              ask("SELECT * FROM " +
                  std::string(t.name == std::string_view("load_position")
                                  ? "(SELECT path, taken, row_count, rejected, mended FROM load_position)"
                                  : t.name) +
                  " ORDER BY 1, 2, 3, 4, 5") +
              "\n";
    return text;
  }

  std::string difference() const {
    std::string error;
    const std::unique_ptr<connection> c = connect(target(), &error);
    return c ? verify(run, {7, 0, run.base}, false, c.get()).difference : error;
  }

  void change(const char *sql) const {
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(target().path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
  }

  void put_some_of_everything() const {
    put("tq/csv/TQURLTable.csv", "7,1073741824,-1,0,0,0,-,0,'-'\n7,1073741825,-1,0,0,0,/a,b?c,0,'-'\n");
    put("tq/csv/TQSQL_nonprepared.csv", "0,1073741824,1,SELECT 'a,b'\n5,1073741825,2,INSERT\n");
    put("tq/csv/TQExceptionClass.csv", "0,-\n1,java.lang.Error\n");
    for (int i = 0; i < 12; ++i) {
      const std::string n = std::to_string(i);
      put(facts + "TQSQLTiming.csv",
          n + ",1,2,3,1073741825,46000" + n + ",7.500000,1,7.500000,7.500000,194605202,194605202,0,353\n");
      put(facts + "TQExceptions.csv", "46000" + n + ",1,2,3,194605202,1,2,3," + n + ",4,5,6,-1,0,0,-1\n");
      put(facts + "TQMethodTiming.csv", std::to_string(i % 3) + ",1,2,3," + n + ",2,1," + n + "," + n +
                                            ",194605202,194605203,9,-2,46000" + n + ",1073741825,1,2,3,4,0,0,0,0\n");
      put(facts + "TQJMS.csv", "46000" + n + ",194605202051,0,1,key,a value, with commas\n");
    }
  }
};

} // namespace

TEST_F(loading, everything_is_there_once_wherever_a_call_fails) {
  put_some_of_everything();
  EXPECT_EQ(load(), 1);
  const std::string wanted = everything();
  EXPECT_EQ(ask("SELECT count(*), sum(timings), sum(self_ms), sum(self_cpu_ms), max(longest_self_ms) FROM method_sum"),
            "3|12|66|-24|11");
  EXPECT_EQ(ask("SELECT executions, total_us FROM query_sum WHERE query_id = 3"), "1|7500");
  EXPECT_EQ(ask("SELECT app, name, tier, server, tier_name FROM instance"), "3|Shop_web_app|1|2|Shop");
  for (const bool afterwards : {false, true})
    for (const bool threaded : {false, true})
      for (int fail_at = 1, opened = 2; opened > 1 && fail_at < 1000; fail_at += threaded ? 7 : 3) {
        SCOPED_TRACE(fail_at);
        fs::remove(dir + "/t.sqlite");
        opened = load(fail_at, afterwards, threaded);
        ASSERT_EQ(everything(), wanted);
      }
}

TEST_F(loading, bad_rows_are_set_aside_and_bad_bytes_mended) {
  const std::string good = "3,1,2,3,0,46,1.5,1,1.5,1.5,194605202,194605202,0,0\n";
  put(facts + "TQSQLTiming.csv", good + "1,2,3\n" + good + "99999999999" + good.substr(1) + "\n" + good);
  put(facts + "TQFlowPath.csv",
      "460001,1,2,3,1,1,10,0,429,-1,C:1:" + partition +
          ":0:100,194605202,194605203,5,,7,200,460001,"
          "0,1073741824,c,1,2,-1,3,0,0,0,-1,0,0,0,0,t,1,0,0,0,0,0,429,0,\"{}\",\"{}\",0,0,0,0\n");
  put("tq/csv/TQURLTable.csv", std::string("7,1073741824,-1,0,0,0,/caf\xE9") + '\0' + "/\xC3\xA9,0,'-'\n");
  load();
  EXPECT_EQ(ask("SELECT count(*) FROM sql_timing"), "3");
  EXPECT_EQ(ask("SELECT sum(executions) FROM query_sum"), "3");
  const std::string rejected =
      ask("SELECT path, byte, row_number FROM load_reject WHERE path LIKE '%SQLTiming%' ORDER BY byte");
  const std::string path = facts + "TQSQLTiming.csv|", length = std::to_string(good.size());
  EXPECT_EQ(rejected, path + length + "|2\n" + path + std::to_string(2 * good.size() + 6) + "|4\n" + path +
                          std::to_string(3 * good.size() + 16) + "|5");
  EXPECT_EQ(ask("SELECT count(*) FROM load_reject WHERE reason = ''"), "0");
  EXPECT_EQ(ask("SELECT row_count, rejected FROM load_position WHERE path LIKE '%SQLTiming%'"), "6|3");
  EXPECT_EQ(ask("SELECT text FROM url"), "/caf\xEF\xBF\xBD\xEF\xBF\xBD/\xC3\xA9");
  EXPECT_EQ(ask("SELECT mended FROM load_position WHERE path LIKE '%URL%'"), "1");
  // a list of segments that is not there costs the segments, not the flowpath
  EXPECT_EQ(ask("SELECT fpi, begin_utc_ms, segments FROM flowpath"), "460001|1772442002000|-1");
  EXPECT_EQ(
      ask("SELECT count(*) FROM load_reject WHERE path LIKE '%FlowPath%' AND reason LIKE '%list of its segments%'"),
      "1");
  EXPECT_EQ(ask("SELECT flowpaths, failed, errors, le_400, le_500 FROM tier_minute"), "1|1|2|0|1");
}

TEST_F(loading, a_renamed_file_keeps_its_position) {
  const std::string sql = "tq/csv/TQSQL_nonprepared.csv", prev = sql + ".prev";
  put(facts + "TQExceptions.csv", "46,1,2,3,194605202,1,2,3,4,4,5,6,-1,0,0,-1\n");
  put(sql, "0,1,1,first\n0,2,1,half of a r");
  load();
  put(sql, "ow\n");
  fs::rename(base + sql, base + prev);
  put(sql, "0,3,1,third\n");
  load();
  EXPECT_EQ(ask("SELECT id, text FROM query ORDER BY id"), "1|first\n2|half of a row\n3|third");
  EXPECT_EQ(ask("SELECT path, row_count FROM load_position WHERE path LIKE 'tq/csv%' ORDER BY path"),
            sql + "|1\n" + prev + "|2");
  fs::rename(base + sql, base + prev); // the older one is lost, its names stay
  put(sql, "0,4,1,fourth\n");
  load();
  EXPECT_EQ(ask("SELECT count(*) FROM query"), "4");
  EXPECT_EQ(ask("SELECT path, row_count FROM load_position WHERE path LIKE 'tq/csv%' ORDER BY path"),
            sql + "|1\n" + prev + "|1");
}

TEST_F(loading, verification_names_the_first_difference) {
  put_some_of_everything();
  load();
  EXPECT_EQ(difference(), "");

  const struct {
    const char *change, *words;
  } rows[] = {
      {"DELETE FROM exception WHERE line = 5",
       "exception, instance 3 (TQExceptions.csv): 12 rows in the files, 11 in the database"},
      {"UPDATE method_timing SET self_cpu_ms = -3 WHERE fpi = 460003", "the sum of self_cpu_ms"},
      {"UPDATE sql_timing SET total_ms = 7.501 WHERE query_id = 3", "the sum of total_ms"},
      {"UPDATE message SET fpi = fpi + 1 WHERE fpi = 460003", "the sum of fpi"},
      {"UPDATE sql_timing SET app = 4", "sql_timing, instance 3 (TQSQLTiming.csv): 12 rows in the files, none"},
      {"DELETE FROM query WHERE id = 1073741824", "query (TQSQL.csv, TQSQL_nonprepared.csv): 2 rows in the files, 1"},
      {"UPDATE method_sum SET calls = calls + 1 WHERE method_id = 2", "method_sum"},
      {"INSERT INTO url VALUES (7, 0, 9, 'x')", "url"},
  };

  for (const auto &[sql, words] : rows) {
    fs::remove(dir + "/t.sqlite");
    load();
    change(sql);
    EXPECT_NE(difference().find(words), std::string::npos) << sql << ": " << difference();
  }
}

TEST_F(loading, a_full_disk_is_waited_out) {
  put_some_of_everything();
  load();
  const std::string wanted = everything();
  const auto size = static_cast<rlim_t>(fs::file_size(dir + "/t.sqlite"));
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlim_t before = limit.rlim_cur;
  int waits = 0;
  for (const rlim_t part : {1, 3, 6, 9}) {
    fs::remove(dir + "/t.sqlite");
    const std::unique_ptr<load_driver> driver = make_threaded(make_sqlite_driver(target()));
    loader l(run, {{7, 0, run.base}, true, false}, driver.get(), [] { return false; });
    limit.rlim_cur = size * part / 10; // as far as files may grow
    setrlimit(RLIMIT_FSIZE, &limit);
    open_result opened = l.open();
    const bool full = opened != TQDB_READY || l.pass() == load_result::away || l.finish() == load_result::away;
    EXPECT_NE(opened, TQDB_REFUSED) << l.error();
    waits += full ? 1 : 0;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(l.open(), TQDB_READY) << l.error();
    while (l.pass() == load_result::took_some) {
    }
    EXPECT_EQ(l.finish(), load_result::nothing_new) << l.error();
    EXPECT_EQ(everything(), wanted) << part;
  }
  signal(SIGXFSZ, SIG_DFL);
  EXPECT_GT(waits, 2);
}
