// One poll loop over both ports, used for the time between two ticks of the appending.
//   In      see the header
//   Out     see the header
//   Thread  one
//   Failure see the header
#include "online_server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "sample_tools.h"
#include "wllb_util.h"

static constexpr size_t max_connections = 256;
static constexpr size_t max_unread = 1 << 17;    // bytes that make no message
static constexpr size_t max_unsent = 32 << 20;   // bytes that a connection does not take
static constexpr int64_t max_silence_ms = 30000; // before the first line

int64_t online_now_ms() {
  return sample_now_ns() / 1'000'000;
}

// --- ports ----------------------------------------------------------------------------------------------------

static int open_port(int64_t port, int *fd, int *given) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  auto *const any = reinterpret_cast<sockaddr *>(&address);
  socklen_t length = sizeof address;
  const int on = 1;
  *fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (*fd < 0 || setsockopt(*fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 || bind(*fd, any, length) != 0 ||
      listen(*fd, 128) != 0 || getsockname(*fd, any, &length) != 0) {
    fprintf(stderr, "Could not open port %lld: %s\n", static_cast<long long>(port), wllb_strerror(errno).c_str());
    return -1;
  }
  *given = ntohs(address.sin_port);
  return 0;
}

int online_listen(online_server &server, int64_t collector_port) {
  signal(SIGPIPE, SIG_IGN);
  if (open_port(collector_port, &server.collector_fd, &server.collector_port) != 0)
    return -1;
  return open_port(0, &server.monitor_fd, &server.monitor_port);
}

// --- one connection -------------------------------------------------------------------------------------------

static void drop(online_connection &connection) {
  if (connection.fd >= 0)
    close(connection.fd);
  connection.fd = -1;
}

void online_send(online_connection &connection, std::string bytes, int64_t in_ms) {
  size_t unsent = bytes.size();
  for (const online_piece &piece : connection.out)
    unsent += piece.bytes.size();
  if (unsent > max_unsent || connection.closing)
    connection.closing = true;
  else
    connection.out.push_back({online_now_ms() + in_ms, std::move(bytes)});
}

void online_send_to_all(online_server &server, online_role role, const std::string &bytes) {
  for (online_connection &connection : server.connections)
    if (connection.role == role)
      online_send(connection, bytes);
}

static bool has_due_piece(const online_connection &connection, int64_t now_ms) {
  return !connection.out.empty() && connection.out.front().due_ms <= now_ms;
}

static void send_due_pieces(online_connection &connection, int64_t now_ms) {
  while (has_due_piece(connection, now_ms)) {
    std::string &bytes = connection.out.front().bytes;
    const ssize_t sent = send(connection.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR)
      return drop(connection);
    if (sent < 0)
      return;
    bytes.erase(0, static_cast<size_t>(sent));
    if (!bytes.empty())
      return;
    connection.out.pop_front();
  }
}

// The owner's function sees all that has come, message by message. False: the connection is to be closed.
static bool take_messages(const online_server &server, online_connection &connection) {
  size_t taken = 0;
  while (taken < connection.in.size() && !connection.closing) {
    const ssize_t count = server.take(connection, std::string_view(connection.in).substr(taken));
    if (count < 0)
      return false;
    if (count == 0)
      break;
    taken += static_cast<size_t>(count);
  }
  connection.in.erase(0, taken);
  return connection.in.size() <= max_unread;
}

static void receive(const online_server &server, online_connection &connection) {
  char buf[65536];
  const ssize_t count = recv(connection.fd, buf, sizeof buf, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR))
    return;
  if (count <= 0)
    return drop(connection);
  if (connection.closing)
    return;
  connection.in.append(buf, static_cast<size_t>(count));
  if (!take_messages(server, connection))
    drop(connection);
}

// --- all connections ------------------------------------------------------------------------------------------

// Has not said what it is.
static bool is_unknown(const online_connection &connection) {
  return connection.role == ONLINE_NEW || (connection.role == ONLINE_MONITOR && connection.name.empty());
}

static bool is_request(const online_connection &connection) {
  return connection.role == ONLINE_METADATA;
}

// A newcomer takes the place of the oldest one that has not said what it is, or else of the oldest request.
static bool make_room(online_server &server) {
  std::vector<online_connection> &all = server.connections;
  if (all.size() < max_connections)
    return true;
  auto oldest = std::find_if(all.begin(), all.end(), is_unknown);
  if (oldest == all.end())
    oldest = std::find_if(all.begin(), all.end(), is_request);
  if (oldest == all.end())
    return false;
  drop(*oldest);
  all.erase(oldest);
  return true;
}

// False: no descriptor is left, or nobody waits any more.
static bool accept_one(online_server &server, int listener, online_role role) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0)
    return false;
  const int on = 1; // pieces travel as they were cut
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (make_room(server))
    server.connections.push_back({fd, role, false, online_now_ms(), {}, {}, {}});
  else
    close(fd);
  return true;
}

static void serve_connections(online_server &server, const std::vector<pollfd> &polled, int64_t now_ms) {
  for (size_t i = 0; i < polled.size(); ++i) {
    online_connection &connection = server.connections[i];
    if (polled[i].revents & (POLLIN | POLLHUP | POLLERR))
      receive(server, connection);
    if (connection.fd >= 0)
      send_due_pieces(connection, now_ms);
    const bool silent = is_unknown(connection) && now_ms - connection.since_ms > max_silence_ms;
    if (silent || (connection.closing && connection.out.empty()))
      drop(connection);
  }
  std::erase_if(server.connections, [](const online_connection &c) { return c.fd < 0; });
}

// One wait and what it brought. `accepting` becomes false when the listeners have to be left alone for a while.
static void serve_round(online_server &server, int64_t until_ns, bool *accepting) {
  std::vector<pollfd> polled;
  for (const online_connection &connection : server.connections) {
    const bool due = has_due_piece(connection, online_now_ms());
    polled.push_back({connection.fd, static_cast<short>(due ? POLLIN | POLLOUT : POLLIN), 0});
  }
  const size_t connections = polled.size();
  if (*accepting) {
    polled.push_back({server.collector_fd, POLLIN, 0});
    polled.push_back({server.monitor_fd, POLLIN, 0});
  }
  const int64_t left = std::max<int64_t>(0, until_ns - sample_now_ns());
  const timespec wait = {left / 1'000'000'000, left % 1'000'000'000};
  if (ppoll(polled.data(), polled.size(), &wait, nullptr) < 0)
    return; // a signal: the caller looks at its flag
  bool waiting[2] = {};
  for (size_t i = connections; i < polled.size(); ++i)
    waiting[i - connections] = polled[i].revents != 0;
  polled.resize(connections);
  serve_connections(server, polled, online_now_ms());
  if (waiting[0])
    *accepting = accept_one(server, server.collector_fd, ONLINE_NEW);
  if (waiting[1])
    *accepting = accept_one(server, server.monitor_fd, ONLINE_MONITOR) && *accepting;
}

void online_serve(online_server &server, int64_t until_ns) {
  bool accepting = true;
  do
    serve_round(server, until_ns, &accepting);
  while (sample_now_ns() < until_ns);
}

void online_close(online_server &server) {
  for (online_connection &connection : server.connections) {
    send_due_pieces(connection, online_now_ms());
    drop(connection);
  }
  server.connections.clear();
  for (const int fd : {server.collector_fd, server.monitor_fd})
    if (fd >= 0)
      close(fd);
  server.collector_fd = server.monitor_fd = -1;
}
