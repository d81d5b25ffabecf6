// One ClickHouse server by its HTTP interface: statements, blocks of rows, answers.
//   In      host and port; user and password from a file
//   Out     answers as text
//   Thread  one for each server
//   Failure by return value; `error` is one line, names the server and never holds a password
#pragma once

#include "tqdb_target.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tqdb {

enum clickhouse_trouble : uint8_t {
  CLICKHOUSE_FINE,
  CLICKHOUSE_PASSING, // worth another try: nobody answers, no room on the disk, too many parts, server stopping
  CLICKHOUSE_LASTING  // another try would end the same way: wrong password, a statement that is not valid
};

struct clickhouse_login {
  std::string user, password; // both empty: the server's default user
};

// Reads `user:password` from the first line of a file that nobody but its owner may read. An empty path: no login.
bool read_clickhouse_login(const std::string &path, clickhouse_login *login, std::string *error);

struct clickhouse_server {
  std::string host; // an address or a name
  int port = 0;
  std::string database; // of statements that name none; empty: the server's
  std::string error;
  clickhouse_trouble trouble = CLICKHOUSE_FINE;
  int code = 0; // the server's number of the last error; 0: the error is not the server's

  clickhouse_server(std::string_view of_host, int of_port, const clickhouse_login &login);
  ~clickhouse_server();
  clickhouse_server(const clickhouse_server &) = delete;
  clickhouse_server &operator=(const clickhouse_server &) = delete;

  // Runs a statement; *answer, if asked for, gets what it gives: tab-separated rows unless it has a FORMAT.
  bool run(std::string_view sql, std::string *answer = nullptr);

  // Sends rows with a statement "INSERT INTO ... FORMAT ...". `query_id` names it in the server's list of what it does.
  bool insert(std::string_view sql, std::string_view rows, std::string_view query_id);

  // Runs a SELECT with settings ("name=value&..."), and hands over the answer in pieces as they come. The function returns
  // false for enough. Gives up after `ms`; then `late` is true. An answer is only complete when this returns true.
  bool ask(std::string_view sql, std::string_view settings, int64_t ms,
           const std::function<bool(std::string_view)> &on_piece);
  bool late = false;

private:
  struct transfer;
  std::unique_ptr<transfer> http;

  bool send(const std::string &parameters, std::string_view body, int64_t ms,
            const std::function<bool(std::string_view)> &on_piece);
};

// "text" as a literal: quotes and backslashes escaped.
std::string clickhouse_literal(std::string_view text);

// The cells of a tab-separated line, escapes resolved.
std::vector<std::string> clickhouse_cells(std::string_view line);

// Resolves the escapes of one cell.
std::string clickhouse_cell(std::string_view cell);

} // namespace tqdb
