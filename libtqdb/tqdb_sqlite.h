// What the loading and the asking side of SQLite share: handles that close themselves.
//   Thread  each handle is one thread's
#pragma once

#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace tqdb {

struct sqlite_closer {
  void operator()(sqlite3 *db) const;
  void operator()(sqlite3_stmt *statement) const;
};

using sqlite_handle = std::unique_ptr<sqlite3, sqlite_closer>;
using sqlite_statement = std::unique_ptr<sqlite3_stmt, sqlite_closer>;

// Null when the text is not valid there; the database's error tells why.
sqlite_statement sqlite_prepare(sqlite3 *db, std::string_view sql);

// A text or blob column of the current row.
inline std::string_view sqlite_text(sqlite3_stmt *s, int column) {
  const void *bytes = sqlite3_column_blob(s, column);
  return {static_cast<const char *>(bytes), bytes ? static_cast<size_t>(sqlite3_column_bytes(s, column)) : 0};
}

// Whether the file's schema is newer than this program's. *version 0: no schema.
bool sqlite_is_newer(sqlite3 *db, int *version);

} // namespace tqdb
