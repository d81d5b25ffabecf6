// Valid UTF-8 out of bytes that may be anything.
//   In      text of agents, which nobody has checked
//   Out     the same text; what is not valid UTF-8 reads as U+FFFD
//   Thread  any
//   Failure none
#pragma once

#include <string>
#include <string_view>

constexpr std::string_view wllb_utf8_replacement = "\xEF\xBF\xBD"; // U+FFFD

// One character at the front of a text.
struct wllb_utf8_char {
  size_t length;      // bytes; 0 only for an empty text
  char32_t codepoint; // U+FFFD when it is not valid
  bool valid;
};

// Overlong forms, surrogates and what lies above U+10FFFF are not valid. An invalid piece is as long as its bytes could
// still have begun a valid character, so that a text cut inside a character loses that character only.
wllb_utf8_char wllb_utf8_next(std::string_view text);

// Whether the whole text is valid UTF-8.
bool wllb_is_utf8(std::string_view text);

// The text with each invalid piece replaced by U+FFFD.
std::string wllb_valid_utf8(std::string_view text);
