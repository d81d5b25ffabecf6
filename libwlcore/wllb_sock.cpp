// TCP connections; see the header. Connecting never blocks in the kernel: it is waited for, so that a limit and a
// descriptor that says "give up" both end it.
//   In      a host name or address, a port
//   Out     descriptors owned by the caller
//   Thread  any; nothing is kept between calls
//   Failure -1 and a text, or errno

#include "wllb_sock.h"

#include "wllb_util.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

struct free_addresses {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};

using address_list = std::unique_ptr<addrinfo, free_addresses>;

// The addresses a name or number stands for; null with the reason in *err.
static address_list addresses_of(const char *host, int port, int family, std::string *err) {
  addrinfo wanted = {};
  wanted.ai_family = family;
  wanted.ai_socktype = SOCK_STREAM;
  wanted.ai_flags = AI_NUMERICSERV;
  if (port < 1 || port > 65535) {
    *err = wllb_strerror(EINVAL);
    return nullptr;
  }
  addrinfo *found = nullptr;
  const int error = getaddrinfo(host, std::to_string(port).c_str(), &wanted, &found);
  if (error != 0) {
    *err = error == EAI_SYSTEM ? wllb_strerror(errno) : gai_strerror(error);
    return nullptr;
  }
  return address_list(found);
}

static int new_socket(int family) {
  return socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

// Waits for the end of a connect: 0, or the error.
static int end_of_connect(int fd, int timeout_s, int give_up_fd) {
  const int64_t give_up_at = wllb_monotonic_ms() + int64_t{timeout_s} * 1000;
  pollfd watched[] = {{.fd = fd, .events = POLLOUT, .revents = 0}, {.fd = give_up_fd, .events = POLLIN, .revents = 0}};
  int ready = -1;
  for (int64_t left = int64_t{timeout_s} * 1000; ready < 0 && left >= 0; left = give_up_at - wllb_monotonic_ms()) {
    ready = poll(watched, 2, static_cast<int>(left));
    if (ready < 0 && errno != EINTR)
      return errno;
  }
  if (ready <= 0)
    return ETIMEDOUT;
  if (watched[0].revents == 0)
    return ECANCELED;
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

static int connect_within(int fd, const addrinfo &to, int timeout_s, int give_up_fd) {
  if (connect(fd, to.ai_addr, to.ai_addrlen) == 0)
    return 0;
  return errno == EINPROGRESS || errno == EINTR ? end_of_connect(fd, timeout_s, give_up_fd) : errno;
}

// From now on reads and writes wait, but not longer than the limit.
static int make_blocking(int fd, int timeout_s) {
  const timeval limit = {.tv_sec = timeout_s, .tv_usec = 0};
  const bool good = fcntl(fd, F_SETFL, 0) == 0 && setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
                    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
  return good ? 0 : errno;
}

int wllb_tcp_connect(const char *host, int port, int timeout_s, std::string *err, int give_up_fd) {
  const address_list list = addresses_of(host, port, AF_UNSPEC, err);
  if (!list)
    return -1;
  int error = 0;
  for (const addrinfo *at = list.get(); at && error != ECANCELED; at = at->ai_next) {
    const int fd = new_socket(at->ai_family);
    if (fd < 0) {
      error = errno;
      continue;
    }
    error = connect_within(fd, *at, timeout_s, give_up_fd);
    if (error == 0)
      error = make_blocking(fd, timeout_s);
    if (error == 0)
      return fd;
    close(fd);
  }
  *err = wllb_strerror(error);
  return -1;
}

int wllb_tcp_socket() {
  return new_socket(AF_INET);
}

int wllb_tcp_connect_step(int fd, const char *address, int port) {
  std::string unused;
  const address_list list = addresses_of(address, port, AF_INET, &unused);
  if (!list) {
    errno = EINVAL;
    return -1;
  }
  if (connect(fd, list->ai_addr, list->ai_addrlen) == 0 || errno == EISCONN)
    return 0;
  return errno == EINPROGRESS || errno == EALREADY || errno == EINTR ? 1 : -1;
}

std::string wllb_tcp_own_address(int fd) {
  sockaddr_storage own = {};
  socklen_t size = sizeof own;
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  auto *address = reinterpret_cast<sockaddr *>(&own);
  if (getsockname(fd, address, &size) != 0 ||
      getnameinfo(address, size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return {};
  return wllb_format("%s:%s", host, port);
}
