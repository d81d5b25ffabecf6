// Files and facts of the start-up: pid files, owner, machine and scenario words, partitions, profile, markers.
//   In      "<wl_wdir>/logs/TR<testidx>/...", the machine's configuration, the status command
//   Out     globals of process_state.h; pid files, the markers ".tqp_version" and ".use_csv_for_method_timing"
//   Thread  main, before the threads that read the globals; tqp_set_newest_partition also on the control thread
//   Failure what cannot be read leaves its global as it was; nothing here ends the process
// Samples:  CONFIG TQE   (machine)     MULTIDISK_PATH processed_data /disk2   (scenario)

#include "data_files.h"
#include "process_frame.h"
#include "tqp_process_data.h"
#include "wllb_output_file.h"
#include "wllb_partition.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

void tqp_apply_outside_root() {
  const char *root = getenv("TQP_OUTSIDE_ROOT"); // NOLINT(concurrency-mt-unsafe): there is one thread
  if (root)
    for (std::string *path :
         {&outside_paths.machine_conf_dir, &outside_paths.cgroup_dir, &outside_paths.function_group_file,
          &outside_paths.trace_level_conf, &outside_paths.dump_request_file})
      path->insert(0, root);
  static std::string trace_level_conf; // the library keeps the pointer
  trace_level_conf = outside_paths.trace_level_conf;
  wllb_trace_level_conf_path = trace_level_conf.c_str();
}

static std::string test_run_path(const char *below) {
  return wllb_format("%s/logs/TR%d/%s", wl_wdir, testidx, below);
}

// --- pid files, owner ------------------------------------------------------------------------------------------------

void tqp_save_pid() {
  std::string error;
  if (wllb_save_pid_ex(base_dir.c_str(), "tqp", &error) != 0)
    wllb_trace(1, "Error", "%s", error.c_str());
}

// The passwd entry's two numbers. False when there is no such entry.
static bool find_user(uid_t uid, uid_t *user, gid_t *primary_group) {
  std::vector<char> room(16384);
  passwd entry;
  passwd *found = nullptr;
  while (getpwuid_r(uid, &entry, room.data(), room.size(), &found) == ERANGE)
    room.resize(room.size() * 2);
  if (!found)
    return false;
  *user = found->pw_uid;
  *primary_group = found->pw_gid;
  return true;
}

static bool group_exists(gid_t gid) {
  std::vector<char> room(16384);
  group entry;
  group *found = nullptr;
  while (getgrgid_r(gid, &entry, room.data(), room.size(), &found) == ERANGE)
    room.resize(room.size() * 2);
  return found != nullptr;
}

void read_owner_group() {
  ownerid = grpid = -1;
  struct stat dir;
  uid_t user;
  gid_t primary_group;
  if (stat(wllb_format("%s/logs/TR%d", wl_wdir, testidx).c_str(), &dir) != 0 ||
      !find_user(dir.st_uid, &user, &primary_group))
    return;
  ownerid = static_cast<int>(user);
  if (group_exists(dir.st_gid)) // files go to the owner's own group all the same
    grpid = static_cast<int>(primary_group);
}

// --- words of the machine and of the scenario ------------------------------------------------------------------------

static std::string nth_word(std::string_view line, size_t n) {
  const std::vector<std::string> words = wllb_words(line, n);
  return words.size() < n ? std::string() : words[n - 1];
}

// The machine's own file is named after the working directory; the common one serves the others.
static wllb_file open_machine_config() {
  std::string dir = wl_wdir;
  while (dir.ends_with('/'))
    dir.pop_back();
  const char *etc = outside_paths.machine_conf_dir.c_str();
  wllb_file own(fopen(wllb_format("%s/vex_%s.conf", etc, wllb_base_name(dir.c_str())).c_str(), "re"));
  return own ? std::move(own) : wllb_file(fopen(wllb_format("%s/vex.conf", etc).c_str(), "re"));
}

