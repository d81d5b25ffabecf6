// Runs a program and kills it at its n-th system call that changes a file, before that call is done.
//   In      stop_at_write N PROGRAM ARGUMENT...; N 0: never, only count
//   Out     the number of such calls on standard error's last line, "calls N"; exit status 0 after a kill, else the program's
//   Thread  one; all threads of the program are watched, and its children, whose calls do not count
//   Failure 125 and a line on standard error when processes cannot be watched here
// Calls: write, pwrite64, writev, rename, unlink, mkdir, symlink, ftruncate, openat that makes or empties a file. Those
// on standard output and error do not count.

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr int cannot_watch = 125;

[[noreturn]] static void give_up(const char *what) {
  fprintf(stderr, "stop_at_write: %s: %s\n", what, strerror(errno)); // NOLINT(concurrency-mt-unsafe): one thread
  _exit(cannot_watch);
}

// --- the program's side ------------------------------------------------------------------------------------------

// Only the calls of interest stop; all others run at full speed.
static void watch_calls() {
#define STOP_FOR(call) BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE)
  static sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      STOP_FOR(SYS_write),
      STOP_FOR(SYS_pwrite64),
      STOP_FOR(SYS_writev),
      STOP_FOR(SYS_rename),
      STOP_FOR(SYS_renameat2),
      STOP_FOR(SYS_unlink),
      STOP_FOR(SYS_unlinkat),
      STOP_FOR(SYS_mkdir),
      STOP_FOR(SYS_symlink),
      STOP_FOR(SYS_ftruncate),
      STOP_FOR(SYS_openat),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  static const sock_fprog program = {sizeof filter / sizeof *filter, filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    give_up("seccomp");
}

[[noreturn]] static void become_program(char **argv) {
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
    give_up("ptrace");
  raise(SIGSTOP); // until the watcher has said what it wants
  watch_calls();
  execv(argv[0], argv);
  give_up(argv[0]);
}

// --- the watcher's side ------------------------------------------------------------------------------------------

static bool changes_a_file(const user_regs_struct &call) {
  switch (call.orig_rax) {
  case SYS_write:
  case SYS_writev:
    return call.rdi > 2;
  case SYS_openat:
    return (call.rdx & (O_CREAT | O_TRUNC)) != 0;
  default:
    return true;
  }
}

static long calls;

// True when the call that `thread` is about to make is the one to stop at.
static bool is_the_one(pid_t program, pid_t thread, long n) {
  user_regs_struct call = {};
  if (tgkill(program, thread, 0) != 0 || ptrace(PTRACE_GETREGS, thread, nullptr, &call) != 0 || !changes_a_file(call))
    return false;
  return ++calls == n;
}

// The program is gone when its first thread has been seen off: that is the last to be. Children go with the watcher.
static void kill_program(pid_t program) {
  int status = 0;
  kill(program, SIGKILL);
  for (pid_t seen = 0; seen >= 0 && !(seen == program && WIFSIGNALED(status));)
    seen = waitpid(-1, &status, __WALL);
}

static int watch(pid_t program, long n) {
  for (;;) {
    int status = 0;
    const pid_t thread = waitpid(-1, &status, __WALL);
    if (thread < 0)
      return errno == ECHILD ? 0 : cannot_watch;
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      if (thread != program)
        continue;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int signal = WSTOPSIG(status);
    if (status >> 8 == (SIGTRAP | PTRACE_EVENT_SECCOMP << 8) && is_the_one(program, thread, n)) {
      kill_program(program);
      return 0;
    }
    if (status >> 16 != 0 || signal == SIGSTOP) // an event, or a new thread's first stop
      signal = 0;
    ptrace(PTRACE_CONT, thread, nullptr, static_cast<long>(signal));
  }
}

int main(int argc, char **argv) {
  if (argc < 3) {
    fputs("stop_at_write N PROGRAM ARGUMENT...\n", stderr);
    return cannot_watch;
  }
  const long n = atol(argv[1]);
  const pid_t program = fork();
  if (program < 0)
    give_up("fork");
  if (program == 0)
    become_program(argv + 2);
  int status = 0;
  if (waitpid(program, &status, 0) != program || !WIFSTOPPED(status))
    return cannot_watch;
  const long options = PTRACE_O_EXITKILL | PTRACE_O_TRACESECCOMP | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                       PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC;
  if (ptrace(PTRACE_SETOPTIONS, program, nullptr, options) != 0)
    give_up("ptrace options");
  ptrace(PTRACE_CONT, program, nullptr, nullptr);
  const int end = watch(program, n);
  fprintf(stderr, "calls %ld\n", calls);
  return end;
}
