// What brings rows in: the one interface between following a test run's files and a database.
//   In      pieces of files, each from where the last one ended
//   Out     rows brought in, and the place behind them, both or neither
//   Thread  one
//   Failure by return value; the program ends, and goes on at the same place when it is started again
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct upload_options {
  int testrun;
  int ppid;         // the daemon; 0: started by hand, takes what is there and leaves
  int running_mode; // 1: beside the daemon
  std::string vector_separator;
  int idle_time;       // s between two rounds
  int num_cycles;      // passes over the files in a round
  int resume;          // 0: forget what was brought in, and begin anew
  std::string run_dir; // "<work dir>/logs/TR<n>"
};

// How far a file has been brought in. The inode tells a file that was renamed from the one that took its name.
struct upload_position {
  int64_t taken = 0; // bytes
  uint64_t inode = 0;
};

using upload_positions = std::map<std::string, upload_position>; // by path below the test run's directory

struct upload_piece {
  int64_t partition; // 0: common to all
  std::string path;  // below the test run's directory
  uint64_t inode;
  int64_t from, to; // bytes; the same: the file got this name, and nothing is to be brought in again
  int64_t rows;
};

enum upload_opened { UPLOAD_READY, UPLOAD_IN_USE, UPLOAD_FAILED };

struct upload_driver {
  upload_driver() = default;
  virtual ~upload_driver() = default;
  upload_driver(const upload_driver &) = delete;
  upload_driver &operator=(const upload_driver &) = delete;

  // Gives the positions that earlier runs have reached. In use: another loader still works on this test run.
  virtual upload_opened open(const upload_options &options, upload_positions *positions) = 0;

  // Brings the rows in and keeps `piece.to` as the file's position, in one step. False: neither was done.
  virtual bool take(const upload_piece &piece, std::string_view rows) = 0;
};

// Brings nothing in, but notes what would be: a line a piece in "<run_dir>/tq/logs/tqu_db_upload.journal".
std::unique_ptr<upload_driver> upload_make_journal();
