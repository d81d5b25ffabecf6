// The frame of the process: command line, start-up files, signals, the main thread's wait, shutdown, and small services
// around descriptors for the threads that talk to others.
//   In      arguments, environment, files of the test run and of the machine, signals, the parent's life
//   Out     the process globals, pid files and markers, wl_status, the last lines on standard output
//   Thread  main, before and after all others; what other threads may call says so
//   Failure a function that can end the process gives its exit status; main ends it. 0 is success everywhere
//
// Test hook: with TQP_OUTSIDE_ROOT in the environment, the fixed paths outside the test run (outside_paths) lie below
// that directory instead of "/".
#pragma once

#include "process_sockets.h"
#include "tqp_main.h"

#include <optional>

// --- command line (command_line.cpp) -------------------------------------------------------------------------------

// What the arguments say beside the globals of process_state.h.
struct tqp_command_line {
  std::string text;                  // the whole line, words joined by blanks
  const char *working_dir = nullptr; // -W, a word of argv; null: not given
  int online_flag = 1;               // -m; 1: the upload child is run
  int testidx_count = 0;             // times -t was seen
  bool has_epoch_diff = false;       // -e was given, be it 0
};

// Reads the arguments into `out` and the globals. Nothing, or the status that the process has to end with: 0 after --help
// and --version, 1 for a mistake, -1 when -t was not given exactly once.
std::optional<int> tqp_parse_command_line(int argc, char **argv, tqp_command_line *out);

// Sets wl_wdir from -W, which is exported as WL_WDIR, or from WL_WDIR. -1 when there is neither.
int tqp_take_working_directory(const tqp_command_line &given);

// Checks the chosen range of partitions and makes an offline run of one with -P. -1 for a range that cannot be.
int tqp_check_partition_range(tqp_command_line *given);

// --- files and facts of the start-up (startup_files.cpp) -----------------------------------------------------------

// Puts the fixed outside paths below TQP_OUTSIDE_ROOT, if that is set.
void tqp_apply_outside_root();

// Takes over the pid files; a failure is only traced.
void tqp_save_pid();

// ownerid and grpid by the test run's directory. The group is the owner's primary one, if the directory's group exists.
void read_owner_group();

// CONFIG word of the machine; empty when there is none.
void get_machine_config(std::string *mode);

// Notes the newest partition the process knows: number, text, and where trace lines go. A number below 1 is stored as
// number alone. Main, then the control thread.
void tqp_set_newest_partition(int64_t partition);

// The newest partition and the lower bound for resuming, from the command line or the test run.
void tqp_find_partitions();

// One warning when -r 0 meets partitions that are done.
void tqp_warn_of_starting_over();

// Path of the keyword file in the profile directory that changed last; nothing says that it exists.
std::string tqp_find_keyword_file();

// Puts the process under the machine's processor limit, if it has one.
void tqp_add_pid_to_cgroup();

// Words of the scenario: disk_processed_path, tqp_enable_health_mon.
void tqp_get_disk_path();
void tqp_get_auto_mon_reg_flag();

// Empty markers for readers of the test run: the layout with tier and thread callouts; method timings as rows.
void tqp_make_version_marker();
void tqp_make_method_timing_marker();

// True when the status command calls the test active; a missing command does not.
bool tqp_test_is_active();

// Lowest priority for every thread the process has.
void tqp_lower_priority();

// --- signals (signals.cpp) -----------------------------------------------------------------------------------------

// Lets the main thread's signals in and installs every handler. Ends the process with -1 when there is no descriptor
// left for waking main. May be called again.
void tqp_start_signals();

// Installs the handler of one signal of the table again.
void tqp_install_signal_handler(int signal);

// Readable after each signal that has a handler, and after tqp_wake_main, until drained.
int tqp_signal_fd();
void tqp_drain_signal_fd();

// Connected to no signal.
extern std::atomic<int> sig_clean_threads;
void clean_threads_sig_handler(int signal);

// --- the main thread's wait (main_loop.cpp), the end (shutdown.cpp) ------------------------------------------------

// Returns when the test run is over for this process; wl_status says how.
void tqp_main_loop(int epfd);

// Waits until every instance has left. A stop that is asked for meanwhile ends them at once.
void tqp_wait_for_instance_threads(int epfd);

// Waits for the other threads, makes the last done file after a normal end, closes everything, prints the last lines.
void tqp_shutdown(int epfd);

// --- the threads beside the instances' (service_threads.cpp) -------------------------------------------------------

// Starts the threads that serve a collector and the parent's monitors, as far as the run has them.
void tqp_start_service_threads();

// Waits for those that were started.
void tqp_join_service_threads();
