// Asking PostgreSQL: a session that cannot write, and stops when its time is over.
//   In      SQL, bound values
//   Out     rows as they come, one at a time
//   Thread  one for each connection
//   Failure words in the answer; a lost connection is made anew at the next question
#include "postgresql_link.h"
#include "tqdb_query.h"
#include "tqdb_schema.h"

#include "wllb_util.h"

#include <charconv>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

namespace tqdb {

namespace {

// The types that tables and their sums have, by their numbers in every PostgreSQL.
enum type_number : Oid {
  BOOL = 16,
  BYTEA = 17,
  INT8 = 20,
  INT2 = 21,
  INT4 = 23,
  TEXT = 25,
  FLOAT4 = 700,
  FLOAT8 = 701,
  NUMERIC = 1700
};

struct postgresql_connection final : connection {
  std::string url;
  postgresql_link link;

  engine kind() const override { return TQDB_POSTGRESQL; }

  bool open();
  answer ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
             const std::function<bool(std::span<const value> row)> &on_row) override;

private:
  bool send(std::string_view sql, std::span<const value> values, int64_t ms);
  bool take_row(const PGresult *result, answer *a, const question_limits &limits, int64_t *bytes,
                const std::function<bool(std::span<const value> row)> &on_row);
};

} // namespace

// "?1" as "$1", outside of quotes.
static std::string with_dollars(std::string_view sql) {
  std::string text;
  char quote = 0;
  for (const char c : sql) {
    quote = quote == c ? 0 : quote == 0 && (c == '\'' || c == '"') ? c : quote;
    text += quote == 0 && c == '?' ? '$' : c;
  }
  return text;
}

bool postgresql_connection::open() {
  return link.open(url, "tqdb") &&
         link.run("SET default_transaction_read_only = on; SET standard_conforming_strings = on; SET jit = off");
}

bool postgresql_connection::send(std::string_view sql, std::span<const value> values, int64_t ms) {
  std::vector<std::string> texts(values.size());
  std::vector<const char *> pointers;
  std::vector<Oid> types;
  for (size_t i = 0; i < values.size(); ++i) {
    const value &v = values[i];
    if (const auto *text = std::get_if<std::string_view>(&v))
      texts[i] = *text;
    else if (const auto *number = std::get_if<int64_t>(&v))
      texts[i] = std::to_string(*number);
    else if (const auto *real = std::get_if<double>(&v))
      texts[i] = wllb_format("%.17g", *real);
    types.push_back(std::holds_alternative<std::string_view>(v) ? TEXT
                    : std::holds_alternative<double>(v)         ? FLOAT8
                                                                : INT8);
    pointers.push_back(std::holds_alternative<null_value>(v) ? nullptr : texts[i].c_str());
  }
  return link.run(wllb_format("SET statement_timeout = %" PRId64, ms)) &&
         PQsendQueryParams(link.conn, with_dollars(sql).c_str(), static_cast<int>(values.size()), types.data(),
                           pointers.data(), nullptr, nullptr, 0) == 1 &&
         PQsetSingleRowMode(link.conn) == 1;
}

// Sums of 64-bit numbers come as decimal numbers of any length; those that fit are whole numbers again.
static value number_of(std::string_view text) {
  int64_t whole = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), whole);
  if (end.ec == std::errc() && end.ptr == text.data() + text.size())
    return whole;
  return strtod(text.data(), nullptr);
}

static value value_at(const PGresult *result, int column, std::string *decoded) {
  if (PQgetisnull(result, 0, column))
    return null_value{};
  const char *text = PQgetvalue(result, 0, column);
  const std::string_view view(text, static_cast<size_t>(PQgetlength(result, 0, column)));
  switch (PQftype(result, column)) {
  case BOOL:
    return static_cast<int64_t>(*text == 't');
  case INT2:
  case INT4:
  case INT8:
  case NUMERIC:
    return number_of(view);
  case FLOAT4:
  case FLOAT8:
    return strtod(text, nullptr);
  case BYTEA: {
    size_t size = 0;
    unsigned char *bytes = PQunescapeBytea(reinterpret_cast<const unsigned char *>(text), &size);
    decoded->assign(reinterpret_cast<const char *>(bytes), bytes ? size : 0);
    PQfreemem(bytes);
    return std::string_view(*decoded);
  }
  default:
    return view;
  }
}

