// The files of a test run as a loader meets them; see the header.
//   In      "tq/csv/*.csv", "<partition>/tq/csv/<instance>/*.csv", "<partition>/tq/dat/*.dat"; names that anyone may make
//   Out     paths that stay below the test run; rows that are complete
//   Thread  one
//   Failure passed over
// Sequence blob files are not listed: rows point into them, and they stay where they are.
#include "upload_files.h"

#include "wllb_partition.h"
#include "wllb_util.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int64_t record_size = 144; // of method timing, bytes
static constexpr int64_t piece_size = 4 << 20;
static constexpr int64_t longest_row = 64 << 20; // what is longer comes in parts

// --- lists --------------------------------------------------------------------------------------------------

// Hidden names are not rows, and one with control characters would break a journal's lines.
static bool is_good_name(std::string_view name) {
  return !name.empty() && name[0] != '.' && name.find('/') == name.npos &&
         std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < ' '; });
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

static bool is_row_file(std::string_view name) {
  return name.ends_with(".csv") || name.ends_with(".csv.prev") || name.ends_with("_MethodTiming.dat");
}

static void add_file(const std::string &run_dir, int64_t partition, const std::string &path,
                     std::vector<upload_file> *files) {
  struct stat facts = {};
  if (lstat(joined(run_dir, path).c_str(), &facts) == 0 && S_ISREG(facts.st_mode))
    files->push_back({partition, path, facts.st_size});
}

static void add_row_files(const std::string &run_dir, int64_t partition, const std::string &dir,
                          std::vector<upload_file> *files) {
  for (const std::string &name : names_in(joined(run_dir, dir)))
    if (is_row_file(name))
      add_file(run_dir, partition, joined(dir, name), files);
}

void upload_list_common(const std::string &run_dir, std::vector<upload_file> *files) {
  add_row_files(run_dir, 0, "tq/csv", files);
}

void upload_list_partition(const std::string &run_dir, int64_t partition, std::vector<upload_file> *files) {
  const std::string instances = std::to_string(partition) + "/tq/csv";
  for (const std::string &instance : names_in(joined(run_dir, instances)))
    add_row_files(run_dir, partition, joined(instances, instance), files);
  add_row_files(run_dir, partition, std::to_string(partition) + "/tq/dat", files);
}

void upload_list_named(const std::string &run_dir, int64_t partition, const std::set<std::string> &paths,
                       std::vector<upload_file> *files) {
  for (const std::string &path : paths)
    add_file(run_dir, partition, path, files);
}

// --- done files ---------------------------------------------------------------------------------------------

std::string upload_done_path(int64_t partition) {
  return std::to_string(partition) + "/tq/csv/" + wllb_done_file_name;
}

// The binary twin of an instance's rows gets no line of its own; it is looked at along with any other of its files.
void upload_late_paths(int64_t partition, std::string_view line, std::set<std::string> *paths) {
  for (int numbers = 0; numbers < 2; ++numbers) {
    if (!wllb_is_numeric(wllb_take_piece(&line, ',')))
      return;
  }
  const size_t slash = line.find('/');
  if (slash == line.npos || !is_good_name(line.substr(0, slash)) || !is_good_name(line.substr(slash + 1)) ||
      !is_row_file(line))
    return;
  const std::string dir = std::to_string(partition) + "/tq/";
  paths->insert(dir + "csv/" + std::string(line));
  paths->insert(dir + "dat/" + std::string(line.substr(0, slash)) + "_MethodTiming.dat");
}

// --- rows ---------------------------------------------------------------------------------------------------

upload_reader::upload_reader(const std::string &run_dir, const std::string &path) : records(path.ends_with(".dat")) {
  struct stat facts = {};
  file.reset(wllb_open_plain(joined(run_dir, path).c_str(), O_RDONLY | O_NOFOLLOW, &facts));
  inode = facts.st_ino;
  size = facts.st_size;
}

static std::string read_at(int fd, int64_t from, int64_t size) {
  std::string bytes(static_cast<size_t>(size), '\0');
  bytes.resize(static_cast<size_t>(wllb_read_at(fd, bytes.data(), size, from)));
  return bytes;
}

static size_t whole_rows(std::string_view bytes, bool records) {
  return records ? bytes.size() - bytes.size() % record_size : bytes.rfind('\n') + 1; // npos + 1 is 0
}

std::string upload_reader::rows(int64_t from, int64_t limit) const {
  const int64_t there = std::min(limit, size) - from;
  for (int64_t room = piece_size; there > 0; room *= 2) {
    std::string bytes = read_at(file.fd, from, std::min(room, there));
    const size_t whole = whole_rows(bytes, records);
    if (whole > 0 || room >= there || room >= longest_row) {
      if (whole > 0 || bytes.size() < longest_row)
        bytes.resize(whole);
      return bytes;
    }
  }
  return "";
}

int64_t upload_reader::count(std::string_view rows) const {
  return records ? static_cast<int64_t>(rows.size()) / record_size : std::count(rows.begin(), rows.end(), '\n');
}
