// The one trace file of the process: builds lines, keeps the file in the newest partition and below its size.
//   In      lines of all threads; "/tmp/trace_level.conf" when a new level is asked for
//   Out     "<base_dir>/<partition>/<log_file>" and one older "<...>.prev"
//   Thread  any; no lock is held around a line's write. Every file of a handle is opened on one descriptor number, so
//           a thread that is late by a move or a rollover writes whole lines to the old or the new file, never elsewhere
//   Failure a line without an open file is lost, the first one in a row to standard error; the next one tries to open
// Sample:   \n11/22/26 21:30:00|Main Thread|tqp_init.cpp|88|tqp_init|Info|...   (the newline comes first)
#include "wllb_multi_thread_trace_log.h"

#include "wllb_output_file.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <new>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

MTTraceLogKey *trkey = nullptr;
thread_local wllb_trace_context wllb_trace_self;
std::atomic<int64_t> wllb_trace_partition{0};
const char *wllb_trace_level_conf_path = "/tmp/trace_level.conf";

constexpr size_t trace_line_size = 16384;
constexpr int64_t bytes_per_mb = 1 << 20;

// --- the handle -----------------------------------------------------------------------------------------------

// An entry of the user or group database; false when there is none. Only its numbers outlive the call.
template <class Entry, class Id>
static bool look_up_owner(int (*ask)(Id, Entry *, char *, size_t, Entry **), Id id, Entry *entry) {
  std::string room(1024, '\0');
  Entry *found = nullptr;
  while (ask(id, entry, room.data(), room.size(), &found) == ERANGE && room.size() < (1U << 20U))
    room.resize(room.size() * 2);
  return found != nullptr;
}

// Owner and group of the directory; what is in no database stays unchanged on the file, too.
static void set_owner(MTTraceLogKey *key, bool primary_group) {
  key->ownerid = static_cast<uid_t>(-1);
  key->grpid = static_cast<gid_t>(-1);
  struct stat dir = {};
  if (stat(key->base_dir, &dir) != 0)
    return;
  passwd user = {};
  group members = {};
  const bool user_known = look_up_owner(getpwuid_r, dir.st_uid, &user);
  if (user_known)
    key->ownerid = user.pw_uid;
  if (primary_group && user_known)
    key->grpid = user.pw_gid;
  if (!primary_group && look_up_owner(getgrgid_r, dir.st_gid, &members))
    key->grpid = members.gr_gid;
}

static int mb_to_bytes(int size_mb) {
  const int64_t bytes = size_mb * bytes_per_mb;
  return bytes > INT_MAX ? INT_MAX : static_cast<int>(bytes);
}

static void set_partition(MTTraceLogKey *key, int64_t partition_idx) WLLB_REQUIRES(key->trace_mutex) {
  wllb_copy_text(key->partition_name, sizeof key->partition_name, std::to_string(partition_idx));
  key->partition_idx.store(partition_idx, std::memory_order_release);
}

static MTTraceLogKey *new_handle(const std::string &base_dir, int testidx, int64_t partition_idx, const char *log_file,
                                 int level, int size_mb) {
  if (!log_file && testidx < 1000)
    return nullptr;
  auto *key = new (std::nothrow) MTTraceLogKey();
  if (!key)
    return nullptr;
  key->testidx = testidx;
  wllb_copy_text(key->base_dir, sizeof key->base_dir, base_dir);
  wllb_copy_text(key->log_file, sizeof key->log_file, log_file ? log_file : "");
  if (partition_idx > 0) {
    wllb_hold hold(key->trace_mutex);
    set_partition(key, partition_idx);
  }
  key->log_level = wllb_trace_mask(level);
  key->max_log_file_size = mb_to_bytes(size_mb > 0 ? size_mb : 1);
  key->print_header = true;
  return key;
}

MTTraceLogKey *wllb_init_mt_trace_log(const char *wdir, int testidx, int64_t partition_idx, const char *log_file,
                                      int level, int size_mb) {
  const char *dir = wdir ? wdir : getenv("WL_WDIR"); // NOLINT(concurrency-mt-unsafe): nobody sets the environment
  if (!dir)
    return nullptr;
  MTTraceLogKey *key =
      new_handle(wllb_format("%s/logs/TR%d", dir, testidx), testidx, partition_idx, log_file, level, size_mb);
  if (!key)
    return nullptr;
  wllb_copy_text(key->wl_wdir, sizeof key->wl_wdir, dir);
  set_owner(key, false);
  return key;
}

MTTraceLogKey *wllb_init_mt_trace_log_ex(const char *base_dir, int64_t partition_idx, const char *log_file, int level,
                                         int size_mb) {
  if (!base_dir)
    return nullptr;
  MTTraceLogKey *key = new_handle(base_dir, 0, partition_idx, log_file, level, size_mb);
  if (key)
    set_owner(key, true);
  return key;
}

