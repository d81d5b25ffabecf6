// The schema in words; see the header.
#include "tqdb_describe.h"

#include "tqdb_schema.h"
#include "tqdb_views.h"

namespace tqdb {

static constexpr const char *type_words[] = {"8 bits", "16 bits", "32 bits", "64 bits", "real", "text", "bytes"};
static constexpr const char *kind_words[] = {"Facts", "Names", "Sums", "Bookkeeping"};

static std::string role_words(const column &c) {
  switch (c.role) {
  case TQDB_KEY:
    return "key";
  case TQDB_TIME:
    return "time";
  case TQDB_ADD:
    return "sum";
  case TQDB_MIN:
    return "least";
  case TQDB_MAX:
    return "greatest";
  default:
    return "";
  }
}

static void describe_columns(const table &t, std::string *text) {
  *text += "\n| Column | Type | | |\n|---|---|---|---|\n";
  bool histogram = false;
  for (const column &c : t.columns) {
    const bool step = std::string_view(c.name).starts_with("le_");
    if (step && histogram)
      continue;
    histogram = step;
    *text += "| `" + std::string(c.name) + (step ? "` to `le_" + std::to_string(duration_bounds().back()) : "") +
             "` | " + type_words[c.type] + " | " + role_words(c) + " | " +
             (step ? "durations of at most so many ms, cumulative" : c.about) + " |\n";
  }
}

std::string schema_markdown() {
  std::string text;
  for (const table_kind kind : {TQDB_FACT, TQDB_NAME, TQDB_SUM, TQDB_BOOK}) {
    text += std::string("### ") + kind_words[kind] + "\n\n";
    for (const table &t : tables()) {
      if (t.kind != kind)
        continue;
      text += std::string("**`") + t.name + "`**: " + t.about +
              (*t.source ? " From " + std::string(t.source) + "." : "") + "\n";
      describe_columns(t, &text);
      for (const table_index &index : t.indexes)
        text += std::string(&index == t.indexes.data() ? "\nIndexes: " : "; ") + "(testrun, " + index.columns + ")";
      text += t.indexes.empty() ? "\n" : ".\n\n";
    }
  }
  text += "### Views\n\n| View | |\n|---|---|\n";
  for (const view &v : views())
    text += "| `" + std::string(v.name) + "` | " + v.about + " |\n";
  return text;
}

} // namespace tqdb
