// The process's frame: what it takes from its command line, the test run's and the machine's files; how it wakes and
// leaves; the small services around descriptors.

#include "parent_start_time.h"
#include "process_frame.h"
#include "process_wake.h"
#include "test_files.h"
#include "wllb_partition.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

  // What `action` prints.
  static std::string printed(const std::function<void()> &action) {
    testing::internal::CaptureStdout();
    action();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  static void set_mtime(const std::string &path, time_t seconds, long nanoseconds = 0) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
  }

  std::string root;
};

} // namespace

// --- command line ----------------------------------------------------------------------------------------------------

// The other options are those of the whole program's tests.
TEST_F(process_frame, options_that_are_no_plain_word_or_flag) {
  std::vector<std::string> words = {
      "tqp", "-t",   "7",  "-I",      std::string(99, '1'), "-S", "1795383000123", "-e", "-5000000000", "-V", "_x",
      "-l",  "12ab", "-T", "topology"};
  std::vector<char *> argv;
  std::string text;
  for (std::string &each : words) {
    argv.push_back(each.data());
    text += (text.empty() ? "" : " ") + each;
  }
  argv.push_back(nullptr);
  tqp_command_line line;
  EXPECT_EQ(std::nullopt, tqp_parse_command_line(static_cast<int>(words.size()), argv.data(), &line));
  EXPECT_EQ(text, line.text);
  EXPECT_EQ("7 -5000000000 1795383000123 95 12 " + std::string(64, '1'),
            wllb_format("%d %ld %ld %d %d %s", testidx, g_vex_epoc_diff, g_wl_time_stamp_ms, g_tq_vector_separator,
                        tqc_port, tqc_ipaddr));
}

TEST_F(process_frame, working_directory_comes_from_the_environment_and_a_long_one_is_cut) {
  setenv("WL_WDIR", "/from/environment", 1);
  tqp_command_line given;
  EXPECT_EQ(0, tqp_take_working_directory(given));
  EXPECT_STREQ("/from/environment", wl_wdir);
  for (const auto &[dir, taken] : {std::pair("/its/last/name//", "/its/last/name"), std::pair("//", "/")}) {
    given.working_dir = dir;
    EXPECT_EQ(0, tqp_take_working_directory(given));
    EXPECT_STREQ(taken, wl_wdir);
  }
  const std::string long_dir(600, 'd');
  given.working_dir = long_dir.c_str();
  EXPECT_EQ(0, tqp_take_working_directory(given));
  EXPECT_EQ(long_dir.substr(0, 511), getenv("WL_WDIR"));
}

// --- files of the start-up -------------------------------------------------------------------------------------------

TEST_F(process_frame, keyword_file_is_that_of_the_profile_changed_last) {
  const std::string profiles = base_dir + "tq/conf/tqprof/";
  EXPECT_EQ(base_dir + "tq/conf/tqprof//tq.conf", tqp_find_keyword_file());
  for (const char *name : {"old", "charlie", "alpha", ".hidden"})
    put_file(profiles + name + "/TQKeywords.conf", "");
  put_file(profiles + "file", "");
  fs::create_symlink(profiles + "old", profiles + "link");
  for (const char *name : {"old", "charlie", "alpha"})
    set_mtime(profiles + name, 1000);
  for (const char *name : {".hidden", "file", "link"})
    set_mtime(profiles + name, 9000);
  EXPECT_EQ(profiles + "alpha/TQKeywords.conf", tqp_find_keyword_file()) << "all alike: the smallest name";
  fs::remove(profiles + "old/TQKeywords.conf");
  set_mtime(profiles + "old", 1000, 1);
  EXPECT_EQ(profiles + "old/tq.conf", tqp_find_keyword_file()) << "whether it is there or not";
}

