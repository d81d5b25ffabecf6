// Small helpers that know nothing of tqp: text, time, paths, programs and processes.
//   In      texts, paths and argument lists of the callers; pid files, which anyone may have written
//   Out     results by value; directories and pid files on disk
//   Thread  any; no state but the clock, which is set before threads start
//   Failure by return value; nothing here ends the process
// Pid file: one line, "4711\n"
#include "wllb_util.h"

#include "wllb_output_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// --- text ---------------------------------------------------------------------------------------------------

std::string wllb_vformat(const char *fmt, va_list args) {
  char room[512];
  va_list again;
  va_copy(again, args);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers begin and end it
  const int len = vsnprintf(room, sizeof room, fmt, args);
  std::string text;
  if (len >= static_cast<int>(sizeof room)) {
    text.resize(static_cast<size_t>(len));
    vsnprintf(text.data(), text.size() + 1, fmt, again);
  } else if (len > 0) {
    text.assign(room, static_cast<size_t>(len));
  }
  va_end(again);
  return text;
}

std::string wllb_format(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = wllb_vformat(fmt, args);
  va_end(args);
  return text;
}

void wllb_copy_text(char *dst, size_t size, std::string_view text) {
  const size_t len = text.copy(dst, size - 1);
  dst[len] = '\0';
}

static bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool wllb_is_numeric(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), is_digit);
}

int get_tokens_with_multi_delimiter(char *line, char **fields, const char *delimiters, int max_fields) {
  int count = 0;
  while (count < max_fields) {
    fields[count++] = line;
    char *cut = count < max_fields ? strpbrk(line, delimiters) : nullptr;
    if (!cut)
      break;
    *cut = '\0';
    line = cut + 1;
  }
  return count;
}

std::string_view wllb_take_piece(std::string_view *rest, char separator) {
  const std::string_view piece = rest->substr(0, rest->find(separator));
  rest->remove_prefix(std::min(piece.size() + 1, rest->size()));
  return piece;
}

std::vector<std::string_view> wllb_split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (size_t end = 0; end != text.npos;) {
    end = text.find(separator);
    pieces.push_back(wllb_take_piece(&text, separator));
  }
  return pieces;
}

std::vector<std::string> wllb_words(std::string_view line, size_t max_words) {
  static constexpr std::string_view white_space = " \t\n\v\f\r";
  std::vector<std::string> words;
  size_t begin = line.find_first_not_of(white_space);
  while (begin != std::string_view::npos && words.size() < max_words) {
    const size_t end = std::min(line.find_first_of(white_space, begin), line.size());
    words.emplace_back(line.substr(begin, end - begin));
    begin = line.find_first_not_of(white_space, end);
  }
  return words;
}

static bool is_plain_for_shell(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c != '\0' && strchr("_./:@+,-", c));
}

std::string wllb_shell_quote(std::string_view text) {
  if (!text.empty() && std::all_of(text.begin(), text.end(), is_plain_for_shell))
    return std::string(text);
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'')
      quoted += "'\\''";
    else
      quoted += c;
  }
  return quoted + "'";
}

// --- errors -------------------------------------------------------------------------------------------------

std::string wllb_strerror(int error) {
  char room[256];
  return strerror_r(error, room, sizeof room);
}

// --- time ---------------------------------------------------------------------------------------------------

