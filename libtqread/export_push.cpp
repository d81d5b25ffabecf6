// OTLP over HTTP, by libcurl.
//   In      documents
//   Out     requests; counts of what arrived and what did not
//   Thread  the owner's
//   Failure see the header
#include "export_push.h"

#include "wllb_compression.h"
#include "wllb_util.h"

#include "tqread_text.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#ifdef TQREAD_HAVE_CURL
#include <curl/curl.h>
#include <jansson.h>
#endif

namespace tqread {

void otlp_pusher::note_problem(std::string text) {
  if (result_.problems.size() < push_result::most_problems &&
      std::find(result_.problems.begin(), result_.problems.end(), text) == result_.problems.end())
    result_.problems.push_back(std::move(text));
}

#ifndef TQREAD_HAVE_CURL

struct otlp_pusher::connection {};

otlp_pusher::otlp_pusher(push_options options)
    : options_(std::move(options)), unusable_("this program was built without libcurl") {}

otlp_pusher::~otlp_pusher() = default;

bool otlp_pusher::send(std::string_view, int64_t spans) {
  ++result_.documents_lost;
  result_.spans_lost += spans;
  return false;
}

#else

// --- the connection ---------------------------------------------------------------------------------------------

// What libcurl keeps for the requests of one pusher.
struct otlp_pusher::connection {
  CURL *easy = nullptr;
  CURLU *url = nullptr;
  curl_slist *headers = nullptr;
  char error[CURL_ERROR_SIZE] = "";

  ~connection() {
    curl_slist_free_all(headers);
    curl_url_cleanup(url);
    curl_easy_cleanup(easy);
  }
};

// What one try brought.
struct otlp_pusher::answer {
  static constexpr size_t most_bytes = size_t{64} << 10U; // of the body; more is not read

