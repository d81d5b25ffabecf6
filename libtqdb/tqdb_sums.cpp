// Sums of a unit; see the header. A hash table of flat entries, open addressing.
#include "tqdb_sums.h"

#include <cmath>

namespace tqdb {

int64_t microseconds(double ms) {
  constexpr double most = 1e12; // 2^40, about
  const double us = ms * 1000.0;
  return std::isnan(us) ? 0 : std::llround(std::clamp(us, -most, most));
}

sum_table::sum_table(table_id id) : keys_(0), width_(table_of(id).columns.size()), slots_(1024) {
  for (const column &c : table_of(id).columns) {
    if (c.role == TQDB_KEY)
      ++keys_;
    else
      fresh_.push_back(c.role == TQDB_MIN ? INT64_MAX : c.role == TQDB_MAX ? INT64_MIN : 0);
  }
}

static size_t hash_of(const int64_t *key, size_t keys) {
  uint64_t hash = 0x9E3779B97F4A7C15U;
  for (size_t i = 0; i < keys; ++i) {
    hash = (hash ^ static_cast<uint64_t>(key[i])) * 0xFF51AFD7ED558CCDU;
    hash ^= hash >> 32U;
  }
  return static_cast<size_t>(hash);
}

int64_t *sum_table::at(const key &k) {
  const size_t mask = slots_.size() - 1;
  size_t slot = hash_of(k.data(), keys_) & mask;
  for (; slots_[slot] != 0; slot = (slot + 1) & mask) {
    int64_t *entry = entries_.data() + (slots_[slot] - 1) * width_;
    if (std::equal(entry, entry + keys_, k.begin()))
      return entry + keys_;
  }
  entries_.insert(entries_.end(), k.begin(), k.begin() + static_cast<ptrdiff_t>(keys_));
  entries_.insert(entries_.end(), fresh_.begin(), fresh_.end());
  slots_[slot] = static_cast<uint32_t>(++count_);
  if (count_ * 2 > slots_.size())
    grow();
  return entries_.data() + entries_.size() - width_ + keys_;
}

void sum_table::grow() {
  slots_.assign(slots_.size() * 2, 0);
  const size_t mask = slots_.size() - 1;
  for (size_t i = 0; i < count_; ++i) {
    size_t slot = hash_of(entries_.data() + i * width_, keys_) & mask;
    while (slots_[slot] != 0)
      slot = (slot + 1) & mask;
    slots_[slot] = static_cast<uint32_t>(i + 1);
  }
}

// In the order of their keys, which is the order of the table: neighbours are merged one after the other.
void sum_table::move_to(row_batch *rows, int32_t file, int64_t byte) {
  std::vector<const int64_t *> order(count_);
  for (size_t i = 0; i < count_; ++i)
    order[i] = entries_.data() + i * width_;
  std::sort(order.begin(), order.end(), [this](const int64_t *a, const int64_t *b) {
    return std::lexicographical_compare(a, a + keys_, b, b + keys_);
  });
  for (size_t i = 0; i < count_; ++i) {
    rows->places.push_back({file, static_cast<int32_t>(i), byte});
    rows->cells.insert(rows->cells.end(), order[i], order[i] + width_);
  }
  entries_.clear();
  std::fill(slots_.begin(), slots_.end(), 0);
  count_ = 0;
}

void count_duration(int64_t *le, int64_t duration_ms) {
  const std::span<const int32_t> bounds = duration_bounds();
  for (size_t i = bounds.size(); i-- > 0 && duration_ms <= bounds[i];)
    ++le[i];
}

} // namespace tqdb
