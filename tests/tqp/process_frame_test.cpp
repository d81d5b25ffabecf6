// The process's frame: what it takes from its command line, the test run's and the machine's files; how it wakes and
// leaves; the small services around descriptors.

#include "parent_start_time.h"
#include "process_frame.h"
#include "wllb_partition.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// A test run in a directory of its own, and the world outside it below another one.
class process_frame : public testing::Test {
protected:
  process_frame() {
    std::string name = testing::TempDir() + "process_frame_XXXXXX";
    root = mkdtemp(name.data());
    tqp_process_state_init();
    setenv("TQP_OUTSIDE_ROOT", (root + "/outside").c_str(), 1);
    tqp_apply_outside_root();
    testidx = 1234;
    wllb_copy_text(wl_wdir, sizeof wl_wdir, root + "/work");
    base_dir = root + "/work/logs/TR1234/";
    fs::create_directories(base_dir);
  }

  ~process_frame() override {
    fs::remove_all(root);
    unsetenv("TQP_OUTSIDE_ROOT");
    unsetenv("WL_WDIR");
    wllb_trace_partition = 0;
    tqp_process_state_init();
  }

  static void put(const std::string &path, const std::string &text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }

  static std::string text_of(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void set_mtime(const std::string &path, time_t seconds, long nanoseconds = 0) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
  }

  std::string root;
};

// The status and the printed text of one command line.
struct parse_result {
  int status;
  std::string printed;
  tqp_command_line line;
};

parse_result parse(std::vector<std::string> words) {
  words.insert(words.begin(), "tqp");
  std::vector<char *> argv;
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  parse_result result = {};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  result.status = tqp_parse_command_line(static_cast<int>(words.size()), argv.data(), &result.line);
  fflush(stdout);
  result.printed = testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  result.line.working_dir = result.line.working_dir ? "given" : "none"; // the word itself is gone now
  return result;
}

// All that a command line can set, in one text.
std::string settings(const tqp_command_line &line) {
  return wllb_format("t=%d l=%d I=%s i=%d m=%d W=%s S=%ld N=%d e=%ld r=%d V=%d P=%ld E=%ld f=%d", testidx, tqc_port,
                     tqc_ipaddr, fp_stats_mon_frequency, line.online_flag, line.working_dir, g_wl_time_stamp_ms, wl_pid,
                     g_vex_epoc_diff, resume_flag, g_tq_vector_separator, start_partition_idx, end_partition_idx,
                     force_write_in_meta_data_csv);
}

} // namespace

// --- command line ----------------------------------------------------------------------------------------------------

TEST_F(process_frame, each_option_sets_its_own_value_and_no_other) {
  const std::string defaults = "t=7 l=-1 I=127.0.0.1 i=10000 m=1 W=none S=0 N=0 e=0 r=1 V=0 P=0 E=0 f=0";

  const struct {
    const char *option, *word, *before, *after;
  } cases[] = {
      // clang-format off
      {"-l", "7892", "l=-1", "l=7892"},
      {"-I", "10.0.0.9", "I=127.0.0.1", "I=10.0.0.9"},
      {"-i", "2500", "i=10000", "i=2500"},
      {"-m", "0", "m=1", "m=0"},
      {"-W", "/somewhere", "W=none", "W=given"},
      {"-S", "1795383000123", "S=0", "S=1795383000123"},
      {"-N", "4711", "N=0", "N=4711"},
      {"-e", "-5000000000", "e=0", "e=-5000000000"},
      {"-r", "0", "r=1", "r=0"},
      {"-V", "_x", "V=0", "V=95"},
      {"-V", "", "V=0", "V=0"},
      {"-P", "20261122213000", "P=0", "P=20261122213000"},
      {"-E", "20261122213001", "E=0", "E=20261122213001"},
      {"-f", "1", "f=0", "f=1"},
      {"-T", "topology", "f=0", "f=0"},
      {"-l", "12ab", "l=-1", "l=12"},
      {"-l", "ab", "l=-1", "l=0"},
  }; // clang-format on

  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.option) + " " + c.word);
    tqp_process_state_init();
    const parse_result result = parse({"-t", "7", c.option, c.word});
    std::string expected = defaults;
    expected.replace(expected.find(c.before), strlen(c.before), c.after);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.printed);
    EXPECT_EQ(expected, settings(result.line));
  }
}

