// Finds the texts of late segments. They went to the previous partition's file, while the offset in the segment's line counts in
// the file that was current then.
//   In      an instance's rows from a partition on, the lists of segments behind them, the partition's sequence blob file
//   Out     where the texts of each late segment are in that file
//   Thread  one
//   Failure a segment whose texts are not there is not found
// What no row points to are the texts of late segments, in the order in which they were written; that is the order of the
// offsets in their lines. Lengths, checksums and what callout rows say of their segment are held against each line, so that
// bytes which belong to nobody do no harm.
#pragma once

#include "tqread_segments.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace tqread {

struct late_index {
  std::string partition, instance;
  int64_t app = 0;

  // Reads what it needs; 24 bytes for each segment of the partition stay until this is done.
  late_index(blob_store *store, std::string_view of_partition, std::string_view of_instance, int64_t of_app);

  // Where the segment's texts are in the partition's file; -1: they are not there.
  int64_t find(const segment_record &segment) const;

  // Whether files have grown since, so that it may know more when it is made anew.
  bool is_outdated(blob_store *store) const;

private:
  struct byte_range {
    int64_t from, to;
  };

  // A text in a gap: a gzip member, or a line.
  struct loose_text {
    int64_t at, length; // in the file; a line with its newline
    int64_t inflated;   // bytes; -1: a line
    std::string front;  // the first bytes of it
    bool used;
  };

  struct late_segment {
    segment_record line; // without its texts, but for these
    std::string begin_seq;

    bool operator<(const late_segment &other) const { return line.offset < other.line.offset; }
  };

  using key = std::tuple<int64_t, int64_t, std::string>; // flowpath number, offset, begin sequence number

  int64_t read_rows(blob_store *store, std::string_view from_partition);
  bool add_list(blob_store *store, const flowpath_place &place, const flowpath_record &row);
  void add_segment(blob_store *store, const segment_record &line, bool is_sure);
  void find_gaps(blob_store *store);
  void read_gap(blob_store *store, int64_t from, int64_t to);
  bool fits(const late_segment &segment, size_t first) const;
  void match();

  segment_list list_;
  segment_texts texts_;
  std::vector<byte_range> ranges_;
  std::vector<late_segment> late_;
  std::vector<loose_text> loose_;
  std::map<key, int64_t> found_;
  int64_t blob_size_ = 0, rows_size_ = 0;
  std::vector<std::string> row_files_; // that were read
};

} // namespace tqread
