// One exchange with an agent, and what its reply does: each line of it is a record of its own.
//   In      a connection to the collector's port on which a request has gone out
//   Out     records to the dispatcher; "<tier_server_app>_metadata_recovery.txt", which nothing reads back
//   Thread  the instance's, which waits; it holds no lock meanwhile
//   Failure traced; false as result, upon which requests are paused
// Samples:  5,a.b.C.m()V,7\ntq_meta_data_rep:status=complete;\n
//           TraceQuarryMessage 2.0;Status:Success;Ack:0;ContentLength:14;\n5,a.b.C.m()V,7\n\n
#pragma once

#include "tqp_main.h"

#include "wllb_text.h"

#include <string>
#include <string_view>

// Limits of a body told by its header. It is read to two bytes beyond.
constexpr int32_t tqp_least_reply_body = 1;
constexpr int32_t tqp_most_reply_body = 64 << 20;

struct tqp_exchange {
  tqp_instance_t *inst = nullptr;
  int fd = -1;   // the collector; does not block
  int epfd = -1; // watches fd, and the stop descriptor while the process runs
  bool watches_stop = false;
  int64_t deadline = 0;   // ms, of the whole exchange
  std::string held;       // what tqp_read_line keeps
  wllb_text partial = {}; // a reply's last line as far as it has come
  wllb_file log;          // recovery log; null: no line yet, or it does not open
  bool log_begun = false;
};

// While one lives, its thread sends no request: a reply is being read.
extern constinit thread_local bool tqp_reads_reply;

struct tqp_reply_guard {
  tqp_reply_guard() { tqp_reads_reply = true; }

  ~tqp_reply_guard() { tqp_reads_reply = false; }

  tqp_reply_guard(const tqp_reply_guard &) = delete;
  tqp_reply_guard &operator=(const tqp_reply_guard &) = delete;
};

// A name of the instance, which its identity record has not told yet when it is null.
inline const char *tqp_name(const char *name) {
  return name ? name : "";
}

enum tqp_wait_result { WAIT_READY, WAIT_EXPIRED, WAIT_STOPPED };

// Waits until there is something to read, the deadline has passed or the process stops (metadata_request.cpp).
tqp_wait_result tqp_wait_for_agent(tqp_exchange *x);

// Reads the reply to a request of either form. True: it was one, even if it held nothing.
bool tqp_read_old_reply(tqp_exchange *x);
bool tqp_read_new_reply(tqp_exchange *x);

// Runs the whole lines of a piece of a body; the last one waits for its newline. 1 if a record was among them, else 0.
int process_and_dump_meta_data(tqp_exchange *x, std::string_view text);

// Gives back what a reply has taken.
void tqp_end_reply(tqp_exchange *x);
