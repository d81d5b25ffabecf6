// One ClickHouse server by its HTTP interface, over libcurl; see the header. The connection is kept between statements.
#include "clickhouse_http.h"

#include "wllb_util.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqdb {

static constexpr long connect_seconds = 10;
static constexpr int64_t statement_ms =
    300000;                                 // a server that has stopped in the middle does not hold the loader for ever
static constexpr size_t error_bytes = 4096; // kept of an answer that tells an error

// --- login ------------------------------------------------------------------------------------------------------------

static bool is_header_value(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= 32 && c != 127; });
}

bool read_clickhouse_login(const std::string &path, clickhouse_login *login, std::string *error) {
  if (path.empty())
    return true;
  struct stat found = {};
  const wllb_fd fd(wllb_open_plain(path.c_str(), O_RDONLY, &found));
  char text[1024];
  const ssize_t got = fd.fd < 0 ? -1 : read(fd.fd, text, sizeof text);
  *error = "password file " + path + ": ";
  if (got < 0) {
    *error += wllb_strerror(errno);
    return false;
  }
  if ((found.st_mode & 077) != 0) {
    *error += "others may read it; its mode must be 0600";
    return false;
  }
  std::string_view line(text, static_cast<size_t>(got));
  line = line.substr(0, line.find_first_of("\r\n"));
  const size_t colon = line.find(':');
  if (colon == 0 || colon == line.npos || !is_header_value(line)) {
    *error += "its first line is not user:password";
    return false;
  }
  login->user = line.substr(0, colon);
  login->password = line.substr(colon + 1);
  error->clear();
  return true;
}

// --- transfer ---------------------------------------------------------------------------------------------------------

struct clickhouse_server::transfer {
  CURL *curl = curl_easy_init();
  curl_slist *headers = nullptr;
  const std::function<bool(std::string_view)> *on_piece = nullptr;
  std::string refused; // the beginning of an answer with an error
  bool enough = false;
  char message[CURL_ERROR_SIZE] = "";

  transfer() = default;

  ~transfer() {
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
  }

  transfer(const transfer &) = delete;
  transfer &operator=(const transfer &) = delete;
};

// libcurl's write function: errors are kept, answers handed on.
template <class T> static size_t take_piece(char *bytes, size_t /*one*/, size_t size, void *to) {
  T *t = static_cast<T *>(to);
  long status = 0;
  curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) {
    t->refused.append(bytes, std::min(size, error_bytes - std::min(error_bytes, t->refused.size())));
    return size;
  }
  t->enough = t->enough || (t->on_piece && !(*t->on_piece)({bytes, size}));
  return t->enough ? 0 : size; // 0 ends the transfer
}

clickhouse_server::clickhouse_server(std::string_view of_host, int of_port, const clickhouse_login &login)
    : host(of_host), port(of_port), http(std::make_unique<transfer>()) {
  static const CURLcode once = curl_global_init(CURL_GLOBAL_ALL);
  CURL *curl = http->curl;
  if (once != CURLE_OK || !curl)
    return;
  if (!login.user.empty()) {
    http->headers = curl_slist_append(nullptr, ("X-ClickHouse-User: " + login.user).c_str());
    http->headers = curl_slist_append(http->headers, ("X-ClickHouse-Key: " + login.password).c_str());
  }
  http->headers = curl_slist_append(http->headers, "Expect:"); // no round trip before each block
  http->headers = curl_slist_append(http->headers, "Content-Type: application/octet-stream");
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, http->headers);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http");
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, connect_seconds);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, http->message);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take_piece<transfer>);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, http.get());
}

clickhouse_server::~clickhouse_server() = default;

// --- errors -----------------------------------------------------------------------------------------------------------

// Errors of a statement, a name or a right, by the server's numbers; all others may pass.
static bool is_lasting(int code) {
  for (const int lasting : {10, 16, 27,  33,  36,  42,  43,  44,  46,  47,  48,  50,  53,  57,  62, 63,
                            70, 81, 107, 164, 168, 170, 192, 193, 194, 195, 291, 344, 392, 497, 516})
    if (code == lasting)
      return true;
  return false;
}

