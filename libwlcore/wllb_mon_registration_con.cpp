// A monitor's connection to the parent; see the header.

#include "wllb_mon_registration_con.h"

#include "wllb_alloc.h"
#include "wllb_sock.h"
#include "wllb_util.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

constexpr const char *parent_address = "127.0.0.1";
constexpr int registration_opcode = 162;

static void set_flag(MonRegCon *con, wllb_mon_reg_flags flag, bool on) {
  con->flags = static_cast<char>(on ? con->flags | flag : con->flags & ~flag);
}

// --- records ---------------------------------------------------------------------------------------------------------

static void *zeroed_memory(size_t size, const std::string *err_msg) {
  void *memory = calloc(1, size);
  if (memory)
    return memory;
  fprintf(stderr, "WLLB: %s|%d|%s| Out of Memory (size = %d): %s \n", __FILE__, __LINE__, __func__,
          static_cast<int>(size), err_msg->c_str());
  wllb_exit(-1);
}

static char *copy_of(const char *text, const std::string *err_msg) {
  const size_t size = strlen(text) + 1;
  return static_cast<char *>(memcpy(zeroed_memory(size, err_msg), text, size));
}

MonRegCon *wllb_mon_reg_init(const char *controller, const char *gdf, const char *component, pid_t pid,
                             std::string *err_msg, int testrun) {
  auto *con = static_cast<MonRegCon *>(zeroed_memory(sizeof(MonRegCon), err_msg));
  con->wl_port = -1;
  con->controller_name = copy_of(controller, err_msg);
  con->component_name = copy_of(component, err_msg);
  con->gdf_name = copy_of(gdf, err_msg);
  con->component_pid = pid;
  con->mon_reg_fd = -1;
  con->testrun = testrun;
  return con;
}

static void close_socket(MonRegCon *con) {
  if (con->mon_reg_fd != -1)
    close(con->mon_reg_fd);
  con->mon_reg_fd = -1;
}

void wllb_mon_reg_destroy(MonRegCon **con, std::string * /*err_msg*/) {
  if (!*con)
    return;
  close_socket(*con);
  for (char *text : {(*con)->controller_name, (*con)->component_name, (*con)->gdf_name})
    free(text);
  if ((*con)->write_buf)
    wllb_free_block((*con)->write_buf, static_cast<size_t>((*con)->write_buf_size) + 1, "MonRegCon write_buf");
  free(*con);
  *con = nullptr;
}

bool wllb_mon_reg_is_my_fd(const MonRegCon *con, int fd) {
  return con && con->mon_reg_fd != -1 && con->mon_reg_fd == fd;
}

// --- sending ---------------------------------------------------------------------------------------------------------

// What is unsent goes to the front of the buffer, which a peer that never lets it run empty would make grow for ever.
static void move_unsent_to_front(MonRegCon *con) {
  if (con->write_offset == 0)
    return;
  memmove(con->write_buf, con->write_buf + con->write_offset, static_cast<size_t>(con->write_bytes_remaining));
  con->write_offset = 0;
}

// False for more bytes than the record can count.
static bool put_behind_unsent(MonRegCon *con, const char *buf, int len) {
  if (len < 0 || len > INT_MAX - 1 - con->write_offset - con->write_bytes_remaining)
    return false;
  if (con->write_offset + con->write_bytes_remaining + len > con->write_buf_size)
    move_unsent_to_front(con);
  const int needed = con->write_offset + con->write_bytes_remaining + len;
  if (needed > con->write_buf_size || !con->write_buf) {
    const size_t old_size = con->write_buf ? static_cast<size_t>(con->write_buf_size) + 1 : 0;
    con->write_buf = static_cast<char *>(
        wllb_grow_block(con->write_buf, old_size, static_cast<size_t>(needed) + 1, "MonRegCon write_buf"));
    con->write_buf_size = needed;
  }
  memcpy(con->write_buf + con->write_offset + con->write_bytes_remaining, buf, static_cast<size_t>(len));
  con->write_bytes_remaining += len;
  return true;
}

static int tell_send_error(const MonRegCon *con, int error, std::string *err_msg) {
  *err_msg += wllb_format("Error: Error in writing message to WL for Component: %s, Gdf: %s. Error: %s. ",
                          con->component_name, con->gdf_name, wllb_strerror(error).c_str());
  return -1;
}

static int tell_closed(const MonRegCon *con, std::string *err_msg) {
  *err_msg += wllb_format(
      "Warning: Connection closed from other side. Component: %s, Gdf: %s. Source address (%s) and destination address (%s:%d). ",
      con->component_name, con->gdf_name, wllb_tcp_own_address(con->mon_reg_fd).c_str(), parent_address, con->wl_port);
  return -1;
}

static int tell_partial(MonRegCon *con, int total, std::string *err_msg) {
  set_flag(con, WLLB_MON_REG_PARTIAL_WRITE, true);
  *err_msg += wllb_format("Warning: Partial data sent. Total bytes to write = %d, Bytes sent = %d, Gdf = %s. ", total,
                          total - con->write_bytes_remaining, con->gdf_name);
  return 1;
}

