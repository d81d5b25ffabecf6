// SQL texts made from the table of tables, for engines that speak standard SQL.
//   In      tables, an engine's names of types
//   Out     statements
//   Thread  any
//   Failure none
#pragma once

#include "tqdb_schema.h"

#include <string>
#include <string_view>

namespace tqdb {

// An engine's words, indexed by column_type.
struct sql_types {
  const char *names[TQDB_BYTES + 1];
};

// "testrun, node, path": the key of a NAME, SUM or BOOK table. "" for facts.
std::string key_columns(const table &t);

// "testrun, node, fpi, ...": all columns in their order.
std::string all_columns(const table &t);

// By which column old rows are removed: a time in ms, or the minute of a sum. Null: by none.
const column *time_column(const table &t);

// CREATE TABLE IF NOT EXISTS, with the key as its primary key.
std::string create_table_sql(const table &t, const sql_types &types, std::string_view ending);

// CREATE INDEX IF NOT EXISTS for one of the table's indexes.
std::string create_index_sql(const table &t, const table_index &index);

// " ON CONFLICT (...) DO UPDATE SET ...", which replaces a NAME and merges a SUM; "" for facts. `least` and `greatest` are
// the engine's functions of two values. LOAD_POSITION is replaced like a name.
std::string on_conflict_sql(const table &t, std::string_view least, std::string_view greatest);

} // namespace tqdb