static int64_t clock_ms(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

static int64_t wall_clock_ms() {
  return clock_ms(CLOCK_REALTIME);
}

static int64_t monotonic_clock_ms() {
  constexpr int64_t far_above_0 = 1'000'000'000'000; // a machine may have been started a moment ago
  return far_above_0 + clock_ms(CLOCK_MONOTONIC);
}

int64_t (*wllb_clock_ms)() = wall_clock_ms;
int64_t (*wllb_monotonic_ms)() = monotonic_clock_ms;

std::string wllb_local_time_text(const char *strftime_format, time_t when) {
  tm parts = {};
  char room[256];
  if (!localtime_r(&when, &parts))
    return {};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the callers' formats are literals
  return std::string(room, strftime(room, sizeof room, strftime_format, &parts));
#pragma GCC diagnostic pop
}

// --- files --------------------------------------------------------------------------------------------------

static int make_directory(const char *path) {
  if (mkdir(path, 0777) == 0)
    return 0;
  const int error = errno;
  if (wllb_is_directory(path))
    return 0;
  errno = error == EEXIST ? ENOTDIR : error;
  return -1;
}

int mkdir_ex(const char *path) {
  const std::string_view whole(path);
  const size_t last_slash = whole.rfind('/');
  if (last_slash == std::string_view::npos || last_slash == 0)
    return 0;
  const std::string directories(whole.substr(0, last_slash));
  if (wllb_is_directory(directories.c_str()))
    return 0;
  size_t end = 0;
  while (end != std::string::npos) {
    end = directories.find('/', end + 1);
    if (make_directory(directories.substr(0, end).c_str()) != 0)
      return -1;
  }
  return 0;
}

bool wllb_path_exists(const char *path) {
  struct stat found = {};
  return stat(path, &found) == 0;
}

bool wllb_is_directory(const char *path) {
  struct stat found = {};
  return stat(path, &found) == 0 && S_ISDIR(found.st_mode);
}

bool wllb_is_regular_file(const char *path) {
  struct stat found = {};
  return stat(path, &found) == 0 && S_ISREG(found.st_mode);
}

static ssize_t read_again(int fd, void *room, size_t size) {
  ssize_t got = 0;
  do
    got = read(fd, room, size);
  while (got < 0 && errno == EINTR);
  return got;
}

bool (*wllb_wait_for_descriptor)(const char *path, bool opened);

int wllb_open_plain(const char *path, int flags, struct stat *found) {
  struct stat facts = {};
  wllb_fd file;
  bool waited = false;
  while ((file.fd = open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666)) < 0) {
    if ((errno != EMFILE && errno != ENFILE) || !wllb_wait_for_descriptor || !wllb_wait_for_descriptor(path, false))
      return -1;
    waited = true;
  }
  if (waited)
    wllb_wait_for_descriptor(path, true);
  if (fstat(file.fd, &facts) != 0 || !S_ISREG(facts.st_mode)) {
    file.reset();
    errno = EINVAL;
    return -1;
  }
  if (found)
    *found = facts;
  return std::exchange(file.fd, -1);
}

int64_t wllb_read_at(int fd, char *bytes, int64_t len, int64_t at) {
  int64_t done = 0;
  while (done < len) {
    const ssize_t got = pread(fd, bytes + done, static_cast<size_t>(len - done), at + done);
    if (got == 0 || (got < 0 && errno != EINTR))
      break;
    done += std::max<ssize_t>(got, 0);
  }
  return done;
}

bool wllb_write_at(int fd, const char *bytes, int64_t len, int64_t at) {
  int64_t done = 0;
  while (done < len) {
    const ssize_t put = pwrite(fd, bytes + done, static_cast<size_t>(len - done), at + done);
    if (put == 0 || (put < 0 && errno != EINTR))
      return false;
    done += std::max<ssize_t>(put, 0);
  }
  return true;
}

size_t wllb_write_some(int fd, std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
    if (put == 0)
      errno = EIO;
    if (put == 0 || (put < 0 && errno != EINTR))
      return done;
    done += static_cast<size_t>(std::max<ssize_t>(put, 0));
  }
  return done;
}

bool wllb_write_all(int fd, std::string_view bytes) {
  return wllb_write_some(fd, bytes) == bytes.size();
}

std::string wllb_read_small_file(const char *path, size_t limit) {
  const wllb_fd file(wllb_open_plain(path, O_RDONLY));
  if (file.fd < 0)
    return {};
  // Read to the end and not to the told size, which is 0 for files made by the kernel.
  std::string text;
  char room[16384];
  ssize_t got = 1;
  while (got > 0 && text.size() < limit) {
    got = read_again(file.fd, room, std::min(sizeof room, limit - text.size()));
    if (got > 0)
      text.append(room, static_cast<size_t>(got));
  }
  return got < 0 ? std::string() : text;
}

int64_t wllb_line_begin(int fd, int64_t offset) {
  char block[4096];
  if (offset > 0 && pread(fd, block, 1, offset - 1) != 1)
    return -1;
  while (offset > 0) {
    const int64_t from = std::max<int64_t>(0, offset - static_cast<int64_t>(sizeof block));
    const ssize_t got = pread(fd, block, static_cast<size_t>(offset - from), from);
    if (got <= 0)
      return -1;
    const auto *newline = static_cast<const char *>(memrchr(block, '\n', static_cast<size_t>(got)));
    if (newline)
      return from + (newline - block) + 1;
    offset = from;
  }
  return 0;
}

const char *wllb_base_name(const char *path) {
  const char *last_slash = strrchr(path, '/');
  return last_slash ? last_slash + 1 : path;
}

// --- programs -----------------------------------------------------------------------------------------------

static constexpr size_t max_program_output = size_t{1} << 20U;

namespace {

// Keeps SIGPIPE from the process: a write of this thread that raises it gives EPIPE and nothing else.
class sigpipe_hold {
public:
  sigpipe_hold() {
    sigset_t pending;
    sigpending(&pending);
    was_pending = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_only, &before);
  }

