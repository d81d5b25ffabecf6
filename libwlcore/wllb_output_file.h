// How a file that the process writes is opened, made and given to its owner. There is no other way to do it: the
// directories of a test run belong to other users, who may have put anything at a name that root is about to write.
//   In      paths, flags of open(2), the user and group that files go to
//   Out     descriptors of plain files
//   Thread  any
//   Failure -1 with errno; an owner that cannot be set is no failure, since only root can give files away
// A link in the last place of a path is never followed; links to directories before it are.
#pragma once

#include <sys/types.h>

// Whom files are given to; -1 leaves the user or the group as it is.
struct wllb_owner {
  uid_t user = static_cast<uid_t>(-1);
  gid_t group = static_cast<gid_t>(-1);
};

// Opens a plain file, made with mode 0666 less the umask where `flags` hold O_CREAT, and gives it to its owner. O_TRUNC
// empties it once it has proved to be a plain file; with O_EXCL what has the name before is removed. Close-on-exec, never
// waits for a FIFO. The descriptor is the caller's; -1 with errno: ELOOP for a link, EINVAL for what is no plain file.
int wllb_open_output(const char *path, int flags, const wllb_owner &owner = {});

// Gives an open plain file to its owner. A file with a second name stays whose it is: that name may be anyone's.
// 0, or -1 with errno.
int wllb_own_file(int fd, const wllb_owner &owner);

// Gives a directory to its owner; leaves anything else alone, a link to a directory, too.
void wllb_own_directory(const char *path, const wllb_owner &owner);

// Makes a symbolic link that belongs to its owner. False with errno when there is something at `path`, or it cannot be
// made.
bool wllb_make_link(const char *target, const char *path, const wllb_owner &owner);
