// Follows all row files of a test run as they grow: each pass hands on the whole rows that have come since the one before.
//   In      the test run's directory, growing, renamed and late files, done files; positions reached before
//   Out     pieces of rows for a sink, names before the rows that use them
//   Thread  one
//   Failure a sink that fails ends the pass; a file that is gone is passed over
// A position is path, inode and bytes. The ends of all fact files are noted first, then the common files are handed on, then
// the facts up to those ends: whatever a fact names has come before it. Sequence blob files are not handed on: rows point
// into them, and their bytes are there before the rows are.
#pragma once

#include "tqread_run.h"
#include "tqread_tables.h"

#include "wllb_util.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tqread {

// How far a file has been handed on. The inode tells a file that was renamed from the one that took its name.
struct file_position {
  int64_t bytes = 0;
  uint64_t inode = 0;
};

using file_positions = std::map<std::string, file_position>; // by path below the test run's directory

struct file_piece {
  int64_t partition; // 0: common to all
  std::string path;  // below the test run's directory
  uint64_t inode;
  int64_t from, to; // bytes; the same: the file got this name, and nothing is to be taken again
  int64_t rows;     // whole rows in it; one of more than longest_row comes in parts
};

// The instance's name in the path of a fact file, text or binary; "" for common files.
std::string_view instance_of_path(std::string_view path);

struct piece_sink {
  piece_sink() = default;
  virtual ~piece_sink() = default;
  piece_sink(const piece_sink &) = delete;
  piece_sink &operator=(const piece_sink &) = delete;

  // Takes the rows and keeps `piece.to` as the file's position, in one step. False: neither was done.
  // row_cursor (tqread_rows.h) with table_of_file() of the path's last part gives the records.
  virtual bool take(const file_piece &piece, std::string_view rows) = 0;
};

enum class pass_result { nothing_new, took_some, sink_failed };

struct follower {
  // base: "<work dir>/logs/TR<n>". The sink is the caller's and outlives this. told_to_stop is asked between two pieces.
  follower(std::string base, piece_sink *sink, file_positions reached, std::function<bool()> told_to_stop);

  // Follows only the files whose path, below the test run's directory, this takes.
  void only(std::function<bool(std::string_view path)> wants) { wants_ = std::move(wants); }

  // One pass over all there is. May end early when told to stop.
  pass_result pass();

  const file_positions &positions() const { return positions_; }

private:
  struct listed_file {
    int64_t partition;
    std::string path;
    int64_t size; // bytes, when it was listed
  };

  struct followed_partition {
    int64_t number;
    bool finished;              // done, and taken to its end: only late rows can come
    int64_t done_read;          // bytes of its done file
    std::set<std::string> late; // files that a line of its done file has named
  };

  void add_new_partitions();
  bool read_done_file(followed_partition *partition);
  void add_file(int64_t partition, const std::string &path, std::vector<listed_file> *files) const;
  void add_row_files(int64_t partition, const std::string &dir, std::vector<listed_file> *files) const;
  void add_partition(int64_t partition, std::vector<listed_file> *files) const;
  std::vector<listed_file> list_files(std::set<int64_t> *done);
  bool move_position(int64_t partition, const std::string &from, const std::string &to);
  bool find_position(const listed_file &file, uint64_t inode, int64_t size);
  pass_result take_file(const listed_file &file);

  std::string base_;
  piece_sink *sink_;
  file_positions positions_;
  std::function<bool()> told_to_stop_;
  std::function<bool(std::string_view)> wants_; // empty: all
  std::vector<followed_partition> partitions_;  // oldest first
};

} // namespace tqread