void wllb_clean_mt_trace_log(MTTraceLogKey *key) {
  if (!key)
    return;
  if (key == trkey)
    trkey = nullptr;
  {
    wllb_hold hold(key->trace_mutex);
    if (key->kept_fd >= 1)
      close(key->kept_fd);
  }
  delete key;
}

// --- level ----------------------------------------------------------------------------------------------------

void wllb_change_atb_mt_trace_log_core(MTTraceLogKey *key, int level, int size_mb) {
  key->log_level = wllb_trace_mask(level);
  if (size_mb > 0)
    key->max_log_file_size = mb_to_bytes(size_mb);
}

// A word as number; no number reads as 0.
static int word_number(const std::string &word) {
  return static_cast<int>(strtol(word.c_str(), nullptr, 10));
}

void wllb_change_atb_mt_trace_log(MTTraceLogKey *key, const char *keyword) {
  constexpr size_t line_limit = 1024;
  const std::string text = wllb_read_small_file(wllb_trace_level_conf_path);
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = wllb_take_piece(&rest, '\n');
    if (line.empty() || line[0] == '#' || line[0] == ' ' || line[0] == '\t')
      continue;
    const std::vector<std::string> words = wllb_words(line.substr(0, line_limit), 3);
    if (words.size() < 2 || words[0] != keyword)
      continue;
    wllb_change_atb_mt_trace_log_core(key, word_number(words[1]), words.size() > 2 ? word_number(words[2]) : 0);
    return;
  }
}

// --- the file -------------------------------------------------------------------------------------------------

static std::string trace_path(MTTraceLogKey *key) WLLB_REQUIRES(key->trace_mutex) {
  return wllb_format("%s/%s/%s", key->base_dir, key->partition_name, key->log_file);
}

// The next line opens a file with a header. The descriptor itself stays for threads that already took its number.
static void let_go_of_file(MTTraceLogKey *key) WLLB_REQUIRES(key->trace_mutex) {
  key->file_fd.store(-1, std::memory_order_release);
  key->print_header = true;
}

// Puts an open file on the handle's number, swapping it there in one step. Above the standard streams, so that a
// process started without them does not print into the trace. Returns the number, or -1.
static int put_on_kept_fd(MTTraceLogKey *key, int fd) WLLB_REQUIRES(key->trace_mutex) {
  if (key->kept_fd < 1 && fd > STDERR_FILENO)
    return key->kept_fd = fd;
  const int placed =
      key->kept_fd < 1 ? fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : dup3(fd, key->kept_fd, O_CLOEXEC);
  close(fd);
  if (placed >= 1)
    key->kept_fd = placed;
  return placed;
}

static void write_header(MTTraceLogKey *key, int fd) {
  constexpr std::string_view header = "#TimeStamp|Thread Name|Src file name|Line number|Function|Severity|Message";
  if (wllb_write_all(fd, header))
    key->print_header = false;
}

// The header goes in before any other thread can reach the file.
static void open_file(MTTraceLogKey *key) WLLB_REQUIRES(key->trace_mutex) {
  const std::string path = trace_path(key);
  if (mkdir_ex(path.c_str()) != 0) {
    fputs("Fail: Error in creating virutal user trace directory", stderr);
    return;
  }
  const int fd = wllb_open_output(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, {key->ownerid, key->grpid});
  if (fd < 0)
    return;
  if (key->print_header)
    write_header(key, fd);
  key->file_fd.store(put_on_kept_fd(key, fd), std::memory_order_release);
}

static bool is_too_large(const MTTraceLogKey *key, const struct stat &file) {
  return file.st_size > key->max_log_file_size;
}

static void roll_over_if_too_large(MTTraceLogKey *key) WLLB_REQUIRES(key->trace_mutex) {
  const std::string path = trace_path(key);
  struct stat file = {};
  if (stat(path.c_str(), &file) != 0 || !is_too_large(key, file))
    return;
  let_go_of_file(key);
  if (rename(path.c_str(), (path + ".prev").c_str()) != 0)
    fprintf(stderr, "Error in moving '%s' file, err = %s\n", path.c_str(), wllb_strerror(errno).c_str());
}

// Number and name change after the file is let go, so whoever sees the new number does not meet the old file.
static void move_to_partition(MTTraceLogKey *key, int64_t partition_idx) WLLB_REQUIRES(key->trace_mutex) {
  let_go_of_file(key);
  set_partition(key, partition_idx);
}