TEST_F(process_frame, scenario_words_come_from_the_last_line_that_begins_right) {
  const std::tuple<const char *, const char *, int> cases[] = {
      {"multidisk_path PROCESSED_DATA /disk3 more", "/disk3", 0},
      {"MULTIDISK_PATH processed_data /a\nMULTIDISK_PATH raw_data /b\nMULTIDISK_PATH processed_data /c\n", "/c", 0},
      {" MULTIDISK_PATH processed_data /a\nMULTIDISK_PATH  processed_data /a\n", "", 0},
      {"MULTIDISK_PATH processed_data /a\nMULTIDISK_PATH processed_data\n", "", 0},
      {"ENABLE_AUTO_MONITOR_REGISTRATION 1\nenable_auto_monitor_registration 2 3\n", "", 2},
  };
  for (const auto &[scenario, disk, health] : cases) {
    put_file(base_dir + "sorted_scenario.conf", scenario);
    tqp_enable_health_mon = 0;
    tqp_get_disk_path();
    tqp_get_auto_mon_reg_flag();
    EXPECT_EQ(disk, disk_processed_path) << scenario;
    EXPECT_EQ(health, tqp_enable_health_mon) << scenario;
  }
}

TEST_F(process_frame, machine_word_comes_from_the_machines_own_file_or_the_common_one) {
  const std::string etc = root + "/outside/home/vexorium/etc/";
  std::string mode;
  put_file(etc + "vex.conf", "# CONFIG no\nCONFIG TQE_ALL\nCONFIG later\n");
  get_machine_config(&mode);
  EXPECT_EQ("TQE_ALL", mode);
  put_file(etc + "vex_work.conf", "OTHER x\n");
  get_machine_config(&mode);
  EXPECT_EQ("", mode) << "the common file only serves where there is no own one";
  put_file(etc + "vex_work.conf", "CONFIGURATION own");
  wllb_copy_text(wl_wdir, sizeof wl_wdir, root + "/work//");
  get_machine_config(&mode);
  EXPECT_EQ("own", mode);
}

TEST_F(process_frame, owner_is_the_directorys_and_group_is_the_owners_own) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only the superuser gives files away";
  const int unknown = 987654;
  for (const auto &[uid, gid, owner, group] :
       {std::tuple(0, 1, 0, 0), {0, unknown, 0, -1}, {unknown, 0, -1, -1}, {1, 0, 1, 1}}) {
    ASSERT_EQ(0, chown(base_dir.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid)));
    read_owner_group();
    EXPECT_EQ(owner, ownerid) << uid << ":" << gid;
    EXPECT_EQ(group, grpid) << uid << ":" << gid;
  }
}

TEST_F(process_frame, live_run_resumes_behind_the_newest_done_file) {
  const std::string names[] = {"20261122210000", "20261122220000", "20261122230000"};
  std::string prev = "0";
  for (const std::string &name : names) {
    put_file(base_dir + name + "/.partition_info.txt", "PreviousPartition=" + prev + "\n");
    fs::create_directories(base_dir + name + "/tq/csv");
    prev = name;
  }
  tqp_find_partitions();
  EXPECT_EQ(0, g_partition_idx) << "the test run tells no current one yet";
  put_file(base_dir + ".curPartition", "CurPartitionIdx=" + names[2] + "\n");
  tqp_find_partitions();
  EXPECT_EQ(20261122230000, g_partition_idx);
  EXPECT_EQ(20261122210000, g_process_done_partition);
  for (const auto &[done, expected] : {std::pair(0, 20261122220000), {1, 20261122230000}, {2, 0}}) {
    put_file(base_dir + names[done] + "/tq/csv/" + wllb_done_file_name, "");
    tqp_find_partitions();
    EXPECT_EQ(expected, g_process_done_partition) << done;
  }
}

TEST_F(process_frame, parent_start_time_is_the_date_of_the_summary) {
  setenv("TZ", "UTC", 1);
  const std::string summary = base_dir + "summary.top";
  tm time = {};
  ASSERT_NE(nullptr, strptime("2026-11-22 21:30:05", "%Y-%m-%d %H:%M:%S", &time));
  put_file(summary, "1234|a test|11/22/26 21:30:05|00:10:00|more\n");
  get_wl_time_stamp_in_ms();
  EXPECT_EQ(timegm(&time) * 1000, g_wl_time_stamp_ms);

  for (const char *damaged : {"1|2|not a date|4\n", "1|2|11/22/26|\n1|2|11/22/26|\n", "1|2|$(touch x)|\n"}) {
    put_file(summary, damaged);
    EXPECT_TRUE(printed(get_wl_time_stamp_in_ms).starts_with("Fail: Error in run Command, cmd = ")) << damaged;
    EXPECT_EQ(timegm(&time) * 1000, g_wl_time_stamp_ms) << "unchanged";
  }
  unsetenv("TZ");
}