TEST_F(process_frame, command_line_is_kept_as_it_was_typed_and_a_long_address_is_cut) {
  const std::string address(200, '1');
  EXPECT_EQ("tqp stray -t 5 -I " + address, parse({"stray", "-t", "5", "-I", address}).line.text);
  EXPECT_EQ(5, testidx);
  EXPECT_EQ(address.substr(0, 64), tqc_ipaddr);
}

TEST_F(process_frame, bad_command_line_prints_the_usage) {
  const struct {
    std::vector<std::string> words;
    int status;
    const char *first_line;
  } cases[] = {
      // clang-format off
      {{"-t", "7", "-z"}, 1, "Error : Invalid argument z\n"},
      {{"-t", "7", "-l"}, 1, "Error : Invalid argument l\n"},
      {{"-t"}, 1, "Error : Invalid argument t\n"},
      {{"--t", "7"}, 1, "Error : Invalid argument -\n"},
      {{}, -1, "Error : Testrun number not specified\n"},
      {{"-l", "7892"}, -1, "Error : Testrun number not specified\n"},
      {{"-t", "7", "-t", "7"}, -1, "Error : Testrun number not specified\n"},
      {{"-t7", "-t8", "-t9"}, -1, "Error : Testrun number not specified\n"},
  }; // clang-format on

  for (const auto &c : cases) {
    const parse_result result = parse(c.words);
    SCOPED_TRACE(result.line.text);
    EXPECT_EQ(c.status, result.status);
    EXPECT_TRUE(result.printed.starts_with(std::string(c.first_line) + "tqp \n\t--t  testid (Mandatory Argument) \n"));
    EXPECT_TRUE(result.printed.ends_with("\t--e  Vexorium epoch diff in seconds\n"));
  }
}

TEST_F(process_frame, working_directory_comes_from_the_option_or_else_the_environment) {
  tqp_command_line given;
  unsetenv("WL_WDIR");
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, tqp_take_working_directory(given));
  fflush(stdout);
  EXPECT_EQ("WL_WDIR env variable is not set.\n", testing::internal::GetCapturedStdout());

  setenv("WL_WDIR", "/from/environment", 1);
  EXPECT_EQ(0, tqp_take_working_directory(given));
  EXPECT_STREQ("/from/environment", wl_wdir);

  const std::string long_dir(600, 'd');
  given.working_dir = long_dir.c_str();
  EXPECT_EQ(0, tqp_take_working_directory(given));
  EXPECT_EQ(long_dir.substr(0, 511), wl_wdir);
  EXPECT_EQ(long_dir.substr(0, 511), getenv("WL_WDIR"));
}

TEST_F(process_frame, chosen_range_of_partitions_is_checked_and_makes_the_run_offline) {
  fs::create_directory(base_dir + "200");

  const struct {
    int64_t start, end;
    int status;
    const char *printed;
  } cases[] = {
      // clang-format off
      {0, 0, 0, ""},
      {0, 200, 0, ""},
      {0, 201, -1, "End Partition does not exists for this testrun\n"},
      {100, 0, 0, ""},
      {100, 200, 0, ""},
      {200, 200, 0, ""},
      {201, 200, -1, "Start Partition can't be greater than End Partition\n"},
      {100, 201, -1, "End Partition does not exists for this testrun\n"},
  }; // clang-format on

  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.start << " to " << c.end);
    tqp_command_line given;
    start_partition_idx = c.start;
    end_partition_idx = c.end;
    resume_flag = 0;
    tqc_port = 7892;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.status, tqp_check_partition_range(&given));
    fflush(stdout);
    EXPECT_EQ(c.printed, testing::internal::GetCapturedStdout());
    const bool made_offline = c.start > 0 && c.status == 0;
    EXPECT_EQ(made_offline ? 1 : 0, resume_flag);
    EXPECT_EQ(made_offline ? 0 : 1, given.online_flag);
    EXPECT_EQ(made_offline ? -1 : 7892, tqc_port);
  }
}

// --- files of the start-up -------------------------------------------------------------------------------------------

