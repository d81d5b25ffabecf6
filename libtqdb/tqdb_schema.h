// The schema as data: one table of tables and columns, from which every engine's DDL, statements and rows are made.
//   In      nothing
//   Out     rows that never change while a program runs
//   Thread  any
//   Failure none
// Each table begins with two columns that are not listed in its rows: `testrun` and `node` (both TQDB_I32), the test run and
// the machine whose daemon wrote the files; ids of names hold for one node of one test run. A loader works for one such pair,
// so rows on their way into a database do not carry them: the driver adds them.
//
// Kinds of tables:
//   FACT    rows as they stand in the files, in no order; a row may be there twice if its file has it twice
//   NAME    one row for each key; a second row with the same key replaces the first
//   SUM     one row for each key; a new row is merged into it, each column by its rule. An engine that cannot merge in the
//           transaction of the rows keeps several rows of one key, so whoever reads sums groups by the key again
//           (the views do)
//   BOOK    bookkeeping of the loader; written by the drivers themselves
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tqdb {

// Narrowest form in which an engine may keep a column. Integers are signed; what is wider than its column is rejected by
// the loader, never cut.
enum column_type : uint8_t {
  TQDB_I8,
  TQDB_I16,
  TQDB_I32,
  TQDB_I64,
  TQDB_F64,
  TQDB_TEXT, // UTF-8, without NUL
  TQDB_BYTES // any bytes
};

inline bool is_integer(column_type type) {
  return type <= TQDB_I64;
}

inline bool is_text(column_type type) {
  return type >= TQDB_TEXT;
}

// What a column is in its table.
enum column_role : uint8_t {
  TQDB_DATA,
  TQDB_KEY,  // part of the key of a NAME, SUM or BOOK table, after testrun and node
  TQDB_TIME, // a FACT's time in ms since 1970 (UTC): for ordering and for removing old rows. At most one a table
  TQDB_ADD,  // of a SUM: added
  TQDB_MIN,  // of a SUM: the smaller one
  TQDB_MAX   // of a SUM: the larger one
};

struct column {
  const char *name;
  column_type type;
  column_role role;
  const char *about; // meaning and unit, for docs/database.md
};

enum table_kind : uint8_t { TQDB_FACT, TQDB_NAME, TQDB_SUM, TQDB_BOOK };

// For engines with indexes. Columns are a comma list; `testrun` is put in front of them.
struct table_index {
  const char *name;
  const char *columns;
};

struct table {
  const char *name;
  table_kind kind;
  std::span<const column> columns; // after testrun and node
  std::span<const table_index> indexes;
  const char *source; // the file or files it comes from, for docs/database.md
  const char *about;
};

// Index of each table in tables(); the loader and the drivers name tables by it.
enum table_id : uint8_t {
  TQDB_FLOWPATH,
  TQDB_SEGMENT,
  TQDB_CALLOUT,
  TQDB_METHOD_TIMING,
  TQDB_SQL_TIMING,
  TQDB_SQL_RECORD,
  TQDB_EXCEPTION,
  TQDB_CUSTOM_DATA,
  TQDB_METHOD_ARGUMENT,
  TQDB_MESSAGE,
  TQDB_URL_RECORD,
  TQDB_REQUEST_DETAIL,
  TQDB_BLOB,
  TQDB_METHOD,
  TQDB_URL,
  TQDB_QUERY,
  TQDB_RESOURCE,
  TQDB_HEADER,
  TQDB_EXCEPTION_TEXT,
  TQDB_SIGNATURE,
  TQDB_TAG_SET,
  TQDB_FUNCTION_GROUP,
  TQDB_FIRST_SEEN,
  TQDB_TOPOLOGY,
  TQDB_INSTANCE,
  TQDB_TESTRUN,
  TQDB_NODE,
  TQDB_TIER_MINUTE,
  TQDB_TRANSACTION_MINUTE,
  TQDB_METHOD_SUM,
  TQDB_TRANSACTION_METHOD,
  TQDB_QUERY_SUM,
  TQDB_TRANSACTION_QUERY,
  TQDB_BACKEND_SUM,
  TQDB_EXCEPTION_SUM,
  TQDB_LOAD_POSITION,
  TQDB_LOAD_REJECT,
  TQDB_TABLES
};

std::span<const table> tables();

inline const table &table_of(table_id id) {
  return tables()[id];
}

// Number of a column, or -1.
int column_number(const table &t, std::string_view name);

// --- durations ---------------------------------------------------------------------------------------------------

// The histogram of durations in the sums: column "le_<bound>" counts the durations of at most that many ms, so that
// histograms of several rows are added column by column. Longer ones are in the row's count alone.
std::span<const int32_t> duration_bounds();

// "sum(le_1) AS le_1, sum(le_2) AS le_2, ...", for a select list that groups.
std::string sum_of_histogram();

// A percentile in ms (REAL) as an SQL expression over columns le_<bound>, a count and a longest duration, each one row's
// own: linear inside a step of the histogram. 0 for a count of 0. `with_arrays`: for an engine that has them and takes long
// over an expression of hundreds of parts.
std::string percentile_sql(double level, std::string_view count_column, std::string_view longest_column,
                           bool with_arrays);

// --- versions ----------------------------------------------------------------------------------------------------

// A database carries the number of the last migration in table `schema_version` (one column `version`, one row for each
// migration that has run). Number 1 makes everything from tables(); later ones change what older loaders have made.
// A database with a higher number is refused.
constexpr int schema_version = 1;

} // namespace tqdb
