// The test run on disk and the program over it; see the header.

#include "test_run.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

extern char **environ;

// --- records ----------------------------------------------------------------------------------------------------

std::string identity(const std::string &instance, int tier, int server, int app) {
  std::string names = instance;
  std::replace(names.begin(), names.end(), '_', ',');
  return "0," + names + "," + std::to_string(tier) + "," + std::to_string(server) + "," + std::to_string(app) + "\n";
}

std::string method(int local_id, const std::string &name) {
  return "5," + name + "," + std::to_string(local_id) + "\n";
}

// --- a running program -------------------------------------------------------------------------------------------

running_program::running_program(std::vector<std::string> argv, std::string where) : output_path(std::move(where)) {
  std::vector<char *> args;
  for (std::string &arg : argv)
    args.push_back(arg.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, (output_path + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, (output_path + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (posix_spawn(&child, args[0], &actions, nullptr, args.data(), environ) != 0) {
    ADD_FAILURE() << "cannot start " << argv[0];
    child = -1;
    over = true;
  }
  posix_spawn_file_actions_destroy(&actions);
}

running_program::~running_program() {
  if (child > 0 && !is_over()) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
}

void running_program::signal(int number) const {
  if (child > 0) // else it did not start, and the call would reach every process there is
    kill(child, number);
}

bool running_program::is_over() {
  if (!over && waitpid(child, &status, WNOHANG) == child)
    over = true;
  return over;
}

program_end running_program::wait(int seconds) {
  if (!eventually([this] { return is_over(); }, seconds)) {
    ADD_FAILURE() << "the program did not end within " << seconds << " s";
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    over = true;
  }
  program_end end;
  if (child > 0)
    end.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  end.output = file_text(output_path + ".out");
  end.errors = file_text(output_path + ".err");
  return end;
}

// --- the test run -------------------------------------------------------------------------------------------------

tqp_test_run::tqp_test_run() {
  char made[] = "/tmp/tqp_run_XXXXXX";
  directory = mkdtemp(made);
  fs::create_directories(directory + "/logs/TR1234");
  fs::create_directories(directory + "/webapps");
  fs::create_symlink("../logs", directory + "/webapps/logs");
  keywords("");
  make_partitions({first_partition});
}

tqp_test_run::~tqp_test_run() {
  std::error_code ignored;
  fs::remove_all(directory, ignored);
}

void tqp_test_run::make_partitions(const std::vector<std::string> &names) {
  partitions = names;
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string prev = i > 0 ? names[i - 1] : "0";
    const std::string next = i + 1 < names.size() ? names[i + 1] : "0";
    put_file(path(names[i] + "/.partition_info.txt"),
             "FirstPartition=" + names[0] + "\nStartPartition=" + names[0] + "\nCurrentPartition=" + names[i] +
                 "\nPreviousPartition=" + prev + "\nNextPartition=" + next + "\nVersion=1\n");
    fs::create_directories(path(names[i] + "/tq/raw_data"));
  }
  put_file(path(".curPartition"), "CurPartitionIdx=" + names.back() + "\n");
  struct tm begin = {}; // times in raw data count from the first partition's begin
  strptime(names[0].c_str(), "%Y%m%d%H%M%S", &begin);
  put_file(path(".vex_epoch.diff"), std::to_string(timegm(&begin)));
}

void tqp_test_run::keywords(const std::string &lines) const {
  put_file(path("tq/conf/tqprof/default/TQKeywords.conf"), lines);
}

std::string tqp_test_run::raw_path(const std::string &instance, const std::string &partition) const {
  return path((partition.empty() ? partitions.back() : partition) + "/tq/raw_data/" + instance + ".txt");
}

void tqp_test_run::raw(const std::string &text, const std::string &instance, const std::string &partition) const {
  put_file(raw_path(instance, partition), text);
}

void tqp_test_run::append_raw(const std::string &text, const std::string &instance,
                              const std::string &partition) const {
  put_file(raw_path(instance, partition), text, std::ios::app);
}

std::vector<std::string> tqp_test_run::argv_of(const std::vector<std::string> &options, bool with_parent) const {
  std::vector<std::string> argv = {std::string(TQP_BINARY_DIR) + "/tqp", "-t", "1234", "-W", directory, "-m", "0"};
  if (with_parent)
    argv.insert(argv.end(), {"-N", std::to_string(getpid())});
  argv.insert(argv.end(), options.begin(), options.end());
  return argv;
}

program_end tqp_test_run::run(const std::vector<std::string> &options) {
  return running_program(argv_of(options, false), directory + "/tqp").wait();
}

std::unique_ptr<running_program> tqp_test_run::start(const std::vector<std::string> &options) {
  return std::make_unique<running_program>(argv_of(options, true), directory + "/tqp");
}

std::string tqp_test_run::read(const std::string &below) const {
  return file_text(path(below));
}

std::string tqp_test_run::common(const std::string &name) const {
  return read("tq/csv/" + name);
}

std::string tqp_test_run::data(const std::string &name, const std::string &partition) const {
  return read((partition.empty() ? partitions.back() : partition) + "/tq/csv/Tier_Server_App/" + name);
}

std::string tqp_test_run::trace(const std::string &partition) const {
  return read((partition.empty() ? partitions.back() : partition) + "/tq/logs/tqp_trace.log");
}

int64_t tqp_test_run::counted(const std::string &label, const std::string &partition) const {
  int64_t sum = 0;
  for (const std::string &line :
       lines_of(read((partition.empty() ? partitions.back() : partition) + "/tq/logs/tqp_summary_report.txt")))
    if (line.rfind(label + ": ", 0) == 0)
      sum += std::stoll(line.substr(label.size() + 2));
  return sum;
}

long tqp_test_run::saved_offset(const std::string &instance, const std::string &partition) const {
  return atol(
      read((partition.empty() ? partitions.back() : partition) + "/tq/raw_data/." + instance + ".txt.offset").c_str());
}

int occurrences(const std::string &text, const std::string &words) {
  int count = 0;
  for (size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1))
    ++count;
  return count;
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

bool eventually(const std::function<bool()> &condition, int seconds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
