// private_server: a database server of a test's own, on a free port of the loopback address.
//   In      private_server postgresql|clickhouse|cluster [durable] [DIR]; commands on standard input, a line each:
//             kill N   ends server N at once      stop N   asks it to end      start N  starts it again on its port
//   Out     on standard output: "url URL" when all servers answer, then "done" for each command. DIR/passwords is the
//           file with the user's password (mode 0600) in the form that the engine's client library reads
//   Thread  one
//   Failure status 77 and a line on standard output where the engine is not installed, else status 1
// It ends at the end of its standard input, at SIGTERM, or with the process that started it. The servers end with it, by
// whatever way it ends. Without DIR everything lies in a temporary directory that is removed at the end. PostgreSQL does
// not run as root: a root user's servers run as the account of the package. `cluster` is two ClickHouse servers, on two
// loopback addresses and the same HTTP port, which know each other as the shards of the cluster "two".
#include "wllb_util.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pwd.h>
#include <string>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

enum { SKIPPED = 77, START_SECONDS = 60 };

constexpr char user[] = "tqp", password[] = "pass word: of 'tests'";

struct one_server {
  std::string address; // "127.0.0.1"
  std::string directory;
  std::vector<std::string> argv;
  int tcp_port =
      0; // ClickHouse: one of its own each, for a server takes every address of this machine with its port for itself
  pid_t pid = -1;
};

struct engine {
  bool postgresql = false;
  bool durable = false; // writes reach the disk before they are acknowledged
  int port = 0;         // of clients: libpq's, or HTTP
  uid_t uid = 0;
  gid_t gid = 0;
  std::string directory;
  std::vector<one_server> servers;
};

} // namespace

// --- small parts --------------------------------------------------------------------------------------------------

static void put(const std::string &path, const std::string &text, mode_t mode) {
  std::ofstream(path, std::ios::trunc) << text;
  chmod(path.c_str(), mode);
}

// A port that nobody listens on, on all of the addresses. Somebody else can take it before the server does; then the
// server does not start, and the next port is tried.
static int free_port(size_t addresses) {
  for (int tries = 0; tries < 100; ++tries) {
    int port = 0;
    std::vector<wllb_fd> sockets(addresses);
    bool all = true;
    for (size_t i = 0; i < addresses && all; ++i) {
      sockets[i].reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in here = {};
      here.sin_family = AF_INET;
      here.sin_addr.s_addr = htonl(INADDR_LOOPBACK + static_cast<uint32_t>(i));
      here.sin_port = htons(static_cast<uint16_t>(port));
      socklen_t size = sizeof here;
      all = bind(sockets[i].fd, reinterpret_cast<sockaddr *>(&here), size) == 0;
      getsockname(sockets[i].fd, reinterpret_cast<sockaddr *>(&here), &size);
      port = ntohs(here.sin_port);
    }
    if (all)
      return port;
  }
  return 0;
}

static bool answers(const std::string &address, int port) {
  const wllb_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in there = {};
  there.sin_family = AF_INET;
  there.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &there.sin_addr);
  return connect(fd.fd, reinterpret_cast<sockaddr *>(&there), sizeof there) == 0;
}

// Starts a program as the engine's user; it is killed when this process ends.
static pid_t start_program(const engine &e, const std::vector<std::string> &argv, const std::string &log) {
  const pid_t starter = getpid(), pid = fork();
  if (pid != 0)
    return pid;
  setsid();
  if (geteuid() == 0 && (setgid(e.gid) != 0 || setuid(e.uid) != 0))
    _exit(1);
  prctl(PR_SET_PDEATHSIG, SIGKILL); // after the change of user, which takes it back
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), in = open("/dev/null", O_RDONLY);
  dup2(in, 0);
  dup2(out, 1);
  dup2(out, 2);
  std::vector<char *> words;
  for (const std::string &word : argv)
    words.push_back(const_cast<char *>(word.c_str())); // NOLINT(cppcoreguidelines-pro-type-const-cast): execv's type
  words.push_back(nullptr);
  if (getppid() == starter && chdir(e.directory.c_str()) == 0)
    execv(words[0], words.data());
  _exit(1);
}

