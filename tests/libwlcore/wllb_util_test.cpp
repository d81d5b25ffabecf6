// Text, time, file and process helpers, fed with what the outside world may hold.
#include "wllb_util.h"

#include "wllb_test_dir.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

// --- text ---------------------------------------------------------------------------------------------------

TEST(wllb_text, a_formatted_text_may_be_of_any_length) {
  for (const size_t len : {0, 1, 509, 510, 511, 512, 513, 5000}) {
    const std::string word(len, 'x');
    EXPECT_EQ(word + "|-7", wllb_format("%s|%d", word.c_str(), -7));
  }
}

TEST(wllb_text, a_copy_stays_within_its_room) {
  const std::string text = "abcdef";
  for (size_t size = 1; size <= 10; ++size) {
    std::string room(16, '#');
    wllb_copy_text(room.data(), size, text);
    EXPECT_EQ(text.substr(0, size - 1), room.c_str());
    EXPECT_EQ(std::string(16 - size, '#'), room.substr(size));
  }
  char empty[4] = "old";
  wllb_copy_text(empty, sizeof empty, {});
  EXPECT_STREQ("", empty);
}

TEST(wllb_text, only_digits_are_numeric) {
  for (const char *good : {"0", "9", "007", "99999999999999999999999999"})
    EXPECT_TRUE(wllb_is_numeric(good)) << good;
  for (const char *bad : {"", "-1", "+1", " 1", "1 ", "1.5", "0x1", "12a", "\xb2"})
    EXPECT_FALSE(wllb_is_numeric(bad)) << bad;
  EXPECT_FALSE(wllb_is_numeric(std::string_view("1\0", 2)));
}

static std::vector<std::string> tokens(std::string line, const char *delimiters, int max_fields) {
  std::vector<char *> fields(static_cast<size_t>(std::max(max_fields, 0)));
  const int count = get_tokens_with_multi_delimiter(line.data(), fields.data(), delimiters, max_fields);
  return {fields.begin(), fields.begin() + count};
}

TEST(wllb_text, tokens_keep_empty_fields_and_the_last_one_keeps_the_rest) {
  using list = std::vector<std::string>;
  EXPECT_EQ(list({"a", "b", "c"}), tokens("a,b:c", ",:", 9));
  EXPECT_EQ(list({"", "a", "", "", "b", ""}), tokens(",a,::b,", ",:", 9));
  EXPECT_EQ(list({""}), tokens("", ",", 9));
  EXPECT_EQ(list({"a", "b,c,,d"}), tokens("a,b,c,,d", ",", 2));
  EXPECT_EQ(list({"a,b"}), tokens("a,b", ",", 1));
  EXPECT_EQ(list({"a,b"}), tokens("a,b", "", 9));
  EXPECT_EQ(list(), tokens("a,b", ",", 0));
  EXPECT_EQ(list(), tokens("a,b", ",", -1));
}

TEST(wllb_text, words_are_parted_by_any_white_space) {
  using list = std::vector<std::string>;
  EXPECT_EQ(list({"a", "bc", "d"}), wllb_words(" \ta\n\r\vbc\f d \n", 9));
  EXPECT_EQ(list({"a", "b"}), wllb_words("a b c", 2));
  EXPECT_EQ(list(), wllb_words("a", 0));
  for (const char *none : {"", " ", "\t\n"})
    EXPECT_EQ(list(), wllb_words(none, 9));
}

TEST(wllb_text, a_shell_reads_a_quoted_text_as_one_word_and_runs_nothing) {
  std::string all_bytes;
  for (int c = 1; c < 256; ++c)
    all_bytes += static_cast<char>(c);
  for (const std::string &text : {all_bytes, std::string(), std::string("'"), std::string("''a'"), std::string("$(id)"),
                                  std::string("`id`;id"), std::string("a b\n"), std::string("*"), std::string("~")}) {
    const wllb_run_result shell = wllb_run_program({"sh", "-c", "printf '[%s]' " + wllb_shell_quote(text)});
    EXPECT_EQ("[" + text + "]", shell.output);
  }
  EXPECT_EQ("/a.b/C_1:2@x+y,-z", wllb_shell_quote("/a.b/C_1:2@x+y,-z"));
}

TEST(wllb_text, an_errno_value_has_words) {
  EXPECT_EQ("No such file or directory", wllb_strerror(ENOENT));
  EXPECT_EQ("Unknown error 99999", wllb_strerror(99999));
}

// --- time ---------------------------------------------------------------------------------------------------

TEST(wllb_time, all_time_comes_from_the_one_clock) {
  int64_t (*const before)() = wllb_clock_ms;
  EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(wllb_now()), 2.0);
  wllb_clock_ms = [] { return int64_t{1795383000999}; };
  EXPECT_EQ(1795383000999, get_ms_stamp_tqp());
  EXPECT_EQ(1795383000, wllb_now());
  wllb_clock_ms = before;
}