// "Code: 60, e.displayText() = DB::Exception: Table ... doesn't exist., e.what() = ..." or, of newer servers,
// "Code: 60. DB::Exception: Table ...".
static std::string words_of(std::string_view text) {
  text = text.substr(0, text.find('\n'));
  if (const size_t at = text.find("DB::Exception: "); at != text.npos)
    text.remove_prefix(at + 15);
  text = text.substr(0, text.find(", e.what() ="));
  return std::string(text.substr(0, 500));
}

static std::string escaped(CURL *curl, std::string_view text) {
  char *made = curl_easy_escape(curl, text.data(), static_cast<int>(text.size()));
  std::string result = made ? made : "";
  curl_free(made);
  return result;
}

bool clickhouse_server::send(const std::string &parameters, std::string_view body, int64_t ms,
                             const std::function<bool(std::string_view)> &on_piece) {
  CURL *curl = http->curl;
  const bool is_ipv6 = host.find(':') != std::string::npos;
  const std::string place = (is_ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
  const std::string url = "http://" + place + "/?" + parameters;
  http->refused.clear();
  http->enough = false;
  http->message[0] = '\0';
  http->on_piece = &on_piece;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_POST, 1L);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(ms));
  const CURLcode result = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  http->on_piece = nullptr;
  late = result == CURLE_OPERATION_TIMEDOUT;
  code = 0;
  trouble = CLICKHOUSE_FINE;
  if (result == CURLE_OK && status == 200)
    return true;
  trouble = CLICKHOUSE_PASSING;
  if (result != CURLE_OK) {
    error = place + ": " + (http->message[0] ? http->message : curl_easy_strerror(result));
    return false;
  }
  sscanf(http->refused.c_str(), "Code: %d", &code);
  if (is_lasting(code) || (code == 0 && status >= 400 && status < 500))
    trouble = CLICKHOUSE_LASTING;
  error = place + ": " + (http->refused.empty() ? wllb_format("HTTP status %ld", status) : words_of(http->refused));
  return false;
}

// --- calls ------------------------------------------------------------------------------------------------------------

static std::string database_parameter(CURL *curl, const std::string &database) {
  return database.empty() ? "" : "database=" + escaped(curl, database) + "&";
}

bool clickhouse_server::run(std::string_view sql, std::string *answer) {
  if (answer)
    answer->clear();
  const std::function<bool(std::string_view)> keep = [answer](std::string_view piece) {
    if (answer)
      answer->append(piece);
    return true;
  };
  // Without the wait, an error after the first rows would stand in the answer.
  return send(database_parameter(http->curl, database) + "wait_end_of_query=1", sql, statement_ms, keep);
}

bool clickhouse_server::insert(std::string_view sql, std::string_view rows, std::string_view query_id) {
  const std::function<bool(std::string_view)> ignore = [](std::string_view) { return true; };
  return send(database_parameter(http->curl, database) + "query_id=" + escaped(http->curl, query_id) +
                  "&query=" + escaped(http->curl, sql),
              rows, statement_ms, ignore);
}

bool clickhouse_server::ask(std::string_view sql, std::string_view settings, int64_t ms,
                            const std::function<bool(std::string_view)> &on_piece) {
  return send(database_parameter(http->curl, database) + std::string(settings), sql, ms, on_piece);
}

// --- texts ------------------------------------------------------------------------------------------------------------

std::string clickhouse_literal(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'' || c == '\\')
      quoted += '\\';
    if (c == '\0')
      quoted += "\\0";
    else
      quoted += c;
  }
  return quoted + "'";
}

std::string clickhouse_cell(std::string_view cell) {
  std::string text;
  for (size_t i = 0; i < cell.size(); ++i) {
    if (cell[i] != '\\' || i + 1 == cell.size()) {
      text += cell[i];
      continue;
    }
    const char c = cell[++i];
    constexpr std::string_view letters = "bfnrt0", meanings("\b\f\n\r\t\0", 6);
    const size_t at = letters.find(c);
    text += at == letters.npos ? c : meanings[at];
  }
  return text;
}

std::vector<std::string> clickhouse_cells(std::string_view line) {
  std::vector<std::string> cells;
  while (true) {
    const size_t end = line.find('\t');
    cells.push_back(clickhouse_cell(line.substr(0, end)));
    if (end == line.npos)
      return cells;
    line.remove_prefix(end + 1);
  }
}

} // namespace tqdb
