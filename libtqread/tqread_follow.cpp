// Passes over a test run's files; see the header.
//   In      ".curPartition", ".partition_info.txt", "tq/csv/*.csv", "<partition>/tq/csv/<instance>/*.csv",
//           "<partition>/tq/dat/*.dat"; names that anyone may make
//   Out     pieces for the sink, of files below the test run
//   Thread  one
//   Failure a sink that fails ends the pass; what is gone, or is no plain file, is passed over
#include "tqread_follow.h"

#include "tqread_rows.h"

#include "wllb_partition.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqread {

static constexpr int64_t piece_size = 4 << 20;

// --- names --------------------------------------------------------------------------------------------------------

// Hidden names are not rows, and one with control characters would break the lines of whoever writes it down.
static bool is_good_name(std::string_view name) {
  return !name.empty() && name[0] != '.' && name.find('/') == name.npos &&
         std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < ' '; });
}

static bool is_row_file(std::string_view name) {
  return name.ends_with(".csv") || name.ends_with(".csv.prev") || name.ends_with("_MethodTiming.dat");
}

std::string_view instance_of_path(std::string_view path) {
  constexpr std::string_view timing = "_MethodTiming.dat";
  const size_t file = path.rfind('/');
  if (file == path.npos || path.starts_with("tq/csv/"))
    return {};
  if (path.ends_with(timing))
    return path.substr(file + 1, path.size() - file - 1 - timing.size());
  const size_t directory = path.rfind('/', file - 1);
  return directory == path.npos || file == 0 ? std::string_view() : path.substr(directory + 1, file - directory - 1);
}

static std::string joined(std::string dir, std::string_view name) {
  return dir.append("/").append(name);
}

static std::vector<std::string> names_in(const std::string &dir) {
  std::vector<std::string> names;
  DIR *stream = opendir(dir.c_str());
  if (!stream)
    return names;
  while (const dirent *entry = readdir(stream)) // NOLINT(concurrency-mt-unsafe): this stream is this thread's alone
    if (is_good_name(entry->d_name))
      names.emplace_back(entry->d_name);
  closedir(stream);
  std::sort(names.begin(), names.end());
  return names;
}

// --- lists --------------------------------------------------------------------------------------------------------

void follower::add_file(int64_t partition, const std::string &path, std::vector<listed_file> *files) const {
  struct stat facts = {};
  if (wants_ && !wants_(path))
    return;
  if (lstat(joined(base_, path).c_str(), &facts) == 0 && S_ISREG(facts.st_mode))
    files->push_back({partition, path, facts.st_size});
}

void follower::add_row_files(int64_t partition, const std::string &dir, std::vector<listed_file> *files) const {
  for (const std::string &name : names_in(joined(base_, dir)))
    if (is_row_file(name))
      add_file(partition, joined(dir, name), files);
}

void follower::add_partition(int64_t partition, std::vector<listed_file> *files) const {
  const std::string instances = std::to_string(partition) + "/tq/csv";
  for (const std::string &instance : names_in(joined(base_, instances)))
    add_row_files(partition, joined(instances, instance), files);
  add_row_files(partition, std::to_string(partition) + "/tq/dat", files);
}

// --- done files -----------------------------------------------------------------------------------------------------

// Adds the paths that a done file's line means: "number,appID,instance/file". Other lines add nothing. The binary twin of an
// instance's rows gets no line of its own; it is looked at along with any other of its files.
static void add_late_paths(int64_t partition, std::string_view line, std::set<std::string> *paths) {
  for (int numbers = 0; numbers < 2; ++numbers)
    if (!wllb_is_numeric(wllb_take_piece(&line, ',')))
      return;
  const size_t slash = line.find('/');
  if (slash == line.npos || !is_good_name(line.substr(0, slash)) || !is_good_name(line.substr(slash + 1)) ||
      !is_row_file(line))
    return;
  const std::string dir = std::to_string(partition) + "/tq/";
  paths->insert(dir + "csv/" + std::string(line));
  paths->insert(dir + "dat/" + std::string(line.substr(0, slash)) + "_MethodTiming.dat");
}

// Reads what is new in the partition's done file. False: it is not done.
bool follower::read_done_file(followed_partition *partition) {
  const std::string path = std::to_string(partition->number) + "/tq/csv/" + wllb_done_file_name;
  line_file done(joined(base_, path), partition->done_read);
  if (!done.is_open())
    return false;
  for (std::string_view line; done.next(&line);)
    add_late_paths(partition->number, line, &partition->late);
  partition->done_read = done.end();
  return true;
}

// --- partitions -----------------------------------------------------------------------------------------------------

// Walks back from the newest partition to those that are known already.
void follower::add_new_partitions() {
  const int64_t known = partitions_.empty() ? 0 : partitions_.back().number;
  const size_t count = partitions_.size();
  int64_t number = wllb_get_cur_partition(base_.c_str());
  while (number > known) {
    partitions_.push_back({number, false, 0, {}});
    if (wllb_get_prev_partition(base_.c_str(), std::to_string(number).c_str(), &number) != 0)
      break;
  }
  std::reverse(partitions_.begin() + static_cast<ptrdiff_t>(count), partitions_.end());
}

