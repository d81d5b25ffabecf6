// Writes JSON piece by piece to a sink; no tree is kept, so that a document may be of any size.
//   In      values in the order of the document; texts may hold any bytes
//   Out     strict JSON in UTF-8, handed to the sink in pieces of about 64 KiB
//   Thread  the owner's
//   Failure a sink that fails gets nothing more; finish() says so
//
// Invalid UTF-8 becomes U+FFFD. All control characters, also DEL and U+0080 to U+009F, are escaped: a document that is
// shown on a terminal controls nothing there.
//
//   wllb_json_writer json(sink);
//   json.begin_object().member("ms", int64_t{5}).key("urls").begin_array().text("/shop").end_array().end_object();
//   json.end_line();            // as JSON lines: one document a line
//   if (!json.finish()) ...
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// Takes bytes; false when it could not. What comes in one call is no unit of any kind.
using wllb_sink = std::function<bool(std::string_view bytes)>;

class wllb_json_writer {
public:
  enum target : uint8_t {
    PLAIN,
    IN_HTML // '<', '>', '&' and the line separators of JavaScript are escaped: fit to stand in a script element
  };

  explicit wllb_json_writer(wllb_sink to, target for_what = PLAIN);

  // --- structure: commas and colons come by themselves ---
  wllb_json_writer &begin_object() { return begin('{'); }

  wllb_json_writer &end_object() { return end('}'); }

  wllb_json_writer &begin_array() { return begin('['); }

  wllb_json_writer &end_array() { return end(']'); }

  wllb_json_writer &key(std::string_view name); // the next value is this member's

  // --- values ---
  wllb_json_writer &text(std::string_view value);
  wllb_json_writer &number(int64_t value);
  wllb_json_writer &unsigned_number(uint64_t value);
  wllb_json_writer &real(double value); // the shortest digits that read as the same number; null when not finite
  wllb_json_writer &boolean(bool value);
  wllb_json_writer &null();

  // --- members of an object ---
  wllb_json_writer &member(std::string_view name, std::string_view value) { return key(name).text(value); }

  wllb_json_writer &member(std::string_view name, const char *value) { return key(name).text(value); }

  wllb_json_writer &member(std::string_view name, int64_t value) { return key(name).number(value); }

  wllb_json_writer &member(std::string_view name, double value) { return key(name).real(value); }

  wllb_json_writer &member(std::string_view name, bool value) { return key(name).boolean(value); }

  // Ends a document; the next one begins on a line of its own.
  wllb_json_writer &end_line();

  // Ends a document that stands alone, and hands it over: what comes next is another one. False as finish() is.
  bool end_document();

  // Bytes as they are, between values: the page around a document.
  wllb_json_writer &raw(std::string_view bytes);

  // Hands over what is still held. False when the sink has failed, now or before. May be called again.
  bool finish();

  bool failed() const { return sink_failed; }

private:
  wllb_json_writer &begin(char bracket);
  wllb_json_writer &end(char bracket);
  void before_value();
  void put_text(std::string_view value);
  void put_escaped(char32_t codepoint, std::string_view bytes);
  void flush_if_full();

  wllb_sink sink;
  std::string held;
  target made_for;
  bool needs_comma = false; // a value stands before, in the same object or array
  bool sink_failed = false;
};
