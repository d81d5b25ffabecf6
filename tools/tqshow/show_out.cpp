// Buffered output; see the header.
//   In      texts
//   Out     standard output, in pieces of about 64 KiB
//   Thread  one
//   Failure kept
#include "show_out.h"

#include "tqread_text.h"

#include "wllb_util.h"

#include <charconv>
#include <cmath>
#include <unistd.h>

show_out &show_out::number(int64_t value) {
  char digits[20];
  held.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  return *this;
}

show_out &show_out::real(double value, int decimals) {
  char digits[400];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, std::isfinite(value) ? value : 0.0,
                                                 std::chars_format::fixed, decimals);
  std::string_view text(digits, static_cast<size_t>(end.ptr - digits));
  if (text.find('.') != text.npos) {
    text = text.substr(0, text.find_last_not_of('0') + 1);
    text = text.substr(0, text.find_last_not_of('.') + 1);
  }
  return put(text);
}

show_out &show_out::put_safe(std::string_view text, size_t most) {
  tqread::append_printable(text, most, &held);
  return *this;
}

size_t show_width(std::string_view text) {
  size_t width = 0;
  for (const char c : text)
    width += (static_cast<uint8_t>(c) & 0xC0) != 0x80 ? 1 : 0;
  return width;
}

show_out &show_out::left(std::string_view text, size_t width) {
  const size_t is = show_width(text);
  held.append(text).append(is < width ? width - is : 0, ' ');
  return *this;
}

show_out &show_out::right(std::string_view text, size_t width) {
  const size_t is = show_width(text);
  held.append(is < width ? width - is : 0, ' ').append(text);
  return *this;
}

show_out &show_out::right(int64_t value, size_t width) {
  char digits[20];
  const char *const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const auto length = static_cast<size_t>(end - digits);
  held.append(length < width ? width - length : 0, ' ').append(digits, length);
  return *this;
}

static constexpr const char *colour_codes[] = {"", "\033[2m", "\033[1m", "\033[36m", "\033[31m", "\033[33m"};

show_out &show_out::begin_colour(show_colour colour) {
  return colours && colour != NO_COLOUR ? put(colour_codes[colour]) : *this;
}

show_out &show_out::end_colour(show_colour colour) {
  return colours && colour != NO_COLOUR ? put("\033[0m") : *this;
}

void show_out::end_line() {
  constexpr size_t enough = 1U << 16U;
  held.push_back('\n');
  if (held.size() >= enough)
    flush();
}

void show_out::flush() {
  has_failed = has_failed || !wllb_write_all(STDOUT_FILENO, held);
  held.clear();
}

std::string show_name(const tqread::name_table &names, tqread::name_kind kind, int64_t id, size_t most) {
  const std::string_view text = names.find(kind, id);
  return text.data() ? tqread::printable(text, most) : "#" + std::to_string(id);
}
