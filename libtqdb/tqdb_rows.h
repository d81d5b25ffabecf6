// Rows on their way into one table: cells of eight bytes, row after row, and the texts they mean.
//   In      cells in the order of the table's columns (tqdb_schema.h), without testrun and node
//   Out     the same, for a driver
//   Thread  the owner's
//   Failure out of memory ends the process
// A batch is filled, taken by the driver, cleared and filled again; its memory stays.
#pragma once

#include "tqdb_schema.h"

#include <bit>
#include <cassert>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tqdb {

// Where a row comes from. The same row of the same file has the same place on every attempt to load it, and no other row of
// its table has it: an engine without transactions uses it as the row's key.
struct row_place {
  int32_t file; // load_position's number of the file; 0: of no file
  int32_t part; // rows of this table that came before from the same row of the file
  int64_t byte; // where the file's row begins; for sums: where the unit's part of the file ends
};

struct row_batch {
  table_id table = TQDB_TABLES;
  size_t width = 0; // cells of a row
  std::vector<int64_t> cells;
  std::string bytes; // of TQDB_TEXT and TQDB_BYTES cells
  std::vector<row_place> places;

  row_batch() = default;

  explicit row_batch(table_id id) : table(id), width(table_of(id).columns.size()) {}

  size_t rows() const { return places.size(); }

  // Bytes of memory that the rows take, about.
  size_t weight() const { return cells.size() * 8 + bytes.size() + places.size() * sizeof(row_place); }

  // Begins a row; exactly `width` cells follow, each by the call for its column's type.
  void row(row_place place) {
    assert(cells.size() == width * places.size());
    places.push_back(place);
  }

  void integer(int64_t value) { cells.push_back(value); }

  void real(double value) { cells.push_back(std::bit_cast<int64_t>(value)); }

  // The batch has less than 4 GiB of them.
  void text(std::string_view value) {
    cells.push_back(static_cast<int64_t>(bytes.size() << 32U | value.size()));
    bytes.append(value);
  }

  // Takes the last row away again, whatever has been put of it.
  void drop_row() {
    places.pop_back();
    cells.resize(width * places.size());
  }

  void clear() {
    cells.clear();
    bytes.clear();
    places.clear();
  }

  // Cells of a driver's reading.
  const int64_t *cells_of(size_t row) const { return cells.data() + row * width; }

  static double real_of(int64_t cell) { return std::bit_cast<double>(cell); }

  std::string_view text_of(int64_t cell) const {
    const auto packed = static_cast<uint64_t>(cell);
    return {bytes.data() + (packed >> 32U), static_cast<size_t>(packed & UINT32_MAX)};
  }
};

} // namespace tqdb
