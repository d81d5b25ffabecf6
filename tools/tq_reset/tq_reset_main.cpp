// tq_reset: takes back everything that the daemon made of a test run, so that the next run begins as the first one did.
//   In      the command line; the files of a test run
//   Out     the list of those files on standard output; with --yes they are gone
//   Thread  one
//   Failure exit status 1 and a line on standard error: a daemon works on the test run, a file cannot be removed
// Only names that the daemon gives are touched; raw data, keyword files and what others put there stay. Links are not
// followed, but for the directories of blob and dat files, which the daemon itself may put on another disk.
#include "wllb_alloc.h"
#include "wllb_options.h"
#include "wllb_util.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <fnmatch.h>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;

static constexpr wllb_program program = {
    .name = "tq_reset",
    .synopsis = "--dir DIR --testrun N [--yes]",
    .about =
        "Lists everything that tqp made of the test run DIR/logs/TR<N>, its done, offset and recovery files included; "
        "with --yes removes it, so that the next run begins anew and gives the same output as the first. Raw data and "
        "keyword files stay, and so does what the loader has brought into a database. It refuses while a tqp works on "
        "the test run."};

struct reset_options {
  std::string dir;
  int64_t testrun = -1;
  bool yes = false;
};

// --- what the daemon makes -----------------------------------------------------------------------------------

// Patterns of paths below the test run; a leading dot must be written out. "P/" stands for a partition's directory.
static constexpr const char *made_files[] = {
    ".tqp.pid",
    ".pidfiles/.TQP.pid",
    ".use_csv_for_method_timing",
    "topology/tqIntegrationPoint.conf",
    "tq/csv/TQ*.csv",
    "tq/csv/TQSQL_nonprepared.csv.prev",
    "tq/csv/.TQSQL_nonprepared.csv*.offset",
    "tq/recovery/*.txt.recovery",
    "tq/recovery/fp_stat_cummulative_count.txt",
    "tq/recovery/*/tqp/.*",
    "tq/recovery/*/tqp/*",
    "tq/logs/.tqp_version",
    "tq/logs/tqp_trace.log",
    "tq/logs/tqp_trace.log.prev",
    "tq/logs/tqp_current_processing_status",
    "tq/logs/tqp_metrics.prom",
    "tq/logs/tqp_loc2norm_map_dump_*.log",
    "tq/logs/tqu_db_upload.journal",
    "P/tq/csv/.tqp_process_done_v2.txt",
    "P/tq/csv/*/TQ*.csv",
    "P/tq/csv/*/recovery/.*",
    "P/tq/dat/*_MethodTiming.dat",
    "P/tq/sqb/*",
    "P/tq/logs/tqp_summary_report.txt",
    "P/tq/logs/tqp_trace.log",
    "P/tq/logs/tqp_trace.log.prev",
    "P/tq/logs/http_*_body_*.dat",
    "P/tq/raw_data/.*.txt.offset",
    "P/tq/raw_data/recovery/*",
};

// Directories that go when nothing is left in them, the inner ones first.
static constexpr const char *made_directories[] = {
    "P/tq/csv/*/recovery", "P/tq/csv/*",    "P/tq/csv",    "P/tq/dat", "P/tq/sqb", "P/tq/raw_data/recovery",
    "tq/recovery/*/tqp",   "tq/recovery/*", "tq/recovery", "tq/csv",   "topology", ".pidfiles",
};

// A path below the test run with its partition, if it lies in one, written as "P".
static std::string as_pattern_text(const std::string &below) {
  const size_t slash = std::min(below.find('/'), below.size());
  return slash == 14 && wllb_is_numeric(std::string_view(below).substr(0, slash)) ? "P" + below.substr(slash) : below;
}

template <size_t n> static bool matches(const char *const (&patterns)[n], const std::string &below) {
  const std::string text = as_pattern_text(below);
  return std::any_of(std::begin(patterns), std::end(patterns), [&text](const char *pattern) {
    // What is written and renamed over the old file counts as that file.
    const bool beside = text.ends_with(".new");
    const std::string name = beside ? text.substr(0, text.size() - 4) : text;
    return fnmatch(pattern, name.c_str(), FNM_PATHNAME | FNM_PERIOD) == 0;
  });
}

struct found_files {
  std::vector<std::string> files, directories; // below the test run, in the order of names
  int64_t bytes = 0;
};

static bool is_other_disk(const std::string &below) {
  const std::string text = as_pattern_text(below);
  return text == "P/tq/dat" || text == "P/tq/sqb";
}

