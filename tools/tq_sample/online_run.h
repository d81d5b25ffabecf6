// A live test run: plays the collector and the parent beside the appending of raw data.
//   In      the streams and files that sample_append writes to; requests on the ports
//   Out     partitions that begin, instances that come and go, and the messages about them; answers; words on stdout; the
//           monitors' samples as they came, in monitor_samples.txt of the test run
//   Thread  one: everything happens between two ticks of the appending
//   Failure -1 with a line on standard error for files and ports; peers are never a reason to stop
#pragma once

#include "online_metadata.h"
#include "online_server.h"
#include "sample_append.h"
#include "sample_layout.h"

enum online_add_message : uint8_t { ONLINE_ADD_ACTIVE, ONLINE_ADD_ENABLE, ONLINE_ADD_DISCOVERY };

enum online_remove_message : uint8_t { ONLINE_REMOVE_INACTIVE, ONLINE_REMOVE_DISABLE, ONLINE_REMOVE_REMOVE };

struct online_options {
  int64_t port = 0;                                          // 0: the system's choice
  int64_t switch_every = 0, add_after = 0, remove_after = 0; // seconds; 0: never
  int64_t linger = 0;                                        // seconds to answer on after the last record
  online_replies replies = ONLINE_GOOD;
  online_add_message add_with = ONLINE_ADD_ACTIVE;
  online_remove_message remove_with = ONLINE_REMOVE_INACTIVE;
  bool quiet = false; // no words about monitors and requests
};

struct online_run {
  const online_options *options;
  sample_layout_t *layout;
  int testrun;
  std::vector<sample_raw_file> *files; // open ones; changed by switches and by instances that come and go
  sample_stream_t *to_add;             // the instance that comes later; null: none, or it has come
  online_agents agents;
  online_server server;
};

// Opens the ports, writes the monitors' one into the test run and tells both on standard output. The record stays where
// it is until online_end. 0 or -1.
int online_begin(online_run &run);

// Hooks for sample_append.
sample_beside online_beside(online_run &run);

// Answers on for the time that the options tell, unless told to stop, and closes the ports.
void online_end(online_run &run);
