// The thread that holds the connection to the collector: it announces the process, waits for messages, and runs the
// timed discovery.
//   In      one TCP connection to tqc_ipaddr:tqc_port; tqp_periodic_scandir_time
//   Out     whole reads to process_message_from_tqc; new instances
//   Thread  "TQP_TQC_COMM"; epoll_fd and the timer are its own
//   Failure connecting is tried until the run is over; after a lost connection only the timer goes on
// Sample of the announcement:  tq_control_req:action=fp_stats;TEST_RUN=1234;TQP_PID=4711

#include "control_channel.h"

#include "process_frame.h"
#include "process_wake.h"
#include "tqp_init.h"

#include "wllb_sock.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

int scandir_count;

static int epoll_fd = -1;   // the collector's socket and tqp_stop_fd
static int tqc_retry_count; // failed attempts to connect, in this process

constexpr int tqc_timeout_s = 30; // of connecting, of sending, and of the rest of a line
constexpr int tqc_retry_ms = 2000;
constexpr int tqc_poll_ms = 60000;

// --- connecting --------------------------------------------------------------------------------------------------

static bool is_port(int port) {
  return 0 < port && port < 65536;
}

// The connection, or -1 when there cannot be one, or the run is over.
static int connect_to_tqc() {
  if (!is_port(tqc_port)) {
    wllb_trace(1, "Error", "Error: making connection to tqc_fd = [%s],port = [%d] failed. Error = %s", tqc_ipaddr,
               tqc_port, wllb_strerror(EINVAL).c_str());
    return -1;
  }
  while (wl_status == WL_RUNNING) {
    std::string error;
    const int fd = wllb_tcp_connect(tqc_ipaddr, tqc_port, tqc_timeout_s, &error, tqp_stop_fd());
    if (fd >= 0)
      return fd;
    const std::string why =
        wllb_format("Error in making connection to server %s, Error = %s", tqc_ipaddr, error.c_str());
    wllb_trace(1, "Error", "TQP_TQC_COMM, Error: failed to connect TQC retry count: %d and msg %s\n", ++tqc_retry_count,
               why.c_str());
    epoll_event stop;
    epoll_wait(epoll_fd, &stop, 1, tqc_retry_ms);
  }
  return -1;
}

int send_control_req_to_tqc(int fd) {
  const std::string request =
      wllb_format("tq_control_req:action=fp_stats;TEST_RUN=%d;TQP_PID=%d\n", testidx, static_cast<int>(getpid()));
  if (tqp_send_message(fd, request.c_str(), static_cast<int>(request.size())) >= 0)
    return 0;
  wllb_trace(1, "Error", "Failed to send control message %s", request.c_str());
  return -1;
}

static bool announce(int fd) {
  if (send_control_req_to_tqc(fd) == 0)
    return true;
  wllb_trace(1, "Error", "Error in sending fp_stat control req to lps, fp_stats monitor disabled");
  fputs("Error in sending fp_stat control req to lps, fp_stats monitor disabled", stderr);
  return false;
}

// --- messages ----------------------------------------------------------------------------------------------------

static void close_con(int fd) {
  tqp_remove_select(epoll_fd, fd);
  close(fd);
}

// Waits for the rest of a line. False when it does not come, or nobody wants it any more.
static bool more_comes(int fd) {
  epoll_event event = {};
  int ready;
  do
    ready = epoll_wait(epoll_fd, &event, 1, tqc_timeout_s * 1000);
  while (ready < 0 && errno == EINTR && wl_status == WL_RUNNING);
  return ready == 1 && event.data.fd == fd && wl_status == WL_RUNNING;
}

// One read, with the result of tqp_read_line. What came of a line that does not end in time is dropped.
static int read_from_tqc(int fd, char *buf) {
  std::string partial;
  for (;;) {
    const int got = tqp_read_line(fd, buf, &partial);
    if (got != -2 || !more_comes(fd))
      return got;
  }
}

static void serve_tqc(int fd) {
  char buf[tqp_line_room + 1];
  const int got = read_from_tqc(fd, buf);
  if (got > 0) {
    process_message_from_tqc(buf);
  } else if (got != -2) {
    wllb_trace(1, "Error", "TQP_TQC_COMMUNICATION  Connection closed by TQC");
    fputs("fp_stats Connection closed by TQC, fp_stats monitor disabled\n", stderr);
    close_con(fd);
  }
}

// --- the timer ---------------------------------------------------------------------------------------------------

static void discover_if_due() {
  if (wllb_monotonic_s() - last_scandir_time < tqp_periodic_scandir_time)
    return;
  periodic_scandir_flag = 1;
  tqp_discover_instances(1);
  periodic_scandir_flag = 0;
  wllb_trace(1, "Info", "Scandir completed for %d time in this partition", ++scandir_count);
}

// --- the thread --------------------------------------------------------------------------------------------------

static void serve_until_over(int fd) {
  fcntl(fd, F_SETFL, O_NONBLOCK); // waiting is epoll's, which also sees the end of the run
  tqp_add_select(epoll_fd, fd, EPOLLIN);
  while (wl_status == WL_RUNNING) {
    discover_if_due();
    epoll_event event = {};
    if (epoll_wait(epoll_fd, &event, 1, tqc_poll_ms) != 1 || event.data.fd != fd)
      continue;
    if (event.events == EPOLLIN)
      serve_tqc(fd);
    else
      tqp_remove_select(epoll_fd, fd); // broken; what may be left in it is not served
  }
}

void *tqp_tqc_comm(void *) {
  epoll_fd = tqp_epoll_init(1);
  tqp_watch_stop(epoll_fd);
  const int fd = connect_to_tqc();
  if (fd >= 0 && announce(fd)) {
    tqp_enter_missed_partitions(); // from here on there is a message for each
    serve_until_over(fd);
  }
  close(epoll_fd);
  epoll_fd = -1;
  return nullptr;
}