// Walks down to the depth of the deepest pattern.
static void find_files(const std::string &base, const std::string &below, int depth, found_files *found) {
  std::vector<std::string> names;
  DIR *dir = opendir((base + "/" + below).c_str());
  if (!dir)
    return;
  while (const dirent *entry = readdir(dir)) // NOLINT(concurrency-mt-unsafe): there is one thread
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      names.push_back(below.empty() ? entry->d_name : below + "/" + entry->d_name);
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string &name : names) {
    const std::string path = wllb_format("%s/%s", base.c_str(), name.c_str());
    struct stat about;
    if (lstat(path.c_str(), &about) != 0)
      continue;
    const bool linked = S_ISLNK(about.st_mode) && is_other_disk(name) && wllb_is_directory(path.c_str());
    if ((S_ISDIR(about.st_mode) || linked) && depth > 0) {
      find_files(base, name, depth - 1, found);
      if (matches(made_directories, name))
        found->directories.push_back(name);
    } else if (S_ISREG(about.st_mode) && matches(made_files, name)) {
      found->files.push_back(name);
      found->bytes += about.st_size;
    }
  }
}

// --- a daemon that works on it -------------------------------------------------------------------------------

// Whether one of the process's open files lies below `base`.
static bool has_files_below(const std::string &process, const std::string &base) {
  std::error_code error;
  for (fs::directory_iterator fd(process + "/fd", error), end; !error && fd != end; fd.increment(error)) {
    std::error_code unreadable;
    const std::string target = fs::read_symlink(fd->path(), unreadable).string();
    if (!unreadable && target.starts_with(base + "/"))
      return true;
  }
  return false;
}

// The pid of a daemon that works on the test run, by its pid file or, offline, by its open files; 0: none.
static pid_t find_daemon(const std::string &base) {
  const auto noted =
      static_cast<pid_t>(strtol(wllb_read_small_file((base + "/.tqp.pid").c_str()).c_str(), nullptr, 10));
  if (noted > 1 && wllb_check_pid_alive(noted) && wllb_process_name(noted).starts_with("tqp"))
    return noted;
  std::error_code error;
  const std::string real = fs::canonical(base, error).string();
  for (fs::directory_iterator process("/proc", error), end; !error && process != end; process.increment(error)) {
    const std::string name = process->path().filename().string();
    const auto pid = static_cast<pid_t>(strtol(name.c_str(), nullptr, 10));
    if (wllb_is_numeric(name) && wllb_process_name(pid).starts_with("tqp") &&
        has_files_below(process->path().string(), real))
      return pid;
  }
  return 0;
}

// --- main ----------------------------------------------------------------------------------------------------

// False after a line on standard error.
static bool remove_path(const std::string &path) {
  if (remove(path.c_str()) == 0 || errno == ENOENT)
    return true;
  fprintf(stderr, "tq_reset: %s cannot be removed: %s\n", path.c_str(), wllb_strerror(errno).c_str());
  return false;
}

// A directory goes when it is empty; a link to another disk goes with the directory that it leads to.
static bool remove_directory(const std::string &path) {
  std::error_code error;
  if (!fs::is_empty(path, error) || error)
    return true;
  if (fs::is_symlink(path, error)) {
    const fs::path target = fs::canonical(path, error);
    if (!error)
      fs::remove(target, error); // if it stays, it is empty
  }
  return remove_path(path);
}

static int remove_all(const std::string &base, const found_files &found) {
  bool good = true;
  for (const std::string &name : found.files)
    good = remove_path(wllb_format("%s/%s", base.c_str(), name.c_str())) && good;
  for (const std::string &name : found.directories)
    good = remove_directory(wllb_format("%s/%s", base.c_str(), name.c_str())) && good;
  if (good)
    printf("%zu files removed, %lld bytes\n", found.files.size(), static_cast<long long>(found.bytes));
  return good ? 0 : 1;
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  reset_options options;
  const std::vector<wllb_option> rows = {
      {.name = "dir", .value = "DIR", .help = "working directory", .required = true, .text = &options.dir},
      {.name = "testrun", .value = "N", .help = "number of the test run", .required = true, .number = &options.testrun},
      {.name = "yes", .help = "removes the files that are listed without it", .flag = &options.yes},
  };
  if (const auto status = wllb_read_options(program, rows, argc, argv))
    return *status;
  const std::string base = wllb_format("%s/logs/TR%lld", options.dir.c_str(), static_cast<long long>(options.testrun));
  if (!wllb_is_directory(base.c_str())) {
    fprintf(stderr, "tq_reset: there is no test run %s\n", base.c_str());
    return 1;
  }
  if (const pid_t pid = find_daemon(base)) {
    fprintf(stderr, "tq_reset: tqp works on %s (pid %d); stop it first\n", base.c_str(), static_cast<int>(pid));
    return 1;
  }
  constexpr int deepest = 5; // directories above the deepest file
  found_files found;
  find_files(base, "", deepest, &found);
  if (options.yes)
    return remove_all(base, found);
  for (const std::string &name : found.files)
    printf("%s/%s\n", base.c_str(), name.c_str());
  printf("%zu files, %lld bytes%s\n", found.files.size(), static_cast<long long>(found.bytes),
         found.files.empty() ? "" : "; --yes removes them");
  return 0;
}
