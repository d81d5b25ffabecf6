// Pieces of the OTLP export: ids of traces and spans, attributes, what names and resources say.
//   In      numbers and texts of flowpaths
//   Out     ids, JSON, pieces of names
//   Thread  any; an open list of attributes is its writer's
//   Failure none
//
// Ids are hashes of what names the thing in the test run, never of when or how it is exported:
//   trace    test run, root flowpath: what one request has caused on all tiers is one trace
//   callout  test run, flowpath of the segment, the callout's number as the called segment's begin sequence number has it
//   segment  test run, instance, flowpath of the segment, begin sequence number
//   method   the segment, the node's place in the tree
// A segment `p.n.1` of parent flowpath f was started by callout `p.n` of f. So a called tier's spans name their caller's span
// without looking for it, in whichever instance, partition or export that is.
#pragma once

#include "wllb_json_writer.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tqread {

// --- ids --------------------------------------------------------------------------------------------------------------

// FNV-1a over the parts, then mixed, so that near numbers give ids far apart.
class id_hash {
public:
  id_hash(std::string_view what, int64_t test_run) { text(what).number(test_run); }

  id_hash &number(int64_t value);
  id_hash &text(std::string_view value);

  // Never 0, which stands for no id. Another salt gives another id.
  uint64_t value(uint64_t salt = 0) const;

private:
  void byte(unsigned char b) { hash_ = (hash_ ^ b) * 0x100000001B3U; }

  uint64_t hash_ = 0xCBF29CE484222325U;
};

// 16 digits, lower case.
std::string hex(uint64_t value);

// "40" of "40.1", "43.7" of "43.7.1", "" of "1".
std::string_view front_of(std::string_view begin_seq);

// The callout's number with its segment's front before it: as the begin sequence number of a segment that it started has it,
// less the last part. The agent's own number is the last part of what the token says.
std::string full_number(std::string_view segment_seq, std::string_view callout_number);

// --- attributes -------------------------------------------------------------------------------------------------------

constexpr size_t most_of_attribute = 8192; // bytes of one text

// The first most_of_attribute bytes; no character is cut in two.
std::string_view cut_attribute(std::string_view text);

// An "attributes" array, open as long as this lives.
class attributes {
public:
  explicit attributes(wllb_json_writer *to) : json_(to) { json_->key("attributes").begin_array(); }

  ~attributes() { json_->end_array(); }

  attributes(const attributes &) = delete;
  attributes &operator=(const attributes &) = delete;

  attributes &text(std::string_view name, std::string_view value);
  attributes &number(std::string_view name, int64_t value);
  attributes &real(std::string_view name, double value);
  attributes &list(std::string_view name, std::string_view value); // of one text, as headers are

  // The same, unless the value is empty, 0 or false.
  attributes &text_if(std::string_view name, std::string_view value) {
    return value.empty() ? *this : text(name, value);
  }

  attributes &number_if(std::string_view name, int64_t value) { return value == 0 ? *this : number(name, value); }

  attributes &flag_if(std::string_view name, bool value);

private:
  wllb_json_writer &begin(std::string_view name);
  attributes &end();

  wllb_json_writer *json_;
};

// --- what texts say -----------------------------------------------------------------------------------------------------

// "com.acme.Pay.charge" and "Pay.charge" of "com.acme.Pay.charge(J)V".
std::string_view without_signature(std::string_view method);
std::string_view short_name(std::string_view method);

// Whether a backend's name says that it takes messages instead of sending them.
bool receives(std::string_view backend);

// "SELECT" of a query that begins with a word of letters; else "".
std::string operation_of(std::string_view query);

// A status from 100 to 599; 0: it is not one of HTTP.
int64_t http_status(std::string_view status);

// What a callout's resource says of the place called: "http/payments:8443", "jdbc/ordersDb", "queue/mail".
struct resource_parts {
  std::string_view scheme, rest; // before and after the first slash
  std::string_view host;         // the rest up to a port or path
  int64_t port = 0;
};

resource_parts parts_of(std::string_view resource);

// "x-request-id" of "X-Request-Id".
std::string lower(std::string_view header);

} // namespace tqread