  ~sigpipe_hold() {
    const timespec no_wait = {};
    while (!was_pending && sigtimedwait(&pipe_only, nullptr, &no_wait) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  sigpipe_hold(const sigpipe_hold &) = delete;
  sigpipe_hold &operator=(const sigpipe_hold &) = delete;

private:
  sigset_t pipe_only;
  sigset_t before;
  bool was_pending;
};

} // namespace

static bool open_pipe(wllb_fd &read_end, wllb_fd &write_end) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    return false;
  read_end.reset(ends[0]);
  write_end.reset(ends[1]);
  return true;
}

// Starts the program with the default signal mask, SIGPIPE and SIGXFSZ. A stdin_fd of -1 is /dev/null. 0 or an errno value.
static int start_program(const std::vector<std::string> &argv, int stdin_fd, int stdout_fd, pid_t *pid) {
  std::vector<char *> words;
  for (const std::string &word : argv)
    words.push_back(const_cast<char *>(word.c_str())); // NOLINT: the interface is older than const
  words.push_back(nullptr);

  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  if (stdin_fd < 0)
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  else
    posix_spawn_file_actions_adddup2(&files, stdin_fd, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, stdout_fd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, stdout_fd, STDERR_FILENO);

  sigset_t signals;
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  sigaddset(&signals, SIGXFSZ);
  posix_spawnattr_setsigdefault(&attributes, &signals);

  const int error = posix_spawnp(pid, words[0], &files, &attributes, words.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return error;
}

// Hands over what the pipe takes now; closes it when all is out or nobody reads.
static void send_some(wllb_fd &to_child, std::string_view &input) {
  const ssize_t sent = write(to_child.fd, input.data(), input.size());
  if (sent > 0)
    input.remove_prefix(static_cast<size_t>(sent));
  if (input.empty() || (sent < 0 && errno != EAGAIN && errno != EINTR))
    to_child.reset();
}

static void receive_some(wllb_fd &from_child, std::string &output) {
  char room[16384];
  const ssize_t got = read_again(from_child.fd, room, sizeof room);
  if (got > 0)
    output.append(room, std::min(static_cast<size_t>(got), max_program_output - output.size()));
  else
    from_child.reset();
}

// Writes and reads as the child takes and gives, so neither side waits for the other. A closed side (-1) is no more
// looked at.
static void talk_to_child(wllb_fd &to_child, std::string_view input, wllb_fd &from_child, std::string &output) {
  const sigpipe_hold hold;
  while (to_child.fd >= 0 || from_child.fd >= 0) {
    pollfd sides[] = {{to_child.fd, POLLOUT, 0}, {from_child.fd, POLLIN, 0}};
    if (poll(sides, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      return;
    }
    if (sides[0].revents != 0)
      send_some(to_child, input);
    if (sides[1].revents != 0)
      receive_some(from_child, output);
  }
}

static int wait_for_child(pid_t pid) {
  int status = 0;
  pid_t ended = 0;
  do
    ended = waitpid(pid, &status, 0);
  while (ended < 0 && errno == EINTR);
  if (ended < 0)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}

static std::string last_line_of(std::string_view text) {
  if (!text.empty() && text.back() == '\n')
    text.remove_suffix(1);
  const size_t newline = text.rfind('\n');
  return std::string(newline == std::string_view::npos ? text : text.substr(newline + 1));
}

wllb_run_result wllb_run_program(const std::vector<std::string> &argv, std::string_view input) {
  wllb_run_result result;
  wllb_fd child_in;
  wllb_fd to_child;
  wllb_fd from_child;
  wllb_fd child_out;
  if (argv.empty()) {
    errno = EINVAL;
    return result;
  }
  // Should the pipes take standard descriptors that this process has closed: made in this order, and handed over
  // with standard input first, no end is overwritten before it is handed over.
  if (!open_pipe(from_child, child_out) || (!input.empty() && !open_pipe(child_in, to_child)))
    return result;
  if (to_child.fd >= 0)
    fcntl(to_child.fd, F_SETFL, O_WRONLY | O_NONBLOCK);
  pid_t pid = 0;
  const int error = start_program(argv, child_in.fd, child_out.fd, &pid);
  if (error != 0) {
    errno = error;
    return result;
  }
  child_in.reset();
  child_out.reset();
  talk_to_child(to_child, input, from_child, result.output);
  result.exit_status = wait_for_child(pid);
  result.last_line = last_line_of(result.output);
  return result;
}

// --- processes ----------------------------------------------------------------------------------------------

// A process that has ended stands in the process table until its parent collects it. One whose first thread alone has
// ended looks the same, but for the number of its threads. Line of the file: "4711 (name) Z 1 ...", where a name may hold
// anything and the number of threads is the 18th word after it.
static bool has_ended(pid_t pid) {
  const std::string text = wllb_read_small_file(wllb_format("/proc/%d/stat", pid).c_str(), 4096);
  const size_t name_end = text.rfind(')');
  const std::vector<std::string> words =
      wllb_words(std::string_view(text).substr(name_end == std::string::npos ? text.size() : name_end + 1), 18);
  return words.size() == 18 && (words[0] == "Z" || words[0] == "X") && atoi(words[17].c_str()) <= 1;
}

bool wllb_check_pid_alive(pid_t pid) {
  if (pid == 0)
    return false;
  if (kill(pid, 0) == 0)
    return !has_ended(pid);
  return errno == EPERM && wllb_path_exists(wllb_format("/proc/%d", pid).c_str()) && !has_ended(pid);
}

std::string wllb_process_name(pid_t pid) {
  const std::string arguments = wllb_read_small_file(wllb_format("/proc/%d/cmdline", pid).c_str());
  return wllb_base_name(arguments.c_str()); // argument 0 ends at its NUL
}

// The process that a pid file names, 0 for none. This process's own ids, its threads' included, count as none.
static pid_t other_pid_in_file(const char *path) {
  const std::string text = wllb_read_small_file(path, 64);
  const long long pid = strtoll(text.c_str(), nullptr, 10);
  if (pid <= 1 || pid > INT_MAX || wllb_path_exists(wllb_format("/proc/self/task/%lld", pid).c_str()))
    return 0;
  return static_cast<pid_t>(pid);
}

static std::string executable_path(const char *process) {
  char path[PATH_MAX];
  const ssize_t len = readlink(wllb_format("/proc/%s/exe", process).c_str(), path, sizeof path);
  std::string text(path, static_cast<size_t>(len > 0 ? len : 0));
  constexpr std::string_view replaced = " (deleted)";
  if (text.ends_with(replaced))
    text.resize(text.size() - replaced.size());
  return text;
}

// Names can be chosen, and a pid may have gone to anyone since it was written. True for this process's own executable,
// and for one that stood at the same path before it was replaced.
static bool runs_same_executable(pid_t pid) {
  const std::string process = std::to_string(pid);
  struct stat own = {};
  struct stat other = {};
  if (stat("/proc/self/exe", &own) != 0 || stat(wllb_format("/proc/%d/exe", pid).c_str(), &other) != 0)
    return false;
  return (own.st_dev == other.st_dev && own.st_ino == other.st_ino) ||
         executable_path("self") == executable_path(process.c_str());
}

static void kill_process_of_file(const char *path, const char *component) {
  const pid_t pid = other_pid_in_file(path);
  if (!wllb_check_pid_alive(pid))
    return;
  const std::string own_name = wllb_process_name(getpid());
  const std::string name = wllb_process_name(pid);
  if (own_name.empty() || !std::string_view(name).starts_with(own_name) || !runs_same_executable(pid))
    return;
  printf("Going to kill pid %d of component %s of binary name %s\n", pid, component, name.c_str());
  fflush(stdout);
  kill(pid, SIGKILL);
}

static int pid_file_failure(const std::string &path, const char *step, std::string *error) {
  const int reason = errno;
  if (error && error->empty())
    *error = wllb_format("%s '%s': %s", step, path.c_str(), wllb_strerror(reason).c_str());
  return -1;
}

static int write_pid_file(const std::string &path, const wllb_owner &owner, std::string *error) {
  const wllb_fd file(wllb_open_output(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC));
  if (file.fd < 0)
    return pid_file_failure(path, "open", error);
  if (!wllb_write_all(file.fd, wllb_format("%d\n", getpid())))
    return pid_file_failure(path, "write", error);
  if (wllb_own_file(file.fd, owner) != 0)
    return pid_file_failure(path, "chown", error);
  return 0;
}

static std::string upper_case(std::string text) {
  for (char &c : text)
    c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  return text;
}

int wllb_save_pid_ex(const char *base_dir, const char *name, std::string *error) {
  if (error)
    error->clear();
  const std::string path = wllb_format("%s/.%s.pid", base_dir, name);
  const std::string list_path = wllb_format("%s/.pidfiles/.%s.pid", base_dir, upper_case(name).c_str());
  kill_process_of_file(path.c_str(), name);
  struct stat owner = {};
  if (stat(base_dir, &owner) != 0)
    return pid_file_failure(base_dir, "stat", error);
  int result = write_pid_file(path, {owner.st_uid, owner.st_gid}, error);
  if (mkdir_ex(list_path.c_str()) != 0)
    return pid_file_failure(list_path, "mkdir", error);
  if (write_pid_file(list_path, {}, error) != 0)
    result = -1;
  return result;
}
