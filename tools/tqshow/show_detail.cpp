// Captured texts, section by section.
//   In      a segment's texts
//   Out     lines on standard output
//   Thread  one
//   Failure a text that is not of its kind is printed as it is
#include "show_detail.h"

#include "tqread_detail.h"
#include "tqread_text.h"

using namespace tqread;

constexpr size_t most_of_text = 500, most_of_name = 200;

// --- request detail -------------------------------------------------------------------------------------------------

static void print_items(const name_table &names, std::string_view detail, show_out *out) {
  char section = 0, section_before = 0;
  detail_item item;
  while (take_detail_item(&detail, &section, &item)) {
    if (section != section_before)
      out->put(section_before ? "\n" : "").left(name_of_section(section), 18).put(" ");
    else
      out->put(", ");
    section_before = section;
    if (item.method_id >= 0)
      out->put(show_name(names, name_kind::method, item.method_id, most_of_name))
          .put(" ")
          .put_safe(item.place, 40)
          .put(" ");
    if (!item.name.empty())
      out->put_safe(item.name, most_of_name).put("=");
    out->put_safe(item.value, most_of_text);
  }
  if (section_before)
    out->end_line();
}

// --- logged values and bodies -----------------------------------------------------------------------------------------

// "in com.acme.Shop.pay()V: amount=250, state=open"
static void print_logged(const name_table &names, const std::string &text, show_out *out) {
  logged_values logged;
  if (!read_logged_values(text, &logged)) {
    out->put_safe(text, most_of_text);
    return;
  }
  out->put("in ").put(show_name(names, name_kind::method, logged.method_id, most_of_name));
  const char *before = ": ";
  std::string_view id, value;
  while (take_logged_value(&logged.values, &id, &value)) {
    if (id.empty())
      continue;
    out->put(before).put(show_name(names, name_kind::header, number_or(id, 0), most_of_name)).put("=");
    out->put_safe(value, most_of_text);
    before = ", ";
  }
}

static void print_body(const char *what, const std::string &text, show_out *out) {
  captured_body body;
  out->left(what, 18).put(" ");
  if (read_body(text, &body))
    out->put_safe(body.head, most_of_name).put(body.head.empty() ? "" : ": ").put_safe(body.body, most_of_text);
  else
    out->put_safe(text, most_of_text);
  out->end_line();
}

void show_print_detail(const name_table &names, const flowpath_segment &segment, show_out *out) {
  if (!segment.texts.detail.empty())
    print_items(names, segment.texts.detail, out);
  for (const std::string &text : segment.logged) {
    out->left("logged values", 18).put(" ");
    print_logged(names, text, out);
    out->end_line();
  }
  for (const std::string &text : segment.request_bodies)
    print_body("request body", text, out);
  for (const std::string &text : segment.response_bodies)
    print_body("response body", text, out);
}
