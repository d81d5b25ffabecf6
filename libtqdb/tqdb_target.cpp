// Which database; see the header.
#include "tqdb_target.h"

#include "wllb_util.h"

#include <algorithm>
#include <cstdlib>

namespace tqdb {

static bool take_prefix(std::string_view *text, std::string_view prefix) {
  if (!text->starts_with(prefix))
    return false;
  text->remove_prefix(prefix.size());
  return true;
}

static bool is_plain_name(std::string_view name) {
  return !name.empty() && name.size() <= 64 && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  });
}

static bool refuse(std::string *error, std::string_view url, const char *reason) {
  *error = "database '" + std::string(url) + "' " + reason;
  return false;
}

// A password in the user part or among the parameters of a URL.
static bool has_password(std::string_view rest) {
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?"));
  const size_t at = authority.rfind('@');
  const std::string_view user = at == authority.npos ? std::string_view() : authority.substr(0, at);
  return user.find(':') != user.npos || rest.find("?password=") != rest.npos || rest.find("&password=") != rest.npos;
}

// host[:port][/database][?cluster=NAME][&password_file=PATH]
static const char *read_clickhouse(std::string_view rest, load_target *target) {
  target->port = 8123;
  target->database = "default";
  std::string_view parameters;
  if (const size_t at = rest.find('?'); at != rest.npos) {
    parameters = rest.substr(at + 1);
    rest = rest.substr(0, at);
  }
  if (const size_t at = rest.find('/'); at != rest.npos) {
    if (at + 1 < rest.size())
      target->database = rest.substr(at + 1);
    rest = rest.substr(0, at);
  }
  if (!is_plain_name(target->database))
    return "has no valid name of a database";
  if (const size_t at = rest.rfind(':'); at != rest.npos && rest.find(']', at) == rest.npos) {
    const std::string port(rest.substr(at + 1));
    target->port = wllb_is_numeric(port) && port.size() < 6 ? atoi(port.c_str()) : 0;
    rest = rest.substr(0, at);
  }
  if (target->port < 1 || target->port > 65535)
    return "has no valid port";
  if (rest.starts_with('[') && rest.ends_with(']'))
    rest = rest.substr(1, rest.size() - 2);
  target->host = rest;
  if (rest.empty() || rest.find_first_of("@ /\\\"'") != rest.npos)
    return "has no valid host (a user comes from ?password_file=PATH)";
  while (!parameters.empty()) {
    std::string_view one = wllb_take_piece(&parameters, '&');
    if (take_prefix(&one, "cluster=") && is_plain_name(one))
      target->cluster = one;
    else if (take_prefix(&one, "password_file=") && !one.empty())
      target->password_file = one;
    else
      return "has a parameter that is not cluster=NAME or password_file=PATH";
  }
  return nullptr;
}

bool parse_target(std::string_view url, load_target *target, std::string *error) {
  *target = {};
  target->url = url;
  std::string_view rest = url;
  if (url.find('\0') != url.npos)
    return refuse(error, "", "has a NUL byte");
  if (take_prefix(&rest, "sqlite:")) {
    target->kind = TQDB_SQLITE;
    target->path = rest;
    return !rest.empty() || refuse(error, url, "has no path");
  }
  if (take_prefix(&rest, "journal:")) {
    target->kind = TQDB_JOURNAL;
    return true;
  }
  if (take_prefix(&rest, "postgresql://") || take_prefix(&rest, "postgres://")) {
    target->kind = TQDB_POSTGRESQL;
    return !has_password(rest) || refuse(error, std::string(url.substr(0, url.find("//"))) + "//...",
                                         "holds a password; put it into libpq's password file or service file");
  }
  if (take_prefix(&rest, "clickhouse://")) {
    target->kind = TQDB_CLICKHOUSE;
    if (has_password(rest))
      return refuse(error, "clickhouse://...",
                    "holds a password; put user:password into a file and name it by ?password_file=");
    const char *wrong = read_clickhouse(rest, target);
    return !wrong || refuse(error, url, wrong);
  }
  return refuse(error, url, "is not sqlite:PATH, postgresql://..., clickhouse://host:port/db or journal:");
}

std::string choose_url(std::string_view command_line, std::string_view keyword, const std::string &run_dir) {
  const char *environment = getenv("TQU_DATABASE"); // NOLINT(concurrency-mt-unsafe): before any thread
  for (const std::string_view url : {command_line, keyword, std::string_view(environment ? environment : "")})
    if (!url.empty())
      return std::string(url);
  return "sqlite:" + run_dir + "/tq/db/testrun.sqlite";
}

} // namespace tqdb
