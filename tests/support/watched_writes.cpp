// The test program's own write calls; see the header.

#include "watched_writes.h"

#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>

thread_local const write_watch *watched_write;

// False for a call that is interrupted.
static bool passes(const void *bytes, size_t *size) {
  if (!watched_write || *size == 0)
    return true;
  *size = (*watched_write)({static_cast<const char *>(bytes), *size});
  if (*size == 0)
    errno = EINTR;
  return *size > 0;
}

extern "C" ssize_t write(int fd, const void *bytes, size_t size) {
  return passes(bytes, &size) ? syscall(SYS_write, fd, bytes, size) : -1;
}

extern "C" ssize_t pwrite(int fd, const void *bytes, size_t size, off_t at) {
  return passes(bytes, &size) ? syscall(SYS_pwrite64, fd, bytes, size, at) : -1;
}
