// The drivers of all engines, each on its own server: the same units give the same tables, sums and views, whatever happens
// to the loader or the server in between.
#include "database_server.h"
#include "tqdb_driver.h"
#include "tqdb_query.h"
#include "tqdb_statements.h"
#include "tqdb_views.h"

#include "wllb_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sys/stat.h>

using namespace tqdb;
namespace fs = std::filesystem;

namespace {

constexpr load_scope first_node = {1001, 0, ""}, second_node = {1001, 1, ""};

// Values that a careless encoder would get wrong.
const std::string texts[] = {"",           "plain",      "it's", "back\\slash",        "tab\there",
                             "line\nfeed", "\\N",        "NULL", "\xC3\xA9t\xC3\xA9",  "\xEF\xBF\xBD",
                             "a,b|c@d",    "\"quoted\"", "?1",   std::string(300, 'x')};

int64_t some_integer(column_type type, std::mt19937_64 *random) {
  const int bits = type == TQDB_I8 ? 7 : type == TQDB_I16 ? 15 : type == TQDB_I32 ? 31 : 63;
  const int64_t top = static_cast<int64_t>((uint64_t{1} << static_cast<unsigned>(bits)) - 1);
  switch ((*random)() % 8) {
  case 0:
    return top;
  case 1:
    return -top - 1;
  default:
    return static_cast<int64_t>((*random)() % 100);
  }
}

// `rows` of a table as unit number `unit` brings them: keys repeat within a unit and between units.
row_batch some_rows(table_id id, int unit, int rows) {
  std::mt19937_64 random(static_cast<uint64_t>(id) * 1000 + static_cast<uint64_t>(unit));
  row_batch batch(id);
  const table &t = table_of(id);
  for (int i = 0; i < rows; ++i) {
    batch.row({.file = 1, .part = i, .byte = unit * 1000});
    for (const column &c : t.columns) {
      const bool summed = t.kind == TQDB_SUM && c.role != TQDB_KEY;
      if (c.type == TQDB_F64)
        batch.real(static_cast<double>(random() % 1000) / 8);
      else if (is_text(c.type))
        batch.text(c.role == TQDB_KEY ? texts[random() % 4] : texts[random() % std::size(texts)]);
      else if (std::string_view(c.name).starts_with("le_"))
        batch.integer(&c - t.columns.data()); // a histogram's steps never go down
      else if (summed)
        batch.integer(100 + static_cast<int64_t>(random() % 5));
      else
        batch.integer(c.role == TQDB_KEY ? static_cast<int64_t>(random() % 5) : some_integer(c.type, &random));
    }
  }
  return batch;
}

bool add_unit(load_driver *driver, int unit) {
  for (size_t id = 0; id < TQDB_TABLES; ++id) {
    const row_batch batch = some_rows(static_cast<table_id>(id), unit, 20);
    if (id != TQDB_LOAD_POSITION && driver->add(batch) != TQDB_TAKEN)
      return false;
  }
  return true;
}

load_positions positions_after(int unit) {
  load_positions positions;
  positions["tq/csv/a'\\b.csv"] = {.file = 1, .inode = 0xFFFFFFFFFFFFFFF0U, .taken = 1000 * unit, .rows = 20 * unit};
  positions["file " + std::to_string(unit)] = {.file = unit + 1, .inode = 5, .taken = unit};
  if (unit > 1)
    positions["file " + std::to_string(unit - 1)] = {.taken = -1};
  return positions;
}

std::string cells_as_text(const cells &rows) {
  std::string text;
  for (const auto &row : rows) {
    for (const cell &c : row)
      text += std::holds_alternative<double>(c) ? wllb_format("%.3f|", std::get<double>(c)) : text_of(c) + "|";
    text += "\n";
  }
  return text;
}

// All rows of a table, sums added up, in an order that is the same everywhere.
std::string rows_of(connection *c, const table &t) {
  std::string sql = "SELECT " + all_columns(t) + " FROM " + t.name;
  if (t.kind == TQDB_SUM) {
    sql = "SELECT " + key_columns(t);
    for (const column &one : t.columns)
      if (one.role != TQDB_KEY)
        sql += std::string(one.role == TQDB_ADD   ? ", sum("
                           : one.role == TQDB_MIN ? ", min("
                                                  : ", max(") +
               one.name + ")";
    sql += std::string(" FROM ") + t.name + " GROUP BY " + key_columns(t);
  }
  cells rows;
  const answer a = ask_all(*c, sql, {}, &rows, {.rows = 100000});
  EXPECT_EQ(TQDB_COMPLETE, a.end) << t.name << ": " << a.error;
  std::sort(rows.begin(), rows.end());
  return cells_as_text(rows);
}

// Every table and view by name.
std::map<std::string, std::string> everything(const load_target &target) {
  std::string error;
  std::map<std::string, std::string> all;
  const std::unique_ptr<connection> c = connect(target, &error);
  EXPECT_TRUE(c) << error;
  if (!c)
    return all;
  for (const table &t : tables())
    all[t.name] = rows_of(c.get(), t);
  for (const view &v : views()) {
    cells rows;
    const answer a = ask_all(*c, std::string("SELECT * FROM ") + v.name, {}, &rows, {.rows = 100000});
    EXPECT_EQ(TQDB_COMPLETE, a.end) << v.name << ": " << a.error;
    std::sort(rows.begin(), rows.end());
    all[v.name] = cells_as_text(rows);
  }
  return all;
}

// Shows the first row that differs, not all of them.
void expect_same(const load_target &expected, const load_target &found) {
  auto there = everything(found);
  for (const auto &[name, rows] : everything(expected)) {
    const auto [mine, other] = std::mismatch(rows.begin(), rows.end(), there[name].begin(), there[name].end());
    if (mine == rows.end() && other == there[name].end())
      continue;
    const size_t begin = rows.rfind('\n', static_cast<size_t>(mine - rows.begin())) + 1;
    ADD_FAILURE() << name << " at byte " << mine - rows.begin() << " of " << rows.size() << ", " << there[name].size()
                  << "\n"
                  << rows.substr(begin, 600) << "\n--\n"
                  << there[name].substr(std::min(begin, there[name].size()), 600);
  }
}

// A connection that was closed just now may still hold its lock; a server may still be starting.
open_result open_in_time(load_driver *driver, const load_scope &scope, load_state *state) {
  open_result opened = TQDB_NOT_THERE;
  for (int tries = 0; tries < 1000 && (opened == TQDB_NOT_THERE || opened == TQDB_IN_USE); ++tries) {
    opened = driver->open(scope, state);
    if (opened != TQDB_READY)
      usleep(20000);
  }
  return opened;
}

// Loads units [first, last] as a loader does that goes on wherever it was.
void load(const load_target &target, const load_scope &scope, int first, int last) {
  std::string error;
  const std::unique_ptr<load_driver> driver = make_driver(target, &error);
  ASSERT_TRUE(driver) << error;
  load_state state;
  ASSERT_EQ(TQDB_READY, open_in_time(driver.get(), scope, &state)) << driver->error();
  ASSERT_EQ(TQDB_TAKEN, driver->begin_loading(true)) << driver->error();
  for (int unit = first; unit <= last; ++unit) {
    ASSERT_TRUE(add_unit(driver.get(), unit)) << driver->error();
    ASSERT_EQ(TQDB_TAKEN, driver->commit(positions_after(unit))) << driver->error();
  }
  ASSERT_EQ(TQDB_TAKEN, driver->finish()) << driver->error();
}

// An engine, beside a SQLite file that is loaded without any trouble.
// Where TQP_NO_SKIPS is set, a server that is not installed is a failure.
class engines : public testing::TestWithParam<const char *> {
protected:
  database_server server{GetParam()};
  std::string directory = server.directory + "/run";
  load_target plain;