TEST(wllb_time, local_time_follows_the_time_zone) {
  const char *was = getenv("TZ");
  const std::string zone = was ? was : "";
  setenv("TZ", "XYZ-5:30", 1); // east of Greenwich
  tzset();
  EXPECT_EQ("1970-01-02 05:30:01", wllb_local_time_text("%Y-%m-%d %H:%M:%S", 86401));
  EXPECT_EQ("", wllb_local_time_text("%Y", INT64_MAX)); // a year that no number holds
  if (was)
    setenv("TZ", zone.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

// --- files --------------------------------------------------------------------------------------------------

TEST(wllb_files, mkdir_ex_makes_all_directories_up_to_the_last_slash) {
  const wllb_test_dir dir;
  for (const char *path : {"a/b/c/file", "a/b/c/file", "d/", "e//f///file", "plain"})
    EXPECT_EQ(0, mkdir_ex((dir / path).c_str())) << path;
  for (const char *made : {"a/b/c", "d", "e/f"})
    EXPECT_TRUE(wllb_is_directory((dir / made).c_str())) << made;
  for (const char *not_made : {"a/b/c/file", "e/f/file", "plain"})
    EXPECT_FALSE(wllb_path_exists((dir / not_made).c_str())) << not_made;
  for (const char *nothing_to_make : {"", "name", "/", "/name"})
    EXPECT_EQ(0, mkdir_ex(nothing_to_make)) << nothing_to_make;
}

TEST(wllb_files, mkdir_ex_tells_when_a_file_is_in_the_way) {
  const wllb_test_dir dir;
  wllb_test_write(dir / "file", "x");
  for (const char *path : {"file/", "file/a/b", "file/a/"}) {
    errno = 0;
    EXPECT_EQ(-1, mkdir_ex((dir / path).c_str())) << path;
    EXPECT_EQ(ENOTDIR, errno) << path;
  }
  EXPECT_EQ("x", wllb_test_read(dir / "file"));
}

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
  wllb_test_write(dir / "file", text);
  for (const size_t limit : {0, 1, 16384, 39999, 40000, 40001})
    EXPECT_EQ(text.substr(0, limit), wllb_read_small_file((dir / "file").c_str(), limit));
  EXPECT_EQ(text, wllb_read_small_file((dir / "file").c_str()));
  EXPECT_NE("", wllb_read_small_file("/proc/self/status")); // told size 0
}

TEST(wllb_files, what_is_no_regular_file_reads_as_empty_at_once) {
  const wllb_test_dir dir;
  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
  for (const std::string &path : {dir / "fifo", dir / "missing", dir.path, std::string("/dev/zero"), std::string()})
    EXPECT_EQ("", wllb_read_small_file(path.c_str())) << path;
}

TEST(wllb_files, a_base_name_has_no_directories) {
  for (const char *path : {"name", "/name", "a/b/name", "//name"})
    EXPECT_STREQ("name", wllb_base_name(path));
  EXPECT_STREQ("", wllb_base_name("a/"));
}

// --- programs -----------------------------------------------------------------------------------------------

static size_t open_descriptors() {
  size_t count = 0;
  for (int fd = 0; fd < 1024; ++fd)
    count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

TEST(wllb_programs, the_exit_status_tells_how_it_ended) {
  EXPECT_EQ(0, wllb_run_program({"true"}).exit_status);
  EXPECT_EQ(1, wllb_run_program({"false"}).exit_status);
  EXPECT_EQ(37, wllb_run_program({"sh", "-c", "exit 37"}).exit_status);
  const wllb_run_result killed = wllb_run_program({"sh", "-c", "echo before; kill -9 $$"});
  EXPECT_EQ(0, killed.exit_status);
  EXPECT_EQ("before", killed.last_line);
}

TEST(wllb_programs, a_program_that_cannot_be_started_gives_minus_one_and_the_reason) {
  const wllb_test_dir dir;
  wllb_test_write(dir / "not_executable", "text");
  const std::vector<std::pair<std::vector<std::string>, int>> bad = {
      {{}, EINVAL}, {{"/no/such/program", "x"}, ENOENT}, {{""}, ENOENT}, {{dir / "not_executable"}, EACCES}};
  for (const auto &[argv, reason] : bad) {
    const wllb_run_result result = wllb_run_program(argv, "input");
    EXPECT_EQ(reason, errno);
    EXPECT_EQ(-1, result.exit_status);
    EXPECT_EQ("", result.output);
  }
}

TEST(wllb_programs, both_outputs_are_kept_and_the_last_line_is_known) {
  const wllb_run_result both = wllb_run_program({"sh", "-c", "echo one; echo two >&2; printf three"});
  EXPECT_EQ("one\ntwo\nthree", both.output);
  const std::vector<std::pair<std::string, std::string>> last_lines = {
      {"", ""}, {"a", "a"}, {"a\n", "a"}, {"a\nb", "b"}, {"a\nb\n", "b"}, {"a\n\n", ""}, {"\n", ""}};
  for (const auto &[output, last_line] : last_lines)
    EXPECT_EQ(last_line, wllb_run_program({"cat"}, output).last_line) << output;
}

TEST(wllb_programs, arguments_reach_the_program_as_they_are) {
  EXPECT_EQ("[a b][$HOME][][;id]", wllb_run_program({"printf", "[%s]", "a b", "$HOME", "", ";id"}).output);
}

// Far more than the buffers of both pipes.
static std::string two_megabytes() {
  std::string input;
  while (input.size() < 2000000)
    input += wllb_format("line %zu\n", input.size());
  return input;
}

TEST(wllb_programs, two_megabytes_go_through_and_one_is_kept) {
  const std::string input = two_megabytes();
  const wllb_run_result kept = wllb_run_program({"cat"}, input);
  EXPECT_EQ(0, kept.exit_status);
  EXPECT_TRUE(kept.output == input.substr(0, 1U << 20U));
}

TEST(wllb_programs, signals_that_cut_calls_short_lose_nothing) {
  const std::string input = two_megabytes();
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  struct sigaction before = {};
  sigaction(SIGALRM, &action, &before);
  const itimerval often = {{0, 500}, {0, 500}};
  const itimerval never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  const wllb_run_result kept = wllb_run_program({"cat"}, input);
  const wllb_run_result counted = wllb_run_program({"wc", "-c"}, input);
  const wllb_run_result slow = wllb_run_program({"sh", "-c", "sleep 0.05; exit 5"});
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(0, kept.exit_status);
  EXPECT_TRUE(kept.output == input.substr(0, 1U << 20U));
  EXPECT_EQ(std::to_string(input.size()), counted.last_line);
  EXPECT_EQ(5, slow.exit_status);
}

// A SIGPIPE would end this test program, or stay pending and end it later.
TEST(wllb_programs, a_program_that_does_not_read_its_input_harms_nobody) {
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(0, wllb_run_program({"true"}, std::string(2000000, 'x')).exit_status);
  EXPECT_EQ(3, wllb_run_program({"sh", "-c", "exec <&-; sleep 0.02; exit 3"}, std::string(2000000, 'x')).exit_status);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(0, sigismember(&mask, SIGPIPE));
}

TEST(wllb_programs, without_input_the_program_reads_nothing) {
  EXPECT_EQ(0, wllb_run_program({"cat"}).exit_status);
  EXPECT_EQ("/dev/null", wllb_run_program({"readlink", "/proc/self/fd/0"}).last_line);
}

TEST(wllb_programs, a_program_starts_with_default_signals) {
  sigset_t some;
  sigset_t before;
  sigemptyset(&some);
  sigaddset(&some, SIGTERM);
  sigaddset(&some, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &some, &before);
  signal(SIGPIPE, SIG_IGN);
  const std::string status = wllb_run_program({"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"}).output;
  signal(SIGPIPE, SIG_DFL);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  unsigned long long blocked = 1;
  unsigned long long ignored = ~0ULL;
  ASSERT_EQ(2, sscanf(status.c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored)) << status;
  EXPECT_EQ(0U, blocked);
  EXPECT_EQ(0U, ignored & (1ULL << (SIGPIPE - 1)));
}

TEST(wllb_programs, no_descriptor_is_left_open) {
  const size_t before = open_descriptors();
  for (int i = 0; i < 20; ++i) {
    wllb_run_program({"true"}, "input");
    wllb_run_program({"no_such_program_here"}, "input");
  }
  EXPECT_EQ(before, open_descriptors());
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
  EXPECT_EQ(0, posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, argv, environ));
  for (int tries = 0; tries < 5000 && wllb_test_read(wllb_format("/proc/%d/cmdline", pid)).empty(); ++tries)
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

TEST(wllb_programs, the_end_of_another_child_stays_to_be_collected) {
  const pid_t other = start_sleep_as("other");
  kill(other, SIGTERM);
  EXPECT_EQ(0, wllb_run_program({"true"}).exit_status);
  EXPECT_EQ(SIGTERM, end_and_collect(other));
}

// --- processes ----------------------------------------------------------------------------------------------

TEST(wllb_processes, a_process_is_alive_until_it_is_collected) {
  const pid_t child = start_sleep_as("/some/where/sleeper");
  EXPECT_TRUE(wllb_check_pid_alive(child));
  EXPECT_EQ("sleeper", wllb_process_name(child));
  end_and_collect(child);
  EXPECT_FALSE(wllb_check_pid_alive(child));
  EXPECT_EQ("", wllb_process_name(child));
  EXPECT_FALSE(wllb_check_pid_alive(0));
  EXPECT_TRUE(wllb_check_pid_alive(getpid()));
  EXPECT_TRUE(wllb_check_pid_alive(1)); // perhaps somebody else's
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
  for (int times = 0; times < 2; ++times) {
    EXPECT_EQ(0, save());
    EXPECT_EQ("", error);
    EXPECT_EQ(own_line, wllb_test_read(path));
    EXPECT_EQ(own_line, wllb_test_read(list_path));
  }
  struct stat file = {};
  ASSERT_EQ(0, stat(path.c_str(), &file));
  EXPECT_EQ(is_root ? 12345U : getuid(), file.st_uid);
  EXPECT_EQ(is_root ? 23456U : getgid(), file.st_gid);
}

TEST_F(wllb_pid_file, a_live_process_whose_name_begins_like_this_ones_is_killed) {
  for (const std::string &name : {own_name, own_name + "_old", "/other/place/" + own_name}) {
    const pid_t child = start_sleep_as(name);
    wllb_test_write(path, std::to_string(child) + "\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, save());
    EXPECT_EQ(
        wllb_format("Going to kill pid %d of component tqp of binary name %s\n", child, wllb_base_name(name.c_str())),
        testing::internal::GetCapturedStdout());
    EXPECT_EQ(SIGKILL, end_and_collect(child)) << name;
    EXPECT_EQ(own_line, wllb_test_read(path));
  }
}

TEST_F(wllb_pid_file, a_process_of_another_name_lives_on) {
  const std::string shorter = own_name.substr(0, own_name.size() - 1);
  for (const std::string &name : {std::string("sleep"), shorter, "x" + own_name, own_name + "/sleep", std::string()}) {
    const pid_t child = start_sleep_as(name);
    wllb_test_write(path, std::to_string(child) + "\n");
    EXPECT_EQ(0, save());
    EXPECT_EQ(SIGTERM, end_and_collect(child)) << name;
    EXPECT_EQ(own_line, wllb_test_read(path));
  }
}

// Most of these would end this very process, its group or all processes if they were taken for a pid.
TEST_F(wllb_pid_file, whatever_the_file_holds_nobody_else_is_killed) {
  const std::string group = "-" + std::to_string(getpgrp());
  for (const std::string &text :
       {std::string(), std::string("\n"), std::string("abc\n"), std::string("0\n"), std::string("1\n"),
        std::string("-1\n"), group, own_line, own_line + "junk", std::string("99999999999999999999\n"),
        std::string("4294967297\n"), std::string(1000000, '9'), std::string("\0\0", 2)}) {
    wllb_test_write(path, text);
    EXPECT_EQ(0, save()) << text.substr(0, 40);
    EXPECT_EQ(own_line, wllb_test_read(path));
  }
}

TEST_F(wllb_pid_file, the_id_of_an_own_thread_is_no_other_process) {
  std::thread([this] {
    wllb_test_write(path, std::to_string(gettid()) + "\n");
    EXPECT_EQ(0, save());
  }).join();
  EXPECT_EQ(own_line, wllb_test_read(path));
}

TEST_F(wllb_pid_file, a_file_that_cannot_be_written_is_told_and_the_other_one_still_written) {
  wllb_test_write(base_dir / "target", "precious");
  ASSERT_EQ(0, symlink((base_dir / "target").c_str(), path.c_str()));
  EXPECT_EQ(-1, save());
  EXPECT_NE(std::string::npos, error.find(path)) << error;
  EXPECT_EQ("precious", wllb_test_read(base_dir / "target"));
  EXPECT_EQ(own_line, wllb_test_read(list_path));

  unlink(path.c_str());
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600)); // nobody reads it: must not block
  EXPECT_EQ(-1, save());
  unlink(path.c_str());

  unlink(list_path.c_str());
  ASSERT_EQ(0, mkdir(list_path.c_str(), 0700));
  EXPECT_EQ(-1, wllb_save_pid_ex(base_dir.path.c_str(), "tqp", nullptr));
  EXPECT_EQ(own_line, wllb_test_read(path));
}

TEST_F(wllb_pid_file, a_missing_directory_is_told) {
  EXPECT_EQ(-1, wllb_save_pid_ex((base_dir / "missing").c_str(), "tqp", &error));
  EXPECT_NE(std::string::npos, error.find("No such file or directory")) << error;
  EXPECT_FALSE(wllb_path_exists((base_dir / "missing").c_str()));
}
