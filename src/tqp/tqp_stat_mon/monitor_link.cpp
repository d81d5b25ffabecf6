// The monitors' connections to the parent; see the header.

#include "monitor_link.h"

#include "process_sockets.h"
#include "process_wake.h"
#include "tqp_main.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>
#include <vector>

constexpr const char *component_name = "TQP";
constexpr size_t most_controller_bytes = 127;
constexpr int port_retry_ms = 2000;
constexpr int most_unsent = 1024 * 1024; // bytes
constexpr int most_events = 4;

// --- watching --------------------------------------------------------------------------------------------------------

int tqp_links_epoll(int size) {
  const int epoll_fd = tqp_epoll_init(size);
  tqp_watch_stop(epoll_fd);
  return epoll_fd;
}

static void watch(monitor_link *link, bool for_writing) {
  const uint32_t events = EPOLLERR | EPOLLHUP | (link->reads ? EPOLLIN : 0U) | (for_writing ? EPOLLOUT : 0U);
  if (events == link->watched)
    return;
  const int result = link->watched == 0 ? tqp_add_select(link->epoll_fd, link->con->mon_reg_fd, events)
                                        : tqp_mod_select(link->epoll_fd, link->con->mon_reg_fd, events);
  if (result == 0)
    link->watched = events;
}

// --- connecting ------------------------------------------------------------------------------------------------------

void tqp_link_drop(monitor_link *link) {
  if (!link->con)
    return;
  if (link->watched != 0 && link->con->mon_reg_fd != -1)
    tqp_remove_select(link->epoll_fd, link->con->mon_reg_fd);
  link->watched = 0;
  link->partial_line.clear();
  std::string err_msg;
  wllb_mon_reg_destroy(&link->con, &err_msg);
}

enum step_kind { CONNECTING, SENDING };

// Sends happen every time, so what the library says of good ones is not for everybody.
static void handle_result(monitor_link *link, int result, const std::string &err_msg, step_kind kind) {
  const int level = result < 0 || kind == CONNECTING ? 1 : 2;
  wllb_trace(level, result < 0 ? "Error" : "Info", "%s", err_msg.c_str());
  if (result < 0)
    tqp_link_drop(link);
  else
    watch(link, result != 0);
}

void tqp_link_make(monitor_link *link) {
  if (link->con)
    return;
  std::string err_msg;
  const std::string controller = std::string(wllb_base_name(wl_wdir)).substr(0, most_controller_bytes);
  link->con = wllb_mon_reg_init(controller.c_str(), link->gdf_name, component_name, getpid(), &err_msg, testidx);
}

static bool ended_within(int ms) {
  pollfd stop = {.fd = tqp_stop_fd(), .events = POLLIN, .revents = 0};
  poll(&stop, 1, ms);
  return wl_status != WL_RUNNING;
}

void tqp_link_begin(monitor_link *link) {
  tqp_link_make(link);
  std::string err_msg;
  int result = wllb_mon_reg_create_and_send(link->con, &err_msg);
  for (int tries = 1; result == -3 && wl_status == WL_RUNNING; ++tries) {
    tries = link->words->port_unknown(tries, err_msg.c_str());
    if (ended_within(port_retry_ms))
      break;
    err_msg.clear();
    result = wllb_mon_reg_create_and_send(link->con, &err_msg);
  }
  handle_result(link, result, err_msg, CONNECTING);
}

static void connect_step(monitor_link *link) {
  std::string err_msg;
  const int result = wllb_mon_reg_create_and_send(link->con, &err_msg);
  handle_result(link, result, err_msg, CONNECTING);
}

static bool is_connected(const monitor_link *link) {
  return link->con && link->con->mon_reg_fd != -1 && (link->con->flags & WLLB_MON_REG_CONNECTED);
}

// --- sending ---------------------------------------------------------------------------------------------------------

bool tqp_link_ready(monitor_link *link) {
  if (!is_connected(link)) {
    wllb_trace(1, "Warning", "%s", link->words->connecting_anew);
    tqp_link_make(link);
    connect_step(link);
  }
  if (!is_connected(link)) {
    wllb_trace(1, "Error", "%s", link->words->no_connection);
    return false;
  }
  if (link->con->write_bytes_remaining <= most_unsent)
    return true;
  wllb_trace(1, "Warning", "The parent does not read the samples of %s: %d bytes are unsent, this sample is skipped",
             link->gdf_name, link->con->write_bytes_remaining);
  return false;
}

void tqp_link_send(monitor_link *link, std::string_view sample) {
  std::string err_msg;
  const int result = wllb_mon_reg_send(link->con, sample.data(), static_cast<int>(sample.size()), &err_msg);
  handle_result(link, result, err_msg, SENDING);
}

static void flush(monitor_link *link) {
  std::string err_msg;
  const int result = wllb_mon_reg_send(link->con, nullptr, 0, &err_msg);
  handle_result(link, result, err_msg, SENDING);
  if (result == 0)
    wllb_trace(2, "Info", "%s", link->words->all_sent);
}

// --- events ----------------------------------------------------------------------------------------------------------

static void drop_closed(monitor_link *link) {
  if (link->words->closed)
    wllb_trace(1, "Warning", "%s", link->words->closed);
  tqp_link_drop(link);
}

static void read_line(monitor_link *link) {
  std::vector<char> line(tqp_line_room + 1);
  const int got = tqp_read_line(link->con->mon_reg_fd, line.data(), &link->partial_line);
  if (got == -1 || got == 0)
    drop_closed(link);
  else if (got > 0)
    wllb_trace(1, "Info", "Received Msg from WL = [%s]", line.data());
}

static void act_on_event(monitor_link *link, uint32_t events) {
  if ((events & EPOLLOUT) && (link->con->flags & WLLB_MON_REG_CONNECTING))
    connect_step(link);
  else if ((events & EPOLLOUT) && (link->con->flags & WLLB_MON_REG_PARTIAL_WRITE))
    flush(link);
  else if (link->reads && (events & EPOLLIN))
    read_line(link);
  else if (events & (EPOLLERR | EPOLLHUP))
    drop_closed(link);
}

void tqp_links_wait(int epoll_fd, std::initializer_list<monitor_link *> links, int max_events, int timeout_ms) {
  epoll_event events[most_events];
  const int count = epoll_wait(epoll_fd, events, max_events < most_events ? max_events : most_events, timeout_ms);
  if (count < 0 && errno == EINTR)
    wllb_trace(1, "Info", "Event: Got interrupt for WL fd");
  else if (count < 0)
    wllb_trace(1, "Error", "Event: Got error other then EINTR; errno=%d, error message: '%s'\n", errno,
               wllb_strerror(errno).c_str());
  for (int i = 0; i < count; ++i)
    for (monitor_link *link : links)
      if (wllb_mon_reg_is_my_fd(link->con, events[i].data.fd)) {
        act_on_event(link, events[i].events);
        break;
      }
}

bool tqp_sample_is_due(time_t last) {
  return (int64_t{wllb_monotonic_s()} - last) * 1000 >= fp_stats_mon_frequency;
}
