// A lock that keeps a second loader out; see the header.
#include "tqdb_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace tqdb {

void own_as(int fd, const std::string &dir) {
  struct stat owner = {};
  if (stat(dir.c_str(), &owner) == 0 && fchown(fd, owner.st_uid, owner.st_gid) != 0)
    return; // it keeps the owner it has
}

open_result take_load_lock(const std::string &path, const std::string &run_dir, wllb_fd *lock, std::string *error) {
  if (lock->fd >= 0)
    return TQDB_READY;
  mkdir_ex(path.c_str());
  lock->reset(wllb_open_plain(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW));
  if (lock->fd < 0) {
    *error = path + ": " + wllb_strerror(errno);
    return errno == ENOSPC ? TQDB_NOT_THERE : TQDB_REFUSED;
  }
  own_as(lock->fd, run_dir);
  if (flock(lock->fd, LOCK_EX | LOCK_NB) == 0)
    return TQDB_READY;
  lock->reset();
  *error = path + ": another loader works on this test run";
  return TQDB_IN_USE;
}

} // namespace tqdb
