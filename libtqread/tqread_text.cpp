// Numbers, pieces, and texts made safe; see the header.
//   In      bytes of any kind
//   Out     values; texts appended to the caller's
//   Thread  any
//   Failure false
#include "tqread_text.h"

#include "tqread_error.h"

#include "wllb_utf8.h"

#include <charconv>
#include <cmath>

namespace tqread {

// --- numbers --------------------------------------------------------------------------------------------------------

bool read_number(std::string_view text, int64_t *value) {
  const std::from_chars_result read = std::from_chars(text.data(), text.data() + text.size(), *value);
  return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

int64_t number_or(std::string_view text, int64_t otherwise) {
  int64_t value = 0;
  return read_number(text, &value) ? value : otherwise;
}

bool read_wrapping_number(std::string_view text, int64_t *value) {
  if (read_number(text, value))
    return true;
  uint64_t wide = 0;
  const std::from_chars_result read = std::from_chars(text.data(), text.data() + text.size(), wide);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size())
    return false;
  *value = static_cast<int64_t>(wide);
  return true;
}

bool read_real(std::string_view text, double *value) {
  double real = 0;
  const std::from_chars_result read =
      std::from_chars(text.data(), text.data() + text.size(), real, std::chars_format::fixed);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size() || !std::isfinite(real))
    return false;
  *value = real;
  return true;
}

// --- pieces ---------------------------------------------------------------------------------------------------------

std::string_view take_piece(std::string_view *rest, char separator) {
  const std::string_view piece = rest->substr(0, rest->find(separator));
  rest->remove_prefix(piece.size() < rest->size() ? piece.size() + 1 : piece.size());
  return piece;
}

size_t split(std::string_view text, char separator, std::string_view *pieces, size_t most) {
  for (size_t count = 1;; ++count) {
    const size_t cut = text.find(separator);
    if (count <= most)
      pieces[count - 1] = text.substr(0, cut);
    if (cut == text.npos)
      return count;
    text.remove_prefix(cut + 1);
  }
}

// --- characters -----------------------------------------------------------------------------------------------------

// What a terminal takes for a command, or what puts other text out of its order.
static bool is_unsafe(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x200E || code == 0x200F ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

void append_utf8(std::string_view text, std::string *out) {
  if (wllb_is_utf8(text))
    out->append(text);
  else
    out->append(wllb_valid_utf8(text));
}

static bool is_plain(std::string_view text) {
  for (const char c : text)
    if (c < 0x20 || c == 0x7F) // bytes from 0x80 on are negative
      return false;
  return true;
}

void append_printable(std::string_view text, size_t most, std::string *out) {
  if (text.size() <= most && is_plain(text)) {
    out->append(text);
    return;
  }
  constexpr std::string_view dots = "...";
  const size_t from = out->size();
  size_t fits = from; // where "..." would still have room
  while (!text.empty()) {
    const wllb_utf8_char c = wllb_utf8_next(text);
    const std::string_view piece = !c.valid                 ? wllb_utf8_replacement
                                   : is_unsafe(c.codepoint) ? std::string_view("?")
                                                            : text.substr(0, c.length);
    if (out->size() - from + piece.size() > most) {
      out->resize(most > dots.size() ? fits : from);
      out->append(dots);
      return;
    }
    out->append(piece);
    text.remove_prefix(c.length);
    if (out->size() - from + dots.size() <= most)
      fits = out->size();
  }
}

std::string printable(std::string_view text, size_t most) {
  std::string out;
  append_printable(text, most, &out);
  return out;
}

// --- wildcards ------------------------------------------------------------------------------------------------------

bool matches_wildcards(std::string_view text, std::string_view pattern) {
  size_t t = 0, p = 0, star = pattern.npos, star_text = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      star_text = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (star != pattern.npos) { // the last '*' takes one byte more
      p = star + 1;
      t = ++star_text;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == pattern.npos;
}

// --- errors ---------------------------------------------------------------------------------------------------------

std::string error_text(const error &error) {
  constexpr size_t most = 4096;
  std::string text;
  append_printable(error.path, most, &text);
  if (error.unit == place_unit::row)
    text += " row " + std::to_string(error.at);
  if (error.unit == place_unit::byte)
    text += " byte " + std::to_string(error.at);
  if (!text.empty())
    text += ": ";
  append_printable(error.reason, most, &text);
  return text;
}

} // namespace tqread
