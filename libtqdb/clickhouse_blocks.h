// Rows as ClickHouse's Native format takes them: a block of columns.
//   In      batches
//   Out     the bytes of one block
//   Thread  the owner's
//   Failure out of memory ends the process
// The server takes a column block with a quarter of the work that the same rows cost it one by one, and refuses one that was
// cut off.
#pragma once

#include "tqdb_rows.h"

#include <string>
#include <vector>

namespace tqdb {

// What the driver puts beside each row.
struct clickhouse_marks {
  int32_t testrun, node;
  uint64_t unit; // number of the unit that brings the row
};

// A block of one table that grows row by row.
struct clickhouse_block {
  explicit clickhouse_block(table_id id);

  void add(const row_batch &batch, size_t row);
  void clear();

  size_t rows() const { return count; }

  size_t bytes() const;

  // The block as it is sent.
  std::string native(const clickhouse_marks &marks) const;

private:
  table_id table;
  size_t count = 0;
  std::vector<std::string> columns;        // the table's own
  std::string files, parts, bytes_of_rows; // of row_place
};

// Columns that every table of facts or names has beside its own: where a row comes from, and the unit that brought it.
extern const char clickhouse_mark_columns[]; // "load_file Int32, ..."

const char *clickhouse_type(column_type type);

} // namespace tqdb
