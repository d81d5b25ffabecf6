// Cuts captured texts; see the header.
//   In      texts of agents
//   Out     views into them
//   Thread  any
//   Failure false
#include "tqread_detail.h"

#include "tqread_text.h"

#include <algorithm>
#include <iterator>

namespace tqread {

// --- request detail -------------------------------------------------------------------------------------------------

const char *name_of_section(char section) {
  static constexpr const char *names[] = {"request headers",  "response headers", "custom values", "session attributes",
                                          "method arguments", "logged values",    "others"};
  const auto i = static_cast<size_t>(section - '0');
  return i < std::size(names) ? names[i] : "others";
}

static bool begins_section(std::string_view text) {
  return text.size() >= 2 && text[0] >= '0' && text[0] <= '9' && text[1] == ':';
}

// Where an item ends: at a '|', or at the '&' before another section.
static size_t end_of_item(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i)
    if (text[i] == '|' || (text[i] == '&' && begins_section(text.substr(i + 1))))
      return i;
  return text.size();
}

// "17:arg0:String:amount" before the '='.
static void read_argument(detail_item *item) {
  std::string_view parts[4];
  int64_t method = 0;
  if (split(item->name, ':', parts, 4) < 4 || !read_number(parts[0], &method))
    return;
  item->method_id = method;
  item->place = parts[1];
  item->type = parts[2];
  item->name.remove_prefix(parts[0].size() + parts[1].size() + parts[2].size() + 3);
}

bool take_detail_item(std::string_view *detail, char *section, detail_item *item) {
  if (*section == 0 || detail->starts_with('&')) {
    detail->remove_prefix(detail->starts_with('&') ? 1 : 0);
    if (begins_section(*detail)) {
      *section = detail->front();
      detail->remove_prefix(2);
    } else {
      *section = '6';
    }
  } else if (detail->starts_with('|')) {
    detail->remove_prefix(1);
  } else if (detail->empty()) {
    return false;
  }
  const std::string_view text = detail->substr(0, end_of_item(*detail));
  const size_t equals = text.find('=');
  *item = {};
  item->section = *section;
  item->name = equals == text.npos ? std::string_view() : text.substr(0, equals);
  item->value = equals == text.npos ? text : text.substr(equals + 1);
  if (*section == '4')
    read_argument(item);
  detail->remove_prefix(text.size());
  return true;
}

// --- logged values ----------------------------------------------------------------------------------------------------

bool read_logged_values(std::string_view text, logged_values *logged) {
  constexpr size_t numbers = 10;
  std::string_view columns[numbers];
  const std::string_view head = text.substr(0, text.find('|'));
  logged->values = text.substr(head.size());
  int64_t ignored = 0;
  return split(head, ',', columns, numbers) == numbers && columns[0] == "20" &&
         read_number(columns[3], &logged->method_id) &&
         std::all_of(std::begin(columns), std::end(columns), [&](auto c) { return read_number(c, &ignored); }) &&
         !logged->values.empty();
}

bool take_logged_value(std::string_view *values, std::string_view *header_id, std::string_view *value) {
  if (values->empty())
    return false;
  values->remove_prefix(1);
  const std::string_view whole = values->substr(0, values->find('|'));
  values->remove_prefix(whole.size());
  *header_id = whole.substr(0, whole.find(','));
  *value = whole.substr(std::min(header_id->size() + 1, whole.size()));
  return true;
}

// --- bodies -----------------------------------------------------------------------------------------------------------

bool read_body(std::string_view text, captured_body *body) {
  body->is_response = text.starts_with("46,");
  if (!body->is_response && !text.starts_with("45,"))
    return false;
  int64_t number = 0;
  for (int i = 0; i < 5; ++i)
    if (!read_number(take_piece(&text, ','), &number))
      return false;
  body->head = take_piece(&text, ',');
  body->body = text;
  return true;
}

} // namespace tqread
