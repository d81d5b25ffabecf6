// One monitor's connection to the parent on this host: connected without blocking, registered by the name of the
// monitor's gdf file, then used for sample lines that wait when the parent reads slowly.
//   In      the parent's port file, messages of the caller
//   Out     the registration and the messages, in order; texts about what happened, appended to the caller's *err_msg
//   Thread  a record belongs to one thread
//   Failure by result and text; the caller traces, closes or tries again. Only a lack of memory ends the process
// Registration (host byte order): [length of the rest less 4][162]"gdf;component;pid;controller;DVM" NUL
#pragma once

#include <string>
#include <sys/types.h>

// Bits of flags.
enum wllb_mon_reg_flags : char {
  WLLB_MON_REG_CONNECTED = 1,
  WLLB_MON_REG_CONNECTING = 2,
  WLLB_MON_REG_PARTIAL_WRITE = 4
};

struct MonRegCon {
  char con_type;             // 0
  char flags;                // wllb_mon_reg_flags
  int wl_port;               // the parent's; -1: not known yet
  char *controller_name;     // owned
  char *component_name;      // owned
  char *gdf_name;            // owned
  char *comp_name;           // null
  pid_t component_pid;       //
  int mon_reg_fd;            // owned; -1: closed
  char *write_buf;           // owned; write_buf_size + 1 bytes, null at first
  int write_offset;          // of the first unsent byte
  int write_buf_size;        // bytes
  int write_bytes_remaining; // unsent bytes
  int testrun;
  void *data; // the user's
};

// A record that is not connected. Ends the process with -1 when there is no memory.
MonRegCon *wllb_mon_reg_init(const char *controller, const char *gdf, const char *component, pid_t pid,
                             std::string *err_msg, int testrun);

// Connects, or goes on connecting, and sends the registration. The port stands in "%s/logs/TR%d/WLDHPort" of the
// environment's WL_WDIR and the test run.
//    0  connected, registration sent
//    1  connected, a part of it is unsent: flush once the socket is writable
//    2  connecting: call again once the socket is writable
//   -1  failed
//   -2  connecting has failed, or does not end
//   -3  the port is not known yet
int wllb_mon_reg_create_and_send(MonRegCon *con, std::string *err_msg);

// Puts `len` bytes behind what is unsent and writes; a null buf only writes. 0 all sent, 1 a part is unsent, -1 failed.
int wllb_mon_reg_send(MonRegCon *con, const char *buf, int len, std::string *err_msg);

// Closes the socket and frees the record; *con is null afterwards. A null record does nothing.
void wllb_mon_reg_destroy(MonRegCon **con, std::string *err_msg);

// True when `fd` is the record's open socket; a null record has none.
bool wllb_mon_reg_is_my_fd(const MonRegCon *con, int fd);
