// A lock that keeps a second loader out: of a file, and gone with the process.
//   Failure words, without a lock
#pragma once

#include "tqdb_driver.h"

#include "wllb_util.h"

namespace tqdb {

// Gives what the loader has made to the owner of `dir`, as far as it may.
void own_as(int fd, const std::string &dir);

// Takes the lock of a file, which is made with the owner of `run_dir` if it is not there. Taking it again does nothing.
open_result take_load_lock(const std::string &path, const std::string &run_dir, wllb_fd *lock, std::string *error);

} // namespace tqdb
