// Asking ClickHouse: statements that cannot write, and stop when their time is over.
//   In      SQL, values that are put into it as literals
//   Out     rows as they come, one at a time
//   Thread  one for each connection
//   Failure words in the answer
// Tables that a join does not match give NULL, as in other engines. Conditions on a view reach its tables where the server
// does that by itself: version 18 can be told to, but then takes a sum for the column that it is called by.
#include "clickhouse_http.h"
#include "tqdb_query.h"
#include "tqdb_schema.h"

#include "wllb_util.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdlib>

namespace tqdb {

namespace {

struct clickhouse_connection final : connection {
  std::unique_ptr<clickhouse_server> server;

  engine kind() const override { return TQDB_CLICKHOUSE; }

  answer ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
             const std::function<bool(std::span<const value> row)> &on_row) override;
};

enum cell_kind : uint8_t { WHOLE, REAL, OTHER };

// An answer as it comes: a line with names, one with types, then rows.
struct answer_reader {
  answer *a;
  const question_limits &limits;
  const std::function<bool(std::span<const value> row)> &on_row;
  std::string pending; // the beginning of a line
  std::vector<cell_kind> kinds;
  std::vector<value> row;
  std::vector<std::string> texts;
  int64_t bytes = 0;

  bool take(std::string_view piece);
  bool take_line(std::string_view line);
};

} // namespace

static std::string literal_of(const value &v) {
  if (const auto *text = std::get_if<std::string_view>(&v))
    return clickhouse_literal(*text);
  if (const auto *number = std::get_if<int64_t>(&v))
    return *number < 0 ? "toInt64(" + std::to_string(*number) + ")" : std::to_string(*number);
  if (const auto *real = std::get_if<double>(&v))
    return wllb_format("toFloat64('%.17g')", *real);
  return "NULL";
}

// "?1" becomes the first value's literal, outside of quotes. A number without a value stays and fails.
static std::string with_values(std::string_view sql, std::span<const value> values) {
  std::string text;
  char quote = 0;
  for (size_t i = 0; i < sql.size(); ++i) {
    const char c = sql[i];
    quote = quote == c ? 0 : quote == 0 && (c == '\'' || c == '"') ? c : quote;
    size_t number = 0;
    const auto end = std::from_chars(sql.data() + i + 1, sql.data() + sql.size(), number);
    if (quote != 0 || c != '?' || end.ec != std::errc() || number < 1 || number > values.size()) {
      text += c;
      continue;
    }
    text += literal_of(values[number - 1]);
    i = static_cast<size_t>(end.ptr - sql.data()) - 1;
  }
  return text;
}

static cell_kind kind_of(std::string_view type) {
  for (const std::string_view around : {"Nullable(", "LowCardinality("})
    if (type.starts_with(around))
      return kind_of(type.substr(around.size(), type.size() - around.size() - 1));
  if (type.starts_with("Int") || type.starts_with("UInt"))
    return WHOLE;
  return type.starts_with("Float") || type.starts_with("Decimal") ? REAL : OTHER;
}

static value number_of(const std::string &text, cell_kind kind) {
  int64_t whole = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), whole);
  if (kind == WHOLE && end.ec == std::errc() && end.ptr == text.data() + text.size())
    return whole;
  return strtod(text.c_str(), nullptr);
}

// False: no more rows are wanted.
bool answer_reader::take_line(std::string_view line) {
  if (a->columns.empty()) {
    a->columns = clickhouse_cells(line);
    return true;
  }
  if (kinds.empty()) {
    for (const std::string &type : clickhouse_cells(line))
      kinds.push_back(kind_of(type));
    return true;
  }
  row.assign(kinds.size(), null_value{});
  texts.resize(kinds.size());
  for (size_t i = 0; i < kinds.size(); ++i) {
    const std::string_view given = wllb_take_piece(&line, '\t');
    if (given == "\\N")
      continue;
    texts[i] = clickhouse_cell(given);
    row[i] = kinds[i] == OTHER ? value(std::string_view(texts[i])) : number_of(texts[i], kinds[i]);
    bytes += kinds[i] == OTHER ? static_cast<int64_t>(texts[i].size()) : 0;
  }
  if (a->rows >= limits.rows || bytes > limits.bytes) {
    a->end = TQDB_MORE_ROWS;
    return false;
  }
  ++a->rows;
  if (on_row(row))
    return true;
  a->end = TQDB_STOPPED;
  return false;
}

bool answer_reader::take(std::string_view piece) {
  pending += piece;
  size_t from = 0;
  for (size_t end; (end = pending.find('\n', from)) != std::string::npos; from = end + 1)
    if (!take_line(std::string_view(pending).substr(from, end - from)))
      return false;
  pending.erase(0, from);
  return true;
}

answer clickhouse_connection::ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
                                  const std::function<bool(std::span<const value> row)> &on_row) {
  answer a;
  answer_reader reader = {&a, limits, on_row, {}, {}, {}, {}, 0};
  // The answer is held back until it is whole, so that an error never stands among its rows. Its rows are limited there, too.
  const std::string settings =
      wllb_format("readonly=2&wait_end_of_query=1&join_use_nulls=1&distributed_product_mode=global&"
                  "max_result_rows=%" PRId64 "&result_overflow_mode=break&max_execution_time=%" PRId64,
                  limits.rows + 1, limits.ms / 1000 + 1);
  const bool whole = server->ask(with_values(sql, values) + " FORMAT TabSeparatedWithNamesAndTypes", settings,
                                 limits.ms + 1000, [&](std::string_view piece) { return reader.take(piece); });
  if (a.end == TQDB_MORE_ROWS || a.end == TQDB_STOPPED)
    return a;
  constexpr int timeout_exceeded = 159;
  if (whole)
    a.end = TQDB_COMPLETE;
  else if (server->late || server->code == timeout_exceeded)
    a.end = TQDB_OUT_OF_TIME;
  if (!whole)
    a.error = server->error;
  return a;
}

std::unique_ptr<connection> connect_clickhouse(const load_target &target, std::string *error) {
  clickhouse_login login;
  if (!read_clickhouse_login(target.password_file, &login, error))
    return nullptr;
  auto c = std::make_unique<clickhouse_connection>();
  c->server = std::make_unique<clickhouse_server>(target.host, target.port, login);
  c->server->database = target.database;
  std::string version;
  if (!c->server->run("SELECT max(version) FROM schema_version", &version)) {
    constexpr int unknown_table = 60, unknown_database = 81;
    const bool nothing = c->server->code == unknown_table || c->server->code == unknown_database;
    *error = nothing ? target.url + ": nothing has been loaded into it" : c->server->error;
    return nullptr;
  }
  if (atoi(version.c_str()) > schema_version) {
    *error = target.url + wllb_format(": its schema has version %d, this program knows up to %d", atoi(version.c_str()),
                                      schema_version);
    return nullptr;
  }
  return c;
}

} // namespace tqdb
