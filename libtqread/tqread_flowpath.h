// One flowpath whole: its row, its segments with their trees and captured texts, and all rows of other files that belong to
// it. What exports, the page and tqshow print is made of this record.
//   In      a row of TQFlowPath.csv, or a flowpath's number
//   Out     one record that owns everything in it
//   Thread  each reader is one thread's
//   Failure what cannot be read is missing, and stands in `faults` with place and reason; the rest is there
#pragma once

#include "tqread_detail.h"
#include "tqread_segments.h"
#include "tqread_tree.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tqread {

// What is read beside row and list; each costs time.
enum flowpath_parts : uint32_t {
  WITH_TREES = 1,    // texts and call trees
  WITH_CAPTURED = 2, // logged values and bodies
  WITH_SIDE_ROWS = 4 // exceptions, queries, custom data, arguments, messages
};

constexpr uint32_t whole_flowpath = WITH_TREES | WITH_CAPTURED | WITH_SIDE_ROWS;

struct flowpath_segment {
  segment_record line;      // views into flowpath::list
  int64_t begin_utc_ms = 0; // to the ms where the agent gave it, else to the second
  int64_t end_utc_ms = 0;   // begin and response time
  segment_texts texts;
  bool no_blob = false; // it left no call tree
  call_tree tree;       // views into texts; empty without WITH_TREES and when the texts cannot be read
  std::vector<std::string> logged, request_bodies, response_bodies; // inflated; see tqread_detail.h
  std::string unreadable; // why texts and tree are missing; "": they are there
};

struct flowpath {
  std::string partition, instance; // where its row is
  std::string row_bytes;
  flowpath_record row = {}; // views into row_bytes
  int64_t begin_utc_ms = 0; // of the main segment, to the ms where the agent gave it
  segment_list list;
  std::vector<flowpath_segment> segments; // in the order of the list; a parent may come after its child
  int32_t main_segment = -1;              // index; -1: it is not in the list

  // --- rows of other files whose flowpath is this one, or one of its segments, with the bytes they are views into ---
  std::vector<exception_record> exceptions;
  std::vector<sql_timing_record> sql_timings;
  std::vector<sql_execution_record> sql_executions;
  std::vector<custom_data_record> custom_data;
  std::vector<method_argument_record> arguments;
  std::vector<message_record> messages;
  std::string side_bytes;

  std::vector<error> faults;

  // Records are views into their own members: a copy's would be into the original.
  flowpath() = default;
  flowpath(const flowpath &) = delete;
  flowpath &operator=(const flowpath &) = delete;
};

// Where rows of other files are, by flowpath; for one instance in one partition. Defined with the reader.
struct side_index;

struct flowpath_reader {
  explicit flowpath_reader(const test_run &of);
  ~flowpath_reader();

  // Reads the flowpath of a row into *whole, replacing what was there. `row_bytes` is the row without its newline, as
  // row_file::bytes() and row_cursor::bytes() give it. False when the row itself is bad: the reason is in faults.
  bool read(const flowpath_place &place, std::string_view row_bytes, uint32_t parts, flowpath *whole);

  // Looks for a flowpath's rows by its number in all partitions and instances, or in those given ("": all), and calls
  // use(place, row_bytes) for each, until that gives false.
  template <class Use> void find(int64_t fpi, std::string_view partition, std::string_view instance, Use use);

  blob_store &store() { return store_; }

private:
  void read_segment(const flowpath_place &place, const segment_record &line, uint32_t parts, flowpath *whole,
                    flowpath_segment *segment);
  void read_captured(std::string_view references, const char *what, flowpath *whole, std::vector<std::string> *texts);
  void read_side_rows(const flowpath_place &place, flowpath *whole);
  const side_index *index_of(std::string_view partition, std::string_view instance);

  const test_run &run_; // the caller's, outlives this
  blob_store store_;
  tree_builder builder_;
  std::vector<std::unique_ptr<side_index>> indexes_; // the ones used last
  uint64_t calls_ = 0;
  std::vector<std::string> partitions_;
};

// Calls use(place) for each partition and instance, oldest partition first, until it gives false. "": all of them.
template <class Use>
void each_place(const test_run &run, std::string_view partition, std::string_view instance, Use use) {
  for (const std::string &p : partitions(run))
    if (partition.empty() || partition == p)
      for (const std::string &i : instances(run, p))
        if ((instance.empty() || instance == i) && !use(flowpath_place{p, i}))
          return;
}

template <class Use>
void flowpath_reader::find(int64_t fpi, std::string_view partition, std::string_view instance, Use use) {
  const std::string number = std::to_string(fpi) + ",";
  each_place(run_, partition, instance, [&](const flowpath_place &place) {
    line_file lines(full_path(run_, row_path(place.partition, place.instance, "TQFlowPath.csv")));
    for (std::string_view line; lines.next(&line);)
      if (line.starts_with(number) && !use(place, line))
        return false;
    return true;
  });
}

} // namespace tqread
