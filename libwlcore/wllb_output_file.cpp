// The one way to open a file for writing; see the header.

#include "wllb_output_file.h"

#include "wllb_util.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

static bool changes(const wllb_owner &owner) {
  return owner.user != static_cast<uid_t>(-1) || owner.group != static_cast<gid_t>(-1);
}

int wllb_own_file(int fd, const wllb_owner &owner) {
  struct stat facts = {};
  if (!changes(owner))
    return 0;
  if (fstat(fd, &facts) != 0)
    return -1;
  return facts.st_nlink > 1 ? 0 : fchown(fd, owner.user, owner.group);
}

int wllb_open_output(const char *path, int flags, const wllb_owner &owner) {
  if ((flags & O_EXCL) != 0 && unlink(path) != 0 && errno != ENOENT)
    return -1;
  wllb_fd file(wllb_open_plain(path, (flags & ~O_TRUNC) | O_NOFOLLOW));
  if (file.fd < 0)
    return -1;
  [[maybe_unused]] const int given = wllb_own_file(file.fd, owner);
  if ((flags & O_TRUNC) != 0 && ftruncate(file.fd, 0) != 0)
    return -1;
  return std::exchange(file.fd, -1);
}

// What stands at the path itself, when it is of that kind. A slash at the end would lead through a link.
static void own_in_place(std::string path, mode_t kind, const wllb_owner &owner) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  const wllb_fd found(changes(owner) ? open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC) : -1);
  struct stat facts = {};
  if (found.fd < 0 || fstat(found.fd, &facts) != 0 || (facts.st_mode & S_IFMT) != kind)
    return;
  [[maybe_unused]] const int given = fchownat(found.fd, "", owner.user, owner.group, AT_EMPTY_PATH);
}

void wllb_own_directory(const char *path, const wllb_owner &owner) {
  own_in_place(path, S_IFDIR, owner);
}

bool wllb_make_link(const char *target, const char *path, const wllb_owner &owner) {
  if (symlink(target, path) != 0)
    return false;
  own_in_place(path, S_IFLNK, owner);
  return true;
}
