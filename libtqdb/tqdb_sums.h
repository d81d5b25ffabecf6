// Sums of a unit, kept while its rows go by and put into a table at its end.
//   In      keys and numbers
//   Out     rows of a SUM table, in the order of their keys
//   Thread  the owner's
//   Failure out of memory ends the process. A number beyond 2^40 counts as 2^40 (35 years of ms), so that no total overflows
#pragma once

#include "tqdb_rows.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace tqdb {

inline int64_t bounded(int64_t number) {
  return std::clamp(number, -(int64_t{1} << 40), int64_t{1} << 40);
}

// Milliseconds with a fraction as whole microseconds: these add up to the same in any order.
int64_t microseconds(double ms);

struct sum_table {
  static constexpr size_t most_keys = 5;
  using key = std::array<int64_t, most_keys>; // the table's key columns in their order, then zeros

  explicit sum_table(table_id id);

  // The numbers of a key, in the order of the table's other columns; a new key's are such that adding, or taking the
  // smaller or larger one, gives the first number. Good until the next call.
  int64_t *at(const key &k);

  // Puts a row for each key into `rows`, which must be of the same table, and forgets them all.
  void move_to(row_batch *rows, int32_t file, int64_t byte);

  size_t weight() const { return entries_.size() * sizeof(int64_t) + slots_.size() * sizeof(uint32_t); }

private:
  void grow();
  size_t keys_, width_; // of an entry: its key columns, all its columns
  std::vector<int64_t> entries_, fresh_;
  std::vector<uint32_t> slots_; // 1 + number of an entry; 0: free
  size_t count_ = 0;
};

// Counts a duration in the columns le_... that begin at `le`.
void count_duration(int64_t *le, int64_t duration_ms);

} // namespace tqdb
