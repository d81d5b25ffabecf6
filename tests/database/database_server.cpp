// A database server that belongs to a test; see the header.
#include "database_server.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

database_server::database_server(const std::string &kind) {
  int to[2], from[2];
  if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0)
    return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to[0], 0);
  posix_spawn_file_actions_adddup2(&actions, from[1], 1);
  std::string program = TQP_BINARY_DIR "/private_server", word = kind;
  char *args[] = {program.data(), word.data(), nullptr};
  if (posix_spawn(&child, args[0], &actions, nullptr, args, environ) != 0)
    child = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(to[0]);
  close(from[1]);
  input = to[1];
  output = from[0];
  for (std::string line = read_line(); !line.empty() && url.empty(); line = url.empty() ? read_line() : "") {
    if (line.starts_with("directory "))
      directory = line.substr(10);
    else if (line.starts_with("url "))
      url = line.substr(4);
    else
      why = line;
  }
  if (url.starts_with("postgresql"))
    setenv("PGPASSFILE", (directory + "/passwords").c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
}

database_server::~database_server() {
  close(input);
  close(output);
  if (child > 0)
    waitpid(child, nullptr, 0);
}

std::string database_server::read_line() {
  std::string line;
  for (char c; read(output, &c, 1) == 1 && c != '\n';)
    line += c;
  return line;
}

bool database_server::command(const std::string &words) {
  const std::string line = words + "\n";
  return write(input, line.data(), line.size()) == static_cast<ssize_t>(line.size()) && read_line() == "done";
}

tqdb::load_target database_server::target() const {
  tqdb::load_target made;
  std::string error;
  tqdb::parse_target(url, &made, &error);
  return made;
}