TEST_F(process_frame, keyword_file_is_that_of_the_profile_changed_last) {
  const std::string profiles = base_dir + "tq/conf/tqprof/";
  EXPECT_EQ(base_dir + "tq/conf/tqprof//tq.conf", tqp_find_keyword_file());
  for (const char *name : {"old", "bravo", "charlie", "alpha", ".hidden"})
    put(profiles + name + "/TQKeywords.conf", "");
  put(profiles + "file", "");
  fs::create_symlink(profiles + "old", profiles + "link");
  for (const char *name : {"old", "bravo", "charlie", "alpha"})
    set_mtime(profiles + name, 1000);
  for (const char *name : {".hidden", "file", "link"})
    set_mtime(profiles + name, 9000);

  EXPECT_EQ(profiles + "alpha/TQKeywords.conf", tqp_find_keyword_file()) << "all alike: the smallest name";
  set_mtime(profiles + "charlie", 1000, 1);
  EXPECT_EQ(profiles + "charlie/TQKeywords.conf", tqp_find_keyword_file()) << "newer by a nanosecond";
  set_mtime(profiles + "bravo", 1000, 1);
  EXPECT_EQ(profiles + "bravo/TQKeywords.conf", tqp_find_keyword_file());
  set_mtime(profiles + "old", 1001);
  EXPECT_EQ(profiles + "old/TQKeywords.conf", tqp_find_keyword_file());
  fs::remove(profiles + "old/TQKeywords.conf");
  set_mtime(profiles + "old", 1001);
  EXPECT_EQ(profiles + "old/tq.conf", tqp_find_keyword_file()) << "whether it is there or not";
}

TEST_F(process_frame, scenario_words_come_from_the_last_line_that_begins_right) {
  const struct {
    const char *scenario, *disk;
    int health;
  } cases[] = {
      // clang-format off
      {"MULTIDISK_PATH processed_data /disk2\n", "/disk2", 0},
      {"multidisk_path PROCESSED_DATA /disk3 more", "/disk3", 0},
      {"MULTIDISK_PATH processed_data /a\nMULTIDISK_PATH raw_data /b\nMULTIDISK_PATH processed_data /c\n", "/c", 0},
      {" MULTIDISK_PATH processed_data /indented\n#MULTIDISK_PATH processed_data /a\n", "", 0},
      {"MULTIDISK_PATH  processed_data /two_blanks\n", "", 0},
      {"MULTIDISK_PATH processed_data /a\nMULTIDISK_PATH processed_data\n", "", 0},
      {"ENABLE_AUTO_MONITOR_REGISTRATION 1\n", "", 1},
      {"ENABLE_AUTO_MONITOR_REGISTRATION 1\nenable_auto_monitor_registration 2 3\n", "", 2},
      {"ENABLE_AUTO_MONITOR_REGISTRATION\n", "", 0},
      {"ENABLE_AUTO_MONITOR_REGISTRATION on\n", "", 0},
      {"", "", 0},
  }; // clang-format on

  for (const auto &c : cases) {
    SCOPED_TRACE(c.scenario);
    put(base_dir + "sorted_scenario.conf", c.scenario);
    tqp_enable_health_mon = 0;
    tqp_get_disk_path();
    tqp_get_auto_mon_reg_flag();
    EXPECT_EQ(c.disk, disk_processed_path);
    EXPECT_EQ(c.health, tqp_enable_health_mon);
  }
  fs::remove(base_dir + "sorted_scenario.conf");
  fs::create_directory(base_dir + "sorted_scenario.conf");
  tqp_get_disk_path();
  EXPECT_EQ("", disk_processed_path);
}

TEST_F(process_frame, machine_word_comes_from_the_machines_own_file_or_the_common_one) {
  const std::string etc = root + "/outside/home/vexorium/etc/";
  std::string mode = "before";
  get_machine_config(&mode);
  EXPECT_EQ("", mode);
  put(etc + "vex.conf", "# CONFIG no\nCONFIG TQE_ALL\nCONFIG later\n");
  get_machine_config(&mode);
  EXPECT_EQ("TQE_ALL", mode);
  put(etc + "vex_work.conf", "OTHER x\n");
  get_machine_config(&mode);
  EXPECT_EQ("", mode) << "the common file only serves where there is no own one";
  put(etc + "vex_work.conf", "CONFIG\nCONFIG second\n");
  get_machine_config(&mode);
  EXPECT_EQ("", mode) << "only the first line counts";
  put(etc + "vex_work.conf", "CONFIGURATION own");
  wllb_copy_text(wl_wdir, sizeof wl_wdir, root + "/work//");
  get_machine_config(&mode);
  EXPECT_EQ("own", mode);
}

