// The upload child's supervision, with scripts in its place: it is never started too often, never lost, never takes
// another child's end, and learns how the test ends.
#include "process_frame.h"
#include "upload_child.h"
#include "wllb_component_recovery.h"

#include "test_run.h"

#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <thread>

static int64_t clock_ms = 1000000;

class upload_child : public tqp_test_run {
protected:
  int64_t (*const clock_before)() = std::exchange(wllb_monotonic_ms, [] { return clock_ms; });

  ~upload_child() override { wllb_monotonic_ms = clock_before; }

  void child_is(const std::string &script) const {
    std::filesystem::create_directories(directory + "/bin");
    std::ofstream(directory + "/bin/tqu_db_upload") << "#!/bin/bash\nexec >>" << path("log") << '\n' << script;
    std::filesystem::permissions(directory + "/bin/tqu_db_upload", std::filesystem::perms::owner_all);
    raw(identity());
  }
};

TEST_F(upload_child, restarts_are_limited_in_bursts) {
  component_recovery limited = {0, 5, 0, 10, 0, 20};
  // clang-format off
  static constexpr int rows[][3] = { // two bursts; slow ones, which never end; just not slow enough
      {0, 5, 0}, {0, 2, 1}, {11, 1, 1}, {9, 1, 1}, {1, 1, 0}, {0, 5, 0}, {0, 1, 1}, {21, 1, 0}, {11, 20, 0},
      {10, 4, 0}, {10, 1, 1}}; // clang-format on
  for (const auto &[later, times, answer] : rows)
    for (int time = 0; time < times; ++time) {
      clock_ms += later * 1000; // after the one before
      EXPECT_EQ(answer, wllb_recover_component_or_not(&limited)) << later << " s later, time " << time;
    }
  for (component_recovery rec : {component_recovery{0, 0, 0, 10, 0, 20}, {0, 5, 0, 0, 0, 20}, {0, 5, 0, 10, 0, 0}})
    EXPECT_EQ(-1, wllb_recover_component_or_not(&rec));
}

TEST_F(upload_child, every_death_is_seen_and_no_other_end_is_taken) {
  tqp_process_state_init();
  tqp_start_signals();
  wllb_copy_text(wl_wdir, sizeof wl_wdir, directory);
  tqp_init_upload_recovery();
  child_is("echo started");
  std::jthread helper([](const std::stop_token &over) {
    while (!over.stop_requested())
      EXPECT_EQ(7, wllb_run_program({"sh", "-c", "exit 7"}).exit_status);
  });
  std::thread other(spawn_tqu_db_upload); // two who want it get one
  spawn_tqu_db_upload();
  other.join();
  for (int death = 0; death < 6; ++death)
    EXPECT_TRUE(eventually([child = int{tqu_db_upload_pid}] {
      check_and_process_sig_chld();
      return tqu_db_upload_pid != child;
    })) << "its death was missed";
  EXPECT_EQ(6, occurrences(read("log"), "started")); // five restarts, then none
  helper = {};
  clock_ms += 21000;
  sigchild = 0; // a round without a signal asks, too
  child_is("trap '' TERM; echo deaf; for i in {1..400}; do sleep 0.05; done");
  check_and_process_sig_chld();
  const pid_t deaf = tqu_db_upload_pid;
  EXPECT_TRUE(eventually([&] { return read("log").ends_with("deaf\n"); }));
  upload_stop_seconds = 1;
  send_test_run_stop_signal_to_tqu_db_upload(1);
  EXPECT_TRUE(eventually([&] { return waitpid(deaf, nullptr, WNOHANG) != 0; })) << "still alive";
  EXPECT_EQ(UPLOAD_NOT_TO_RESTART, tqu_db_upload_pid);
}

TEST_F(upload_child, child_that_dies_at_once_is_started_six_times_each_a_fresh_process) {
  child_is("status() { grep \"$1\" /proc/self/status | cut -f 2; }\n" // of ignored signals, the C library hides some
           "echo \"$@\" $((0x`status SigBlk`)) $((0x`status SigIgn` & 0x7fffffff)) $(ls /proc/self/fd)");
  const sigset_t mask = {{~0UL}};
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &mask, &before); // the daemon inherits this, and an open descriptor; its child must not
  ASSERT_EQ(222, dup2(1, 222));
  auto program = start({"-m", "1", "-V", ":", "-r", "0"});
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(222);
  const char *refused =
      "Event: could not run tqu_db_upload. Tried 5 times in 10 seconds, shell try again in 20 minutes.";
  EXPECT_TRUE(eventually([&] { return occurrences(trace(), refused) == 1; }));
  const std::string line = "--testrun 1234 --ppid " + std::to_string(program->pid()) +
                           " --running_mode 1 --vector_separator : --idle_time 5 --num_cycles 1 --resume 0 0 0 0 1 2 3";
  EXPECT_EQ(std::vector<std::string>(6, line), lines_of(read("log")));
  program->signal(SIGTERM);
  EXPECT_EQ(0, program->wait().exit_status);
  EXPECT_EQ(5, occurrences(trace(), "Event: Start tqu_db_upload in recovery with pid "));
  EXPECT_EQ(1, occurrences(trace(), "Event: tqu_db_upload is not running while send stop signal."));
}

TEST_F(upload_child, child_learns_how_the_test_ends) {
  child_is("trap 'echo stop; exit' TERM\ntrap '[ -e " + path(first_partition + "/tq/csv/.tqp_process_done_v2.txt") +
           " ] && sleep 0.3 && echo over; exit' RTMIN+3\necho ready; for i in {1..999}; do sleep 0.02; done");
  std::string log;
  for (const auto &[signal, words] : {std::pair{SIGRTMIN + 3, "over\n"}, {SIGTERM, "stop\n"}}) {
    auto program = start({"-m", "1"});
    log += "ready\n";
    EXPECT_TRUE(eventually([&] { return read("log") == log; }));
    program->signal(signal);
    EXPECT_EQ(0, program->wait().exit_status);
    EXPECT_EQ(log += words, read("log"));
  }
}

TEST_F(upload_child, a_stop_does_not_wait_for_a_child_that_goes_on) {
  child_is("trap 'echo stop; exit' TERM\ntrap 'echo over' RTMIN+3\necho ready; for i in {1..999}; do sleep 0.02; done");
  auto program = start({"-m", "1"});
  EXPECT_TRUE(eventually([&] { return read("log") == "ready\n"; }));
  program->signal(SIGRTMIN + 3);
  EXPECT_TRUE(eventually([&] { return read("log") == "ready\nover\n"; }));
  program->signal(SIGTERM);
  EXPECT_EQ(0, program->wait().exit_status);
  EXPECT_EQ("ready\nover\nstop\n", read("log"));
}
