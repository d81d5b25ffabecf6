// What both monitors share: their connections to the parent, made and made again, watched, and written to.
//   In      a monitor's names and words; samples
//   Out     the registration and the samples on the parent's socket; trace lines
//   Thread  the monitor's own
//   Failure a link that fails is dropped; the next sample makes it again. A sample that cannot go out is skipped, and so
//           is one for a parent that leaves too much unread
#pragma once

#include "wllb_mon_registration_con.h"

#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>

// A monitor's words for the trace log.
struct monitor_words {
  const char *connecting_anew; // a sample finds no connection
  const char *no_connection;   // ... and none can be had
  const char *all_sent;        // what waited has gone out
  const char *closed;          // the parent has closed; null: the monitor does not say so
  // The parent's port is not known after so many tries. From where to count on.
  int (*port_unknown)(int tries, const char *err_msg);
};

struct monitor_link {
  const char *gdf_name;
  const monitor_words *words;
  bool reads;                    // the parent may send lines, which are traced
  int epoll_fd = -1;             // the monitor's
  MonRegCon *con = nullptr;      // owned; null: to be made
  uint32_t watched = 0;          // events that epoll_fd reports of the socket; 0: not registered
  std::string partial_line = {}; // the beginning of a line from the parent
};

// An epoll descriptor for links, which also reports the end of the process's run. Owned by the caller.
int tqp_links_epoll(int size);

// Makes the record, unless there is one.
void tqp_link_make(monitor_link *link);

// Makes the record and connects; waits for the parent's port as long as the process runs.
void tqp_link_begin(monitor_link *link);

// True when a sample can go out now. A link without connection is tried once.
bool tqp_link_ready(monitor_link *link);

// Sends a sample, or as much of it as the socket takes now; the rest goes when the parent reads on.
void tqp_link_send(monitor_link *link, std::string_view sample);

// Closes the connection and forgets the record.
void tqp_link_drop(monitor_link *link);

// Waits for events on the links and acts on them. Returns at once when the process's run has ended.
void tqp_links_wait(int epoll_fd, std::initializer_list<monitor_link *> links, int max_events, int timeout_ms);

// True when fp_stats_mon_frequency has passed since *last, counted in whole seconds.
bool tqp_sample_is_due(time_t last);
