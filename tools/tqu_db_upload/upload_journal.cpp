// The driver without a database: a text file with a line for each piece, in the order of their taking.
//   In      pieces; after a restart its own lines
//   Out     "<run_dir>/tq/logs/tqu_db_upload.journal", with the owner and group of the test run
//   Thread  one; a lock on the file keeps a second loader out
//   Failure told on standard error; a line that was cut by a crash is taken off at the next start
// Sample:  20260302090000,0,5120,31,1835042,20260302090000/tq/csv/Tier_Server_App/TQFlowPath.csv
//          (partition, from, to, rows, inode, path)
#include "upload_driver.h"

#include "wllb_util.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct upload_journal : upload_driver {
  wllb_fd file;
  std::string path;

  upload_opened open(const upload_options &options, tqread::file_positions *positions) override;
  bool take(const tqread::file_piece &piece, std::string_view rows) override;
};

} // namespace

static void tell(const std::string &path) {
  fprintf(stderr, "tqu_db_upload: %s: %s\n", path.c_str(), wllb_strerror(errno).c_str());
}

static void own_as(int fd, const std::string &dir) {
  struct stat owner = {};
  if (stat(dir.c_str(), &owner) == 0 && fchown(fd, owner.st_uid, owner.st_gid) != 0)
    return; // it keeps the owner it has
}

static void replay_line(const char *line, tqread::file_positions *positions) {
  int64_t to = 0;
  uint64_t inode = 0;
  int path_at = 0;
  if (sscanf(line, "%*d,%*d,%" SCNd64 ",%*d,%" SCNu64 ",%n", &to, &inode, &path_at) == 2 && path_at > 0 && to >= 0)
    (*positions)[line + path_at] = {to, inode};
}

// Returns the bytes up to the end of the last whole line.
static int64_t replay(int fd, tqread::file_positions *positions) {
  const wllb_file stream(fdopen(fcntl(fd, F_DUPFD_CLOEXEC, 0), "re"));
  int64_t whole = 0;
  if (!stream)
    return 0;
  wllb_for_each_line(stream.get(), [&](char *line, size_t length) {
    if (line[length - 1] != '\n')
      return false;
    line[length - 1] = '\0';
    replay_line(line, positions);
    whole += static_cast<int64_t>(length);
    return true;
  });
  return whole;
}

upload_opened upload_journal::open(const upload_options &options, tqread::file_positions *positions) {
  path = options.run_dir + "/tq/logs/tqu_db_upload.journal";
  mkdir_ex(path.c_str());
  if (file.fd < 0) // a link in the journal's place is not written to
    file.reset(wllb_open_plain(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW));
  const int fd = file.fd;
  if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
    return UPLOAD_IN_USE;
  positions->clear();
  if (fd < 0 || ftruncate(fd, options.resume ? replay(fd, positions) : 0) != 0) {
    tell(path);
    return UPLOAD_FAILED;
  }
  own_as(fd, options.run_dir);
  return UPLOAD_READY;
}

bool upload_journal::take(const tqread::file_piece &piece, std::string_view /*rows*/) {
  const std::string line =
      wllb_format("%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRIu64 ",%s\n", piece.partition, piece.from,
                  piece.to, piece.rows, piece.inode, piece.path.c_str());
  if (write(file.fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()))
    return true;
  tell(path);
  return false;
}

std::unique_ptr<upload_driver> upload_make_journal() {
  return std::make_unique<upload_journal>();
}
