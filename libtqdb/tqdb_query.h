// Asking a database: SQL that is the same for every engine, bound values, limits.
//   In      SQL text of the program's own, with ?1, ?2, ... for values from outside
//   Out     rows, one at a time
//   Thread  one for each connection; several connections may be used at once
//   Failure by the answer's end, with words
// Connections only read. SQL is written for the engine that knows least: one JOIN for each SELECT (more by nesting), USING,
// no window functions, no correlated subqueries, `x * 1.0 / y` for averages, single quotes for texts. What reads sums groups
// by their keys again. SQL that must differ is made by sql_for().
#pragma once

#include "tqdb_target.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tqdb {

using null_value = std::monostate;
using value = std::variant<null_value, int64_t, double, std::string_view>; // a text lives until the row's call returns

struct question_limits {
  int64_t rows = 10000;      // more are not given
  int64_t ms = 10000;        // the engine gives up after about that time
  int64_t bytes = 256 << 20; // of texts in all
};

enum answer_end : uint8_t {
  TQDB_COMPLETE,
  TQDB_MORE_ROWS,   // a limit on rows or bytes was reached
  TQDB_OUT_OF_TIME, // the limit on time was
  TQDB_STOPPED,     // the caller's function gave false
  TQDB_FAILED       // see error
};

struct answer {
  answer_end end = TQDB_FAILED;
  std::string error;
  std::vector<std::string> columns;
  int64_t rows = 0;
};

struct connection {
  connection() = default;
  virtual ~connection() = default;
  connection(const connection &) = delete;
  connection &operator=(const connection &) = delete;

  virtual engine kind() const = 0;

  // Runs one SELECT. `columns` of the answer are there before the first row is given. The row's function returns false for
  // enough. Never blocks much longer than the limit.
  virtual answer ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
                     const std::function<bool(std::span<const value> row)> &on_row) = 0;
};

// Opens a connection for reading. Null, with *error: nothing there, no driver, a newer schema.
std::unique_ptr<connection> connect(const load_target &target, std::string *error);
std::unique_ptr<connection> connect_sqlite(const load_target &target, std::string *error);
std::unique_ptr<connection> connect_postgresql(const load_target &target, std::string *error);
std::unique_ptr<connection> connect_clickhouse(const load_target &target, std::string *error);

// All rows at once, for small answers: texts are copied.
using cell = std::variant<null_value, int64_t, double, std::string>;
using cells = std::vector<std::vector<cell>>;
answer ask_all(connection &c, std::string_view sql, std::span<const value> values, cells *rows,
               const question_limits &limits = {});

// The text of a cell: numbers as C++ prints them shortest, "" for null.
std::string text_of(const cell &c);

} // namespace tqdb
