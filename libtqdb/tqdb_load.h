// The loader: follows the files of a test run and brings their rows into a database, unit by unit.
//   In      a test run's directory, growing or finished; a driver
//   Out     calls to the driver; messages for a person
//   Thread  one
//   Failure a driver that is away is waited for, and loading goes on from what it has; what is for good ends it
#pragma once

#include "tqdb_driver.h"
#include "tqdb_map.h"

#include "tqread_follow.h"
#include "tqread_run.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace tqdb {

struct load_totals {
  int64_t rows = 0, rejected = 0, mended = 0; // of files, since the start of this loader
  int64_t bytes = 0;
};

struct load_options {
  load_scope scope;
  bool bulk = false;       // a finished run, loaded by hand
  bool with_blobs = false; // call trees and details too
};

enum class load_result : uint8_t {
  nothing_new, // all that there was when the pass began is in the database
  took_some,
  away,  // the driver is to be opened again, after a wait; why: error()
  broken // for good; why: error()
};

struct loader final : tqread::piece_sink {
  // Run and driver are the caller's and outlive this. told_to_stop is asked often and may not block.
  loader(const tqread::test_run &run, const load_options &options, load_driver *driver,
         std::function<bool()> told_to_stop);

  // Connects, or connects anew after load_result::away. Forgets what was not committed.
  open_result open();

  // One pass over all files; every row that is taken is committed when it ends, unless told to stop or away.
  load_result pass();

  // After the last pass of a finished run.
  load_result finish();

  const load_totals &totals() const { return totals_; } // committed ones

  const load_positions &positions() const { return positions_; } // committed ones, and those of the open unit

  const std::string &error() const { return driver_->error(); }

  // Called after each commit.
  std::function<void()> on_commit;

  // Of the follower.
  bool take(const tqread::file_piece &piece, std::string_view rows) override;

private:
  load_position *position_of(const std::string &path);
  bool settle(take_result result);
  bool hand_over();
  bool end_unit();
  bool redo(const std::vector<load_span> &spans);
  bool take_span(const load_span &span);
  bool take_topology();
  bool put_scope_rows();

  const tqread::test_run &run_;
  load_options options_;
  load_driver *driver_;
  std::function<bool()> told_to_stop_;
  std::unique_ptr<row_mapper> mapper_;
  std::unique_ptr<tqread::follower> follower_;
  load_positions positions_, changed_;
  std::vector<load_span> spans_; // of the open unit
  std::set<int64_t> partitions_; // of this session
  load_totals totals_, unit_;
  int64_t unit_limit_ = 0;
  int32_t files_ = 0; // highest number of a file
  bool scope_rows_put_ = false;
  take_result failure_ = TQDB_TAKEN;
};

} // namespace tqdb