TEST_F(process_frame, processor_limit_takes_the_pid) {
  const std::string tasks = root + "/outside/sys/fs/cgroup/cpu/LimitCPU/tasks";
  put_file(tasks, "");
  for (const int flag : {0, 1}) {
    tqp_add_pid_to_cgroups = flag;
    tqp_add_pid_to_cgroup();
    EXPECT_EQ(flag ? std::to_string(getpid()) : "", file_text(tasks));
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
    put_file(command, std::string("#!/bin/sh\n") + script + "\n");
    fs::permissions(command, fs::perms::owner_all);
    EXPECT_EQ(active, tqp_test_is_active()) << script;
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

// A main thread in its wait, with a parent that goes on: this process. Only an event ends a sleep before the test runs
// out of time.
class main_wait : public process_frame {
protected:
  main_wait() {
    tqp_start_signals();
    tsrun_poll_interval = 1000000;
    wl_pid = getpid();
  }

  // Runs the wait here while `meanwhile` runs on another thread.
  static void wait_while(const std::function<void()> &meanwhile) {
    const int epfd = tqp_epoll_init(1);
    std::thread other(meanwhile);
    tqp_main_loop(epfd);
    other.join();
    close(epfd);
  }
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
}

TEST_F(main_wait, state_changed_by_another_thread_ends_it_as_it_stands) {
  wait_while([] {
    wl_status = WL_STOP_NOW;
    tqp_wake_main();
  });
  EXPECT_EQ(WL_STOP_NOW, wl_status);
}

TEST_F(main_wait, trace_level_and_dump_requests_are_taken_and_the_wait_goes_on) {
  put_file(outside_paths.trace_level_conf, "TQP_TRACE_LOGLEVEL 3\n");
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
    close(fds[1]);
  }

  int read_line() { return tqp_read_line(fds[0], buf.data(), &partial); }

  int send(const std::string &sent) { return tqp_send_message(fds[1], sent.data(), static_cast<int>(sent.size())); }

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
      int result = -2;
      for (const std::string &piece :
           {line.substr(0, first), line.substr(first, second - first), line.substr(second)}) {
        if (piece.empty())
          continue;
        ASSERT_EQ(-2, result) << first << " " << second;
        send(piece);
        result = read_line();
      }
      ASSERT_EQ(static_cast<int>(line.size()), result);
      EXPECT_EQ(line, text(result));
      EXPECT_EQ('\0', buf[line.size()]);
      EXPECT_EQ(-2, read_line()) << "nothing is given twice";
    }
}

TEST_F(line_reader, closed_side_and_bad_descriptor_are_told_apart) {
  send("one\ntwo\nthr");
  EXPECT_EQ("one\ntwo\nthr", text(read_line())) << "text behind a newline comes along";
  send("part");
  EXPECT_EQ(-2, read_line());
  shutdown(fds[1], SHUT_RDWR);
  EXPECT_EQ(0, read_line());
  EXPECT_EQ(-1, tqp_read_line(-1, buf.data(), &partial));
  EXPECT_EQ(-1, send("x"));
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
  std::string message;
  while (message.size() < 1U << 20U)
    message += std::to_string(message.size());
  std::string got;
  std::thread reader([&] {
    char piece[4096];
    while (got.size() < message.size()) {
      const ssize_t n = read(fds[0], piece, sizeof piece);
      if (n > 0)
        got.append(piece, static_cast<size_t>(n));
    }
  });
  EXPECT_EQ(static_cast<int>(message.size()), send(message));
  reader.join();
  EXPECT_EQ(message, got);
}
