// Descriptors and commands, for the threads that talk to the collector, to agents and to the parent. Nothing is kept between
// calls but what the caller holds; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <sys/epoll.h>

// An epoll descriptor, close-on-exec, owned by the caller; `size` is a hint that the system no longer takes. Ends the
// process with -1 when there is none.
int tqp_epoll_init(int size);

// Lets an epoll descriptor report the end of the process's run, too. False when it cannot.
bool tqp_watch_stop(int epfd);

// One change of what an epoll descriptor watches; events carry `fd` as data. 0, or -1, traced.
int tqp_add_select(int epfd, int fd, uint32_t events);
int tqp_mod_select(int epfd, int fd, uint32_t events);
void tqp_remove_select(int epfd, int fd);

// Writes all of buf. len, or -1 (also for fd -1). A descriptor that is full is tried again and again.
int tqp_send_message(int fd, const char *buf, int len);

// Most bytes tqp_read_line gives at once.
constexpr int tqp_line_room = 131072;

// Reads until a newline has come; the text may go on behind it. buf takes tqp_line_room + 1 bytes and always ends in a
// NUL. What came without a newline waits in *partial (owned by the caller) for the next call.
//   above 0  bytes in buf, a newline among them
//   0        the other side has closed, or the room is full without a newline
//   -1       fd is -1, or a read error, traced
//   -2       nothing more now: no text, or a part of a line that is kept in *partial
int tqp_read_line(int fd, char *buf, std::string *partial);

// Runs a shell command; its output is dropped. Words from outside must be quoted (wllb_shell_quote). Its exit status, 0
// when it died on a signal, -1 when it could not be started.
int tqp_run_cmd(const char *command);