TEST_F(process_frame, markers_are_made_where_readers_look) {
  tqp_make_version_marker();
  EXPECT_TRUE(fs::exists(base_dir + "tq/logs/.tqp_version"));
  put(base_dir + "tq/logs/.tqp_version", "kept");
  put(base_dir + ".use_csv_for_method_timing", "dropped");
  tqp_make_version_marker();
  tqp_make_method_timing_marker();
  EXPECT_EQ("kept", text_of(base_dir + "tq/logs/.tqp_version"));
  EXPECT_EQ("", text_of(base_dir + ".use_csv_for_method_timing"));
}

TEST_F(process_frame, owner_is_the_directorys_and_group_is_the_owners_own) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only the superuser gives files away";
  const uid_t nobody_known = 987654;

  const struct {
    uid_t uid;
    gid_t gid;
    int owner, group;
  } cases[] = {
      // clang-format off
      {0, 0, 0, 0}, {0, 1, 0, 0}, {0, nobody_known, 0, -1}, {nobody_known, 0, -1, -1}, {1, 0, 1, 1},
  }; // clang-format on

  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.uid << ":" << c.gid);
    ASSERT_EQ(0, chown(base_dir.c_str(), c.uid, c.gid));
    read_owner_group();
    EXPECT_EQ(c.owner, ownerid);
    EXPECT_EQ(c.group, grpid);
  }
}

TEST_F(process_frame, live_run_resumes_behind_the_newest_done_file) {
  const std::string names[] = {"20261122210000", "20261122220000", "20261122230000"};
  std::string prev = "0";
  for (const std::string &name : names) {
    put(base_dir + name + "/.partition_info.txt", "PreviousPartition=" + prev + "\n");
    fs::create_directories(base_dir + name + "/tq/csv");
    prev = name;
  }
  tqp_find_partitions();
  EXPECT_EQ(0, g_partition_idx) << "the test run tells no current one yet";
  EXPECT_EQ("", g_cur_partition);
  EXPECT_EQ(0, g_process_done_partition);

  put(base_dir + ".curPartition", "CurPartitionIdx=" + names[2] + "\n");
  tqp_find_partitions();
  EXPECT_EQ(20261122230000, g_partition_idx);
  EXPECT_EQ(names[2], g_cur_partition);
  EXPECT_EQ(20261122230000, wllb_trace_partition);
  EXPECT_EQ(20261122210000, g_process_done_partition);
  for (const auto &[done, expected] : {std::pair(0, 20261122220000), {1, 20261122230000}, {2, 0}}) {
    SCOPED_TRACE(done);
    put(base_dir + names[done] + "/tq/csv/" + wllb_done_file_name, "");
    tqp_find_partitions();
    EXPECT_EQ(expected, g_process_done_partition);
  }
}

TEST_F(process_frame, offline_run_is_in_its_chosen_range) {
  put(base_dir + ".curPartition", "CurPartitionIdx=20261122230000\n");
  start_partition_idx = 20261122210000;
  tqp_find_partitions();
  EXPECT_EQ(20261122210000, g_partition_idx);
  end_partition_idx = 20261122220000;
  tqp_find_partitions();
  EXPECT_EQ(20261122220000, g_partition_idx);
  EXPECT_EQ("20261122220000", g_cur_partition);
  EXPECT_EQ(20261122210000, g_process_done_partition);
}

