// Asks the daemon by its signals and reads what it writes.
//   In      pid file, status file, dumps, raw and flowpath files, a file of samples
//   Out     signals to the daemon; a request file that is gone afterwards
//   Thread  one
//   Failure what does not come is missing from the result; nothing waits longer than two seconds
#include "top_sources.h"

#include "tqread_rows.h"
#include "tqread_run.h"

#include "wllb_util.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

// --- waiting for the daemon --------------------------------------------------------------------------------------

static bool within_two_seconds(const std::function<bool()> &come) {
  for (int waited_ms = 0; waited_ms < 2000; waited_ms += 10) {
    if (come())
      return true;
    usleep(10000);
  }
  return false;
}

pid_t top_find_daemon(const top_run &run) {
  const pid_t pid = atoi(wllb_read_small_file((run.base + "/.tqp.pid").c_str()).c_str());
  return pid > 1 && wllb_check_pid_alive(pid) && wllb_process_name(pid).rfind("tqp", 0) == 0 ? pid : 0;
}

// --- positions ---------------------------------------------------------------------------------------------------

static int64_t number(std::string_view text) {
  return atoll(std::string(text).c_str());
}

static std::vector<top_position> read_positions(std::string_view text) {
  std::vector<top_position> positions;
  while (!text.empty()) {
    const std::string_view line = wllb_take_piece(&text, '\n');
    const std::vector<std::string_view> f = wllb_split(line, '|');
    if (f.size() == 5 && line[0] != '#')
      positions.push_back({std::string(f[0]), std::string(f[1]), number(f[2]), number(f[3]), number(f[4])});
  }
  return positions;
}

// The file's last change and length: two equal looks at a new one mean that it is written to its end.
static std::pair<int64_t, int64_t> stamp_of(const std::string &path) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0)
    return {0, 0};
  return {int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec, info.st_size};
}

bool top_ask_status(const top_run &run, std::vector<top_position> *positions) {
  const std::string path = run.base + "/tq/logs/tqp_current_processing_status";
  const auto before = stamp_of(path);
  auto last = before;
  if (run.pid < 2 || kill(run.pid, SIGRTMIN + 6) != 0)
    return false;
  const bool come = within_two_seconds([&] {
    const auto now = stamp_of(path);
    const bool settled = now != before && now == last && now.second > 0;
    last = now;
    return settled;
  });
  if (come)
    *positions = read_positions(wllb_read_small_file(path.c_str(), size_t{1} << 26));
  return come;
}

// --- files -------------------------------------------------------------------------------------------------------

int64_t top_file_size(const std::string &path) {
  return stamp_of(path).second;
}

std::string top_raw_file(const top_run &run, const std::string &partition, const std::string &name) {
  return run.base + "/" + partition + "/tq/raw_data/" + name + ".txt";
}

std::string top_flowpath_file(const top_run &run, const std::string &partition, const std::string &name) {
  return run.base + "/" + tqread::row_path(partition, name, tqread::table_of(tqread::table_id::flowpath).file);
}

int64_t top_count_lines(const std::string &path, int64_t from, int64_t to) {
  tqread::line_file lines(path, from, to);
  for (std::string_view line; lines.next(&line);) {
  }
  return lines.number();
}

// --- samples -----------------------------------------------------------------------------------------------------

const char *const top_error_names[top_error_kinds] = {"no entry", "bad time", "bad record", "large", "dead"};

// Which numbers of an instance's sample, from 0, they are.
static constexpr int error_columns[top_error_kinds] = {0, 1, 2, 4, 8};
constexpr size_t sample_columns = 11;

std::map<std::string, top_errors> top_read_samples(const std::string &path) {
  std::map<std::string, top_errors> newest;
  const std::string text = wllb_read_small_file(path.c_str(), size_t{1} << 30);
  for (std::string_view rest = text; !rest.empty();) {
    const std::string line(wllb_take_piece(&rest, '\n'));
    const size_t colon = line.find(':'), bar = line.rfind('|');
    if (colon == std::string::npos || bar == std::string::npos || bar < colon)
      continue;
    const std::vector<std::string> words = wllb_words(line.substr(bar + 1), sample_columns + 1);
    if (words.size() != sample_columns)
      continue; // another monitor's
    top_errors &errors = newest[line.substr(colon + 1, bar - colon - 1)];
    for (size_t i = 0; i < top_error_kinds; ++i)
      errors[i] = atoll(words[static_cast<size_t>(error_columns[i])].c_str());
  }
  return newest;
}

// --- flowpaths in flight ---------------------------------------------------------------------------------------

// Where the daemon looks for requests.
static std::string request_path() {
  const char *root = getenv("TQP_OUTSIDE_ROOT"); // NOLINT(concurrency-mt-unsafe): one thread
  return std::string(root ? root : "") + "/tmp/tqp_dump_loc2norm_maps.txt";
}

// A request that asks for no map leaves the flowpaths, which are always dumped. Nobody else's request is touched.
static bool write_request(const std::vector<top_position> &positions) {
  const wllb_fd request(open(request_path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (request.fd < 0)
    return false;
  std::string text;
  for (const top_position &position : positions)
    text += position.name + ",0\n";
  return wllb_write_all(request.fd, text);
}

// Slots in use; -1 while the dump is not written to its end, which its heading tells.
static int64_t count_open(const std::string &dump) {
  const size_t heading = dump.find("\n#con_fp_idx.");
  if (dump.empty() || dump.back() != '\n' || heading == std::string::npos)
    return -1;
  int64_t open = 0;
  std::string_view last, rest = std::string_view(dump).substr(dump.find('\n', heading + 1) + 1);
  while (!rest.empty()) {
    std::string_view line = wllb_take_piece(&rest, '\n');
    const std::string_view slot = wllb_take_piece(&line, '.');
    open += !slot.empty() && slot != last ? 1 : 0;
    last = slot;
  }
  return open;
}

static std::string dump_prefix(const top_position &position) {
  return "tqp_loc2norm_map_dump_" + position.name + "_" + position.partition + "_";
}

static std::vector<fs::path> dumps_of(const std::string &directory, const std::string &prefix) {
  std::vector<fs::path> found;
  std::error_code error;
  for (const auto &entry : fs::directory_iterator(directory, error))
    if (entry.path().filename().string().rfind(prefix, 0) == 0)
      found.push_back(entry.path());
  return found;
}

std::map<std::string, int64_t> top_ask_open_flowpaths(const top_run &run, const std::vector<top_position> &positions) {
  std::map<std::string, int64_t> open;
  const std::string directory = run.base + "/tq/logs";
  const std::vector<fs::path> before = dumps_of(directory, "tqp_loc2norm_map_dump_");
  if (run.pid < 2 || !write_request(positions))
    return open;
  const auto take = [&](const top_position &position) {
    for (const fs::path &dump : dumps_of(directory, dump_prefix(position))) {
      if (std::find(before.begin(), before.end(), dump) != before.end())
        continue;
      const int64_t count = count_open(wllb_read_small_file(dump.c_str(), size_t{1} << 28));
      if (count < 0)
        continue;
      open[position.name] = count;
      std::error_code ignored;
      fs::remove(dump, ignored);
    }
  };
  if (kill(run.pid, SIGRTMIN + 5) == 0)
    within_two_seconds([&] {
      for (const top_position &position : positions)
        if (!open.contains(position.name))
          take(position);
      return open.size() == positions.size();
    });
  unlink(request_path().c_str());
  return open;
}
