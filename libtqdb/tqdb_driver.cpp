// Which engines this build has: the two places that know them all.
#include "tqdb_driver.h"
#include "tqdb_query.h"

#include <charconv>

namespace tqdb {

#ifndef TQDB_HAVE_SQLITE
std::unique_ptr<load_driver> make_sqlite_driver(const load_target & /*target*/) {
  return nullptr;
}

std::unique_ptr<connection> connect_sqlite(const load_target & /*target*/, std::string * /*error*/) {
  return nullptr;
}
#endif
#ifndef TQDB_HAVE_POSTGRESQL
std::unique_ptr<load_driver> make_postgresql_driver(const load_target & /*target*/) {
  return nullptr;
}

std::unique_ptr<connection> connect_postgresql(const load_target & /*target*/, std::string * /*error*/) {
  return nullptr;
}
#endif
#ifndef TQDB_HAVE_CLICKHOUSE
std::unique_ptr<load_driver> make_clickhouse_driver(const load_target & /*target*/) {
  return nullptr;
}

std::unique_ptr<connection> connect_clickhouse(const load_target & /*target*/, std::string * /*error*/) {
  return nullptr;
}
#endif

static std::string missing(const char *engine) {
  return std::string("this build has no driver for ") + engine + ": its client library was missing when it was built";
}

std::unique_ptr<load_driver> make_driver(const load_target &target, std::string *error) {
  std::unique_ptr<load_driver> driver;
  switch (target.kind) {
  case TQDB_SQLITE:
    *error = missing("SQLite");
    return make_sqlite_driver(target);
  case TQDB_POSTGRESQL:
    *error = missing("PostgreSQL");
    return make_postgresql_driver(target);
  case TQDB_CLICKHOUSE:
    *error = missing("ClickHouse");
    return make_clickhouse_driver(target);
  case TQDB_JOURNAL:
    return make_journal_driver(target);
  }
  return driver;
}

std::unique_ptr<connection> connect(const load_target &target, std::string *error) {
  switch (target.kind) {
  case TQDB_SQLITE:
    *error = missing("SQLite");
    return connect_sqlite(target, error);
  case TQDB_POSTGRESQL:
    *error = missing("PostgreSQL");
    return connect_postgresql(target, error);
  case TQDB_CLICKHOUSE:
    *error = missing("ClickHouse");
    return connect_clickhouse(target, error);
  case TQDB_JOURNAL:
    *error = "the journal cannot be asked";
    break;
  }
  return nullptr;
}

answer ask_all(connection &c, std::string_view sql, std::span<const value> values, cells *rows,
               const question_limits &limits) {
  rows->clear();
  return c.ask(sql, values, limits, [rows](std::span<const value> row) {
    std::vector<cell> &copy = rows->emplace_back();
    for (const value &v : row) {
      if (const auto *text = std::get_if<std::string_view>(&v))
        copy.emplace_back(std::string(*text));
      else if (const auto *number = std::get_if<int64_t>(&v))
        copy.emplace_back(*number);
      else if (const auto *real = std::get_if<double>(&v))
        copy.emplace_back(*real);
      else
        copy.emplace_back();
    }
    return true;
  });
}

std::string text_of(const cell &c) {
  char digits[64];
  if (const auto *text = std::get_if<std::string>(&c))
    return *text;
  if (const auto *number = std::get_if<int64_t>(&c))
    return {digits, std::to_chars(digits, digits + sizeof digits, *number).ptr};
  if (const auto *real = std::get_if<double>(&c))
    return {digits, std::to_chars(digits, digits + sizeof digits, *real).ptr};
  return {};
}

} // namespace tqdb
