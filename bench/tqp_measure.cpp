// Runs a program and tells what it took: "wall cpu maxrss_kb", seconds, seconds of user and system, kilobytes.
//   In      a program with its arguments; its standard output goes nowhere
//   Out     one line on standard output
//   Thread  one
//   Failure the exit status of the program; 127 when it cannot be started, 128 and the signal when one ended it
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static double seconds_now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

static double seconds_of(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

[[noreturn]] static void become(char **argv) {
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere >= 0)
    dup2(nowhere, STDOUT_FILENO);
  execvp(argv[0], argv);
  dprintf(STDERR_FILENO, "Could not start %s: errno %d\n", argv[0], errno);
  _exit(127);
}

int main(int argc, char **argv) {
  if (argc < 2) {
    fputs("tqp_measure PROGRAM [ARGUMENT...]\n", stderr);
    return 1;
  }
  const double begin = seconds_now();
  const pid_t child = fork();
  if (child == 0)
    become(argv + 1);
  int status = 0;
  rusage used = {};
  while (child > 0 && wait4(child, &status, 0, &used) < 0 && errno == EINTR) {
  }
  if (child < 0)
    return 127;
  // The peak is that of the program alone only when it is above this small process's own, whose pages it began with.
  printf("%.3f %.3f %ld\n", seconds_now() - begin, seconds_of(used.ru_utime) + seconds_of(used.ru_stime),
         used.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
