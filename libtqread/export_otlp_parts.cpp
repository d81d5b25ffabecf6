// Ids, attributes and names of the OTLP export; see the header.
//   In      numbers and texts of flowpaths
//   Out     ids, JSON, pieces of names
//   Thread  any
//   Failure none
#include "export_otlp_parts.h"

#include "tqread_text.h"

#include <algorithm>

namespace tqread {

// --- ids --------------------------------------------------------------------------------------------------------------

id_hash &id_hash::number(int64_t value) {
  for (unsigned shift = 0; shift < 64; shift += 8)
    byte(static_cast<unsigned char>(static_cast<uint64_t>(value) >> shift));
  return *this;
}

id_hash &id_hash::text(std::string_view value) {
  for (const char c : value)
    byte(static_cast<unsigned char>(c));
  return number(static_cast<int64_t>(value.size()));
}

uint64_t id_hash::value(uint64_t salt) const {
  uint64_t h = hash_ + salt * 0x9E3779B97F4A7C15U;
  h = (h ^ h >> 30U) * 0xBF58476D1CE4E5B9U;
  h = (h ^ h >> 27U) * 0x94D049BB133111EBU;
  h ^= h >> 31U;
  return h == 0 ? 1 : h;
}

std::string hex(uint64_t value) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text(16, '0');
  for (size_t i = 16; i-- > 0; value >>= 4U)
    text[i] = digits[value & 0xFU];
  return text;
}

std::string_view front_of(std::string_view begin_seq) {
  const size_t dot = begin_seq.rfind('.');
  return dot == begin_seq.npos ? std::string_view() : begin_seq.substr(0, dot);
}

std::string full_number(std::string_view segment_seq, std::string_view callout_number) {
  const std::string front(front_of(segment_seq));
  const std::string own(callout_number.substr(callout_number.rfind('.') + 1));
  return front.empty() ? own : front + "." + own;
}

// --- attributes -------------------------------------------------------------------------------------------------------

std::string_view cut_attribute(std::string_view text) {
  if (text.size() <= most_of_attribute)
    return text;
  size_t end = most_of_attribute;
  while (end > most_of_attribute - 4 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
    --end;
  return text.substr(0, end);
}

wllb_json_writer &attributes::begin(std::string_view name) {
  return json_->begin_object().member("key", cut_attribute(name)).key("value").begin_object();
}

attributes &attributes::end() {
  json_->end_object().end_object();
  return *this;
}

attributes &attributes::text(std::string_view name, std::string_view value) {
  begin(name).member("stringValue", cut_attribute(value));
  return end();
}

// 64-bit numbers are texts in OTLP's JSON.
attributes &attributes::number(std::string_view name, int64_t value) {
  begin(name).member("intValue", std::to_string(value));
  return end();
}

attributes &attributes::real(std::string_view name, double value) {
  begin(name).member("doubleValue", value);
  return end();
}

attributes &attributes::flag_if(std::string_view name, bool value) {
  if (!value)
    return *this;
  begin(name).member("boolValue", true);
  return end();
}

attributes &attributes::list(std::string_view name, std::string_view value) {
  begin(name).key("arrayValue").begin_object().key("values").begin_array();
  json_->begin_object().member("stringValue", cut_attribute(value)).end_object().end_array().end_object();
  return end();
}

// --- what texts say -----------------------------------------------------------------------------------------------------

std::string_view without_signature(std::string_view method) {
  return method.substr(0, method.find('('));
}

std::string_view short_name(std::string_view method) {
  const std::string_view name = without_signature(method);
  const size_t last = name.rfind('.');
  const size_t before = last == name.npos || last == 0 ? name.npos : name.rfind('.', last - 1);
  return before == name.npos ? name : name.substr(before + 1);
}

bool receives(std::string_view backend) {
  const std::string_view method = short_name(backend);
  const std::string_view name = method.substr(method.rfind('.') + 1);
  return name.starts_with("receive") || name.starts_with("poll") || name.starts_with("consume");
}

std::string operation_of(std::string_view query) {
  query.remove_prefix(std::min(query.find_first_not_of(" \t("), query.size()));
  std::string word(query.substr(0, std::min(query.find_first_of(" \t(;"), size_t{20})));
  for (char &c : word)
    if (c >= 'a' && c <= 'z')
      c = static_cast<char>(c - 'a' + 'A');
  const bool letters = std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
  return letters ? word : "";
}

int64_t http_status(std::string_view status) {
  const int64_t number = number_or(status, 0);
  return number >= 100 && number <= 599 ? number : 0;
}

resource_parts parts_of(std::string_view resource) {
  resource_parts parts = {{}, resource, {}, 0};
  if (const size_t slash = resource.find('/'); slash != resource.npos) {
    parts.scheme = resource.substr(0, slash);
    parts.rest = resource.substr(slash + 1);
  }
  parts.host = parts.rest.substr(0, parts.rest.find_first_of("/:"));
  if (parts.rest.substr(parts.host.size()).starts_with(':')) {
    const std::string_view after = parts.rest.substr(parts.host.size() + 1);
    parts.port = number_or(after.substr(0, after.find('/')), 0);
  }
  return parts;
}

std::string lower(std::string_view header) {
  std::string text(header);
  for (char &c : text)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return text;
}

} // namespace tqread
