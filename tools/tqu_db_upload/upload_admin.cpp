// Status, verification, removal; see the header.
#include "upload_admin.h"

#include "upload_progress.h"

#include "tqdb_query.h"
#include "tqdb_verify.h"

#include "tqread_text.h"

#include "wllb_util.h"

#include <cinttypes>
#include <sys/stat.h>

static int failed(const std::string &reason) {
  fprintf(stderr, "tqu_db_upload: %s\n", reason.c_str());
  return 1;
}

// --- status -------------------------------------------------------------------------------------------------------

int upload_show_status(const upload_options &options) {
  std::string error;
  const std::unique_ptr<tqdb::connection> c = tqdb::connect(options.target, &error);
  if (!c)
    return failed(error);
  const tqdb::value scope[] = {int64_t{options.testrun}, int64_t{options.node}};
  int64_t bytes = 0, behind = 0, rows = 0, rejected = 0, mended = 0;
  printf("%15s %15s %13s %9s  %s\n", "loaded", "of bytes", "rows", "rejected", "file");
  const auto show = [&](std::span<const tqdb::value> row) {
    const std::string path(std::get<std::string_view>(row[0]));
    int64_t n[4];
    for (size_t i = 0; i < 4; ++i)
      n[i] = std::get<int64_t>(row[i + 1]);
    struct stat facts = {};
    const int64_t size = stat(tqread::full_path(options.run, path).c_str(), &facts) == 0 ? facts.st_size : n[0];
    bytes += n[0];
    behind += std::max<int64_t>(size - n[0], 0);
    rows += n[1];
    rejected += n[2];
    mended += n[3];
    printf("%15s %15s %13s %9s  %s\n", upload_with_commas(n[0]).c_str(), upload_with_commas(size).c_str(),
           upload_with_commas(n[1]).c_str(), upload_with_commas(n[2]).c_str(), tqread::printable(path, 300).c_str());
    return true;
  };
  const tqdb::answer a =
      c->ask("SELECT path, taken, row_count, rejected, mended FROM load_position WHERE testrun = ?1 AND "
             "node = ?2 ORDER BY path",
             scope, {10000000, 60000, INT64_MAX}, show);
  if (a.end != tqdb::TQDB_COMPLETE)
    return failed(a.error);
  printf("%s files, %s rows, %s bytes loaded, %s bytes behind, %s rows rejected, %s mended\n",
         upload_with_commas(a.rows).c_str(), upload_with_commas(rows).c_str(), upload_with_commas(bytes).c_str(),
         upload_with_commas(behind).c_str(), upload_with_commas(rejected).c_str(), upload_with_commas(mended).c_str());
  tqdb::cells rejects;
  tqdb::ask_all(
      *c,
      "SELECT path, row_number, reason FROM load_reject WHERE testrun = ?1 AND node = ?2 ORDER BY path, row_number LIMIT 10",
      scope, &rejects);
  for (const auto &row : rejects)
    printf("rejected: %s row %s: %s\n", tqread::printable(tqdb::text_of(row[0]), 300).c_str(),
           tqdb::text_of(row[1]).c_str(), tqread::printable(tqdb::text_of(row[2]), 300).c_str());
  return 0;
}

// --- questions ----------------------------------------------------------------------------------------------------

// Numbers to the right, reals with three decimals, texts fit for a terminal.
static std::string shown(const tqdb::cell &c) {
  if (const auto *real = std::get_if<double>(&c))
    return wllb_format("%.3f", *real);
  return tqread::printable(tqdb::text_of(c), 120);
}

int upload_ask(const upload_options &options) {
  std::string error;
  const std::unique_ptr<tqdb::connection> c = tqdb::connect(options.target, &error);
  if (!c)
    return failed(error);
  tqdb::cells rows;
  const tqdb::answer a = tqdb::ask_all(*c, options.question, {}, &rows, {1000, 60000, 16 << 20});
  if (a.end == tqdb::TQDB_FAILED)
    return failed(a.error);
  std::vector<size_t> widths;
  for (const std::string &name : a.columns)
    widths.push_back(name.size());
  for (const auto &row : rows)
    for (size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], shown(row[i]).size());
  for (size_t i = 0; i < a.columns.size(); ++i)
    printf("%-*s%s", static_cast<int>(widths[i]), a.columns[i].c_str(), i + 1 < a.columns.size() ? "  " : "\n");
  for (const auto &row : rows)
    for (size_t i = 0; i < row.size(); ++i) {
      const bool text = std::holds_alternative<std::string>(row[i]);
      printf("%*s%s", static_cast<int>(widths[i]) * (text ? -1 : 1), shown(row[i]).c_str(),
             i + 1 < row.size() ? "  " : "\n");
    }
  if (a.end == tqdb::TQDB_MORE_ROWS)
    puts("(there are more rows)");
  if (a.end == tqdb::TQDB_OUT_OF_TIME)
    return failed("the question took longer than a minute");
  return 0;
}

// --- verification -------------------------------------------------------------------------------------------------

int upload_verify(const upload_options &options) {
  std::string error;
  const std::unique_ptr<tqdb::connection> c = tqdb::connect(options.target, &error);
  if (!c)
    return failed(error);
  const tqdb::verify_result result =
      tqdb::verify(options.run, {options.testrun, options.node, options.run.base}, options.blobs == 1, c.get());
  if (!result.difference.empty()) {
    printf("%s\n", result.difference.c_str());
    return 1;
  }
  printf("test run %d: %s rows of %d tables are as in the files\n", options.testrun,
         upload_with_commas(result.rows).c_str(), result.tables);
  return 0;
}

// --- removal ------------------------------------------------------------------------------------------------------

int upload_remove(const upload_options &options, tqdb::load_driver *driver) {
  tqdb::load_state state;
  const int testrun = options.drop_testrun >= 0 ? options.drop_testrun : std::max(options.testrun, 0);
  if (driver->open({testrun, options.node, options.run.base}, &state) != tqdb::TQDB_READY)
    return failed(driver->error());
  if (options.drop_testrun >= 0 && driver->drop_testrun(options.drop_testrun, -1) != tqdb::TQDB_TAKEN)
    return failed(driver->error());
  constexpr int64_t day_ms = 86400000;
  if (options.keep_days >= 0 && driver->drop_before(wllb_clock_ms() - options.keep_days * day_ms) != tqdb::TQDB_TAKEN)
    return failed(driver->error());
  return 0;
}
