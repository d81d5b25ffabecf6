// Sends OTLP documents to an OTLP/HTTP endpoint: gzip, tries again with growing pauses, keeps count of what was lost.
//   In      documents of the OTLP export (export_otlp.h), one at a time
//   Out     POST requests, application/json
//   Thread  the owner's; a call returns when the document was taken or given up
//   Failure the result: what could not be sent, and why; nothing here ends the process
//
// A request is tried again when the endpoint could not be reached or answered 429, 502, 503 or 504; a Retry-After of the
// answer is kept to, up to longest_pause_ms. Any other answer but 2xx is final for its document. After a document was given
// up for want of an endpoint, each further one is tried once only, until one gets through.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tqread {

struct push_options {
  std::string url;                  // http or https; "/v1/traces" is put to one without a path
  std::vector<std::string> headers; // "Name: value", sent with each request
  int most_tries = 6;               // of one document
  int64_t first_pause_ms = 500;     // doubles with each try, with a random share
  int64_t longest_pause_ms = 30000;
  int64_t answer_timeout_ms = 30000; // of one try
};

// What became of the documents so far.
struct push_result {
  static constexpr size_t most_problems = 20;

  int64_t documents = 0, spans = 0;           // taken by the endpoint
  int64_t documents_lost = 0, spans_lost = 0; // given up
  int64_t spans_rejected = 0;                 // taken with their document, but refused by the endpoint
  int64_t tries = 0;                          // requests made
  std::vector<std::string> problems;          // the first different ones, fit for a terminal
};

class otlp_pusher {
public:
  explicit otlp_pusher(push_options options);
  ~otlp_pusher();
  otlp_pusher(const otlp_pusher &) = delete;
  otlp_pusher &operator=(const otlp_pusher &) = delete;

  // Why nothing can be sent at all: a URL that is not one of http or https, a header that is none, a build without
  // libcurl. "": all is well.
  const std::string &unusable() const { return unusable_; }

  // Sends one document. False when it was given up.
  bool send(std::string_view document, int64_t spans);

  const push_result &result() const { return result_; }

private:
  struct connection; // libcurl's
  struct answer;
  bool try_once(std::string_view packed, answer *got);
  void read_partial_success(const std::string &body);
  void note_problem(std::string text);

  push_options options_;
  std::string unusable_;
  push_result result_;
  std::unique_ptr<connection> connection_;
  bool endpoint_is_gone_ = false;
};

} // namespace tqread
