// Decoding of UTF-8, character by character.
//   In      bytes
//   Out     characters, or the text made valid
//   Thread  any
//   Failure an invalid piece is reported with its length
#include "wllb_utf8.h"

// What the first byte of a character of two bytes or more says of it.
struct lead_byte {
  size_t length;
  unsigned char second_min, second_max; // limits of the second byte; those of the others are always 80 to BF
};

static lead_byte read_lead(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF)
    return {2, 0x80, 0xBF};
  if (lead >= 0xE0 && lead <= 0xEF)
    return {3, static_cast<unsigned char>(lead == 0xE0 ? 0xA0 : 0x80),
            static_cast<unsigned char>(lead == 0xED ? 0x9F : 0xBF)};
  if (lead >= 0xF0 && lead <= 0xF4)
    return {4, static_cast<unsigned char>(lead == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(lead == 0xF4 ? 0x8F : 0xBF)};
  return {0, 0, 0};
}

wllb_utf8_char wllb_utf8_next(std::string_view text) {
  constexpr char32_t replacement = 0xFFFD;
  if (text.empty())
    return {0, replacement, false};
  const unsigned char first = static_cast<unsigned char>(text[0]);
  if (first < 0x80)
    return {1, first, true};
  const lead_byte lead = read_lead(first);
  if (lead.length == 0)
    return {1, replacement, false};
  char32_t codepoint = first & (0xFFU >> (lead.length + 1));
  for (size_t i = 1; i < lead.length; ++i) {
    const unsigned char min = i == 1 ? lead.second_min : 0x80, max = i == 1 ? lead.second_max : 0xBF;
    const unsigned char byte = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
    if (byte < min || byte > max)
      return {i, replacement, false};
    codepoint = codepoint << 6U | (byte & 0x3FU);
  }
  return {lead.length, codepoint, true};
}

bool wllb_is_utf8(std::string_view text) {
  while (!text.empty()) {
    const wllb_utf8_char next = wllb_utf8_next(text);
    if (!next.valid)
      return false;
    text.remove_prefix(next.length);
  }
  return true;
}

std::string wllb_valid_utf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const wllb_utf8_char next = wllb_utf8_next(text);
    valid += next.valid ? text.substr(0, next.length) : wllb_utf8_replacement;
    text.remove_prefix(next.length);
  }
  return valid;
}
