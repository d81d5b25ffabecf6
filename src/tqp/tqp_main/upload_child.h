// The upload child tqu_db_upload: started, restarted within limits when it dies, signalled, stopped.
//   In      dbmode; SIGCHLD; the control channel's messages
//   Out     one child process; its pid
//   Thread  main; the control thread may start and signal it
//   Failure traced; a child that cannot be started is tried again within the limits
#pragma once

#include "wllb_thread.h"

#include <csignal>

constexpr int UPLOAD_DIED = -1;           // a restart may follow
constexpr int UPLOAD_NOT_TO_RESTART = -2; // never started, or stopped on purpose

extern wllb_relaxed<int> tqu_db_upload_pid; // above 0: running
extern wllb_relaxed<char> tqu_db_spawned;   // it was started once
extern int upload_stop_seconds;             // 60: how long a stopped child may take until it is killed; tests set less

// Sets the limits of restarts. 0, or -1.
int tqp_init_upload_recovery();

// Forks and executes "%s/bin/tqu_db_upload" of the working directory; nothing when it is running already.
void spawn_tqu_db_upload();

// Collects the child when SIGCHLD has come, and starts it again when the limits allow. Main, on every round.
void check_and_process_sig_chld();

// At the end: force 0 tells it that the test is over and waits for it without limit; else it is stopped, within 60 s.
void send_test_run_stop_signal_to_tqu_db_upload(int force);
