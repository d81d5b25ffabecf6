// JSON, value by value.
//   In      values and texts
//   Out     bytes for the sink
//   Thread  the owner's
//   Failure the sink's, kept until finish()
#include "wllb_json_writer.h"

#include "wllb_utf8.h"

#include <charconv>
#include <cmath>

static constexpr size_t full = size_t{64} << 10U;

wllb_json_writer::wllb_json_writer(wllb_sink to, target for_what) : sink(std::move(to)), made_for(for_what) {
  held.reserve(full + full / 8);
}

// --- the sink -------------------------------------------------------------------------------------------------------

void wllb_json_writer::flush_if_full() {
  if (held.size() >= full)
    finish();
}

bool wllb_json_writer::finish() {
  if (!sink_failed && !held.empty())
    sink_failed = !sink(held);
  held.clear();
  return !sink_failed;
}

wllb_json_writer &wllb_json_writer::raw(std::string_view bytes) {
  held += bytes;
  flush_if_full();
  return *this;
}

// --- structure ------------------------------------------------------------------------------------------------------

void wllb_json_writer::before_value() {
  if (needs_comma)
    held += ',';
  needs_comma = true;
}

wllb_json_writer &wllb_json_writer::begin(char bracket) {
  before_value();
  held += bracket;
  needs_comma = false;
  return *this;
}

wllb_json_writer &wllb_json_writer::end(char bracket) {
  held += bracket;
  needs_comma = true;
  flush_if_full();
  return *this;
}

wllb_json_writer &wllb_json_writer::key(std::string_view name) {
  before_value();
  put_text(name);
  held += ':';
  needs_comma = false;
  return *this;
}

wllb_json_writer &wllb_json_writer::end_line() {
  needs_comma = false;
  return raw("\n");
}

bool wllb_json_writer::end_document() {
  needs_comma = false;
  return finish();
}

// --- numbers and words ----------------------------------------------------------------------------------------------

template <class T> static void put_number(std::string *held, T value) {
  char digits[32];
  held->append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

wllb_json_writer &wllb_json_writer::number(int64_t value) {
  before_value();
  put_number(&held, value);
  return *this;
}

wllb_json_writer &wllb_json_writer::unsigned_number(uint64_t value) {
  before_value();
  put_number(&held, value);
  return *this;
}

wllb_json_writer &wllb_json_writer::real(double value) {
  if (!std::isfinite(value))
    return null();
  before_value();
  put_number(&held, value);
  return *this;
}

wllb_json_writer &wllb_json_writer::boolean(bool value) {
  before_value();
  held += value ? "true" : "false";
  return *this;
}

wllb_json_writer &wllb_json_writer::null() {
  before_value();
  held += "null";
  return *this;
}

// --- texts ----------------------------------------------------------------------------------------------------------

static bool is_plain_byte(unsigned char byte) {
  return byte >= ' ' && byte < 0x7F && byte != '"' && byte != '\\' && byte != '<' && byte != '>' && byte != '&';
}

void wllb_json_writer::put_escaped(char32_t codepoint, std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  const bool is_control = codepoint < ' ' || (codepoint >= 0x7F && codepoint < 0xA0);
  const bool is_markup =
      codepoint == '<' || codepoint == '>' || codepoint == '&' || codepoint == 0x2028 || codepoint == 0x2029;
  if (codepoint == '"' || codepoint == '\\') {
    held += '\\';
    held += static_cast<char>(codepoint);
  } else if (codepoint == '\n' || codepoint == '\t') {
    held += codepoint == '\n' ? "\\n" : "\\t";
  } else if (is_control || (made_for == IN_HTML && is_markup)) {
    held += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4)
      held += digits[codepoint >> static_cast<unsigned>(shift) & 0xFU];
  } else {
    held += bytes;
  }
}

void wllb_json_writer::put_text(std::string_view value) {
  held += '"';
  while (!value.empty()) {
    size_t plain = 0;
    while (plain < value.size() && is_plain_byte(static_cast<unsigned char>(value[plain])))
      ++plain;
    held += value.substr(0, plain);
    value.remove_prefix(plain);
    if (value.empty())
      break;
    const wllb_utf8_char next = wllb_utf8_next(value);
    put_escaped(next.codepoint, next.valid ? value.substr(0, next.length) : wllb_utf8_replacement);
    value.remove_prefix(next.length);
  }
  held += '"';
  flush_if_full();
}

wllb_json_writer &wllb_json_writer::text(std::string_view value) {
  before_value();
  put_text(value);
  return *this;
}
