// What the loader is asked to do: its command line, the keyword file, the environment.
//   In      argc and argv; "<run>/tq/conf/tqprof/<newest profile>/TQKeywords.conf"; WL_WDIR, TQU_DATABASE
//   Out     one record
//   Thread  main
//   Failure one line on standard error, and the status to end with
#pragma once

#include "tqdb_driver.h"

#include "tqread_run.h"

#include <optional>
#include <string>

struct upload_options {
  // --- as given ---
  std::string dir; // working directory; else WL_WDIR
  int testrun = -1;
  std::string database; // URL
  int node = -1;        // -1: not given
  int blobs = -1;       // the same
  bool follow = false;  // by hand, but until told to stop
  bool verify = false, status = false;
  std::string question;  // SQL; "": none
  int drop_testrun = -1; // -1: no
  int keep_days = -1;    // -1: no
  int ppid = 0;          // the daemon; 0: started by hand
  int running_mode = 1;  // the daemon's, without effect; so is the separator
  std::string vector_separator;
  int idle_time = 5;  // s between two passes when nothing comes
  int num_cycles = 1; // passes before that wait
  int resume = 1;     // 0: the test run's rows are removed and loaded again

  // --- worked out ---
  tqread::test_run run;
  tqdb::load_target target;
};

// Fills the record. The exit status to end with, or nothing when there is work.
std::optional<int> upload_read_options(int argc, char **argv, upload_options *options);
