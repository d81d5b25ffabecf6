// Text, time, file and process helpers, fed with what the outside world may hold.
#include "wllb_util.h"

#include "wllb_test_dir.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

// --- text ---------------------------------------------------------------------------------------------------

TEST(wllb_text, a_shell_reads_a_quoted_text_as_one_word_and_runs_nothing) {
  std::string all_bytes;
  for (int c = 1; c < 256; ++c)
    all_bytes += static_cast<char>(c);
  for (const std::string &text : {all_bytes, std::string(), std::string("'"), std::string("$(id)"), std::string("~")})
    EXPECT_EQ("[" + text + "]", wllb_run_program({"sh", "-c", "printf '[%s]' " + wllb_shell_quote(text)}).output);
  EXPECT_EQ("/a.b/C_1:2@x+y,-z", wllb_shell_quote("/a.b/C_1:2@x+y,-z"));
}

// --- files --------------------------------------------------------------------------------------------------

TEST(wllb_files, mkdir_ex_of_many_threads_meets_itself) {
  const wllb_test_dir dir;
  for (int round = 0; round < 20; ++round) {
    const std::string path = dir / wllb_format("%d/a/b/c/d/e/f/", round);
    int results[4] = {1, 1, 1, 1};
    std::vector<std::thread> threads;
    for (int &result : results)
      threads.emplace_back([&path, &result] { result = mkdir_ex(path.c_str()); });
    for (std::thread &thread : threads)
      thread.join();
    for (const int result : results)
      EXPECT_EQ(0, result);
  }
}

TEST(wllb_files, a_small_file_is_read_up_to_the_limit) {
  const wllb_test_dir dir;
  std::string text(40000, 'a');
  text[17] = '\0';
  put_file(dir / "file", text);
  for (const size_t limit : {0, 16384, 39999, 40000, 40001})
    EXPECT_EQ(text.substr(0, limit), wllb_read_small_file((dir / "file").c_str(), limit));
  EXPECT_NE("", wllb_read_small_file("/proc/self/status")); // told size 0
  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
  for (const std::string &path : {dir / "fifo", dir / "missing", dir.path, std::string("/dev/zero")})
    EXPECT_EQ("", wllb_read_small_file(path.c_str())) << path;
}

// --- programs -----------------------------------------------------------------------------------------------

TEST(wllb_programs, the_exit_status_tells_how_it_ended) {
  EXPECT_EQ(37, wllb_run_program({"sh", "-c", "exit 37"}).exit_status);
  const wllb_run_result killed = wllb_run_program({"sh", "-c", "echo before; kill -9 $$"});
  EXPECT_EQ(0, killed.exit_status);
  EXPECT_EQ("before", killed.last_line);
  const std::pair<std::vector<std::string>, int> bad[] = {{{}, EINVAL}, {{"/no/such", "x"}, ENOENT}, {{"/"}, EACCES}};
  for (const auto &[argv, reason] : bad) {
    EXPECT_EQ(-1, wllb_run_program(argv, "input").exit_status);
    EXPECT_EQ(reason, errno);
  }
}

TEST(wllb_programs, both_outputs_are_kept_and_the_last_line_is_known) {
  EXPECT_EQ("one\ntwo\nthree", wllb_run_program({"sh", "-c", "echo one; echo two >&2; printf three"}).output);
  EXPECT_EQ("[a b][$HOME][][;id]", wllb_run_program({"printf", "[%s]", "a b", "$HOME", "", ";id"}).output);
  const std::pair<const char *, const char *> last_lines[] = {{"", ""}, {"a\nb", "b"}, {"a\nb\n", "b"}, {"a\n\n", ""}};
  for (const auto &[output, last_line] : last_lines)
    EXPECT_EQ(last_line, wllb_run_program({"cat"}, output).last_line) << output;
}