// Lists what a pass looks at. Partitions that were done before it began go to *done.
std::vector<follower::listed_file> follower::list_files(std::set<int64_t> *done) {
  std::vector<listed_file> facts, files;
  for (followed_partition &partition : partitions_) {
    if (read_done_file(&partition))
      done->insert(partition.number);
    if (!partition.finished)
      add_partition(partition.number, &facts);
    else
      for (const std::string &path : partition.late)
        add_file(partition.number, path, &facts);
  }
  add_row_files(0, "tq/csv", &files);
  files.insert(files.end(), facts.begin(), facts.end());
  return files;
}

// --- files ----------------------------------------------------------------------------------------------------------

static bool has_inode(const std::string &path, uint64_t inode) {
  struct stat facts = {};
  return stat(path.c_str(), &facts) == 0 && facts.st_ino == inode;
}

// The position of a file that got another's name goes along; the sink keeps it under the new name.
bool follower::move_position(int64_t partition, const std::string &from, const std::string &to) {
  const file_position moved = positions_[from];
  positions_[to] = moved;
  positions_[from] = {};
  return sink_->take({partition, to, moved.inode, moved.bytes, moved.bytes, 0}, {});
}

// Finds where to go on in an opened file. A full file of names is renamed to "<name>.prev", and begun anew.
bool follower::find_position(const listed_file &file, uint64_t inode, int64_t size) {
  file_position &position = positions_[file.path];
  const bool is_prev = file.path.ends_with(".prev");
  if (position.inode != inode && is_prev) {
    const std::string before = file.path.substr(0, file.path.size() - 5);
    position = {};
    if (positions_[before].inode == inode && !move_position(file.partition, before, file.path))
      return false;
  } else if (position.inode != inode && position.inode != 0 &&
             has_inode(base_ + "/" + file.path + ".prev", position.inode)) {
    if (!move_position(file.partition, file.path, file.path + ".prev"))
      return false;
  }
  if (position.bytes > size)
    position.bytes = 0; // emptied and begun anew
  position.inode = inode;
  return true;
}

static size_t whole_rows(std::string_view bytes, bool binary) {
  return binary ? bytes.size() - bytes.size() % method_timing_record_bytes : bytes.rfind('\n') + 1; // npos + 1 is 0
}

// Whole rows from `from` on, none from behind `to`; some megabytes at most, unless one row is longer. What is longer than the
// longest row comes in parts.
static std::string read_rows(int fd, bool binary, int64_t from, int64_t to) {
  constexpr auto longest = static_cast<int64_t>(longest_row);
  const int64_t there = to - from;
  for (int64_t room = piece_size; there > 0; room *= 2) {
    std::string bytes(static_cast<size_t>(std::min(room, there)), '\0');
    bytes.resize(static_cast<size_t>(
        std::max<int64_t>(0, wllb_read_at(fd, bytes.data(), static_cast<int64_t>(bytes.size()), from))));
    const size_t whole = whole_rows(bytes, binary);
    if (whole > 0 || room >= there || room >= longest) {
      if (whole > 0 || static_cast<int64_t>(bytes.size()) < longest)
        bytes.resize(whole);
      return bytes;
    }
  }
  return "";
}

pass_result follower::take_file(const listed_file &file) {
  struct stat facts = {};
  const wllb_fd opened(wllb_open_plain(joined(base_, file.path).c_str(), O_RDONLY | O_NOFOLLOW, &facts));
  if (opened.fd < 0)
    return pass_result::nothing_new;
  if (!find_position(file, facts.st_ino, facts.st_size))
    return pass_result::sink_failed;
  const bool binary = file.path.ends_with(".dat");
  file_position &position = positions_[file.path];
  pass_result result = pass_result::nothing_new;
  while (!told_to_stop_()) {
    const std::string rows = read_rows(opened.fd, binary, position.bytes, std::min<int64_t>(file.size, facts.st_size));
    if (rows.empty())
      break;
    const auto size = static_cast<int64_t>(rows.size());
    const int64_t count =
        binary ? size / static_cast<int64_t>(method_timing_record_bytes) : std::count(rows.begin(), rows.end(), '\n');
    if (!sink_->take({file.partition, file.path, position.inode, position.bytes, position.bytes + size, count}, rows))
      return pass_result::sink_failed;
    position.bytes += size;
    result = pass_result::took_some;
  }
  return result;
}

// --- a pass ---------------------------------------------------------------------------------------------------------

follower::follower(std::string base, piece_sink *sink, file_positions reached, std::function<bool()> told_to_stop)
    : base_(std::move(base)), sink_(sink), positions_(std::move(reached)), told_to_stop_(std::move(told_to_stop)) {}

pass_result follower::pass() {
  add_new_partitions();
  std::set<int64_t> ended; // done, and nothing new in this pass
  pass_result result = pass_result::nothing_new;
  for (const listed_file &file : list_files(&ended)) {
    const pass_result one = take_file(file);
    if (one == pass_result::sink_failed)
      return one;
    if (one == pass_result::took_some) {
      result = one;
      ended.erase(file.partition);
    }
  }
  for (followed_partition &partition : partitions_)
    partition.finished = partition.finished || (ended.contains(partition.number) && !told_to_stop_());
  return result;
}

} // namespace tqread
