// What tells the loader to look, to finish or to leave: signals and the daemon's life.
//   In      SIGRTMIN+2: a new partition, looked at now. SIGRTMIN+3: the test is over, take the rest and leave. SIGTERM, SIGINT,
//           SIGHUP, or the daemon's end: leave at the next unit
//   Out     two flags
//   Thread  main; the signals must be blocked before any other thread starts
//   Failure a daemon that is not there counts as one that has ended
#pragma once

#include <csignal>

struct upload_watch {
  int signal_fd = -1;
  int parent_fd = -1; // -1: none
  bool stop = false;  // told to, or the daemon is gone
  bool over = false;  // the test is

  upload_watch();
  ~upload_watch();
  upload_watch(const upload_watch &) = delete;
  upload_watch &operator=(const upload_watch &) = delete;

  void watch_parent(int pid);

  // Looks at what has come, waiting for it `ms` at most.
  void look(int ms);
};
