// Bytes of recovery files; see the header.
//   Failure a file that cannot be made or written whole leaves the old one as it is

#include "recovery_io.h"

#include "data_files.h"

static std::string path_beside(const std::string &path) {
  return path + ".new";
}

FILE *tqp_begin_replacing(const std::string &path) {
  const std::string beside = path_beside(path);
  FILE *file = my_fopen(beside.c_str(), "w");
  if (file)
    tqp_own_path(beside.c_str());
  return file;
}

bool tqp_end_replacing(FILE *file, const std::string &path, bool whole) {
  const std::string beside = path_beside(path);
  const bool closed = fclose(file) == 0;
  if (whole && closed && rename(beside.c_str(), path.c_str()) == 0)
    return true;
  unlink(beside.c_str());
  return false;
}
