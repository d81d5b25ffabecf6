// Feeds bytes to the readers of texts: rows of every table, blobs with callout texts, details, references, lists of segments.
//   In      any bytes; the first one chooses the reader
//   Out     nothing; a reader that crashes, reads outside its bytes or does not end is the finding
#include "fuzz_targets.h"

#include "tqread_detail.h"
#include "tqread_filter.h"
#include "tqread_text.h"
#include "tqread_tree.h"

using namespace tqread;

static void read_rows(uint8_t choice, std::string_view text) {
  const std::span<const table> tables = all_tables();
  const table &of = tables[choice % tables.size()];
  const bool binary = of.id == table_id::method_timing && choice >= 128;
  for (row_cursor rows(of, binary, text, 0, 1388534400); rows.next();) {
    if (rows.reason())
      continue;
    name_row name;
    if (of.names != name_kind::none)
      name_of_record(of, rows.record, &name);
    for (const column &c : of.columns)
      if (c.type == column_type::text)
        printable(rows.record.text(c), 80);
  }
}

static void read_tree(std::string_view text) {
  const size_t half = text.find('\n');
  static tree_builder builder;
  static call_tree tree;
  builder.build(text.substr(0, half), half == text.npos ? std::string_view() : text.substr(half + 1), 0, &tree);
  size_t walked = 0;
  tree.walk([&](const tree_node &node, int32_t) { walked += node.depth >= 0 ? 1 : 0; });
  if (walked != tree.nodes.size())
    __builtin_trap(); // a node that no walk reaches, or reaches twice
}

static void read_rest(std::string_view text) {
  char section = 0;
  detail_item item;
  for (std::string_view rest = text; take_detail_item(&rest, &section, &item);) {
  }
  logged_values logged;
  std::string_view id, value;
  if (read_logged_values(text, &logged))
    while (take_logged_value(&logged.values, &id, &value)) {
    }
  captured_body body;
  read_body(text, &body);
  text_reference at;
  read_reference(text, &at);
  for (std::string_view rest = text; take_reference(&rest, &at);) {
  }
  any_record record;
  for (std::string_view rest = text; !rest.empty() && !take_segment_row(&rest, 0, &record) && rest.starts_with('|');)
    rest.remove_prefix(1);
  each_tag(text, [](std::string_view, std::string_view) {});
  matches_wildcards(text.substr(0, 500), text.substr(0, 50));
  int64_t utc_ms = 0;
  if (read_utc_text(text, &utc_ms))
    utc_text(utc_ms, true);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2)
    return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 2, size - 2);
  if (data[0] % 3 == 0)
    read_rows(data[1], text);
  else if (data[0] % 3 == 1)
    read_tree(text);
  else
    read_rest(text);
  return 0;
}