void get_machine_config(std::string *mode) {
  mode->clear();
  const wllb_file conf = open_machine_config();
  if (!conf)
    return;
  wllb_for_each_line(conf.get(), [mode](const char *line, size_t length) {
    const std::string_view text(line, length);
    if (!text.starts_with("CONFIG"))
      return true;
    *mode = nth_word(text, 2);
    return false;
  });
}

// The scenario's last line that begins like this, in whatever case. False when the file is there but cannot be read.
static bool last_scenario_line(const char *beginning, std::string *found) {
  const std::string path = test_run_path("sorted_scenario.conf");
  struct stat file;
  if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode))
    return true;
  const wllb_file scenario(fopen(path.c_str(), "re"));
  if (!scenario)
    return false;
  wllb_for_each_line(scenario.get(), [&](const char *line, size_t) {
    if (strncasecmp(line, beginning, strlen(beginning)) == 0)
      *found = line;
    return true;
  });
  return true;
}

// The command that does the same by hand, for messages.
static std::string scenario_command(const char *beginning) {
  return wllb_format(
      "if [ -f %s/logs/TR%d/sorted_scenario.conf ];then grep -i \"^%s\" %s/logs/TR%d/sorted_scenario.conf; fi", wl_wdir,
      testidx, beginning, wl_wdir, testidx);
}

void tqp_get_disk_path() {
  const char *beginning = "MULTIDISK_PATH processed_data";
  std::string line;
  if (!last_scenario_line(beginning, &line))
    wllb_trace(1, "Error", "Failed to get MULTIDISK_PATH tqprocesseddata keyword values, ERROR executing command: '%s'",
               scenario_command(beginning).c_str());
  disk_processed_path = nth_word(line, 3);
}

void tqp_get_auto_mon_reg_flag() {
  const char *beginning = "ENABLE_AUTO_MONITOR_REGISTRATION";
  std::string line;
  if (!last_scenario_line(beginning, &line))
    wllb_trace(1, "Error",
               "Failed to get ENABLE_AUTO_MONITOR_REGISTRATION keyword values, ERROR executing command: '%s'",
               scenario_command(beginning).c_str());
  const std::string word = nth_word(line, 2);
  char *end;
  const long flag = strtol(word.c_str(), &end, 10);
  if (end != word.c_str())
    tqp_enable_health_mon = static_cast<int>(flag);
}

// --- partitions ------------------------------------------------------------------------------------------------------

void tqp_set_newest_partition(int64_t partition) {
  g_partition_idx = partition;
  if (partition < 1)
    return;
  g_cur_partition = std::to_string(partition);
  wllb_trace_partition = partition;
}

void tqp_find_partitions() {
  if (tqp_is_offline()) {
    tqp_set_newest_partition(end_partition_idx ? end_partition_idx : start_partition_idx);
    g_process_done_partition = start_partition_idx;
    return;
  }
  tqp_set_newest_partition(wllb_get_cur_partition(base_dir.c_str()));
  std::string first_unfinished;
  get_partion_number_to_start_with(g_cur_partition, &first_unfinished);
  g_process_done_partition = strtoll(first_unfinished.c_str(), nullptr, 10);
}

// The process would empty the names that rows of done partitions use, and read those partitions no more.
void tqp_warn_of_starting_over() {
  if (resume_flag != 0)
    return;
  int done = 0;
  DIR *dir = opendir(base_dir.c_str());
  while (const dirent *entry = dir ? readdir(dir) : nullptr) // NOLINT(concurrency-mt-unsafe): this thread's alone
    if (wllb_is_numeric(entry->d_name) &&
        wllb_path_exists((base_dir + entry->d_name + "/tq/csv/.tqp_process_done_v2.txt").c_str()))
      ++done;
  if (dir)
    closedir(dir);
  if (done == 0)
    return;
  const std::string text =
      wllb_format("-r 0: %stq/csv is emptied, which has the names for the rows of %d partitions that are "
                  "done and will not be read again; tq_reset takes back all of it",
                  base_dir.c_str(), done);
  fprintf(stderr, "tqp: warning: %s\n", text.c_str());
  wllb_trace(1, "Warning", "%s", text.c_str());
}

