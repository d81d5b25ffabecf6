// The main thread between start-up and shutdown: it sleeps, watches the parent, and turns signals into actions.
//   In      the flags of signals.cpp, wl_status, the parent's life
//   Out     wl_status: 0 after a normal end, 3 for "stop now"; a new trace level
//   Thread  main
//   Failure a parent that cannot be watched by descriptor is looked at every tsrun_poll_interval
// Each sleep lasts tsrun_poll_interval at most; a signal or the parent's end cuts it short.

#include "process_frame.h"
#include "process_wake.h"
#include "tqp_init.h"
#include "tqp_stat_mon.h"
#include "upload_child.h"

#include <algorithm>
#include <sys/syscall.h>
#include <unistd.h>

// A parent that has ended stays in the process table until its own parent has collected it, and counts as alive until
// then. After the one event that its descriptor gives, it is looked at often, then less and less often.
struct parent_watch {
  int fd = -1; // -1: cannot be watched
  bool ended = false;
  int next_look_ms = 1; // doubles, once ended
};

static void watch_parent(int epfd, parent_watch *parent) {
  parent->fd = static_cast<int>(syscall(SYS_pidfd_open, wl_pid, 0)); // close-on-exec by itself
  if (parent->fd >= 0)
    tqp_add_select(epfd, parent->fd, EPOLLIN | EPOLLONESHOT);
}

static int sleep_ms(parent_watch *parent) {
  if (!parent->ended)
    return tsrun_poll_interval;
  const int ms = std::min(parent->next_look_ms, tsrun_poll_interval);
  parent->next_look_ms = ms * 2;
  return ms;
}

static void sleep_until_event(int epfd, parent_watch *parent) {
  epoll_event event;
  if (epoll_wait(epfd, &event, 1, sleep_ms(parent)) < 1)
    return;
  if (event.data.fd == parent->fd)
    parent->ended = true;
  else
    tqp_drain_signal_fd();
}

// True when this process's part in the test run is over.
static bool told_to_leave() {
  if (wl_status != WL_RUNNING)
    return true;
  if (sig_stop_comp) { // looked at before the normal end: when both have come, this one wins
    tqp_set_wl_status(WL_STOP_NOW);
    return true;
  }
  if (sig_test_post_proc) {
    tqp_set_wl_status(WL_OVER);
    return true;
  }
  return false;
}

static void change_trace_level() {
  sig_trace_level_change = 0;
  if (trkey)
    wllb_change_atb_mt_trace_log(trkey, "TQP_TRACE_LOGLEVEL");
  tqp_set_debug_level_on_instance();
  tqp_install_signal_handler(SIGRTMIN + 4);
}

static void act_on_signals() {
  if (sig_trace_level_change)
    change_trace_level();
  check_and_process_sig_chld();
  if (sig_dump_loc2norm_maps) {
    process_sig_tqp_dump_loc2norm_maps();
    tqp_install_signal_handler(SIGRTMIN + 5);
  }
  if (sig_dump_cur_proccesing_status)
    process_sig_tqp_dump_current_processing_status();
}

void tqp_main_loop(int epfd) {
  tqp_add_select(epfd, tqp_signal_fd(), EPOLLIN);
  if (wl_pid < 1) {
    tqp_set_wl_status(WL_OVER);
    return;
  }
  parent_watch parent;
  watch_parent(epfd, &parent);
  while (wllb_check_pid_alive(wl_pid)) {
    sleep_until_event(epfd, &parent);
    if (told_to_leave())
      break;
    act_on_signals();
  }
  if (parent.fd >= 0)
    close(parent.fd);
  if (!wllb_check_pid_alive(wl_pid)) // whatever the state was
    tqp_set_wl_status(WL_STOP_NOW);
}

void tqp_wait_for_instance_threads(int epfd) {
  while (tqp_count_instances() > 0) { // each one that leaves wakes this thread, as a signal does
    if (sig_stop_comp && wl_status != WL_STOP_NOW)
      tqp_set_wl_status(WL_STOP_NOW);
    epoll_event event;
    if (epoll_wait(epfd, &event, 1, tsrun_poll_interval) == 1)
      tqp_drain_signal_fd();
  }
}