// The input is far more than the buffers of both pipes.
TEST(wllb_programs, signals_that_cut_calls_short_lose_nothing) {
  std::string input;
  while (input.size() < 2000000)
    input += wllb_format("line %zu\n", input.size());
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  struct sigaction before = {};
  sigaction(SIGALRM, &action, &before);
  const itimerval often = {{0, 500}, {0, 500}};
  const itimerval never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  const wllb_run_result kept = wllb_run_program({"cat"}, input);
  const wllb_run_result counted = wllb_run_program({"wc", "-c"}, input);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(0, kept.exit_status);
  EXPECT_TRUE(kept.output == input.substr(0, 1U << 20U));
  EXPECT_EQ(std::to_string(input.size()), counted.last_line);
}

// A SIGPIPE would end this test program, or stay pending and end it later.
TEST(wllb_programs, a_program_that_does_not_read_its_input_harms_nobody) {
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(3, wllb_run_program({"sh", "-c", "exec <&-; sleep 0.02; exit 3"}, std::string(2000000, 'x')).exit_status);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
}

// A pipe end in the wrong child would keep the reader of that pipe waiting for its end.
TEST(wllb_programs, a_program_does_not_inherit_the_pipes_of_another_one) {
  const std::string alone = wllb_run_program({"ls", "/proc/self/fd"}).output;
  std::atomic<bool> ended = false;
  std::thread other([&ended] {
    EXPECT_EQ("text", wllb_run_program({"sh", "-c", "sleep 0.1; cat"}, "text").output);
    ended = true;
  });
  while (!ended)
    EXPECT_EQ(alone, wllb_run_program({"ls", "/proc/self/fd"}).output);
  other.join();
}

static int echo_without_standard_descriptors(int first_closed) {
  for (int fd = first_closed; fd <= STDERR_FILENO; ++fd)
    close(fd);
  return wllb_run_program({"sh", "-c", "cat; echo err >&2"}, "in ").output == "in err\n" ? 0 : 1;
}

TEST(wllb_programs, a_daemon_without_standard_descriptors_can_run_programs) {
  for (int first_closed = STDIN_FILENO; first_closed <= STDERR_FILENO; ++first_closed)
    EXPECT_EXIT(_exit(echo_without_standard_descriptors(first_closed)), testing::ExitedWithCode(0), "");
}

// A child of the test's own: `sleep` under a chosen argument 0. It is runnable a moment before its arguments show.
static pid_t start_sleep_as(std::string name) {
  std::string seconds = "60";
  char *argv[] = {name.data(), seconds.data(), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, argv, environ) != 0)
    abort(); // a signal to process 0 would end all tests
  for (int tries = 0; tries < 5000 && file_text(wllb_format("/proc/%d/cmdline", pid)).empty(); ++tries)
    usleep(1000);
  return pid;
}

// Ends the child with SIGTERM and gives the signal that really ended it.
static int end_and_collect(pid_t pid) {
  int status = 0;
  kill(pid, SIGTERM);
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

// --- processes ----------------------------------------------------------------------------------------------

// A child of the test's own that runs the executable of this process, and does nothing. A new first byte of its name
// shows in /proc.
static pid_t fork_idle(bool first_thread_ends, char first_byte = 0) {
  const pid_t pid = fork();
  for (int tries = 0; pid != 0 && first_byte && tries < 5000 && wllb_process_name(pid)[0] != first_byte; ++tries)
    usleep(1000);
  if (pid != 0)
    return pid;
  if (first_byte)
    program_invocation_short_name[0] = first_byte;
  if (first_thread_ends) {
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void *) -> void * {
          pause();
          return nullptr;
        },
        nullptr);
    syscall(SYS_exit, 0); // this thread alone
  }
  pause();
  _exit(0);
}

// Polls until the child's line in /proc shows this state.
static bool is_in_state(pid_t pid, const char *state) {
  for (int tries = 0; tries < 5000; ++tries, usleep(1000))
    if (file_text(wllb_format("/proc/%d/stat", pid)).find(state) != std::string::npos)
      return true;
  return false;
}