// False: no more rows are wanted.
bool postgresql_connection::take_row(const PGresult *result, answer *a, const question_limits &limits, int64_t *bytes,
                                     const std::function<bool(std::span<const value> row)> &on_row) {
  const int columns = PQnfields(result);
  std::vector<value> row(static_cast<size_t>(columns));
  std::vector<std::string> decoded(row.size());
  for (int i = 0; i < columns; ++i) {
    value &v = row[static_cast<size_t>(i)] = value_at(result, i, &decoded[static_cast<size_t>(i)]);
    if (const auto *text = std::get_if<std::string_view>(&v))
      *bytes += static_cast<int64_t>(text->size());
  }
  if (a->rows >= limits.rows || *bytes > limits.bytes) {
    a->end = TQDB_MORE_ROWS;
    return false;
  }
  ++a->rows;
  a->end = on_row(row) ? TQDB_COMPLETE : TQDB_STOPPED;
  return a->end == TQDB_COMPLETE;
}

static void cancel(PGconn *conn) {
  char ignored[256];
  PGcancel *request = PQgetCancel(conn);
  PQcancel(request, ignored, sizeof ignored);
  PQfreeCancel(request);
}

answer postgresql_connection::ask(std::string_view sql, std::span<const value> values, const question_limits &limits,
                                  const std::function<bool(std::span<const value> row)> &on_row) {
  answer a;
  if ((PQstatus(link.conn) != CONNECTION_OK && !open()) || !send(sql, values, limits.ms)) {
    a.error = link.error.empty() || PQstatus(link.conn) != CONNECTION_OK ? PQerrorMessage(link.conn) : link.error;
    return a;
  }
  int64_t bytes = 0;
  bool wanted = true;
  while (const postgresql_result result = postgresql_result(PQgetResult(link.conn))) {
    if (!wanted)
      continue; // what was under way when it was cancelled
    if (!link.judge(result.get())) {
      const char *state = PQresultErrorField(result.get(), PG_DIAG_SQLSTATE);
      a.end = state && strcmp(state, "57014") == 0 ? TQDB_OUT_OF_TIME : TQDB_FAILED;
      a.error = link.error;
      wanted = false;
      continue;
    }
    for (int i = static_cast<int>(a.columns.size()); i < PQnfields(result.get()); ++i)
      a.columns.emplace_back(PQfname(result.get(), i));
    a.end = TQDB_COMPLETE;
    wanted = PQntuples(result.get()) == 0 || take_row(result.get(), &a, limits, &bytes, on_row);
    if (!wanted)
      cancel(link.conn);
  }
  return a;
}

std::unique_ptr<connection> connect_postgresql(const load_target &target, std::string *error) {
  auto c = std::make_unique<postgresql_connection>();
  c->url = target.url;
  int64_t exists = 0, version = 0;
  error->clear();
  if (!c->open() || !c->link.number("SELECT (to_regclass('schema_version') IS NOT NULL)::integer", &exists) ||
      (exists && !c->link.number("SELECT max(version) FROM schema_version", &version)))
    *error = target.url + ": " + c->link.error;
  else if (version > schema_version)
    *error = target.url + wllb_format(": its schema has version %d, this program knows up to %d",
                                      static_cast<int>(version), schema_version);
  else if (version == 0)
    *error = target.url + ": nothing has been loaded into it";
  if (!error->empty())
    return nullptr;
  return c;
}

} // namespace tqdb
