// A database server that belongs to a test; see private_server.cpp.
//   In      the engine
//   Out     its URL; kills and restarts
//   The server ends with the object. A test skips itself where the engine is not installed
#pragma once

#include "tqdb_target.h"

#include <string>
#include <sys/types.h>

class database_server {
public:
  // "postgresql", "clickhouse" or "cluster" (two ClickHouse servers).
  explicit database_server(const std::string &kind);
  ~database_server();
  database_server(const database_server &) = delete;
  database_server &operator=(const database_server &) = delete;

  bool installed() const { return !url.empty(); }

  // "kill 0", "start 0", "stop 1": false when it did not succeed.
  bool command(const std::string &words);

  tqdb::load_target target() const;

  std::string url;       // empty: not installed, or it did not start; then `why` tells
  std::string directory; // of the server, with the file "passwords"
  std::string why;

private:
  std::string read_line();

  pid_t child = -1;
  int input = -1, output = -1;
};
