// Asking SQLite: a connection that cannot write, and stops when its time is over.
//   In      SQL, bound values
//   Out     rows
//   Thread  one for each connection
//   Failure words in the answer
#include "tqdb_query.h"
#include "tqdb_schema.h"
#include "tqdb_sqlite.h"

#include "wllb_util.h"

#include <chrono>

namespace tqdb {

using steady = std::chrono::steady_clock;

namespace {

struct sqlite_connection final : connection {
  sqlite_handle db;
  steady::time_point deadline = steady::time_point::max();

  engine kind() const override { return TQDB_SQLITE; }

  answer ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
             const std::function<bool(std::span<const value> row)> &on_row) override;
};

} // namespace

static int is_late(void *connection) {
  return steady::now() > static_cast<sqlite_connection *>(connection)->deadline ? 1 : 0;
}

static bool bind(sqlite3_stmt *s, std::span<const value> values) {
  int code = SQLITE_OK;
  for (size_t i = 0; i < values.size(); ++i) {
    const int at = static_cast<int>(i) + 1;
    if (const auto *text = std::get_if<std::string_view>(&values[i]))
      code |= sqlite3_bind_text64(s, at, text->data(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
    else if (const auto *number = std::get_if<int64_t>(&values[i]))
      code |= sqlite3_bind_int64(s, at, *number);
    else if (const auto *real = std::get_if<double>(&values[i]))
      code |= sqlite3_bind_double(s, at, *real);
    else
      code |= sqlite3_bind_null(s, at);
  }
  return code == SQLITE_OK;
}

static value value_at(sqlite3_stmt *s, int column) {
  switch (sqlite3_column_type(s, column)) {
  case SQLITE_INTEGER:
    return sqlite3_column_int64(s, column);
  case SQLITE_FLOAT:
    return sqlite3_column_double(s, column);
  case SQLITE_NULL:
    return null_value{};
  default:
    return sqlite_text(s, column);
  }
}

answer sqlite_connection::ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
                              const std::function<bool(std::span<const value> row)> &on_row) {
  answer a;
  const sqlite_statement s = sqlite_prepare(db.get(), sql);
  if (!s || !sqlite3_stmt_readonly(s.get()) || !bind(s.get(), values)) {
    a.error = s && !sqlite3_stmt_readonly(s.get()) ? "only questions are allowed" : sqlite3_errmsg(db.get());
    return a;
  }
  for (int i = 0; i < sqlite3_column_count(s.get()); ++i)
    a.columns.emplace_back(sqlite3_column_name(s.get(), i));
  deadline = steady::now() + std::chrono::milliseconds(limits.ms);
  std::vector<value> row(a.columns.size());
  int code;
  for (int64_t bytes = 0; (code = sqlite3_step(s.get())) == SQLITE_ROW; ++a.rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      row[i] = value_at(s.get(), static_cast<int>(i));
      if (const auto *text = std::get_if<std::string_view>(&row[i]))
        bytes += static_cast<int64_t>(text->size());
    }
    if (a.rows >= limits.rows || bytes > limits.bytes) {
      a.end = TQDB_MORE_ROWS;
      return a;
    }
    if (!on_row(row)) {
      ++a.rows;
      a.end = TQDB_STOPPED;
      return a;
    }
  }
  a.end = code == SQLITE_DONE ? TQDB_COMPLETE : code == SQLITE_INTERRUPT ? TQDB_OUT_OF_TIME : TQDB_FAILED;
  if (a.end == TQDB_FAILED)
    a.error = sqlite3_errmsg(db.get());
  return a;
}

std::unique_ptr<connection> connect_sqlite(const load_target &target, std::string *error) {
  auto c = std::make_unique<sqlite_connection>();
  sqlite3 *opened = nullptr;
  const int code = sqlite3_open_v2(target.path.c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  c->db.reset(opened);
  int version = 0;
  if (code != SQLITE_OK)
    *error = target.path + ": " + (opened ? sqlite3_errmsg(opened) : "out of memory");
  else if (sqlite_is_newer(opened, &version))
    *error =
        target.path + wllb_format(": its schema has version %d, this program knows up to %d", version, schema_version);
  else if (version == 0)
    *error = target.path + ": nothing has been loaded into it";
  else
    *error = "";
  if (!error->empty())
    return nullptr;
  sqlite3_busy_timeout(opened, 2000);
  sqlite3_exec(opened, "PRAGMA query_only = 1; PRAGMA cache_size = -16384; PRAGMA mmap_size = 1073741824", nullptr,
               nullptr, nullptr);
  sqlite3_progress_handler(opened, 4000, is_late, c.get());
  return c;
}

} // namespace tqdb
