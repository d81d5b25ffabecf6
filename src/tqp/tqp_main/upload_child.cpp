// The upload child: started, restarted within limits when it dies, told of the end, stopped.
//   In      dbmode's caller; SIGCHLD through its flag; the control channel, which may start the child, too
//   Out     one process "%s/bin/tqu_db_upload"; its pid for all who signal it
//   Thread  main collects and stops it; main and the control thread start it, one at a time
//   Failure traced; a child that could not be made, or could not be executed, counts as died
// Only this child is waited for here, by its pid: the ends of helper commands belong to those who run them. Its pid is
// stored under the lock under which main looks for its end, and main takes the flag down before it looks: so an end is
// seen whenever it comes, even before the pid is stored.

#include "upload_child.h"

#include "process_frame.h"
#include "wllb_component_recovery.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

wllb_relaxed<int> tqu_db_upload_pid(UPLOAD_NOT_TO_RESTART);
wllb_relaxed<char> tqu_db_spawned(0);
int upload_stop_seconds = 60;

static constexpr int tqdbu_idle_time = 5;
static constexpr int tqdbu_num_cycles = 1;

static component_recovery rec_tqu_db_upload; // main
static wllb_mutex upload_child_mutex;        // held around starting the child and around looking for its end

int tqp_init_upload_recovery() {
  return wllb_init_component_recovery_data(&rec_tqu_db_upload, 5, 10, 20);
}

// --- starting -----------------------------------------------------------------------------------------------

static std::vector<std::string> upload_command() {
  return {
      wllb_format("%s/bin/tqu_db_upload", wl_wdir),
      "--testrun",
      std::to_string(testidx),
      "--ppid",
      std::to_string(getpid()),
      "--running_mode",
      std::to_string(dbmode),
      "--vector_separator",
      std::string(g_tq_vector_separator ? 1 : 0, g_tq_vector_separator),
      "--idle_time",
      std::to_string(tqdbu_idle_time),
      "--num_cycles",
      std::to_string(tqdbu_num_cycles),
      "--resume",
      std::to_string(resume_flag),
  };
}

// What the new process needs between fork and exec, where no memory may be had.
struct upload_start {
  std::vector<std::string> words;
  std::vector<char *> argv; // into words, null at the end
  unsigned fd_limit;        // for kernels that close descriptors one by one
};

static void prepare(upload_start *start) {
  start->words = upload_command();
  for (std::string &word : start->words)
    start->argv.push_back(word.data());
  start->argv.push_back(nullptr);
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  start->fd_limit = static_cast<unsigned>(std::min<rlim_t>(limit.rlim_cur, 1U << 20U));
}

// From here to the exec only calls that are safe in a signal handler: other threads may have held any lock.

static void close_all_but_standard(unsigned fd_limit) {
  if (close_range(3, ~0U, 0) == 0)
    return;
  for (unsigned fd = 3; fd < fd_limit; ++fd)
    close(static_cast<int>(fd));
}

// A handler of this process must not run in the new one, so they go before the mask opens.
static void default_signals() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (int signal = 1; signal <= SIGRTMAX; ++signal)
    sigaction(signal, &action, nullptr);
  pthread_sigmask(SIG_SETMASK, &action.sa_mask, nullptr);
}

static void say(const char *words) {
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, words, strlen(words));
}

[[noreturn]] static void become_upload(const upload_start &start) {
  close_all_but_standard(start.fd_limit);
  default_signals();
  execv(start.argv[0], start.argv.data());
  const char *reason = strerrordesc_np(errno); // the helper for these words takes memory
  say("Failed to start tqu_db_upload: error in execl\n");
  say(reason ? reason : "Unknown error");
  say("\n");
  _exit(-1);
}

static pid_t fork_upload(const upload_start &start) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t pid = fork();
  if (pid == 0)
    become_upload(start);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

static void start_unless_running() WLLB_REQUIRES(upload_child_mutex) {
  if (tqu_db_upload_pid > 0)
    return; // the other thread was first
  upload_start start;
  prepare(&start);
  tqu_db_upload_pid = fork_upload(start);
  if (tqu_db_upload_pid > 0)
    return;
  fputs("Error in spawning new process for tqu_db_upload using system call\n", stderr);
  wllb_trace(1, "Error", "Error in spawning new process for tqu_db_upload.");
}