  load_scope in_directory(load_scope scope) const {
    scope.run_dir = directory;
    return scope;
  }

  void SetUp() override {
    if (!server.installed() && getenv("TQP_NO_SKIPS")) // NOLINT(concurrency-mt-unsafe): one thread
      FAIL() << server.why;
    if (!server.installed())
      GTEST_SKIP() << server.why;
    fs::create_directories(directory);
    std::string error;
    ASSERT_TRUE(parse_target("sqlite:" + directory + "/plain.sqlite", &plain, &error)) << error;
  }
};

} // namespace

TEST_P(engines, same_units_give_the_same_tables_and_views) {
  for (const load_target &target : {plain, server.target()}) {
    load(target, in_directory(first_node), 1, 3);
    load(target, in_directory(second_node), 4, 4);
    load(target, in_directory(first_node), 5, 5);
  }
  expect_same(plain, server.target());
}

TEST_P(engines, what_was_not_committed_is_gone_at_the_next_opening) {
  const load_target target = server.target();
  std::string error;
  load(plain, in_directory(first_node), 1, 3);
  load(target, in_directory(first_node), 1, 1);
  load_state state;
  {
    const std::unique_ptr<load_driver> driver = make_driver(target, &error);
    ASSERT_EQ(TQDB_READY, open_in_time(driver.get(), in_directory(first_node), &state)) << driver->error();
    EXPECT_EQ(2U, state.positions.size());
    EXPECT_EQ(1000, state.positions["tq/csv/a'\\b.csv"].taken);
    EXPECT_EQ(0xFFFFFFFFFFFFFFF0U, state.positions["tq/csv/a'\\b.csv"].inode);
    const std::unique_ptr<load_driver> second = make_driver(target, &error);
    load_state ignored;
    EXPECT_EQ(TQDB_IN_USE, second->open(in_directory(first_node), &ignored));
    ASSERT_EQ(TQDB_TAKEN, driver->begin_loading(false)) << driver->error();
    ASSERT_TRUE(add_unit(driver.get(), 7)); // a unit that never ends
    driver->roll_back();
    while (add_unit(driver.get(), 2) ? driver->commit(positions_after(2)) == TQDB_AWAY : true)
      ASSERT_EQ(TQDB_READY, open_in_time(driver.get(), in_directory(first_node), &state)) << driver->error();
    ASSERT_TRUE(add_unit(driver.get(), 8));
    server.command("kill 0"); // and one whose server does not live to see its end
    EXPECT_EQ(TQDB_AWAY, driver->commit(positions_after(8)));
    EXPECT_EQ(TQDB_NOT_THERE, driver->open(in_directory(first_node), &state));
    EXPECT_NE("", driver->error());
    ASSERT_TRUE(server.command("start 0"));
    ASSERT_EQ(TQDB_READY, open_in_time(driver.get(), in_directory(first_node), &state)) << driver->error();
    EXPECT_EQ(2000, state.positions["tq/csv/a'\\b.csv"].taken);
  }
  load(target, in_directory(first_node), 3, 3);
  expect_same(plain, target);
}

