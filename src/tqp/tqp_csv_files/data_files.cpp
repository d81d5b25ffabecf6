// Opens and makes files: every data file of the program goes through here, so that all are made and owned alike. Writes
// rows, whole or not at all.
//   In      paths that their callers have built; resume_flag, ownerid and grpid
//   Out     streams; files with the owner of the test run directory
//   Thread  any; a stream belongs to its caller
//   Failure null and a line in the trace; an owner that cannot be set is let be; rows on a full disk are lost

#include "data_files.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <stdio_ext.h>
#include <string_view>
#include <sys/stat.h>
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
  const int error = errno;
  unlink(beside.c_str());
  errno = error;
  return false;
}

bool tqp_replace_data_file(const std::string &path, std::string_view text) {
  FILE *file = tqp_begin_replacing(path);
  return file && tqp_end_replacing(file, path, fwrite(text.data(), 1, text.size(), file) == text.size());
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

// --- rows --------------------------------------------------------------------------------------------------------

static int64_t size_of(int fd) {
  struct stat file = {};
  return fstat(fd, &file) == 0 ? file.st_size : 0;
}

static std::string path_of(int fd) {
  char path[PATH_MAX];
  const ssize_t len = readlink(wllb_format("/proc/self/fd/%d", fd).c_str(), path, sizeof path);
  return {path, static_cast<size_t>(len > 0 ? len : 0)};
}

static void tell_unwritten_rows(int fd, int error) {
  wllb_trace(1, "Error", "Could not write rows to file '%s'. Error = %s and errno = %d", path_of(fd).c_str(),
             wllb_strerror(error).c_str(), error);
}

// Takes away the bytes behind the last whole row. False when there are none, or they cannot be taken away.
static bool cut_torn_row(int fd, int64_t row_size) {
  const int64_t size = size_of(fd);
  const int64_t whole = row_size > 0 ? size - size % row_size : wllb_line_begin(fd, size);
  return whole >= 0 && whole < size && ftruncate(fd, whole) == 0;
}

bool tqp_append_rows(FILE *stream, std::string_view rows) {
  const int fd = fileno(stream);
  size_t done = 0;
  int error = 0;
  while (done < rows.size() && error == 0) {
    const ssize_t got = write(fd, rows.data() + done, rows.size() - done);
    if (got > 0)
      done += static_cast<size_t>(got);
    else if (got == 0 || errno != EINTR)
      error = got == 0 ? EIO : errno;
  }
  if (error == 0)
    return true;
  if (done > 0 && ftruncate(fd, size_of(fd) - static_cast<int64_t>(done)) != 0)
    wllb_trace(1, "Error", "Could not take away part of a row. Error = %s", wllb_strerror(errno).c_str());
  tell_unwritten_rows(fd, error);
  return false;
}

void tqp_flush_stream(FILE *stream) {
  if (!stream)
    return;
  if (__fpending(stream) > 0)
    fflush(stream);
  if (!ferror(stream))
    return;
  tell_unwritten_rows(fileno(stream), errno);
  cut_torn_row(fileno(stream), 0);
  clearerr(stream);
}

void tqp_cut_torn_row(const char *path, int64_t row_size) {
  const int fd = wllb_is_regular_file(path) ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (fd < 0)
    return;
  if (cut_torn_row(fd, row_size))
    wllb_trace(1, "Warning", "File %s ended in the middle of a row, which is taken away", path);
  close(fd);
}