int wllb_mon_reg_send(MonRegCon *con, const char *buf, int len, std::string *err_msg) {
  if (buf && !put_behind_unsent(con, buf, len))
    return tell_send_error(con, EMSGSIZE, err_msg);
  const int total = con->write_bytes_remaining;
  while (con->write_bytes_remaining > 0) {
    const ssize_t sent = send(con->mon_reg_fd, con->write_buf + con->write_offset,
                              static_cast<size_t>(con->write_bytes_remaining), MSG_NOSIGNAL);
    if (sent > 0) {
      con->write_offset += static_cast<int>(sent);
      con->write_bytes_remaining -= static_cast<int>(sent);
    } else if (sent == 0) {
      return tell_closed(con, err_msg);
    } else if (errno == EAGAIN) {
      return tell_partial(con, total, err_msg);
    } else if (errno != EINTR) {
      return tell_send_error(con, errno, err_msg);
    }
  }
  con->write_offset = 0;
  set_flag(con, WLLB_MON_REG_PARTIAL_WRITE, false);
  *err_msg +=
      wllb_format("Info: Complete data has been sent. Gdf = %s, Component = %s. ", con->gdf_name, con->component_name);
  return 0;
}

// --- connecting ------------------------------------------------------------------------------------------------------

// The parent's port; -1 when its file cannot be read.
static int wllb_get_wl_data_port(int testrun, std::string *err_msg) {
  const char *work_dir = getenv("WL_WDIR"); // NOLINT(concurrency-mt-unsafe): nobody sets the environment by now
  const std::string path = wllb_format("%s/logs/TR%d/WLDHPort", work_dir ? work_dir : "", testrun);
  if (wllb_is_regular_file(path.c_str()) && access(path.c_str(), R_OK) == 0)
    return atoi(wllb_read_small_file(path.c_str(), 64).c_str());
  *err_msg += " :Error received in getting port";
  return -1;
}

static std::string registration_of(const MonRegCon *con) {
  const std::string text = wllb_format("%s;%s;%d;%s;DVM", con->gdf_name, con->component_name,
                                       static_cast<int>(con->component_pid), con->controller_name);
  const int head[] = {static_cast<int>(text.size()) + 5, registration_opcode};
  std::string message(reinterpret_cast<const char *>(head), sizeof head);
  return message.append(text.c_str(), text.size() + 1);
}

static bool open_socket(MonRegCon *con, std::string *err_msg) {
  con->mon_reg_fd = wllb_tcp_socket();
  con->flags = 0;
  con->write_offset = con->write_bytes_remaining = 0; // of a connection before
  if (con->mon_reg_fd != -1)
    return true;
  *err_msg += wllb_format("Error in opening socket for monitor registration for gdf: %s, component: %s.", con->gdf_name,
                          con->component_name);
  return false;
}

static int go_on_connected(MonRegCon *con, const std::string &own, const std::string &registration,
                           std::string *err_msg) {
  set_flag(con, WLLB_MON_REG_CONNECTING, false);
  set_flag(con, WLLB_MON_REG_CONNECTED, true);
  *err_msg += wllb_format(
      "Info: Connection established successfully for component %s and gdf %s. Source address (%s) and destination address (%s:%d). ",
      con->component_name, con->gdf_name, own.c_str(), parent_address, con->wl_port);
  return wllb_mon_reg_send(con, registration.c_str(), static_cast<int>(registration.size()), err_msg);
}

static int go_on_connecting(MonRegCon *con, const std::string &own, std::string *err_msg) {
  if (con->flags & WLLB_MON_REG_CONNECTING) {
    *err_msg += wllb_format(
        "Warning: Connection is still in connecting state for component %s and gdf %s. So need to re-establish and close this connection. Source address (%s) and destination address (%s:%d). ",
        con->component_name, con->gdf_name, own.c_str(), parent_address, con->wl_port);
    return -2;
  }
  set_flag(con, WLLB_MON_REG_CONNECTING, true);
  *err_msg += wllb_format(
      "Info: Connection is established with connecting state for component %s and gdf %s. Source address (%s) and destination address (%s:%d). ",
      con->component_name, con->gdf_name, own.c_str(), parent_address, con->wl_port);
  return 2;
}

static int give_up_connecting(MonRegCon *con, const std::string &own, std::string *err_msg) {
  if (con->flags & WLLB_MON_REG_CONNECTING) {
    *err_msg += wllb_format(
        "Error: Connection not established for component %s and gdf %s. So need to re-establish and close this connection. Source address (%s) and destination address (%s:%d). ",
        con->component_name, con->gdf_name, own.c_str(), parent_address, con->wl_port);
    return -2;
  }
  close_socket(con);
  *err_msg += wllb_format(
      "Error: Error in Connecting to WL for Component: %s, gdf: %s. Source address (%s) and destination address (%s:%d). ",
      con->component_name, con->gdf_name, own.c_str(), parent_address, con->wl_port);
  return -1;
}

int wllb_mon_reg_create_and_send(MonRegCon *con, std::string *err_msg) {
  con->wl_port = wllb_get_wl_data_port(con->testrun, err_msg);
  if (con->wl_port == -1)
    return -3;
  const std::string registration = registration_of(con);
  if (con->mon_reg_fd == -1 && !open_socket(con, err_msg))
    return -1;
  const int step = wllb_tcp_connect_step(con->mon_reg_fd, parent_address, con->wl_port);
  const std::string own = wllb_tcp_own_address(con->mon_reg_fd);
  if (step == 0)
    return go_on_connected(con, own, registration, err_msg);
  return step == 1 ? go_on_connecting(con, own, err_msg) : give_up_connecting(con, own, err_msg);
}
