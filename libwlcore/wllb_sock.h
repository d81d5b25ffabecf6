// TCP connections: to a peer that is waited for, and to one that is not.
//   In      a host name or address, a port
//   Out     descriptors owned by the caller, close-on-exec
//   Thread  any
//   Failure -1 and a text
#pragma once

#include <string>

// A blocking connection whose sends and receives give up after timeout_s seconds (EAGAIN); connecting does, too. The
// descriptor, or -1 with the system's words in *err. Once give_up_fd (if there is one) is readable, connecting ends.
int wllb_tcp_connect(const char *host, int port, int timeout_s, std::string *err, int give_up_fd = -1);

// A non-blocking socket; -1 when there is none.
int wllb_tcp_socket();

// Begins or goes on connecting a socket of wllb_tcp_socket. 0 connected, 1 in progress, -1 failed (errno tells).
int wllb_tcp_connect_step(int fd, const char *address, int port);

// "address:port" of this end; empty when unknown.
std::string wllb_tcp_own_address(int fd);
