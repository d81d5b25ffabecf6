// compare_databases: whether two databases hold the same of one test run.
//   In      compare_databases URL URL TESTRUN; the first one is what is expected
//   Out     a line for each table that differs, with its first row; a last line with counts
//   Thread  one
//   Failure status 1 when a table differs, 2 when a database cannot be asked
// Facts and names are compared row by row, whatever their order; sums are added up by key. Numbers of files are left out: they
// go by the order in which files were first met.
#include "tqdb_query.h"
#include "tqdb_schema.h"
#include "tqdb_statements.h"

#include "wllb_util.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>

using namespace tqdb;

static std::string question_of(const table &t, const char *testrun) {
  std::string columns = "node", keys = "node";
  for (const column &c : t.columns) {
    const bool added = t.kind == TQDB_SUM && c.role != TQDB_KEY;
    if (t.kind == TQDB_BOOK && std::string_view(c.name) == "file")
      continue;
    if (t.kind == TQDB_SUM && !added)
      keys += std::string(", ") + c.name;
    columns += !added ? std::string(", ") + c.name
                      : std::string(c.role == TQDB_ADD   ? ", sum("
                                    : c.role == TQDB_MIN ? ", min("
                                                         : ", max(") +
                            c.name + ")";
  }
  return "SELECT " + columns + " FROM " + t.name + " WHERE testrun = " + testrun +
         (t.kind == TQDB_SUM ? " GROUP BY " + keys : "");
}

static std::vector<std::string> rows_of(connection *c, const table &t, const char *testrun) {
  std::vector<std::string> rows;
  const question_limits limits = {.rows = INT64_MAX / 2, .ms = 600000, .bytes = INT64_MAX / 2};
  const answer a = c->ask(question_of(t, testrun), {}, limits, [&](std::span<const value> row) {
    std::string text;
    for (const value &v : row) {
      if (const auto *words = std::get_if<std::string_view>(&v))
        text.append(*words);
      else if (const auto *number = std::get_if<int64_t>(&v))
        text += std::to_string(*number);
      else if (const auto *real = std::get_if<double>(&v))
        text += wllb_format("%.9g", *real);
      text += '|';
    }
    rows.push_back(text);
    return true;
  });
  if (a.end != TQDB_COMPLETE) {
    fprintf(stderr, "compare_databases: %s: %s\n", t.name, a.error.c_str());
    exit(2); // NOLINT(concurrency-mt-unsafe): one thread
  }
  std::sort(rows.begin(), rows.end());
  return rows;
}

int main(int argc, char **argv) {
  std::unique_ptr<connection> sides[2];
  for (int i = 0; i < 2; ++i) {
    load_target target;
    std::string error = "compare_databases URL URL TESTRUN";
    if (argc == 4 && parse_target(argv[i + 1], &target, &error))
      sides[i] = connect(target, &error);
    if (!sides[i]) {
      fprintf(stderr, "%s\n", error.c_str());
      return 2;
    }
  }
  size_t rows = 0, differences = 0;
  for (const table &t : tables()) {
    const std::vector<std::string> expected = rows_of(sides[0].get(), t, argv[3]),
                                   found = rows_of(sides[1].get(), t, argv[3]);
    rows += expected.size();
    const auto [mine, other] = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
    if (mine == expected.end() && other == found.end())
      continue;
    ++differences;
    printf("%s: %zu rows expected, %zu found; first difference:\n  %.300s\n  %.300s\n", t.name, expected.size(),
           found.size(), mine == expected.end() ? "(no row)" : mine->c_str(),
           other == found.end() ? "(no row)" : other->c_str());
  }
  printf("%zu rows of %zu tables compared, %zu tables differ\n", rows, tables().size(), differences);
  return differences == 0 ? 0 : 1;
}
