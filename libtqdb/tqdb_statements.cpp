// SQL texts; see the header.
#include "tqdb_statements.h"

namespace tqdb {

std::string key_columns(const table &t) {
  if (t.kind == TQDB_FACT)
    return "";
  std::string text = "testrun, node";
  for (const column &c : t.columns)
    if (c.role == TQDB_KEY)
      text.append(", ").append(c.name);
  return text;
}

std::string all_columns(const table &t) {
  std::string text = "testrun, node";
  for (const column &c : t.columns)
    text.append(", ").append(c.name);
  return text;
}

const column *time_column(const table &t) {
  for (const column &c : t.columns)
    if (c.role == TQDB_TIME || std::string_view(c.name) == "minute_utc_ms")
      return &c;
  return nullptr;
}

std::string create_table_sql(const table &t, const sql_types &types, std::string_view ending) {
  std::string text = std::string("CREATE TABLE IF NOT EXISTS ") + t.name + " (testrun " + types.names[TQDB_I32] +
                     " NOT NULL, node " + types.names[TQDB_I32] + " NOT NULL";
  for (const column &c : t.columns)
    text.append(", ").append(c.name).append(" ").append(types.names[c.type]).append(" NOT NULL");
  if (t.kind != TQDB_FACT)
    text.append(", PRIMARY KEY (").append(key_columns(t)).append(")");
  return text.append(")").append(ending);
}

std::string create_index_sql(const table &t, const table_index &index) {
  return std::string("CREATE INDEX IF NOT EXISTS ") + index.name + " ON " + t.name + " (testrun, " + index.columns +
         ")";
}

static std::string merged(const table &t, const column &c, std::string_view least, std::string_view greatest) {
  const std::string here = std::string(t.name) + "." + c.name;
  std::string there = std::string("excluded.") + c.name;
  switch (c.role) {
  case TQDB_ADD:
    return here + " + " + there;
  case TQDB_MIN:
    return std::string(least) + "(" + here + ", " + there + ")";
  case TQDB_MAX:
    return std::string(greatest) + "(" + here + ", " + there + ")";
  default:
    return there;
  }
}

std::string on_conflict_sql(const table &t, std::string_view least, std::string_view greatest) {
  if (t.kind == TQDB_FACT)
    return "";
  std::string changes;
  for (const column &c : t.columns)
    if (c.role != TQDB_KEY)
      changes.append(changes.empty() ? "" : ", ").append(c.name).append(" = ").append(merged(t, c, least, greatest));
  return " ON CONFLICT (" + key_columns(t) + ") DO " + (changes.empty() ? "NOTHING" : "UPDATE SET " + changes);
}

} // namespace tqdb
