// What agents captured of a request beside its calls: request detail, logged values, bodies.
//   In      the detail text of a segment; texts that its line names
//   Out     items, values and bodies, views into the texts
//   Thread  any
//   Failure false for a text that is not of its kind
// Samples:  0:user-agent=curl|accept=*&4:17:arg0:int:amount=250    20,3,4711,9,12,1,0,2,1,0|2,open||3,7    45,1,0,25,1,text/plain,hello
#pragma once

#include <cstdint>
#include <string_view>

namespace tqread {

// --- request detail -------------------------------------------------------------------------------------------------

struct detail_item {
  char section = 0;             // '0' to '9'
  int64_t method_id = -1;       // of an argument that comes with its method; -1: none
  std::string_view place, type; // of such an argument: "arg0", "String"; else ""
  std::string_view name;        // "" when there is a value alone
  std::string_view value;
};

// "request headers"; "others" for what is not known.
const char *name_of_section(char section);

// Takes the items off a request detail one by one; `section` begins as 0 and is the caller's to keep. False at the end.
bool take_detail_item(std::string_view *detail, char *section, detail_item *item);

// --- logged values ----------------------------------------------------------------------------------------------------

struct logged_values {
  int64_t method_id = 0;
  std::string_view values; // for take_logged_value()
};

bool read_logged_values(std::string_view text, logged_values *logged);

// Takes the next value. A value may hold anything but '|'. False at the end. An id of "" stands for no value.
bool take_logged_value(std::string_view *values, std::string_view *header_id, std::string_view *value);

// --- bodies -----------------------------------------------------------------------------------------------------------

struct captured_body {
  bool is_response = false;
  std::string_view head; // what the agent says of it: "text/plain"
  std::string_view body;
};

bool read_body(std::string_view text, captured_body *body);

} // namespace tqread
