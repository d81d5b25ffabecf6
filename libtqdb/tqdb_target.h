// Which database: URLs, and the order in which they are looked for.
//   In      the command line's URL, the keyword file's, the environment's
//   Out     a target
//   Thread  any
//   Failure words for a person; a URL with a password is refused, since it would stand on a command line
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tqdb {

enum engine : uint8_t { TQDB_SQLITE, TQDB_POSTGRESQL, TQDB_CLICKHOUSE, TQDB_JOURNAL };

struct load_target {
  engine kind = TQDB_SQLITE;
  std::string path;          // SQLITE: of the file. JOURNAL: empty
  std::string url;           // as given; POSTGRESQL: as libpq takes it. Fit for messages, since it has no password
  std::string host;          // CLICKHOUSE; without the brackets of an IPv6 address
  int port = 0;              // CLICKHOUSE; 8123 if the URL has none
  std::string database;      // CLICKHOUSE; "default" if the URL has none
  std::string cluster;       // CLICKHOUSE; empty: one server
  std::string password_file; // CLICKHOUSE; "?password_file=PATH": a line `user:password`, mode 0600. Empty: none
};

// "sqlite:PATH", "postgresql://...", "clickhouse://host:port/db?cluster=NAME&password_file=PATH", "journal:".
// False, with *error, for anything else.
bool parse_target(std::string_view url, load_target *target, std::string *error);

// The first of these that is not empty: the command line's, the keyword's, the environment's TQU_DATABASE; else
// "sqlite:<run_dir>/tq/db/testrun.sqlite".
std::string choose_url(std::string_view command_line, std::string_view keyword, const std::string &run_dir);

} // namespace tqdb
