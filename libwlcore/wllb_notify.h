// Words for the service manager that started the process, by the datagram protocol of sd_notify(3).
//   In      NOTIFY_SOCKET and WATCHDOG_USEC of the environment
//   Out     one datagram a call
//   Thread  any; the environment is read at each call
//   Failure nothing happens without a manager, or when it does not listen
#pragma once

#include <cstdint>

// Sends words such as "READY=1" or "WATCHDOG=1". True when they went out.
bool wllb_notify(const char *words);

// Milliseconds after which the manager gives up on a process that is silent; 0: it does not watch this one.
int64_t wllb_watchdog_ms();