TEST(wllb_processes, a_process_is_alive_until_it_ends) {
  const pid_t child = start_sleep_as("/some/where/sleeper");
  EXPECT_TRUE(wllb_check_pid_alive(child));
  EXPECT_EQ("sleeper", wllb_process_name(child));
  kill(child, SIGTERM);
  EXPECT_TRUE(is_in_state(child, ") Z "));
  EXPECT_FALSE(wllb_check_pid_alive(child)) << "nobody has collected it, but it is gone";
  const pid_t without_first_thread = fork_idle(true);
  EXPECT_TRUE(is_in_state(without_first_thread, ") Z "));
  EXPECT_TRUE(wllb_check_pid_alive(without_first_thread));
  EXPECT_EQ(SIGTERM, end_and_collect(without_first_thread));
  EXPECT_EQ(0, wllb_run_program({"true"}).exit_status); // waits for its own child only
  EXPECT_EQ(SIGTERM, end_and_collect(child));
  EXPECT_FALSE(wllb_check_pid_alive(child));
  EXPECT_EQ("", wllb_process_name(child));
}

class wllb_pid_file : public testing::Test {
protected:
  const wllb_test_dir base_dir;
  const std::string path = base_dir / ".tqp.pid";
  const std::string list_path = base_dir / ".pidfiles/.TQP.pid";
  const std::string own_line = std::to_string(getpid()) + "\n";
  const std::string own_name = wllb_process_name(getpid());
  std::string error = "left over";

  int save() { return wllb_save_pid_ex(base_dir.path.c_str(), "tqp", &error); }
};

TEST_F(wllb_pid_file, both_files_are_written_and_the_first_is_given_to_the_owner_of_the_directory) {
  const bool is_root = geteuid() == 0;
  ASSERT_EQ(0, is_root ? chown(base_dir.path.c_str(), 12345, 23456) : 0);
  EXPECT_EQ(0, save());
  EXPECT_EQ("", error);
  EXPECT_EQ(-1, wllb_save_pid_ex((base_dir / "missing").c_str(), "tqp", &error));
  EXPECT_EQ(own_line + own_line, file_text(path) + file_text(list_path));
  struct stat file = {};
  ASSERT_EQ(0, stat(path.c_str(), &file));
  EXPECT_EQ(is_root ? 12345U : getuid(), file.st_uid);
  EXPECT_EQ(is_root ? 23456U : getgid(), file.st_gid);
}

TEST_F(wllb_pid_file, only_a_live_process_of_this_ones_executable_and_name_is_killed) {
  // Another executable under this one's names; this one under another name; this one.
  for (const std::string &name : {own_name, own_name + "_old", std::string("x"), std::string()}) {
    const int ended_by = name.empty() ? SIGKILL : SIGTERM;
    const pid_t child = name.size() > 1 ? start_sleep_as(name) : fork_idle(false, name[0]);
    put_file(path, std::to_string(child) + "\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, save());
    EXPECT_EQ(ended_by == SIGKILL, !testing::internal::GetCapturedStdout().empty());
    EXPECT_EQ(ended_by, end_and_collect(child)) << name;
    EXPECT_EQ(own_line, file_text(path));
  }
}

// Most of these would end this very process, its group or all processes if they were taken for a pid.
TEST_F(wllb_pid_file, whatever_the_file_holds_nobody_else_is_killed) {
  const std::string group = "-" + std::to_string(getpgrp());
  for (const std::string &text : {std::string(), std::string("abc\n"), std::string("0\n"), std::string("1\n"),
                                  std::string("-1\n"), group, own_line, std::string("99999999999999999999\n"),
                                  std::string("4294967297\n"), std::string(1000000, '9'), std::string("\0\0", 2)}) {
    put_file(path, text);
    EXPECT_EQ(0, save()) << text.substr(0, 40);
    EXPECT_EQ(own_line, file_text(path));
  }
  std::thread([this] { // the id of an own thread is no other process
    put_file(path, std::to_string(gettid()) + "\n");
    EXPECT_EQ(0, save());
  })
      .join();
}
