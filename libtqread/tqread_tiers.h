// Which flowpaths were called by which: another tier's own flowpath for a callout.
//   In      the flowpath rows of all instances and partitions
//   Out     places of rows, by the flowpath that called them
//   Thread  one
//   Failure rows that cannot be read are passed over
// A called flowpath names its parent, and its begin sequence number says by which callout: callout n of a segment that began
// as "p.q" calls "p.n.1", one of the segment "1" calls "n.1". Both are held against each other.
#pragma once

#include "tqread_flowpath.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tqread {

// The begin sequence number of what a segment calls: ("1", "11") gives "11.1", ("104.1", "8") "104.8.1". `number` is a
// callout token's, with or without the segment's front.
std::string called_seq(std::string_view begin_seq, std::string_view number);

struct tier_index {
  // Reads all rows once; 24 bytes for each flowpath that has a parent. What is new later is not seen.
  explicit tier_index(const test_run &run);

  // Calls use(place, row_bytes) for each flowpath whose parent is one of these two numbers and whose begin sequence number
  // is this one. `fpi` and `segment_fpi` are of the caller.
  template <class Use> void each_called(int64_t fpi, int64_t segment_fpi, std::string_view seq, Use use) const;

  size_t size() const { return places_.size(); }

private:
  struct called_place {
    int64_t parent;
    uint32_t file;   // in files_
    uint32_t length; // of the row
    int64_t at;
  };

  struct row_location {
    std::string partition, instance;
  };

  bool read_place(const called_place &place, std::string *row_bytes) const;
  const test_run &run_; // the caller's, outlives this
  std::vector<row_location> files_;
  std::vector<called_place> places_; // by parent
};

// Whether a flowpath's row began with this sequence number.
bool row_has_seq(const test_run &run, std::string_view row_bytes, std::string_view seq);

template <class Use>
void tier_index::each_called(int64_t fpi, int64_t segment_fpi, std::string_view seq, Use use) const {
  for (const int64_t parent : {fpi, segment_fpi}) {
    if (parent == 0)
      continue;
    size_t low = 0, high = places_.size();
    while (low < high) {
      const size_t middle = (low + high) / 2;
      if (places_[middle].parent < parent)
        low = middle + 1;
      else
        high = middle;
    }
    std::string row;
    for (; low < places_.size() && places_[low].parent == parent; ++low)
      if (read_place(places_[low], &row) && row_has_seq(run_, row, seq))
        use(flowpath_place{files_[places_[low].file].partition, files_[places_[low].file].instance},
            std::string_view(row));
    if (fpi == segment_fpi)
      return;
  }
}

} // namespace tqread
