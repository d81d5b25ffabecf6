// Small helpers that know nothing of tqp: text, time, paths, programs and processes.
//   In      texts, paths and argument lists of the callers
//   Out     results by value; directories and pid files on disk
//   Thread  any, unless told otherwise
//   Failure by return value; nothing here ends the process
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

#define WLLB_PRINTF(format_at, first_at) __attribute__((format(printf, format_at, first_at)))

// --- text ---------------------------------------------------------------------------------------------------

// The text that printf would print.
std::string wllb_format(const char *fmt, ...) WLLB_PRINTF(1, 2);
std::string wllb_vformat(const char *fmt, va_list args) WLLB_PRINTF(1, 0);

// Copies at most size - 1 bytes of `text` and ends them with a NUL. size must be above 0.
void wllb_copy_text(char *dst, size_t size, std::string_view text);

// True for one or more decimal digits and nothing else.
bool wllb_is_numeric(std::string_view text);

// Cuts `line` in place at each byte that stands in `delimiters`; empty fields are kept. At most `max_fields`
// fields are stored, the last one with the rest of the line uncut. Returns the number of fields.
int get_tokens_with_multi_delimiter(char *line, char **fields, const char *delimiters, int max_fields);

// Takes what stands before the next `separator`, or all there is, off the front of *rest, and the separator with it. Taken
// until *rest is empty, lines come without newlines, and nothing follows a newline at the end.
std::string_view wllb_take_piece(std::string_view *rest, char separator);

// The pieces between separators; empty ones are kept, so there is always one more of them than of separators.
std::vector<std::string_view> wllb_split(std::string_view text, char separator);

// The words of `line`, separated by any white space; at most `max_words`.
std::vector<std::string> wllb_words(std::string_view line, size_t max_words);

// `text` in single quotes for a shell, unless it holds nothing but letters, digits and _ . / : @ + , -
std::string wllb_shell_quote(std::string_view text);

// --- errors -------------------------------------------------------------------------------------------------

// The words for an errno value. The one place that asks the C library for them (thread-safe).
std::string wllb_strerror(int error);

// --- time ---------------------------------------------------------------------------------------------------

// The two clocks, in milliseconds; tests put their own functions here before threads start. The first tells the time of
// day since 1970, for times that are written or compared with data; it may be set. The second only goes forward: all
// intervals, limits and retries are counted on it. It stands far above 0, so that 0 can mean "long ago".
extern int64_t (*wllb_clock_ms)();
extern int64_t (*wllb_monotonic_ms)();

inline int64_t get_ms_stamp_tqp() {
  return wllb_clock_ms();
}

inline time_t wllb_now() {
  return static_cast<time_t>(wllb_clock_ms() / 1000);
}

// Whole seconds of the clock that only goes forward.
inline time_t wllb_monotonic_s() {
  return static_cast<time_t>(wllb_monotonic_ms() / 1000);
}

// Local time of `when` in strftime's words; at most 255 bytes, else an empty text.
std::string wllb_local_time_text(const char *strftime_format, time_t when);

// --- files --------------------------------------------------------------------------------------------------

struct wllb_close_file {
  void operator()(FILE *stream) const { fclose(stream); }
};

using wllb_file = std::unique_ptr<FILE, wllb_close_file>;

// A descriptor that is closed at the end of its scope; -1: none.
struct wllb_fd {
  int fd = -1;

  wllb_fd() = default;

  explicit wllb_fd(int opened) : fd(opened) {}

  ~wllb_fd() { reset(); }

  wllb_fd(const wllb_fd &) = delete;
  wllb_fd &operator=(const wllb_fd &) = delete;

  void reset(int to = -1) {
    if (fd >= 0)
      close(fd);
    fd = to;
  }
};

// Makes every directory of `path` up to its last slash (mode 0777 less the umask). 0, or -1 with errno set.
int mkdir_ex(const char *path);

bool wllb_path_exists(const char *path);
bool wllb_is_directory(const char *path);
bool wllb_is_regular_file(const char *path);

// The bytes of a regular file, at most `limit`; an empty text for anything else. Never blocks on a FIFO.
std::string wllb_read_small_file(const char *path, size_t limit = 1U << 20U);

// Opens a plain file with flags of open(2), close-on-exec; never waits for a FIFO. For reading; what is written is opened by
// wllb_open_output. The descriptor, for the caller to close, with the file's facts in *found if given; -1, and EINVAL for
// anything that is no plain file.
int wllb_open_plain(const char *path, int flags, struct stat *found = nullptr);

// Called by wllb_open_plain when the system has no descriptor left (EMFILE, ENFILE): waits as its thread likes, and true
// means that opening is tried again. Called once more with `opened` when a later try has worked. Null: opening fails. Set
// before threads start.
extern bool (*wllb_wait_for_descriptor)(const char *path, bool opened);

// Bytes of a file from place `at` on, over short transfers and interruptions. The first gives how many came: fewer than
// asked for at the file's end, or when the system gives no more; the others are false when it takes no more (errno).
int64_t wllb_read_at(int fd, char *bytes, int64_t len, int64_t at);
bool wllb_write_at(int fd, const char *bytes, int64_t len, int64_t at);
bool wllb_write_all(int fd, std::string_view bytes); // where the descriptor stands

// The same where it matters how much was taken: the number of bytes; errno when that is not all.
size_t wllb_write_some(int fd, std::string_view bytes);

// Calls take(line, length) with each line of a stream, its newline included if it has one, until that gives false. The
// line ends with a NUL; it may be changed, and is gone behind the call.
template <class F> void wllb_for_each_line(FILE *stream, F take) {
  char *line = nullptr;
  size_t room = 0;
  for (ssize_t length; (length = getline(&line, &room, stream)) > 0;)
    if (!take(line, static_cast<size_t>(length)))
      break;
  free(line);
}

// Where the line that holds byte `offset` of a file begins; a byte behind a newline begins one. -1 when a byte before
// `offset` cannot be read.
int64_t wllb_line_begin(int fd, int64_t offset);

// Last component of a path, without its directories.
const char *wllb_base_name(const char *path);

// --- programs and processes ---------------------------------------------------------------------------------

struct wllb_run_result {
  int exit_status = -1;  // what the program exited with; 0 when it died on a signal; -1 with errno set when it could
                         // not be started, or when somebody else collected its end
  std::string output;    // its standard output and standard error, at most 1 MiB
  std::string last_line; // the last line of `output`, without the newline
};

// Runs a program (found through PATH) without a shell, hands it `input`, waits for it. Waits for this child only,
// so other children's ends stay to be collected by their owners.
wllb_run_result wllb_run_program(const std::vector<std::string> &argv, std::string_view input = {});

// False for pid 0 and for a process that has ended, collected by its parent or not; true when the process can be
// signalled or, being somebody else's, stands in /proc.
bool wllb_check_pid_alive(pid_t pid);

// Base name of argument 0 of a live process; empty when there is none.
std::string wllb_process_name(pid_t pid);

// Takes over the pid files of `base_dir`: when "%s/.%s.pid" (base_dir, name) names another live process (pid above
// 1) that runs this process's executable, by a name that begins like this one's, that one gets SIGKILL and a line on
// standard output. Then this pid
// goes into that file, which gets the owner and group of base_dir, and into "%s/.pidfiles/.%s.pid" (base_dir, name
// in upper case). Returns 0, or -1 with the reason in *error.
int wllb_save_pid_ex(const char *base_dir, const char *name, std::string *error);