void spawn_tqu_db_upload() {
  const wllb_hold hold(upload_child_mutex);
  start_unless_running();
}

// --- collecting ---------------------------------------------------------------------------------------------

// waitpid for this child alone, without waiting: its pid when it has ended, 0 while it runs, -1 when there is none.
static pid_t collect(pid_t pid) {
  int status;
  return pid > 0 ? waitpid(pid, &status, WNOHANG) : -1;
}

// True when the child has ended.
static bool collect_after_signal() WLLB_REQUIRES(upload_child_mutex) {
  tqp_start_signals();
  const pid_t child = tqu_db_upload_pid;
  const pid_t pid = collect(child);
  wllb_trace(2, "Info", "pid = %d, tqu_db_upload_pid = %d", pid, child);
  if (pid < 1)
    return false;
  wllb_trace(1, "Info", "Event: Got tqu_db_upload SIGCHLD on pid %d.\n", pid);
  tqu_db_upload_pid = UPLOAD_DIED;
  return true;
}

static void recover(bool just_died) WLLB_REQUIRES(upload_child_mutex) {
  if (tqu_db_upload_pid > 0 || tqu_db_upload_pid == UPLOAD_NOT_TO_RESTART)
    return;
  if (wllb_recover_component_or_not(&rec_tqu_db_upload) == 0) {
    start_unless_running();
    wllb_trace(1, "Info", "Event: Start tqu_db_upload in recovery with pid %d.\n", int{tqu_db_upload_pid});
    return;
  }
  if (!just_died)
    return;
  tqu_db_upload_pid = UPLOAD_DIED;
  wllb_trace(
      1, "Error",
      "Event: could not run tqu_db_upload. Tried %d times in %d seconds, shell try again in %d minutes.\n", // seconds
      rec_tqu_db_upload.max_retry_count, rec_tqu_db_upload.retry_time_threshold_in_sec,
      rec_tqu_db_upload.recovery_time_threshold_in_sec);
}

void check_and_process_sig_chld() {
  const bool signalled = sigchild.exchange(0) != 0; // before the look: what ends after it raises the flag again
  const wllb_hold hold(upload_child_mutex);
  if (signalled && !collect_after_signal())
    return; // somebody else's child; a refused restart waits for the next round
  recover(signalled);
}

// --- stopping -----------------------------------------------------------------------------------------------

// Waits for the child's end, `seconds` at most. One that has ended but was not collected yet counts as gone.
static bool gone_within(pid_t pid, int seconds) {
  using std::chrono::steady_clock;
  const auto limit = steady_clock::now() + std::chrono::seconds(seconds);
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); // -1: looked at once a second
  bool gone = collect(pid) != 0;
  while (!gone && steady_clock::now() < limit) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - steady_clock::now()).count();
    pollfd end = {fd, POLLIN, 0};
    poll(&end, 1, static_cast<int>(std::clamp<int64_t>(left, 0, 1000)));
    gone = collect(pid) != 0;
  }
  if (fd >= 0)
    close(fd);
  return gone;
}

static void stop_by_force(pid_t pid) {
  wllb_trace(1, "Info", "Event: Going to send STOP_COMP_SIG to tqu_db_upload.");
  kill(pid, SIGTERM);
  if (gone_within(pid, upload_stop_seconds))
    return;
  kill(pid, SIGKILL);
  wllb_trace(1, "Error", "Error: stoping tqu_db_upload using by STOP_COMP_SIG is fail, kill by FORCE_STOP_COMP_SIG.");
}

static void let_it_finish(pid_t pid) {
  wllb_trace(1, "Info", "Event: Get EST_POST_PROC_SIG, and going to send EST_POST_PROC_SIG to tqu_db_upload.");
  kill(pid, SIGRTMIN + 3);
  while (!gone_within(pid, 1))
    if (sig_stop_comp)
      return stop_by_force(pid);
  wllb_trace(1, "Info", "Event: tqu_db_upload stop successfully(%d).", pid);
}

void send_test_run_stop_signal_to_tqu_db_upload(int force) {
  const pid_t pid = tqu_db_upload_pid;
  if (pid <= 0) {
    wllb_trace(1, "Info", "Event: tqu_db_upload is not running while send stop signal.");
    return;
  }
  tqu_db_upload_pid = UPLOAD_NOT_TO_RESTART;
  if (force)
    stop_by_force(pid);
  else
    let_it_finish(pid);
}
