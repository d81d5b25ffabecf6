// Opens and makes files: every data file of the program goes through here, so that all are made and owned alike.
//   In      paths that their callers have built; resume_flag, ownerid and grpid
//   Out     streams; files with the owner of the test run directory
//   Thread  any; a stream belongs to its caller
//   Failure null and a line in the trace; an owner that cannot be set is let be

#include "tqp_csv_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

static int open_flags(std::string_view mode) {
  if (mode == "w")
    return O_CREAT | O_TRUNC | O_WRONLY;
  if (mode == "w+")
    return O_CREAT | O_TRUNC | O_RDWR;
  if (mode == "r")
    return O_RDONLY;
  return O_CREAT | O_RDWR; // a stream opened with "a" sets O_APPEND on its descriptor by itself
}

FILE *my_fopen(const char *path, const char *mode) {
  const int flags = open_flags(mode);
  const int fd = open(path, flags | O_CLOEXEC, 0666);
  if (fd < 0) {
    const int error = errno;
    if (!strstr(path, ".recovery")) // a restart asks for recovery files that nobody has written yet
      wllb_trace(1, "Error", "Could not open file '%s' with \"%s\" mode and 0x%x flags. Error = %s and errno = %d",
                 path, mode, static_cast<unsigned>(flags), wllb_strerror(error).c_str(), error);
    return nullptr;
  }
  FILE *stream = fdopen(fd, mode);
  if (!stream) {
    const int error = errno;
    close(fd);
    wllb_trace(1, "Error", "Could not fdopen file %s with 0%x flags. Error = %s and errno = %d", path,
               static_cast<unsigned>(flags), wllb_strerror(error).c_str(), error);
  }
  return stream;
}

void tqp_own_path(const char *path) {
  if (chown(path, static_cast<uid_t>(ownerid), static_cast<gid_t>(grpid)) != 0)
    return; // files keep the owner they have
}

wllb_file tqp_open_plain_file(const std::string &path, const char *mode) {
  return wllb_file(wllb_is_regular_file(path.c_str()) ? my_fopen(path.c_str(), mode) : nullptr);
}

bool tqp_write_data_file(const char *path, std::string_view text) {
  FILE *file = my_fopen(path, "w");
  if (!file)
    return false;
  tqp_own_path(path);
  const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
  return fclose(file) == 0 && written;
}

FILE *tqp_make_data_file_as(const char *path, const char *mode, bool keep_open) {
  FILE *made = my_fopen(path, mode);
  if (!made)
    return nullptr;
  fclose(made); // nothing may be written before the file has its owner
  tqp_own_path(path);
  return keep_open ? my_fopen(path, "a") : nullptr;
}

FILE *tqp_make_data_file(const char *path, bool keep_open) {
  return tqp_make_data_file_as(path, resume_flag ? "a" : "w", keep_open);
}

void tqp_close_stream(FILE **stream) {
  if (*stream)
    fclose(*stream);
  *stream = nullptr;
}
