// Sleeping and waking: a wait that only polls for a condition inside the process ends early when it may have come true.
//   In      changes of wl_status, of the registry, of a pending partition switch
//   Out     sleepers wake; nothing is lost when nobody sleeps
//   Thread  any; process_wake_mutex is held only around the wait itself
#pragma once

// Stores the process state and wakes every sleeper, main too. The one place that changes wl_status.
void tqp_set_wl_status(char status);

// A descriptor that is readable, and stays so, once the process state has left 1: for those who wait on descriptors of
// their own. -1 when there is none to be had; a wait then ends by its own limit.
int tqp_stop_fd();

// Makes the state 1 and tqp_stop_fd unreadable again: the start of a process, or of a test.
void tqp_reset_wl_status();

// Cuts the main thread's sleep short. Any thread, and signal handlers.
void tqp_wake_main();

// Wakes every sleeper, so that it looks again at what it waits for.
void tqp_wake_all();

// Sleeps `ms` milliseconds at most. True: the time has passed; false: woken before.
bool tqp_sleep_or_wake(int ms);
