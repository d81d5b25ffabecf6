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

#include <sys/syscall.h>
#include <unistd.h>

// A descriptor that is readable once the parent has ended, or -1.
static int watch_parent(int epfd) {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, wl_pid, 0)); // close-on-exec by itself
  if (fd >= 0)
    tqp_add_select(epfd, fd, EPOLLIN | EPOLLONESHOT);
  return fd;
}

static void sleep_until_event(int epfd) {
  epoll_event event;
  if (epoll_wait(epfd, &event, 1, tsrun_poll_interval) == 1 && event.data.fd == tqp_signal_fd())
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
  const wllb_fd parent(watch_parent(epfd));
  while (wllb_check_pid_alive(wl_pid)) {
    sleep_until_event(epfd);
    if (told_to_leave())
      break;
    act_on_signals();
  }
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
