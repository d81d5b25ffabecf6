// Words for the service manager; see the header.

#include "wllb_notify.h"

#include "wllb_util.h"

#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

bool wllb_notify(const char *words) {
  const char *path = getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe): nothing changes the environment then
  sockaddr_un address = {};
  if (!path || (*path != '/' && *path != '@') || strlen(path) >= sizeof address.sun_path)
    return false;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, strlen(path));
  if (*path == '@') // a name that is no file
    address.sun_path[0] = '\0';
  const wllb_fd socket_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
  sockaddr_storage to = {};
  memcpy(&to, &address, sizeof address);
  const auto *generic = reinterpret_cast<const sockaddr *>(&to);
  const size_t size = strlen(words);
  return socket_fd.fd >= 0 &&
         sendto(socket_fd.fd, words, size, MSG_NOSIGNAL, generic, length) == static_cast<ssize_t>(size);
}

int64_t wllb_watchdog_ms() {
  const char *usec = getenv("WATCHDOG_USEC"); // NOLINT(concurrency-mt-unsafe): nothing changes the environment then
  const char *pid = getenv("WATCHDOG_PID");   // NOLINT(concurrency-mt-unsafe)
  if (!usec || (pid && strtol(pid, nullptr, 10) != getpid()))
    return 0;
  const long long value = strtoll(usec, nullptr, 10);
  return value > 0 ? static_cast<int64_t>(value / 1000) : 0;
}
