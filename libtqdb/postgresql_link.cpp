// One connection to a PostgreSQL server; see the header.
#include "postgresql_link.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <vector>

namespace tqdb {

static constexpr int connect_seconds = 10;

// The first line of an error, without what verbose errors have around it.
static std::string first_line(const char *message) {
  std::string_view text(message ? message : "");
  text = text.substr(0, text.find('\n'));
  while (text.starts_with("ERROR:  ") || text.starts_with("FATAL:  "))
    text.remove_prefix(8);
  return text.empty() ? "the connection was lost" : std::string(text);
}

// The class of an SQLSTATE tells how lasting a trouble is.
static postgresql_trouble trouble_of(std::string_view state) {
  for (const std::string_view passing : {"08", "40", "53", "55", "57", "58", "25006", "25P03", "XX000"})
    if (state.starts_with(passing))
      return POSTGRESQL_PASSING;
  return POSTGRESQL_LASTING;
}

// What a server said while connecting stands in the message as "FATAL:  28P01: ...".
static postgresql_trouble connecting_trouble(const std::string &message) {
  for (size_t at = message.find(":  "); at != std::string::npos; at = message.find(":  ", at + 1)) {
    const std::string_view rest = std::string_view(message).substr(at + 3);
    if (rest.size() > 6 && rest[5] == ':')
      return trouble_of(rest.substr(0, 5));
  }
  return POSTGRESQL_PASSING; // nobody answered
}

void postgresql_link::close() {
  PQfinish(conn);
  conn = nullptr;
}

// libpq's own connect does not give the state of an error, so the steps are made here.
static bool poll_until_connected(PGconn *conn) {
  const time_t limit = time(nullptr) + connect_seconds;
  PostgresPollingStatusType state = PGRES_POLLING_WRITING;
  while (state != PGRES_POLLING_OK && state != PGRES_POLLING_FAILED) {
    pollfd side = {PQsocket(conn), static_cast<short>(state == PGRES_POLLING_READING ? POLLIN : POLLOUT), 0};
    if (time(nullptr) > limit)
      return false;
    if (poll(&side, 1, 100) > 0)
      state = PQconnectPoll(conn);
  }
  return state == PGRES_POLLING_OK;
}

bool postgresql_link::open(const std::string &url, const char *program) {
  close();
  const char *const names[] = {"dbname", "fallback_application_name", "client_encoding", nullptr};
  const char *const values[] = {url.c_str(), program, "UTF8", nullptr};
  conn = PQconnectStartParams(names, values, 1);
  trouble = POSTGRESQL_FINE;
  if (conn && PQstatus(conn) != CONNECTION_BAD) {
    PQsetErrorVerbosity(conn, PQERRORS_VERBOSE);
    const bool connected = poll_until_connected(conn);
    PQsetErrorVerbosity(conn, PQERRORS_DEFAULT);
    PQsetNoticeProcessor(
        conn, [](void *, const char *) {}, nullptr); // "already exists, skipping"
    if (connected)
      return true;
    trouble = connecting_trouble(PQerrorMessage(conn));
  } else {
    trouble = POSTGRESQL_LASTING; // the URL, a service or a password file cannot be read
  }
  error = conn ? first_line(PQerrorMessage(conn)) : "out of memory";
  if (PQconnectionNeedsPassword(conn)) {
    error += " (no password in the password file)";
    trouble = POSTGRESQL_LASTING;
  }
  return false;
}

bool postgresql_link::judge(const PGresult *result) {
  const ExecStatusType status = PQresultStatus(result); // a fatal error for null
  trouble = POSTGRESQL_FINE;
  if (status != PGRES_FATAL_ERROR && status != PGRES_BAD_RESPONSE && status != PGRES_NONFATAL_ERROR)
    return true;
  const char *state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  trouble = PQstatus(conn) == CONNECTION_BAD || !state ? POSTGRESQL_PASSING : trouble_of(state);
  error = first_line(result ? PQresultErrorMessage(result) : PQerrorMessage(conn));
  return false;
}

postgresql_result postgresql_link::run(const std::string &sql) {
  postgresql_result result(PQexec(conn, sql.c_str()));
  if (!judge(result.get()))
    result.reset();
  return result;
}

postgresql_result postgresql_link::run(const std::string &sql, std::span<const std::string> values) {
  std::vector<const char *> texts;
  for (const std::string &value : values)
    texts.push_back(value.c_str());
  postgresql_result result(
      PQexecParams(conn, sql.c_str(), static_cast<int>(texts.size()), nullptr, texts.data(), nullptr, nullptr, 0));
  if (!judge(result.get()))
    result.reset();
  return result;
}

bool postgresql_link::number(const std::string &sql, int64_t *value, int64_t missing) {
  const postgresql_result result = run(sql);
  *value = missing;
  if (result && PQntuples(result.get()) > 0 && !PQgetisnull(result.get(), 0, 0))
    *value = strtoll(PQgetvalue(result.get(), 0, 0), nullptr, 10);
  return result != nullptr;
}

std::string postgresql_literal(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text)
    quoted.append(c == '\'' ? 2 : 1, c);
  return quoted + "'"; // backslashes are plain with standard_conforming_strings, the server's default
}

} // namespace tqdb
