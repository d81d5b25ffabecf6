// tqu_db_upload: follows the files of one test run as they grow, and hands their rows to a driver.
//   In      the command line that the daemon gives; WL_WDIR; signals; the daemon's life
//   Out     calls to the driver; so far there is one, which notes what it gets
//   Thread  one
//   Failure exit status 1 and a line on standard error; the daemon starts the program again
// SIGRTMIN+2: a new partition, looked at now. SIGRTMIN+3: the test is over, takes the rest and leaves. SIGTERM, or the
// daemon's end: leaves at the next piece.
#include "upload_driver.h"

#include "wllb_alloc.h"
#include "wllb_util.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <set>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

// --- command line -------------------------------------------------------------------------------------------

struct number_option {
  const char *name;
  int upload_options::*value;
  long min, max;
};

static constexpr number_option number_options[] = {
    // clang-format off
  {"--testrun",      &upload_options::testrun,      0, INT_MAX},
  {"--ppid",         &upload_options::ppid,         0, INT_MAX},
  {"--running_mode", &upload_options::running_mode, INT_MIN, INT_MAX},
  {"--idle_time",    &upload_options::idle_time,    1, 3600},
  {"--num_cycles",   &upload_options::num_cycles,   1, 1000},
  {"--resume",       &upload_options::resume,       INT_MIN, INT_MAX},
}; // clang-format on

static const char usage_text[] =
    "tqu_db_upload --testrun N --ppid PID --running_mode N --vector_separator C --idle_time SEC --num_cycles N --resume N\n"
    "  notes the rows of the test run $WL_WDIR/logs/TR<N> in its tq/logs/tqu_db_upload.journal, as they come\n"
    "  --ppid 0: takes what is there and leaves;  --resume 0: begins anew\n";

static bool take_option(upload_options *options, std::string_view name, const char *text) {
  if (name == "--vector_separator") {
    options->vector_separator = text;
    return true;
  }
  for (const number_option &row : number_options) {
    char *end = nullptr;
    errno = 0;
    const long value = name == row.name ? strtol(text, &end, 10) : 0;
    if (!end)
      continue;
    options->*row.value = static_cast<int>(value);
    return end != text && *end == '\0' && errno == 0 && row.min <= value && value <= row.max;
  }
  return false;
}

// Every option once, with its value.
static bool read_command_line(int argc, char **argv, upload_options *options) {
  std::set<std::string_view> seen;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!take_option(options, argv[i], argv[i + 1])) {
      fprintf(stderr, "tqu_db_upload: '%s' does not take '%s'\n", argv[i], argv[i + 1]);
      return false;
    }
    seen.insert(argv[i]);
  }
  if (seen.size() == std::size(number_options) + 1 && static_cast<size_t>(argc) == 1 + 2 * seen.size())
    return true;
  fputs(usage_text, stderr);
  return false;
}

static bool find_test_run(upload_options *options) {
  const char *work_dir = getenv("WL_WDIR"); // NOLINT(concurrency-mt-unsafe): one thread
  options->run_dir = wllb_format("%s/logs/TR%d", work_dir ? work_dir : "", options->testrun);
  if (work_dir && wllb_is_directory(options->run_dir.c_str()))
    return true;
  fprintf(stderr, "tqu_db_upload: %s\n",
          work_dir ? ("no test run " + options->run_dir).c_str() : "WL_WDIR env variable is not set.");
  return false;
}

// --- signals and the daemon ---------------------------------------------------------------------------------

struct upload_watch {
  int signal_fd;
  int parent_fd; // -1: none
  bool stop;     // told to, or the daemon is gone
  bool over;     // the test is
};

static sigset_t watched_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGRTMIN + 2, SIGRTMIN + 3})
    sigaddset(&set, signal);
  return set;
}

static void open_watch(upload_watch *watch, const sigset_t &signals, int ppid) {
  *watch = {signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), -1, false, ppid == 0};
  if (ppid == 0)
    return;
  watch->parent_fd = static_cast<int>(syscall(SYS_pidfd_open, ppid, 0));
  watch->stop = watch->parent_fd < 0;
}

// Looks at what has come, waiting for it `ms` at most.
static void look(upload_watch *watch, int ms) {
  pollfd sides[] = {{watch->signal_fd, POLLIN, 0}, {watch->parent_fd, POLLIN, 0}};
  if (watch->stop || poll(sides, 2, ms) < 1)
    return;
  watch->stop = sides[1].revents != 0;
  signalfd_siginfo info;
  while (read(watch->signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    const int signal = static_cast<int>(info.ssi_signo);
    watch->stop = watch->stop || signal == SIGTERM;
    watch->over = watch->over || signal == SIGRTMIN + 3;
  }
}

// --- rounds -------------------------------------------------------------------------------------------------

// A loader of a daemon that was killed may still be on its way out.
static bool open_driver(upload_driver *driver, const upload_options &options, upload_watch *watch,
                        tqread::file_positions *positions) {
  upload_opened opened;
  while ((opened = driver->open(options, positions)) == UPLOAD_IN_USE && !watch->stop)
    look(watch, 200);
  return opened != UPLOAD_FAILED;
}

// True: go on with the next round.
static bool run_round(tqread::follower *follower, const upload_options &options, upload_watch *watch, int *status) {
  look(watch, 0);
  const bool was_over = watch->over; // before the files are listed
  bool took = false;
  for (int cycle = 0; cycle < options.num_cycles && !watch->stop; ++cycle) {
    const tqread::pass_result passed = follower->pass();
    took = took || passed == tqread::pass_result::took_some;
    if (passed == tqread::pass_result::sink_failed) {
      *status = 1;
      return false;
    }
  }
  if (was_over && !took)
    return false;
  if (!watch->over)
    look(watch, options.idle_time * 1000);
  return !watch->stop;
}

int main(int argc, char **argv) {
  const sigset_t signals = watched_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr); // first of all: each of them ends a process that does not expect it
  wllb_install_new_handler();
  upload_options options = {};
  upload_watch watch;
  if (!read_command_line(argc, argv, &options) || !find_test_run(&options))
    return 1;
  open_watch(&watch, signals, options.ppid);
  const std::unique_ptr<upload_driver> driver = upload_make_journal();
  tqread::file_positions positions;
  if (!open_driver(driver.get(), options, &watch, &positions))
    return 1;
  tqread::follower follower(options.run_dir, driver.get(), std::move(positions), [&watch] {
    look(&watch, 0);
    return watch.stop;
  });
  int status = 0;
  while (!watch.stop && run_round(&follower, options, &watch, &status)) {
  }
  return status;
}
