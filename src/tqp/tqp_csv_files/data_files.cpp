// Opens and makes files: every data file of the program goes through here, so that all are made and owned alike. Writes
// rows, whole or not at all.
//   In      paths that their callers have built; resume_flag, ownerid and grpid
//   Out     streams; files with the owner of the test run directory
//   Thread  any; a stream belongs to its caller
//   Failure null and a line in the trace, or a wait (output_wait.h); an owner that cannot be set is let be; rows on a
//           full disk are lost

#include "data_files.h"

#include "output_wait.h"
#include "wllb_output_file.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static int open_flags(std::string_view mode) {
  if (mode == "w")
    return O_CREAT | O_TRUNC | O_WRONLY;
  if (mode == "w+")
    return O_CREAT | O_TRUNC | O_RDWR;
  if (mode == "wx")
    return O_CREAT | O_EXCL | O_WRONLY;
  if (mode == "r")
    return O_RDONLY;
  return O_CREAT | O_RDWR; // a stream opened with "a" sets O_APPEND on its descriptor by itself
}

static wllb_owner data_owner() {
  return {static_cast<uid_t>(ownerid), static_cast<gid_t>(grpid)};
}

// What cannot be read is not there, as a rule; what cannot be written is waited for. Raw files may lie on another disk and
// show through links, so reading follows them.
static int open_data_file(const char *path, int flags) {
  if (flags == O_RDONLY)
    return wllb_open_plain(path, flags);
  tqp_output_wait wait;
  int fd;
  do
    fd = wllb_open_output(path, flags, data_owner());
  while (fd < 0 && wait.try_again(path));
  if (fd >= 0)
    wait.done(path);
  return fd;
}

// `stream_mode`: what the stream is for, once the file has been opened in `mode`.
static FILE *open_stream(const char *path, const char *mode, const char *stream_mode) {
  const int flags = open_flags(mode);
  const int fd = open_data_file(path, flags);
  if (fd < 0) {
    const int error = errno;
    if (!strstr(path, ".recovery")) // a restart asks for recovery files that nobody has written yet
      wllb_trace(1, "Error", "Could not open file '%s' with \"%s\" mode and 0x%x flags. Error = %s and errno = %d",
                 path, mode, static_cast<unsigned>(flags), wllb_strerror(error).c_str(), error);
    return nullptr;
  }
  FILE *stream = fdopen(fd, stream_mode);
  if (!stream) {
    const int error = errno;
    close(fd);
    wllb_trace(1, "Error", "Could not fdopen file %s with 0%x flags. Error = %s and errno = %d", path,
               static_cast<unsigned>(flags), wllb_strerror(error).c_str(), error);
  }
  return stream;
}

FILE *my_fopen(const char *path, const char *mode) {
  return open_stream(path, mode, mode[0] == 'w' && mode[1] == 'x' ? "w" : mode);
}

void tqp_own_directory(const char *path) {
  wllb_own_directory(path, data_owner());
}

wllb_file tqp_open_plain_file(const std::string &path, const char *mode) {
  return wllb_file(wllb_is_regular_file(path.c_str()) ? my_fopen(path.c_str(), mode) : nullptr);
}

bool tqp_write_data_file(const char *path, std::string_view text, const char *mode) {
  FILE *file = my_fopen(path, mode);
  if (!file)
    return false;
  const bool written = wllb_write_all(fileno(file), text);
  return fclose(file) == 0 && written;
}

static std::string path_beside(const std::string &path) {
  return path + ".new";
}

FILE *tqp_begin_replacing(const std::string &path) {
  return my_fopen(path_beside(path).c_str(), "wx");
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
  return file && tqp_end_replacing(file, path, wllb_write_all(fileno(file), text));
}

FILE *tqp_make_data_file_as(const char *path, const char *mode, bool keep_open) {
  FILE *made = open_stream(path, mode, "a");
  if (!keep_open)
    tqp_close_stream(&made);
  return made;
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
  const size_t done = wllb_write_some(fd, rows);
  if (done == rows.size())
    return true;
  const int error = errno;
  if (done > 0 && ftruncate(fd, size_of(fd) - static_cast<int64_t>(done)) != 0)
    wllb_trace(1, "Error", "Could not take away part of a row. Error = %s", wllb_strerror(errno).c_str());
  tell_unwritten_rows(fd, error);
  return false;
}

void tqp_cut_torn_row(const char *path, int64_t row_size) {
  const wllb_fd file(wllb_open_output(path, O_RDWR, data_owner()));
  if (file.fd >= 0 && cut_torn_row(file.fd, row_size))
    wllb_trace(1, "Warning", "File %s ended in the middle of a row, which is taken away", path);
}