TEST_F(process_frame, parent_start_time_is_the_date_of_the_summary) {
  setenv("TZ", "UTC", 1);
  const std::string summary = base_dir + "summary.top";
  tm time = {};
  ASSERT_NE(nullptr, strptime("2026-11-22 21:30:05", "%Y-%m-%d %H:%M:%S", &time));
  put(summary, "1234|a test|11/22/26 21:30:05|00:10:00|more\n");
  get_wl_time_stamp_in_ms();
  EXPECT_EQ(timegm(&time) * 1000, g_wl_time_stamp_ms);

  for (const char *damaged :
       {"1|2|not a date|4\n", "no separator\n", "1|2|11/22/26|\n1|2|11/22/26|\n", "1|2|$(touch x)|\n"}) {
    SCOPED_TRACE(damaged);
    put(summary, damaged);
    g_wl_time_stamp_ms = 77;
    testing::internal::CaptureStdout();
    get_wl_time_stamp_in_ms();
    fflush(stdout);
    EXPECT_EQ("Fail: Error in run Command, cmd = 'date -d \"`cut -d '|' -f 3 " + root +
                  "/work/logs/TR1234/summary.top`\" +%s000'\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(77, g_wl_time_stamp_ms);
  }
  unsetenv("TZ");
}

TEST_F(process_frame, processor_limit_takes_the_pid) {
  const std::string tasks = root + "/outside/sys/fs/cgroup/cpu/LimitCPU/tasks";

  const struct {
    int flag;
    bool there;
  } cases[] = {{1, false}, {0, true}, {1, true}};

  for (const auto &c : cases) {
    if (c.there)
      put(tasks, "");
    tqp_add_pid_to_cgroups = c.flag;
    testing::internal::CaptureStderr();
    tqp_add_pid_to_cgroup();
    const bool added = c.flag && c.there;
    EXPECT_EQ(added ? "Successfully added the ProcessID of TQP to cgroup tasks\n" : "",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(added ? std::to_string(getpid()) : "", text_of(tasks));
  }
}

TEST_F(process_frame, test_is_active_when_the_first_line_of_its_status_says_so) {
  const std::string path = getenv("PATH");
  const std::string command = root + "/bin/wlu_show_workloom";
  EXPECT_FALSE(tqp_test_is_active());
  setenv("PATH", (root + "/bin:" + path).c_str(), 1);
  for (const auto &[script, active] : {std::pair("[ \"$*\" = '-n 1234' ] && echo 'TR Active now'", true),
                                       {"echo Ended; echo Active", false},
                                       {"exit 1", false}}) {
    SCOPED_TRACE(script);
    put(command, std::string("#!/bin/sh\n") + script + "\n");
    fs::permissions(command, fs::perms::owner_all);
    EXPECT_EQ(active, tqp_test_is_active());
  }
  setenv("PATH", path.c_str(), 1);
}

TEST_F(process_frame, lowest_priority_reaches_every_thread) {
  EXPECT_EXIT(
      {
        std::atomic<pid_t> tid{0};
        std::thread other([&] {
          tid = gettid();
          pause();
        });
        while (tid == 0)
          std::this_thread::yield();
        tqp_lower_priority();
        const bool both = getpriority(PRIO_PROCESS, 0) == 19 && getpriority(PRIO_PROCESS, static_cast<id_t>(tid)) == 19;
        _exit(both ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// --- signals and the wait --------------------------------------------------------------------------------------------

namespace {

// A main thread in its wait, with a parent that lives until it is ended. Only an event ends a sleep before the test
// runs out of time.
class main_wait : public process_frame {
protected:
  main_wait() {
    tqp_start_signals();
    tsrun_poll_interval = 1000000;
    wl_pid = fork();
    if (wl_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL); // a test run that is killed leaves nothing behind
      for (;;)
        pause();
    }
  }

  ~main_wait() override { end_parent(); }

  void end_parent() {
    if (wl_pid > 0 && !ended) {
      kill(wl_pid, SIGKILL);
      waitpid(wl_pid, nullptr, 0);
    }
    ended = true;
  }

  // Runs the wait here while `meanwhile` runs on another thread.
  static void wait_while(const std::function<void()> &meanwhile) {
    const int epfd = tqp_epoll_init(1);
    std::thread other(meanwhile);
    tqp_main_loop(epfd);
    other.join();
    close(epfd);
  }

  bool ended = false;
};

} // namespace

TEST_F(main_wait, signals_end_it_at_once_whichever_thread_they_hit) {
  for (const auto &[signal, status] : {std::pair(SIGTERM, WL_STOP_NOW), {SIGRTMIN + 3, WL_OVER}})
    for (const bool before : {true, false}) {
      SCOPED_TRACE(testing::Message() << signal << (before ? " before" : " during") << " the wait");
      wl_status = WL_RUNNING;
      sig_stop_comp = sig_test_post_proc = 0;
      const auto send = [which = signal] { pthread_kill(pthread_self(), which); };
      if (before)
        std::thread(send).join();
      wait_while(before ? std::function<void()>([] {}) : send);
      EXPECT_EQ(status, wl_status);
    }
}

TEST_F(main_wait, stop_wins_over_the_normal_end) {
  raise(SIGRTMIN + 3);
  raise(SIGTERM);
  wait_while([] {});
  EXPECT_EQ(WL_STOP_NOW, wl_status);
  EXPECT_EQ(1, sig_test_post_proc) << "the shutdown looks at it";
}

TEST_F(main_wait, parents_end_stops_the_process_whatever_else_came) {
  wait_while([this] {
    kill(wl_pid, SIGKILL);
    usleep(20000); // ended, but not collected yet: it counts as alive, and the wait goes on
    end_parent();
  });
  EXPECT_EQ(WL_STOP_NOW, wl_status);
  wl_status = WL_RUNNING;
  sig_test_post_proc = 1;
  wait_while([] {});
  EXPECT_EQ(WL_STOP_NOW, wl_status);
}

TEST_F(main_wait, without_a_parent_there_is_no_wait) {
  end_parent();
  wl_pid = 0;
  sig_stop_comp = 1;
  wait_while([] {});
  EXPECT_EQ(WL_OVER, wl_status);
}

TEST_F(main_wait, state_changed_by_another_thread_ends_it_as_it_stands) {
  wait_while([] {
    wl_status = WL_STOP_NOW;
    tqp_wake_main();
  });
  EXPECT_EQ(WL_STOP_NOW, wl_status);
}

TEST_F(main_wait, trace_level_and_dump_requests_are_taken_and_the_wait_goes_on) {
  put(outside_paths.trace_level_conf, "TQP_TRACE_LOGLEVEL 3\n");
  trkey = wllb_init_mt_trace_log(wl_wdir, testidx, 0, "tq/logs/tqp_trace.log", 1, 100);
  wait_while([] {
    for (const int signal : {SIGRTMIN + 4, SIGRTMIN + 5, SIGRTMIN + 6})
      raise(signal);
    while (sig_trace_level_change || sig_dump_loc2norm_maps || sig_dump_cur_proccesing_status)
      std::this_thread::yield();
    raise(SIGRTMIN + 3);
  });
  EXPECT_EQ(WL_OVER, wl_status);
  EXPECT_EQ(wllb_trace_mask(3), trkey->log_level);
  wllb_clean_mt_trace_log(trkey);
  trkey = nullptr;
}

TEST_F(process_frame, main_thread_lets_in_its_own_signals_only) {
  sigset_t all, old, now;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &old);
  tqp_start_signals();
  pthread_sigmask(SIG_SETMASK, &old, &now);
  for (const int signal : {SIGCHLD, SIGTERM, SIGRTMIN + 2, SIGRTMIN + 3, SIGRTMIN + 4, SIGRTMIN + 6})
    EXPECT_FALSE(sigismember(&now, signal)) << signal;
  for (const int signal : {SIGRTMIN + 5, SIGHUP, SIGINT})
    EXPECT_TRUE(sigismember(&now, signal)) << signal;
}

// --- descriptors -----------------------------------------------------------------------------------------------------

namespace {

class line_reader : public testing::Test {
protected:
  line_reader() {
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds));
  }

  ~line_reader() override {
    close(fds[0]);
    close_far_end();
  }

  void close_far_end() {
    if (fds[1] >= 0)
      close(fds[1]);
    fds[1] = -1;
  }

  int read_line() { return tqp_read_line(fds[0], buf.data(), &partial); }

  void send(const std::string &text) {
    EXPECT_EQ(static_cast<int>(text.size()), tqp_send_message(fds[1], text.data(), static_cast<int>(text.size())));
  }

  std::string text(int len) const { return {buf.data(), static_cast<size_t>(len)}; }

  int fds[2] = {-1, -1};
  std::vector<char> buf = std::vector<char>(tqp_line_room + 1, 'x');
  std::string partial;
};

} // namespace

TEST_F(line_reader, lines_may_arrive_cut_anywhere) {
  const std::string line = std::string("start_monitoring:10") + '\0' + ";x\n";
  for (size_t first = 0; first <= line.size(); ++first)
    for (size_t second = first; second <= line.size(); ++second) {
      SCOPED_TRACE(testing::Message() << first << " " << second);
      int result = -2;
      for (const std::string &piece :
           {line.substr(0, first), line.substr(first, second - first), line.substr(second)}) {
        if (piece.empty())
          continue;
        EXPECT_EQ(-2, result);
        send(piece);
        result = read_line();
      }
      ASSERT_EQ(static_cast<int>(line.size()), result);
      EXPECT_EQ(line, text(result));
      EXPECT_EQ('\0', buf[line.size()]);
      EXPECT_EQ(-2, read_line()) << "nothing is given twice";
    }
}

TEST_F(line_reader, text_behind_the_newline_comes_along) {
  send("one\ntwo\nthr");
  ASSERT_EQ(11, read_line());
  EXPECT_EQ("one\ntwo\nthr", text(11));
}

TEST_F(line_reader, closed_side_and_bad_descriptor_are_told_apart) {
  send("part");
  EXPECT_EQ(-2, read_line());
  close_far_end();
  EXPECT_EQ(0, read_line());
  buf[0] = 'x';
  EXPECT_EQ(-1, tqp_read_line(-1, buf.data(), &partial));
  EXPECT_EQ('\0', buf[0]);
  const int dir = open(testing::TempDir().c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(-1, tqp_read_line(dir, buf.data(), &partial)) << "a directory cannot be read";
  close(dir);
}

TEST_F(line_reader, room_ends_where_it_ends) {
  for (const int len : {tqp_line_room - 1, tqp_line_room, tqp_line_room + 1}) {
    SCOPED_TRACE(len);
    std::string line(static_cast<size_t>(len - 1), 'a');
    line += '\n';
    int result = -2;
    std::thread sender([&] { send(line); });
    while (result == -2)
      result = read_line();
    EXPECT_EQ(len <= tqp_line_room ? len : 0, result);
    sender.join();
    while (read_line() > 0) { // what is left of a line that was too long
    }
  }
}

TEST_F(line_reader, message_goes_out_whole_or_fails) {
  std::string message(1U << 20U, 'm');
  for (size_t i = 0; i < message.size(); ++i)
    message[i] = static_cast<char>('a' + i % 23);
  std::string got;
  std::thread reader([&] {
    char piece[4096];
    while (got.size() < message.size()) {
      const ssize_t n = read(fds[0], piece, sizeof piece);
      if (n > 0)
        got.append(piece, static_cast<size_t>(n));
    }
  });
  send(message);
  reader.join();
  EXPECT_EQ(message, got);
  EXPECT_EQ(-1, tqp_send_message(-1, "x", 1));
  close_far_end();
  EXPECT_EQ(-1, tqp_send_message(fds[0], "x", 1));
}

TEST_F(line_reader, watched_descriptors_come_back_with_their_events) {
  const int epfd = tqp_epoll_init(1);
  epoll_event event = {};
  EXPECT_EQ(-1, tqp_mod_select(epfd, fds[0], EPOLLIN)) << "not added yet";
  EXPECT_EQ(0, tqp_add_select(epfd, fds[0], EPOLLOUT));
  EXPECT_EQ(-1, tqp_add_select(epfd, fds[0], EPOLLOUT)) << "added twice";
  ASSERT_EQ(1, epoll_wait(epfd, &event, 1, 0));
  EXPECT_EQ(fds[0], event.data.fd);
  EXPECT_EQ(0, tqp_mod_select(epfd, fds[0], EPOLLIN));
  EXPECT_EQ(0, epoll_wait(epfd, &event, 1, 0));
  send("x");
  EXPECT_EQ(1, epoll_wait(epfd, &event, 1, 0));
  tqp_remove_select(epfd, fds[0]);
  EXPECT_EQ(0, epoll_wait(epfd, &event, 1, 0));
  close(epfd);
  EXPECT_EXIT(tqp_epoll_init(0), testing::ExitedWithCode(255), "");
}

TEST(process_commands, result_is_the_exit_status) {
  EXPECT_EQ(0, tqp_run_cmd("true"));
  EXPECT_EQ(3, tqp_run_cmd("echo noise; exit 3"));
  EXPECT_EQ(127, tqp_run_cmd("no_such_command_here"));
  EXPECT_EQ(0, tqp_run_cmd("kill -9 $$"));
}
