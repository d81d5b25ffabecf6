// Waiting for files that cannot be opened. What an instance reads while it cannot write would be lost, so its thread stands
// still until the file opens: it reads no further and saves no offset.
//   In      the reason why a file did not open; wl_status; the process's limit of descriptors
//   Out     one report when the waiting begins (Critical, standard error) and one when it ends
//   Thread  each has its own; only a thread with a tqp_waits_for_output waits
//   Failure a stop ends the waiting; no offset is saved from then on
#pragma once

#include "tqp_main.h"

// While it lives, this thread waits for the files that it opens for `inst`. With null it does not: nothing is lost without
// a report, a dump or a done file, and locks may be held. May be nested.
class tqp_waits_for_output {
public:
  explicit tqp_waits_for_output(tqp_instance_t *inst);
  ~tqp_waits_for_output();
  tqp_waits_for_output(const tqp_waits_for_output &) = delete;
  tqp_waits_for_output &operator=(const tqp_waits_for_output &) = delete;

private:
  tqp_instance_t *before;
};

// One thing that is waited for. try_again() is called after each failure, with errno set: it sleeps until the next poll,
// and false means that this thread gives up. done() reports the end of the waiting, if there was any.
class tqp_output_wait {
public:
  bool try_again(const char *path);
  void done(const char *path);

private:
  bool waited = false;
};

// Room for one instance's descriptors below the process's limit, for as long as it lives; made by the instance's thread,
// which waits until others have left. So those who have begun always have the descriptors they need to finish.
class tqp_descriptor_claim {
public:
  tqp_descriptor_claim();
  ~tqp_descriptor_claim();
  tqp_descriptor_claim(const tqp_descriptor_claim &) = delete;
  tqp_descriptor_claim &operator=(const tqp_descriptor_claim &) = delete;
};

// Raises the limit of descriptors as far as the process may, and makes wllb_open_plain wait for one as above. Main, at
// start.
void tqp_prepare_descriptors();