// The descriptor for one line, below 1 when there is none. Looks at the open file first and takes the lock only for
// what changes something: a new partition, a file that is too large, a file that is not open.
static int descriptor_for_line(MTTraceLogKey *key, int64_t partition_idx) {
  const bool moves = partition_idx > 0 && partition_idx > key->partition_idx.load(std::memory_order_acquire);
  int fd = key->file_fd.load(std::memory_order_acquire);
  struct stat file = {};
  if (!moves && fd >= 1 && (fstat(fd, &file) != 0 || !is_too_large(key, file)))
    return fd;
  wllb_hold hold(key->trace_mutex);
  if (partition_idx > 0 && partition_idx > key->partition_idx.load(std::memory_order_relaxed))
    move_to_partition(key, partition_idx);
  roll_over_if_too_large(key);
  if (key->file_fd.load(std::memory_order_relaxed) < 1)
    open_file(key);
  return key->file_fd.load(std::memory_order_relaxed);
}

void wllb_tl_reset_partition_idx(MTTraceLogKey *key, int64_t partition_idx) {
  if (partition_idx < 1)
    return;
  wllb_hold hold(key->trace_mutex);
  move_to_partition(key, partition_idx);
}

// --- one line -------------------------------------------------------------------------------------------------

// Date and time of now. The time zone's lock must not be met by a signal handler of the same thread, hence the
// blocked signals. Kept for the rest of the second.
static const char *trace_time_text() {
  static thread_local time_t second = 0;
  static thread_local char text[32] = "";
  const time_t now = wllb_now();
  if (text[0] && now == second)
    return text;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  wllb_copy_text(text, sizeof text, wllb_local_time_text("%m/%d/%y %H:%M:%S", now));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  second = now;
  return text;
}

// What snprintf stored of a text in `room` bytes.
static size_t stored_length(int wanted, size_t room) {
  const auto length = static_cast<size_t>(wanted);
  return length < room ? length : room - 1;
}

// Control bytes of a message become blanks, so that no record can pass for a line of the log. Newlines stay where the
// format has its own.
static void blank_control_bytes(char *text, const char *end, const char *format) {
  const bool of_lines = strchr(format, '\n') != nullptr;
  for (; text < end; ++text)
    if (static_cast<unsigned char>(*text) < ' ' && *text != '\t' && !(of_lines && *text == '\n'))
      *text = ' ';
}

// Builds a line in `text`. Returns its length, or 0 when snprintf failed.
static size_t build_line(char (&text)[trace_line_size], const char *thread_name, const char *severity,
                         const char *src_file, int line, const char *function, const char *format, va_list args)
    WLLB_PRINTF(7, 0);

static size_t build_line(char (&text)[trace_line_size], const char *thread_name, const char *severity,
                         const char *src_file, int line, const char *function, const char *format, va_list args) {
  const int front = snprintf(text, sizeof text, "\n%s|%s|%s|%d|%s|%s|", trace_time_text(), thread_name,
                             wllb_base_name(src_file), line, function, severity);
  const size_t prefix = front < 0 ? 0 : stored_length(front, sizeof text);
  const size_t room = sizeof text - prefix;
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers begin and end it
  const int body = front < 0 ? -1 : vsnprintf(text + prefix, room, format, args);
  if (body >= 0) {
    const size_t length = prefix + stored_length(body, room);
    blank_control_bytes(text + 1, text + length, format);
    return length;
  }
  fprintf(stderr, "Error: wllb_mt_trace_log(): snprintf returned -1 , Error = '%s'\n", wllb_strerror(errno).c_str());
  return 0;
}

// Of lines in a row that cannot be written the first one goes to standard error: a full disk must not go unseen, nor a
// file that does not open.
static void write_line(MTTraceLogKey *key, int fd, const char *text, size_t length) {
  const bool lost = fd < 1 || !wllb_write_all(fd, {text, length});
  if (lost == key->losing_lines.load(std::memory_order_relaxed) || key->losing_lines.exchange(lost) == lost || !lost)
    return;
  const std::string words =
      wllb_format("Error: wllb_mt_trace_log(): trace lines are lost, Error = '%s', the first one: ",
                  wllb_strerror(errno).c_str()) +
      std::string(text + 1, length - 1) + "\n";
  wllb_write_all(STDERR_FILENO, words);
}

// The caller's errno stays, for it may be what the caller reports next.
void wllb_mt_trace_log(MTTraceLogKey *key, int64_t partition_idx, const char *thread_name, const char *severity,
                       const char *src_file, int line, const char *function, const char *format, ...) {
  if (!key)
    return;
  const int callers_errno = errno;
  char text[trace_line_size];
  va_list args;
  va_start(args, format);
  const size_t length =
      build_line(text, thread_name ? thread_name : "Main Thread", severity, src_file, line, function, format, args);
  va_end(args);
  if (length > 0)
    write_line(key, descriptor_for_line(key, partition_idx), text, length);
  errno = callers_errno;
}
