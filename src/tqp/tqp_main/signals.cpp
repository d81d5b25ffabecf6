// Signals of the process: which are let in, which flag each sets, and how the main thread learns of it at once.
//   In      signals, on whichever thread they land
//   Out     one flag each, and a count in a descriptor that ends the main thread's wait
//   Thread  handlers on any thread; everything else on main
//   Failure without a descriptor for waking the process ends with -1
// A flag is stored before the count is raised, and main takes the count down before it looks at the flags: a signal
// between the look and the next sleep ends that sleep.

#include "process_frame.h"
#include "process_wake.h"

#include <cerrno>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

std::atomic<int> sig_clean_threads;

static std::atomic<int> signal_fd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "handlers store in it");

void tqp_wake_main() {
  const int saved_errno = errno;
  const uint64_t one = 1;
  // A full counter wakes as well as a raised one.
  [[maybe_unused]] const ssize_t written = write(signal_fd.load(std::memory_order_relaxed), &one, sizeof one);
  errno = saved_errno;
}

template <std::atomic<int> &flag> static void raise_flag(int /*signal*/) {
  flag = 1;
  tqp_wake_main();
}

void clean_threads_sig_handler(int signal) {
  raise_flag<sig_clean_threads>(signal);
}

struct signal_row {
  int signal;
  void (*handler)(int); // null: left as it is
  bool let_in;          // unblocked in the main thread
};

// The partition switch signal is only let in: this process sends it to its child. The map dump is deliberately not let
// in, it comes through unless whoever started the process has blocked it.
static const signal_row signal_rows[] = {
    // clang-format off
    {SIGCHLD,      raise_flag<sigchild>,                       true},
    {SIGTERM,      raise_flag<sig_stop_comp>,                  true},
    {SIGINT,       raise_flag<sig_stop_comp>,                  true},
    {SIGHUP,       raise_flag<sig_stop_comp>,                  true},
    {SIGRTMIN + 2, nullptr,                                    true},
    {SIGRTMIN + 3, raise_flag<sig_test_post_proc>,             true},
    {SIGRTMIN + 4, raise_flag<sig_trace_level_change>,         true},
    {SIGRTMIN + 5, raise_flag<sig_dump_loc2norm_maps>,         false},
    {SIGRTMIN + 6, raise_flag<sig_dump_cur_proccesing_status>, true},
    {SIGPIPE,      SIG_IGN,                                    false},
    {SIGXFSZ,      SIG_IGN,                                    false}, // the write fails instead, and its writer reports it
    // clang-format on
};

static void let_signals_in() {
  sigset_t set;
  sigemptyset(&set);
  for (const signal_row &row : signal_rows)
    if (row.let_in)
      sigaddset(&set, row.signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

static void install(const signal_row &row) {
  struct sigaction action = {};
  action.sa_handler = row.handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  struct sigaction before = {};
  sigaction(row.signal, nullptr, &before);
  if (row.signal == SIGHUP && before.sa_handler == SIG_IGN) // started by nohup: outlives its terminal
    return;
  if (row.handler)
    sigaction(row.signal, &action, nullptr);
}

void tqp_install_signal_handler(int signal) {
  for (const signal_row &row : signal_rows)
    if (row.signal == signal)
      install(row);
}

void tqp_start_signals() {
  if (signal_fd < 0)
    signal_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (signal_fd < 0) {
    fprintf(stderr, "Error in eventfd: %s\n", wllb_strerror(errno).c_str());
    wllb_exit(-1);
  }
  let_signals_in();
  for (const signal_row &row : signal_rows)
    install(row);
}

int tqp_signal_fd() {
  return signal_fd;
}

void tqp_drain_signal_fd() {
  uint64_t count;
  [[maybe_unused]] const ssize_t got = read(signal_fd, &count, sizeof count);
}
