// Plays the collector and the parent for one live partition switch.
//   In      announce_switch RUN FIRST SECOND PROGRAM ARGUMENT...; RUN is a test run's directory with raw data in both
//           partitions, and with files NAME.next: what takes the place of NAME when SECOND begins
//   Out     the program runs with "-l PORT -N PID" behind its arguments, which lead here; the exit status is its own
//   Thread  one
//   Failure 125 and a line on standard error, after a minute also for a program that does not get on
// Once FIRST has been saved by every instance, SECOND begins and is announced; once every instance has entered it, the
// test is over. A program that ends by itself meanwhile leaves SECOND begun all the same.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

constexpr int gave_up = 125;
constexpr int round_ms = 2;
constexpr int most_rounds = 60000 / round_ms;

[[noreturn]] static void give_up(const char *what) {
  fprintf(stderr, "announce_switch: %s\n", what);
  _exit(gave_up);
}

// --- the test run -------------------------------------------------------------------------------------------------

struct run_t {
  fs::path dir;
  std::string first, second;
};

static void begin_second(const run_t &run) {
  std::error_code error;
  for (const fs::path &file : {run.dir / ".curPartition", run.dir / run.first / ".partition_info.txt"})
    fs::rename(file.string() + ".next", file, error); // the second time there is none
}

// True when every raw file of the partition has its offset file, and with `saved` a number in it.
static bool all_instances_are_in(const run_t &run, const std::string &partition, bool saved) {
  std::error_code error;
  for (const fs::directory_entry &entry : fs::directory_iterator(run.dir / partition / "tq/raw_data", error)) {
    const std::string name = entry.path().filename();
    if (name.front() == '.')
      continue;
    const auto size = fs::file_size(entry.path().parent_path() / ("." + name + ".offset"), error);
    if (error || (saved && size == 0))
      return false;
  }
  return !error;
}

// --- the program --------------------------------------------------------------------------------------------------

static pid_t start(std::vector<char *> words, int port) {
  std::string parent = std::to_string(getpid()), at = std::to_string(port), l = "-l", n = "-N";
  for (std::string *word : {&l, &at, &n, &parent})
    words.push_back(word->data());
  words.push_back(nullptr);
  const pid_t child = fork();
  if (child < 0)
    give_up("fork");
  if (child > 0)
    return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  execv(words[0], words.data());
  give_up(words[0]);
}

// The port it listens on.
static int listen_on(int fd) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto *const any = reinterpret_cast<sockaddr *>(&address);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, any, length) != 0 || listen(fd, 8) != 0 || getsockname(fd, any, &length) != 0)
    give_up("no port");
  return ntohs(address.sin_port);
}

// What the program has said of itself on its control connection; the first line tells its pid.
struct peer_t {
  int listener;
  int fd = -1;
  std::string said;
};

static pid_t pid_of(const peer_t &peer) {
  const char *const at = strstr(peer.said.c_str(), ";TQP_PID=");
  return at && strchr(at, '\n') ? atoi(at + strlen(";TQP_PID=")) : 0;
}

// Waits a round at most, less when the program says something.
static void hear(peer_t *peer) {
  pollfd poll_fd = {peer->fd >= 0 ? peer->fd : peer->listener, POLLIN, 0};
  if (pid_of(*peer) > 0)
    poll_fd.fd = -1; // nothing more is expected
  if (poll(&poll_fd, 1, round_ms) < 1)
    return;
  char text[512];
  if (peer->fd < 0)
    peer->fd = accept(peer->listener, nullptr, nullptr);
  else if (const ssize_t got = read(peer->fd, text, sizeof text); got > 0)
    peer->said.append(text, static_cast<size_t>(got));
}

static void announce_second(const run_t &run, const peer_t &peer) {
  begin_second(run);
  const std::string line = "tq_control_msg:action=test_run_switch;PARTITION_NAME=" + run.second + "\n";
  if (send(peer.fd, line.data(), line.size(), MSG_NOSIGNAL) < 0)
    fputs("announce_switch: the program has gone\n", stderr);
}

// The program's exit status.
static int attend(const run_t &run, peer_t *peer, pid_t child) {
  enum { IN_FIRST, IN_SECOND, OVER } state = IN_FIRST;

  for (int round = 0; round < most_rounds; ++round) {
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child)
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    hear(peer);
    if (pid_of(*peer) <= 0)
      continue;
    if (state == IN_FIRST && all_instances_are_in(run, run.first, true)) {
      announce_second(run, *peer);
      state = IN_SECOND;
    } else if (state == IN_SECOND && all_instances_are_in(run, run.second, false)) {
      kill(pid_of(*peer), SIGRTMIN + 3);
      state = OVER;
    }
  }
  fputs("announce_switch: a minute is over\n", stderr);
  kill(child, SIGKILL);
  return gave_up;
}

int main(int argc, char **argv) {
  if (argc < 5)
    give_up("RUN FIRST SECOND PROGRAM ARGUMENT...");
  const run_t run = {argv[1], argv[2], argv[3]};
  peer_t peer = {socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), -1, {}};
  const int port = listen_on(peer.listener);
  const int status = attend(run, &peer, start({argv + 4, argv + argc}, port));
  begin_second(run);
  return status;
}
