// Signals and the daemon's life; see the header.
#include "upload_watch.h"

#include <initializer_list>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

upload_watch::upload_watch() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGRTMIN + 2, SIGRTMIN + 3})
    sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr); // each of them ends a process that does not expect it
  signal_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

upload_watch::~upload_watch() {
  for (const int fd : {signal_fd, parent_fd})
    if (fd >= 0)
      close(fd);
}

void upload_watch::watch_parent(int pid) {
  parent_fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  stop = stop || parent_fd < 0;
}

void upload_watch::look(int ms) {
  pollfd sides[] = {{signal_fd, POLLIN, 0}, {parent_fd, POLLIN, 0}};
  if (stop || poll(sides, 2, ms) < 1)
    return;
  stop = sides[1].revents != 0;
  signalfd_siginfo info;
  while (read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    const int signal = static_cast<int>(info.ssi_signo);
    stop = stop || signal == SIGTERM || signal == SIGINT || signal == SIGHUP;
    over = over || signal == SIGRTMIN + 3;
  }
}
