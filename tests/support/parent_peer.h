// The parent's side of the monitors' connections: a socket with little room. Only pump() accepts and reads, so a test
// decides how slow the parent is.
#pragma once

#include <arpa/inet.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

struct parent_peer {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in here = {};
  std::vector<std::pair<int, std::string>> connections; // each with what came on it

  parent_peer() {
    const int room = 4096;
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof here;
    bind(listener, reinterpret_cast<sockaddr *>(&here), size);
    getsockname(listener, reinterpret_cast<sockaddr *>(&here), &size);
    listen(listener, 16);
  }

  parent_peer(const parent_peer &) = delete;
  parent_peer &operator=(const parent_peer &) = delete;

  ~parent_peer() {
    close(listener);
    for (const auto &[fd, bytes] : connections)
      close(fd);
  }

  std::string port() const { return std::to_string(ntohs(here.sin_port)); }

  void pump() {
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;)
      connections.emplace_back(fd, "");
    char block[4096];
    for (auto &[fd, bytes] : connections)
      for (ssize_t got; (got = read(fd, block, sizeof block)) > 0;)
        bytes.append(block, static_cast<size_t>(got));
  }

  // What came on the newest connection that registered a monitor: all, and what stands behind the registration's NUL.
  std::string bytes_of(const std::string &gdf) const {
    std::string found;
    for (const auto &[fd, bytes] : connections)
      if (bytes.size() > 8 && bytes.compare(8, gdf.size() + 1, gdf + ";") == 0)
        found = bytes;
    return found;
  }

  std::string samples(const std::string &gdf) const {
    const std::string all = bytes_of(gdf);
    return all.substr(std::min(all.size(), all.find('\0', 8) + 1));
  }
};