// --- profile ---------------------------------------------------------------------------------------------------------

static bool is_newer(const timespec &a, const timespec &b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

struct profile_dir {
  std::string name; // empty: none
  timespec changed = {};
};

// Of two directories that changed at the same moment the one with the smaller name counts as the newer.
static bool comes_later(const profile_dir &a, const profile_dir &b) {
  return b.name.empty() || is_newer(a.changed, b.changed) || (!is_newer(b.changed, a.changed) && a.name < b.name);
}

// Name of the directory below `path` that changed last; hidden ones and links do not count. Empty: there is none.
static std::string newest_directory(const char *path) {
  DIR *dir = opendir(path);
  if (!dir)
    return "";
  profile_dir newest;
  while (const dirent *entry = readdir(dir)) { // NOLINT(concurrency-mt-unsafe): this stream is this thread's alone
    struct stat facts;
    if (entry->d_name[0] == '.' || fstatat(dirfd(dir), entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(facts.st_mode))
      continue;
    const profile_dir found = {.name = entry->d_name, .changed = facts.st_mtim};
    if (comes_later(found, newest))
      newest = found;
  }
  closedir(dir);
  return newest.name;
}

std::string tqp_find_keyword_file() {
  const std::string profile = newest_directory(test_run_path("tq/conf/tqprof/").c_str());
  std::string path = wllb_format("%s/logs/TR%d/tq/conf/tqprof/%s/TQKeywords.conf", wl_wdir, testidx, profile.c_str());
  if (wllb_path_exists(path.c_str()))
    return path;
  return wllb_format("%s/logs/TR%d/tq/conf/tqprof/%s/tq.conf", wl_wdir, testidx, profile.c_str());
}

// --- markers, processor limit, priority ------------------------------------------------------------------------------

static void make_marker(const char *below, const char *mode) {
  const std::string path = test_run_path(below);
  mkdir_ex(path.c_str());
  tqp_make_data_file_as(path.c_str(), mode, false);
}

void tqp_make_version_marker() {
  make_marker("tq/logs/.tqp_version", "a");
}

void tqp_make_method_timing_marker() {
  make_marker(".use_csv_for_method_timing", "w");
}

void tqp_add_pid_to_cgroup() {
  if (!tqp_add_pid_to_cgroups || !wllb_path_exists(outside_paths.cgroup_dir.c_str()))
    return;
  const wllb_fd tasks(wllb_open_output((outside_paths.cgroup_dir + "tasks").c_str(), O_WRONLY));
  if (tasks.fd >= 0 && wllb_write_all(tasks.fd, std::to_string(getpid())))
    fprintf(stderr, "Successfully added the ProcessID of TQP to cgroup tasks\n");
}

bool tqp_test_is_active() {
  const wllb_run_result status = wllb_run_program({"wlu_show_workloom", "-n", wllb_format("%d", testidx)});
  std::string_view output = status.output;
  return wllb_take_piece(&output, '\n').find("Active") != std::string_view::npos;
}

// The kernel keeps a priority for each thread; new threads take their maker's.
void tqp_lower_priority() {
  setpriority(PRIO_PROCESS, 0, 19);
  DIR *threads = opendir("/proc/self/task");
  if (!threads)
    return;
  while (const dirent *entry = readdir(threads)) // NOLINT(concurrency-mt-unsafe): this stream is this thread's alone
    if (entry->d_name[0] != '.')
      setpriority(PRIO_PROCESS, static_cast<id_t>(strtol(entry->d_name, nullptr, 10)), 19);
  closedir(threads);
}
