// Small services around descriptors and commands, for the threads that talk to the collector and the parent.
//   In      descriptors of the callers, messages, commands
//   Out     bytes on descriptors, lines from them
//   Thread  any; nothing is kept between calls but what the caller holds
//   Failure by return value, traced; only an epoll descriptor that cannot be had ends the process

#include "process_sockets.h"

#include "process_wake.h"
#include "tqp_main.h"
#include "wllb_fail.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

// --- epoll -----------------------------------------------------------------------------------------------------------

int tqp_epoll_init(int /*size*/) {
  const int epfd = epoll_create1(EPOLL_CLOEXEC);
  if (epfd < 0) {
    wllb_trace(1, "Error", "tqp_epoll_init, epoll_create: err = %s", wllb_strerror(errno).c_str());
    wllb_fail(-1, "epoll_create: %s", wllb_strerror(errno).c_str());
  }
  return epfd;
}

static int change_select(int epfd, int operation, int fd, uint32_t events) {
  epoll_event event = {};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epfd, operation, fd, &event);
}

int tqp_add_select(int epfd, int fd, uint32_t events) {
  if (change_select(epfd, EPOLL_CTL_ADD, fd, events) == 0)
    return 0;
  wllb_trace(1, "Error", "add_select epoll add: err = %s", wllb_strerror(errno).c_str());
  return -1;
}

int tqp_mod_select(int epfd, int fd, uint32_t events) {
  if (change_select(epfd, EPOLL_CTL_MOD, fd, events) == 0)
    return 0;
  wllb_trace(1, "Error", "mod_select epoll mod: err = %s", wllb_strerror(errno).c_str());
  return -1;
}

void tqp_remove_select(int epfd, int fd) {
  if (change_select(epfd, EPOLL_CTL_DEL, fd, 0) != 0)
    wllb_trace(1, "Error", "tqp_remove_select epoll mod: err = %s", wllb_strerror(errno).c_str());
}

bool tqp_watch_stop(int epfd) {
  return tqp_stop_fd() >= 0 && tqp_add_select(epfd, tqp_stop_fd(), EPOLLIN) == 0;
}

// --- messages --------------------------------------------------------------------------------------------------------

int tqp_send_message(int fd, const char *buf, int len) {
  if (fd == -1)
    return -1;
  for (int sent = 0; sent < len;) {
    const ssize_t n = write(fd, buf + sent, static_cast<size_t>(len - sent));
    if (n >= 0) {
      sent += static_cast<int>(n);
    } else if (errno != EINTR && errno != EAGAIN) {
      wllb_trace(1, "Error", "\nError: Failed to send message. Error = '%s'\n", wllb_strerror(errno).c_str());
      return -1;
    }
  }
  return len;
}

// Moves what an earlier call kept to the front of buf. Its length.
static int take_partial(char *buf, std::string *partial) {
  const size_t held = std::min(partial->size(), static_cast<size_t>(tqp_line_room));
  memcpy(buf, partial->data(), held);
  buf[held] = '\0';
  partial->clear();
  return static_cast<int>(held);
}

// Nothing more is there now: what came so far is kept.
static int keep_partial(const char *buf, int held, std::string *partial) {
  partial->assign(buf, static_cast<size_t>(held));
  return -2;
}

int tqp_read_line(int fd, char *buf, std::string *partial) {
  buf[0] = '\0';
  if (fd == -1)
    return -1;
  for (int held = take_partial(buf, partial);;) {
    const ssize_t n = read(fd, buf + held, static_cast<size_t>(tqp_line_room - held));
    if (n == 0) // closed, or no room left
      return 0;
    if (n > 0) {
      const char *fresh = buf + held;
      held += static_cast<int>(n);
      buf[held] = '\0';
      if (memchr(fresh, '\n', static_cast<size_t>(n)))
        return held;
    } else if (errno == EAGAIN) {
      return keep_partial(buf, held, partial);
    } else if (errno != EINTR) {
      wllb_trace(1, "Error", "Error in reading message for fd '%d'. Error = %s", fd, wllb_strerror(errno).c_str());
      return -1;
    }
  }
}

// --- commands --------------------------------------------------------------------------------------------------------

int tqp_run_cmd(const char *command) {
  errno = 0;
  const wllb_run_result result = wllb_run_program({"/bin/sh", "-c", command});
  if (result.exit_status < 0)
    fprintf(stderr, "Error in executing command = '%s' (Error: '%s')", command, wllb_strerror(errno).c_str());
  return result.exit_status;
}