static bool run_program(const engine &e, const std::vector<std::string> &argv) {
  int status = 1;
  const pid_t pid = start_program(e, argv, e.directory + "/log");
  return pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

static void nap() {
  poll(nullptr, 0, 10);
}

// --- the engines ----------------------------------------------------------------------------------------------------

static std::string postgresql_programs() {
  std::string newest;
  std::error_code ignored;
  for (const auto &entry : fs::directory_iterator("/usr/lib/postgresql", ignored))
    if (fs::exists(entry.path() / "bin/postgres"))
      newest = std::max(newest, entry.path().string() + "/bin/");
  return newest;
}

static bool make_postgresql(engine *e, const std::string &programs) {
  put(e->directory + "/password", std::string(password) + "\n", 0644); // only while the data directory is made
  const std::string data = e->directory + "/data";
  const bool made = run_program(*e, {programs + "initdb", "-D", data, "-U", user, "-A", "scram-sha-256", "--pwfile",
                                     e->directory + "/password", "-N", "-E", "UTF8", "--locale=C.UTF-8"});
  fs::remove(e->directory + "/password");
  const std::string passwords = e->directory + "/passwords";
  put(passwords, std::string("127.0.0.1:*:*:") + user + ":pass word\\: of 'tests'\n", 0600);
  e->servers = {{"127.0.0.1", data, {}, 0, -1}};
  e->servers[0].argv = {programs + "postgres",
                        "-D",
                        data,
                        "-c",
                        "listen_addresses=127.0.0.1",
                        "-c",
                        "unix_socket_directories=",
                        "-c",
                        "port=" + std::to_string(e->port),
                        "-c",
                        std::string("fsync=") + (e->durable ? "on" : "off"),
                        "-c",
                        "max_wal_size=1GB"};
  return made && (geteuid() != 0 || chown(passwords.c_str(), e->uid, e->gid) == 0);
}

static std::string clickhouse_config(const engine &e, const one_server &server) {
  std::string shards;
  for (const one_server &shard : e.servers)
    shards += wllb_format("<shard><internal_replication>true</internal_replication><replica><host>%s</host>"
                          "<port>%d</port><user>%s</user><password>%s</password></replica></shard>",
                          shard.address.c_str(), shard.tcp_port, user, password);
  const char *dir = server.directory.c_str();
  return wllb_format(
      "<?xml version=\"1.0\"?>\n<yandex><logger><level>warning</level><console>1</console></logger>"
      "<http_port>%d</http_port><tcp_port>%d</tcp_port><listen_host>%s</listen_host><path>%s/data/</path>"
      "<tmp_path>%s/tmp/</tmp_path><users_config>%s/users.xml</users_config><default_profile>default</default_profile>"
      "<default_database>default</default_database><timezone>UTC</timezone><mark_cache_size>67108864</mark_cache_size>"
      "<remote_servers><two>%s</two></remote_servers></yandex>\n",
      e.port, server.tcp_port, server.address.c_str(), dir, dir, dir, shards.c_str());
}

static void make_clickhouse(engine *e, size_t servers) {
  e->servers.clear();
  for (size_t i = 0; i < servers; ++i)
    e->servers.push_back(
        {"127.0.0." + std::to_string(i + 1), e->directory + "/" + std::to_string(i), {}, free_port(1), -1});
  for (one_server &server : e->servers) {
    fs::create_directories(server.directory + "/data");
    fs::create_directories(server.directory + "/tmp");
    put(server.directory + "/config.xml", clickhouse_config(*e, server), 0600);
    put(server.directory + "/users.xml",
        std::string("<yandex><profiles><default></default></profiles><users><") + user + "><password>" + password +
            "</password><networks><ip>127.0.0.0/8</ip></networks><profile>default</profile><quota>default</quota></" +
            user + "></users><quotas><default></default></quotas></yandex>\n",
        0600);
    server.argv = {"/usr/sbin/clickhouse-server", "--config-file=" + server.directory + "/config.xml"};
  }
  put(e->directory + "/passwords", std::string(user) + ":" + password + "\n", 0600);
}

// --- starting and ending -----------------------------------------------------------------------------------------------

static bool start_server(const engine &e, one_server *server) {
  const time_t limit = time(nullptr) + START_SECONDS;
  while (time(nullptr) < limit) {
    if (server->pid < 0)
      server->pid = start_program(e, server->argv, e.directory + "/log");
    if (waitpid(server->pid, nullptr, WNOHANG) == server->pid)
      server->pid = -1; // what an earlier one held (a port, shared memory) may not be free yet
    else if (answers(server->address, e.port))
      return true;
    nap();
  }
  return false;
}

static void end_server(one_server *server, int signal) {
  if (server->pid > 0) {
    kill(server->pid, signal);
    waitpid(server->pid, nullptr, 0);
  }
  server->pid = -1;
}

static bool start_all(engine *e, const std::string &programs, size_t servers) {
  for (int tries = 0; tries < 5; ++tries) {
    e->port = free_port(servers);
    if (!e->postgresql)
      make_clickhouse(e, servers);
    else if (e->servers.empty() && !make_postgresql(e, programs))
      return false;
    if (e->postgresql)
      e->servers[0].argv[8] = "port=" + std::to_string(e->port);
    bool all = true;
    for (one_server &server : e->servers)
      all = all && start_server(*e, &server);
    if (all)
      return true;
    for (one_server &server : e->servers)
      end_server(&server, SIGKILL);
  }
  return false;
}

// PostgreSQL listens before it takes queries; the database is made when it does.
static bool make_database(const engine &e, const std::string &programs) {
  if (!e.postgresql)
    return true;
  setenv("PGPASSFILE", (e.directory + "/passwords").c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
  const time_t limit = time(nullptr) + START_SECONDS;
  while (time(nullptr) < limit) {
    if (run_program(e, {programs + "createdb", "-h", "127.0.0.1", "-p", std::to_string(e.port), "-U", user, "tqp"}))
      return true;
    nap();
  }
  return false;
}

static std::string url_of(const engine &e) {
  const std::string port = std::to_string(e.port);
  return e.postgresql ? std::string("postgresql://") + user + "@127.0.0.1:" + port + "/tqp"
                      : "clickhouse://127.0.0.1:" + port + "/tqp?password_file=" + e.directory + "/passwords" +
                            (e.servers.size() > 1 ? "&cluster=two" : "");
}

// --- commands ---------------------------------------------------------------------------------------------------------

static bool run_command(engine *e, const char *line) {
  char word[16];
  size_t number = 0;
  if (sscanf(line, "%15s %zu", word, &number) != 2 || number >= e->servers.size())
    return false;
  one_server *server = &e->servers[number];
  const std::string command = word;
  if (command == "start")
    return start_server(*e, server);
  end_server(server, command == "kill" ? SIGKILL : command == "stop" && e->postgresql ? SIGINT : SIGTERM);
  return true;
}

static void serve(engine *e) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  const wllb_fd signals(signalfd(-1, &set, SFD_CLOEXEC));
  std::string pending;
  char block[256];
  while (true) {
    pollfd sides[] = {{0, POLLIN, 0}, {signals.fd, POLLIN, 0}};
    poll(sides, 2, -1);
    const ssize_t got = sides[1].revents ? 0 : read(0, block, sizeof block);
    if (got <= 0)
      return;
    pending.append(block, static_cast<size_t>(got));
    for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
      puts(run_command(e, pending.substr(0, end).c_str()) ? "done" : "failed");
      fflush(stdout);
    }
  }
}

