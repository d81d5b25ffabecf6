// The listening ports of a live run and their connections: bytes in, bytes out at their time, nobody is waited for.
//   In      TCP on 127.0.0.1; the owner's function, which cuts what has come into messages
//   Out     queued bytes, each piece not before its time
//   Thread  one
//   Failure a connection that fails, floods or says nothing is closed; only ports that cannot be opened are an error
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

enum online_role : uint8_t {
  ONLINE_NEW, // on the collector's port, before its first line
  ONLINE_CONTROL,
  ONLINE_METADATA,
  ONLINE_MONITOR
};

struct online_piece {
  int64_t due_ms; // monotonic clock
  std::string bytes;
};

struct online_connection {
  int fd;
  online_role role;
  bool closing; // when all pieces have gone
  int64_t since_ms;
  std::string in; // what its owner's function did not take yet
  std::deque<online_piece> out;
  std::string name; // of a registered monitor
};

struct online_server {
  int collector_fd = -1, monitor_fd = -1;
  int collector_port = 0, monitor_port = 0;
  std::vector<online_connection> connections; // oldest first
  // Looks at bytes of a connection and gives how many of them made a message, 0 when more are needed, -1 when the
  // connection is to be closed at once. It may queue answers; it must not add or remove connections.
  std::function<ssize_t(online_connection &, std::string_view)> take;
};

int64_t online_now_ms();

// Opens both ports; a collector's port of 0 is the system's choice. 0, or -1 with a line on standard error.
int online_listen(online_server &server, int64_t collector_port);

// Serves all connections until the monotonic clock shows until_ns; at least one round.
void online_serve(online_server &server, int64_t until_ns);

// Queues bytes, to be sent not before `in_ms` milliseconds from now. Pieces keep their order.
void online_send(online_connection &connection, std::string bytes, int64_t in_ms = 0);
void online_send_to_all(online_server &server, online_role role, const std::string &bytes);

void online_close(online_server &server);
