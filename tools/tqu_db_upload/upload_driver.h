// What brings rows in: the one interface between following a test run's files and a database.
//   In      pieces of files, each from where the last one ended
//   Out     rows brought in, and the place behind them, both or neither
//   Thread  one
//   Failure by return value; the program ends, and goes on at the same place when it is started again
#pragma once

#include "tqread_follow.h"

#include <cstdint>
#include <memory>
#include <string>

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

enum upload_opened { UPLOAD_READY, UPLOAD_IN_USE, UPLOAD_FAILED };

// take() brings the rows in and keeps the piece's end as the file's position, in one step.
struct upload_driver : tqread::piece_sink {
  // Gives the positions that earlier runs have reached. In use: another loader still works on this test run.
  virtual upload_opened open(const upload_options &options, tqread::file_positions *positions) = 0;
};

// Brings nothing in, but notes what would be: a line a piece in "<run_dir>/tq/logs/tqu_db_upload.journal".
std::unique_ptr<upload_driver> upload_make_journal();
