// Sleeping and waking; see the header.

#include "process_wake.h"

#include "process_state.h"

#include <chrono>
#include <sys/eventfd.h>
#include <unistd.h>

static std::mutex process_wake_mutex;
static std::condition_variable process_wake_cond;
static uint64_t process_wake_count; // under process_wake_mutex

void tqp_wake_all() {
  {
    const std::lock_guard<std::mutex> hold(process_wake_mutex);
    ++process_wake_count;
  }
  process_wake_cond.notify_all();
}

int tqp_stop_fd() {
  static const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); // the process's, for good
  return fd;
}

void tqp_reset_wl_status() {
  wl_status = WL_RUNNING;
  uint64_t count;
  [[maybe_unused]] const ssize_t got = read(tqp_stop_fd(), &count, sizeof count);
}

void tqp_set_wl_status(char status) {
  wl_status = status;
  if (status != WL_RUNNING) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(tqp_stop_fd(), &one, sizeof one); // nobody reads it, so it stays
  }
  tqp_wake_all();
  tqp_wake_main();
}

bool tqp_sleep_or_wake(int ms) {
  // What was woken for since this thread's last sleep is seen at once: a wake between two sleeps must not be lost.
  thread_local uint64_t seen = 0;
  std::unique_lock<std::mutex> hold(process_wake_mutex);
  const bool woken =
      process_wake_cond.wait_for(hold, std::chrono::milliseconds(ms), [] { return process_wake_count != seen; });
  seen = process_wake_count;
  return !woken;
}
