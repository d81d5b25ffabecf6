// The driver without a database, for dry runs: a text file with a line for each part of a file, in the order of loading.
//   In      units; after a restart its own lines
//   Out     "<run_dir>/tq/logs/tqu_db_upload.journal", with the owner and group of the test run
//   Thread  one; a lock on the file keeps a second loader out
//   Failure a line that was cut by a crash is taken off at the next start; a write that fails is TQDB_AWAY
// Sample:  20260302090000,0,5120,31,1835042,20260302090000/tq/csv/Tier_Server_App/TQFlowPath.csv
//          (partition, from, to, rows, inode, path)
#include "tqdb_driver.h"

#include "wllb_util.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqdb {

namespace {

struct journal_driver final : load_driver {
  wllb_fd file;
  std::string path;
  load_positions reached;
  int64_t end = 0; // of the last whole unit

  open_result open(const load_scope &scope, load_state *state) override;
  take_result commit(const load_positions &changed) override;
  take_result drop_testrun(int32_t testrun, int32_t node) override;

  take_result begin_loading(bool /*bulk*/) override { return TQDB_TAKEN; }

  take_result add(const row_batch & /*rows*/) override { return TQDB_TAKEN; }

  void roll_back() override {}

  take_result finish() override { return TQDB_TAKEN; }

  take_result drop_before(int64_t /*time_ms*/) override { return TQDB_TAKEN; }

  int64_t unit_bytes(bool /*bulk*/) const override { return 4 << 20; }
};

} // namespace

static void own_as(int fd, const std::string &dir) {
  struct stat owner = {};
  if (stat(dir.c_str(), &owner) == 0 && fchown(fd, owner.st_uid, owner.st_gid) != 0)
    return; // it keeps the owner it has
}

static void replay_line(const char *line, load_positions *positions) {
  int64_t to = 0, rows = 0;
  uint64_t inode = 0;
  int path_at = 0;
  if (sscanf(line, "%*d,%*d,%" SCNd64 ",%" SCNd64 ",%" SCNu64 ",%n", &to, &rows, &inode, &path_at) != 3 || path_at == 0)
    return;
  if (to < 0) {
    positions->erase(line + path_at);
    return;
  }
  load_position &p = (*positions)[line + path_at];
  if (p.file == 0)
    p.file = static_cast<int32_t>(positions->size());
  p.taken = to;
  p.inode = inode;
  p.rows += rows;
}

// Returns the bytes up to the end of the last whole line.
static int64_t replay(int fd, load_positions *positions) {
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

open_result journal_driver::open(const load_scope &scope, load_state *state) {
  *state = {};
  path = scope.run_dir + "/tq/logs/tqu_db_upload.journal";
  mkdir_ex(path.c_str());
  if (file.fd < 0) // a link in the journal's place is not written to
    file.reset(wllb_open_plain(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW));
  if (file.fd < 0) {
    error_text = path + ": " + wllb_strerror(errno);
    return TQDB_REFUSED;
  }
  if (flock(file.fd, LOCK_EX | LOCK_NB) != 0) {
    error_text = path + ": another loader works on this test run";
    return TQDB_IN_USE;
  }
  end = replay(file.fd, &state->positions);
  reached = state->positions;
  own_as(file.fd, scope.run_dir);
  return TQDB_READY;
}

// A file that got another's name has a line without rows, under its new name.
take_result journal_driver::commit(const load_positions &changed) {
  std::string lines;
  for (const auto &[name, p] : changed) {
    if (p.taken < 0)
      continue;
    const bool renamed = std::any_of(changed.begin(), changed.end(), [inode = p.inode](const auto &other) {
      return other.second.taken < 0 && other.second.inode == inode;
    });
    const load_position before = renamed ? p : reached[name];
    const int64_t partition = strtoll(name.c_str(), nullptr, 10); // 0: common files
    const bool anew = before.inode != p.inode;
    lines += wllb_format("%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRId64 ",%" PRIu64 ",%s\n", partition,
                         anew ? 0 : before.taken, p.taken, p.rows - before.rows, p.inode, name.c_str());
  }
  if (ftruncate(file.fd, end) != 0 || !wllb_write_at(file.fd, lines.data(), static_cast<int64_t>(lines.size()), end)) {
    error_text = path + ": " + wllb_strerror(errno);
    return TQDB_AWAY;
  }
  end += static_cast<int64_t>(lines.size());
  for (const auto &[name, p] : changed) {
    if (p.taken < 0)
      reached.erase(name);
    else
      reached[name] = p;
  }
  return TQDB_TAKEN;
}

take_result journal_driver::drop_testrun(int32_t /*testrun*/, int32_t /*node*/) {
  reached.clear();
  end = 0;
  if (ftruncate(file.fd, 0) == 0)
    return TQDB_TAKEN;
  error_text = path + ": " + wllb_strerror(errno);
  return TQDB_BROKEN;
}

std::unique_ptr<load_driver> make_journal_driver(const load_target & /*target*/) {
  return std::make_unique<journal_driver>();
}

} // namespace tqdb