TEST_P(engines, rows_go_by_node_by_test_run_and_by_time) {
  const load_target target = server.target();
  for (const load_target &one : {plain, target}) {
    load(one, in_directory(first_node), 1, 1);
    load(one, in_directory(second_node), 2, 2);
    load_scope other = in_directory(first_node);
    other.testrun = 2002;
    load(one, other, 3, 3);
    std::string error;
    const std::unique_ptr<load_driver> driver = make_driver(one, &error);
    load_state state;
    ASSERT_EQ(TQDB_READY, open_in_time(driver.get(), in_directory(first_node), &state)) << driver->error();
    EXPECT_EQ(TQDB_TAKEN, driver->drop_testrun(1001, 0)) << driver->error();
    EXPECT_EQ(TQDB_TAKEN, driver->drop_before(50)) << driver->error();
  }
  expect_same(plain, target);
  std::string error;
  const std::unique_ptr<load_driver> driver = make_driver(target, &error);
  load_state state;
  ASSERT_EQ(TQDB_READY, open_in_time(driver.get(), in_directory(first_node), &state)) << driver->error();
  EXPECT_EQ(TQDB_TAKEN, driver->drop_testrun(1001, -1)) << driver->error();
  const std::unique_ptr<connection> c = connect(target, &error);
  ASSERT_TRUE(c) << error;
  for (const table &t : tables())
    EXPECT_EQ(std::string::npos, ("\n" + rows_of(c.get(), t)).find("\n1001|")) << t.name;
}