  long status = 0; // 0: there was no answer
  int64_t retry_after_ms = 0;
  std::string body;
  std::string problem;
};

static size_t take_body(const char *bytes, size_t size, size_t count, void *to) {
  auto *body = static_cast<std::string *>(to);
  const size_t room = (size_t{64} << 10U) - std::min(body->size(), size_t{64} << 10U);
  body->append(bytes, std::min(room, size * count));
  return size * count;
}

// "/v1/traces" for a URL that names no path of its own.
static std::string set_url(CURLU *url, const std::string &text) {
  if (curl_url_set(url, CURLUPART_URL, text.c_str(), 0) != CURLUE_OK)
    return "'" + printable(text, 200) + "' is not a valid URL";
  char *scheme = nullptr, *path = nullptr;
  curl_url_get(url, CURLUPART_SCHEME, &scheme, 0);
  curl_url_get(url, CURLUPART_PATH, &path, 0);
  const std::string scheme_text = scheme ? scheme : "", path_text = path ? path : "";
  curl_free(scheme);
  curl_free(path);
  if (scheme_text != "http" && scheme_text != "https")
    return "'" + printable(text, 200) + "' is not a URL of http or https";
  if (path_text.empty() || path_text == "/")
    curl_url_set(url, CURLUPART_PATH, "/v1/traces", 0);
  return "";
}

static bool is_header(const std::string &text) {
  const size_t colon = text.find(':');
  return colon != 0 && colon != text.npos &&
         std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

otlp_pusher::otlp_pusher(push_options options)
    : options_(std::move(options)), connection_(std::make_unique<connection>()) {
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  connection &c = *connection_;
  c.url = curl_url();
  c.easy = ready ? curl_easy_init() : nullptr;
  if (!c.easy || !c.url) {
    unusable_ = "libcurl cannot be used";
    return;
  }
  unusable_ = set_url(c.url, options_.url);
  options_.headers.insert(options_.headers.end(),
                          {"Content-Type: application/json", "Content-Encoding: gzip", "Expect:"});
  for (const std::string &header : options_.headers) {
    if (!is_header(header))
      unusable_ = "'" + printable(header, 200) + "' is not a header of the form 'Name: value'";
    c.headers = curl_slist_append(c.headers, header.c_str());
  }
  curl_easy_setopt(c.easy, CURLOPT_CURLU, c.url);
  curl_easy_setopt(c.easy, CURLOPT_HTTPHEADER, c.headers);
  curl_easy_setopt(c.easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c.easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(c.easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c.easy, CURLOPT_USERAGENT, "tqshow");
  curl_easy_setopt(c.easy, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(std::min<int64_t>(10000, options_.answer_timeout_ms)));
  curl_easy_setopt(c.easy, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.answer_timeout_ms));
  curl_easy_setopt(c.easy, CURLOPT_ERRORBUFFER, c.error);
  curl_easy_setopt(c.easy, CURLOPT_WRITEFUNCTION, take_body);
}

otlp_pusher::~otlp_pusher() = default;

// --- one request ------------------------------------------------------------------------------------------------

// Whether the endpoint took the document.
bool otlp_pusher::try_once(std::string_view packed, answer *got) {
  connection &c = *connection_;
  *got = {};
  c.error[0] = 0;
  ++result_.tries;
  curl_easy_setopt(c.easy, CURLOPT_POSTFIELDS, packed.data());
  curl_easy_setopt(c.easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(packed.size()));
  curl_easy_setopt(c.easy, CURLOPT_WRITEDATA, &got->body);
  const CURLcode code = curl_easy_perform(c.easy);
  if (code != CURLE_OK) {
    got->problem = printable(c.error[0] ? c.error : curl_easy_strerror(code), 300);
    return false;
  }
  curl_easy_getinfo(c.easy, CURLINFO_RESPONSE_CODE, &got->status);
  curl_off_t seconds = 0;
  curl_easy_getinfo(c.easy, CURLINFO_RETRY_AFTER, &seconds);
  got->retry_after_ms = std::clamp<int64_t>(seconds, 0, options_.longest_pause_ms / 1000 + 1) * 1000;
  if (got->status >= 200 && got->status < 300)
    return true;
  got->problem = "the endpoint answered " + std::to_string(got->status);
  if (!got->body.empty())
    got->problem += ": " + printable(got->body, 200);
  return false;
}

// The endpoint may take a document and refuse some of its spans:
// {"partialSuccess": {"rejectedSpans": "5", "errorMessage": "..."}}, the number as a text or as a number.
void otlp_pusher::read_partial_success(const std::string &body) {
  json_t *const root = json_loadb(body.data(), body.size(), 0, nullptr);
  const json_t *const partial = json_object_get(root, "partialSuccess");
  const json_t *const rejected = json_object_get(partial, "rejectedSpans");
  const int64_t count = json_is_integer(rejected)
                            ? json_integer_value(rejected)
                            : number_or(json_is_string(rejected) ? json_string_value(rejected) : "", 0);
  const char *const words = json_string_value(json_object_get(partial, "errorMessage"));
  if (count > 0) {
    result_.spans_rejected += count;
    note_problem("the endpoint refused spans: " + printable(words ? words : "no reason given", 300));
  } else if (words && *words) {
    note_problem("the endpoint warns: " + printable(words, 300));
  }
  json_decref(root);
}

// --- trying again -----------------------------------------------------------------------------------------------

// Doubles with each try; half of it is random, so that many senders do not come back at once.
static int64_t pause_ms(const push_options &options, int tries_made) {
  static thread_local std::minstd_rand random(std::random_device{}());
  const int64_t whole = std::min(options.longest_pause_ms, options.first_pause_ms << std::min(tries_made - 1, 20));
  return whole / 2 + static_cast<int64_t>(random() % static_cast<uint64_t>(whole / 2 + 1));
}

static bool is_worth_a_retry(long status) {
  return status == 0 || status == 429 || status == 502 || status == 503 || status == 504;
}

bool otlp_pusher::send(std::string_view document, int64_t spans) {
  wllb_text packed = {};
  bool taken = false;
  answer got;
  if (!unusable_.empty() || wllb_comp_do(document, 1, &packed) != 0)
    got.problem = unusable_.empty() ? "a document cannot be compressed" : unusable_;
  else
    for (int tries = 1; !(taken = try_once(wllb_text_view(packed), &got)); ++tries) {
      if (!is_worth_a_retry(got.status) || endpoint_is_gone_ || tries >= options_.most_tries)
        break;
      const int64_t pause = std::max(pause_ms(options_, tries), got.retry_after_ms);
      std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    }
  wllb_text_free(packed, "OTLP document");
  if (taken) {
    endpoint_is_gone_ = false;
    ++result_.documents;
    result_.spans += spans;
    read_partial_success(got.body);
    return true;
  }
  endpoint_is_gone_ = is_worth_a_retry(got.status);
  ++result_.documents_lost;
  result_.spans_lost += spans;
  note_problem(got.problem);
  return false;
}

#endif

} // namespace tqread
