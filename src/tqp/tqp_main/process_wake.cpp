// Sleeping and waking; see the header.

#include "process_wake.h"

#include "process_state.h"

#include <chrono>

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

void tqp_set_wl_status(char status) {
  wl_status = status;
  tqp_wake_all();
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