static int not_installed(const char *what) {
  printf("skipped: %s is not installed\n", what);
  return SKIPPED;
}

int main(int argc, char **argv) {
  const std::string kind = argc > 1 ? argv[1] : "";
  engine e;
  e.postgresql = kind == "postgresql";
  e.durable = argc > 2 && strcmp(argv[2], "durable") == 0;
  if (!e.postgresql && kind != "clickhouse" && kind != "cluster") {
    fputs("private_server postgresql|clickhouse|cluster [durable] [DIR]\n", stderr);
    return 1;
  }
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  const std::string programs = postgresql_programs();
  if (e.postgresql ? programs.empty() : access("/usr/sbin/clickhouse-server", X_OK) != 0)
    return not_installed(e.postgresql ? "postgresql" : "clickhouse-server");
  const passwd *account = e.postgresql && geteuid() == 0 ? getpwnam("postgres") : nullptr;
  if (account) {
    e.uid = account->pw_uid;
    e.gid = account->pw_gid;
  } else if (e.postgresql && geteuid() == 0) {
    return not_installed("an account for postgresql");
  }
  const int dir_at = e.durable ? 3 : 2;
  char made[] = "/tmp/tqp_server_XXXXXX";
  e.directory = argc > dir_at ? argv[dir_at] : mkdtemp(made);
  if (chown(e.directory.c_str(), e.uid, e.gid) != 0 && geteuid() == 0)
    return 1;
  bool good = start_all(&e, programs, kind == "cluster" ? 2 : 1);
  good = good && make_database(e, programs);
  if (good) {
    printf("directory %s\nurl %s\n", e.directory.c_str(), url_of(e).c_str());
    fflush(stdout);
    serve(&e);
  } else {
    fprintf(stderr, "private_server: %s did not start:\n%s\n", kind.c_str(),
            wllb_read_small_file((e.directory + "/log").c_str()).c_str());
  }
  for (one_server &server : e.servers)
    end_server(&server, e.postgresql ? SIGINT : SIGKILL);
  std::error_code ignored;
  if (argc <= dir_at)
    fs::remove_all(e.directory, ignored);
  return good ? 0 : 1;
}