TEST_P(engines, questions_cannot_write_and_keep_their_limits) {
  load(server.target(), in_directory(first_node), 1, 2);
  std::string error;
  const std::unique_ptr<connection> c = connect(server.target(), &error);
  ASSERT_TRUE(c) << error;
  cells rows;
  const std::string nasty = "it's \\ ?2 \" \n";
  const value values[] = {nasty, int64_t{-7}, 2.5, std::string_view("")};
  EXPECT_EQ(TQDB_COMPLETE, ask_all(*c, "SELECT ?1, ?2 + 1, ?3 * 2, '?1', ?4", values, &rows).end);
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ((std::vector<cell>{nasty, int64_t{-6}, 5.0, std::string("?1"), std::string()}), rows[0]);
  const std::string all = "SELECT fpi FROM flowpath";
  EXPECT_EQ(TQDB_MORE_ROWS, ask_all(*c, all, {}, &rows, {.rows = 3}).end);
  EXPECT_EQ(3U, rows.size());
  EXPECT_EQ(TQDB_MORE_ROWS, ask_all(*c, "SELECT thread FROM flowpath", {}, &rows, {.bytes = 100}).end);
  EXPECT_EQ(TQDB_STOPPED, c->ask(all, {}, {}, [](std::span<const value>) { return false; }).end);
  const std::string slow =
      "SELECT sum(a.fpi * 0 + b.fpi * 0 + c.fpi * 0) FROM callout a CROSS JOIN callout b CROSS JOIN callout c";
  EXPECT_EQ(TQDB_FAILED, ask_all(*c, "DELETE FROM flowpath", {}, &rows).end);
  EXPECT_EQ(TQDB_FAILED, ask_all(*c, "SELECT nonsense FROM nowhere", {}, &rows).end);
  EXPECT_EQ(TQDB_COMPLETE, ask_all(*c, "SELECT count(*) FROM flowpath", {}, &rows).end);
  EXPECT_EQ(cell(int64_t{40}), rows[0][0]);
}

// Two machines with a daemon each, as two nodes of one test run, and a second test run to compare with.
TEST_P(engines, questions_of_the_documentation_have_the_same_answers) {
  const auto run = [](const std::vector<std::string> &argv) {
    const wllb_run_result result = wllb_run_program(argv);
    EXPECT_EQ(0, result.exit_status) << argv[0] << ": " << result.output;
  };
  const std::string bin = TQP_BINARY_DIR "/";
  for (const auto &[testrun, node] : {std::pair("1001", "0"), {"1001", "1"}, {"1002", "0"}}) {
    const std::string work = directory + "/node" + node, seed = std::string(testrun) + node;
    run({bin + "tq_sample", "--dir", work, "--testrun", testrun, "--seed", seed, "--flowpaths", "100"});
    run({bin + "tqp", "-t", testrun, "-W", work, "-m", "0"});
    for (const std::string &url : {"sqlite:" + plain.path, server.url})
      run({bin + "tqu_db_upload", "--dir", work, "--testrun", testrun, "--node", node, "--blobs", "1", "--database",
           url});
  }
  expect_same(plain, server.target());
  std::string error;
  const std::unique_ptr<connection> one = connect(plain, &error), other = connect(server.target(), &error);
  ASSERT_TRUE(one && other) << error;
  const std::string docs = wllb_read_small_file(TQP_SOURCE_DIR "/docs/database.md");
  int questions = 0;
  for (size_t at = 0; (at = docs.find("```sql\n", at)) != docs.npos; ++questions) {
    at += 7;
    const std::string sql = docs.substr(at, docs.find("```", at) - at);
    cells expected, found;
    EXPECT_EQ(TQDB_COMPLETE, ask_all(*one, sql, {}, &expected).end) << sql;
    const answer a = ask_all(*other, sql, {}, &found);
    EXPECT_EQ(TQDB_COMPLETE, a.end) << a.error << sql;
    EXPECT_LT(0U, expected.size()) << sql;
    std::sort(expected.begin(), expected.end()); // rows of two nodes may tie
    std::sort(found.begin(), found.end());
    EXPECT_EQ(cells_as_text(expected), cells_as_text(found)) << sql;
  }
  EXPECT_EQ(10, questions);
}

INSTANTIATE_TEST_SUITE_P(, engines, testing::Values("postgresql", "clickhouse", "cluster"),
                         [](const auto &engine) { return std::string(engine.param); });

TEST(clickhouse_login_file, must_be_its_owners_alone) {
  const std::string path = testing::TempDir() + "login";
  std::ofstream(path) << "someone:with:colon \nmore";
  load_target target;
  std::string error;
  ASSERT_TRUE(parse_target("clickhouse://127.0.0.1:1/x?password_file=" + path, &target, &error)) << error;
  chmod(path.c_str(), 0640);
  EXPECT_FALSE(connect(target, &error));
  EXPECT_NE(std::string::npos, error.find("0600")) << error;
  chmod(path.c_str(), 0600);
  EXPECT_FALSE(connect(target, &error)); // nobody listens there
  EXPECT_NE(std::string::npos, error.find("127.0.0.1:1")) << error;
  EXPECT_EQ(std::string::npos, error.find("colon")) << error;
  fs::remove(path);
}
