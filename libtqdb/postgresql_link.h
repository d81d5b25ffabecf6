// One connection to a PostgreSQL server: connecting, statements, and what an error means.
//   In      a URL as libpq takes it; libpq's own environment, service file and password file
//   Out     results
//   Thread  one for each link
//   Failure by return value; `error` is one line and never holds a password
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace tqdb {

struct clear_result {
  void operator()(PGresult *result) const { PQclear(result); }
};

using postgresql_result = std::unique_ptr<PGresult, clear_result>;

enum postgresql_trouble : uint8_t {
  POSTGRESQL_FINE,
  POSTGRESQL_PASSING, // worth another try: connection lost, disk full, server stopping or overloaded
  POSTGRESQL_LASTING  // another try would end the same way: wrong password, no such database, no right to it
};

struct postgresql_link {
  PGconn *conn = nullptr;
  std::string error;                            // of the last call that failed
  postgresql_trouble trouble = POSTGRESQL_FINE; // of the last call

  postgresql_link() = default;

  ~postgresql_link() { close(); }

  postgresql_link(const postgresql_link &) = delete;
  postgresql_link &operator=(const postgresql_link &) = delete;

  // Closes what is open and connects; within 10 s for each address unless the URL says otherwise.
  bool open(const std::string &url, const char *program);
  void close();

  // Runs a statement, or several without values. Null when it failed.
  postgresql_result run(const std::string &sql);
  postgresql_result run(const std::string &sql, std::span<const std::string> values);
  // The first column of the first row as a number; `missing` when there is no row or it is null. False: it failed.
  bool number(const std::string &sql, int64_t *value, int64_t missing = 0);

  // Keeps what a result or the connection has to say. Returns true when it is nothing bad.
  bool judge(const PGresult *result);
};

// "text" as a literal between single quotes.
std::string postgresql_literal(std::string_view text);

} // namespace tqdb
