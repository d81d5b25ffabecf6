// The collector's messages to the real program: partitions, instances coming and going, the end; lines that mean harm.
//   In      a small collector of the test's own, listening on a port that the program is told
//   Out     what the program does with its test run, and how soon it leaves
//   Failure a message lost or misread, a done file too early, a program that hangs

#include "control_channel.h"
#include "test_run.h"
#include "tqp_main.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

class control : public tqp_test_run {
protected:
  const std::string third_partition = "20261122120000"; // the three begin at 0, 3600 and 7200 s

  control() {
    keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 20\nTQP_BINARY_FORMAT_FOR_METHOD_TIMING 0\n");
    sockaddr_in address = {};
    socklen_t size = sizeof address; // a socket without an address gets one
    EXPECT_EQ(0, listen(listener, 1) | getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size));
    port = std::to_string(ntohs(address.sin_port));
  }

  ~control() override {
    for (const int each : {fd, listener})
      close(each);
  }

  // Takes the program's connection and its first line.
  void start_connected() {
    close(std::exchange(fd, -1));
    tqp = start({"-l", port});
    fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::string line;
    for (char c = 0; c != '\n' && recv(fd, &c, 1, 0) == 1;)
      line += c;
    EXPECT_EQ("tq_control_req:action=fp_stats;TEST_RUN=1234;TQP_PID=" + std::to_string(tqp->pid()) + "\n", line);
  }

  void say(const std::string &text) const { EXPECT_GE(send(fd, text.data(), text.size(), MSG_NOSIGNAL), 0); }

  void begin_newest_of(const std::vector<std::string> &all) {
    make_partitions(all);
    say("any front=test_run_switch;PARTITION_NAME=" + all.back() + "\n");
  }

  bool reads(const std::string &instance, const std::string &partition = "") const {
    return eventually([&] { return saved_offset(instance, partition) > 0; });
  }

  bool traced(const std::string &words, int times) const {
    return eventually([&] { return occurrences(trace(), words) == times; });
  }

  bool exists(const std::string &below) const {
    return eventually([&] { return fs::exists(path(below)); });
  }

  bool is_done(const std::string &partition) const { return fs::exists(path(partition + done_file)); }

  void expect_normal_end() const {
    tqp->signal(SIGRTMIN + 3);
    EXPECT_EQ(0, tqp->wait().exit_status);
    EXPECT_TRUE(is_done(partitions.back()));
  }

  static std::string flowpath(int fpi, int time_sec) {
    const std::string tuple = std::to_string(fpi) + ":0:0:" + std::to_string(fpi);
    return "2," + tuple + "," + std::to_string(time_sec) + ",7,1,5,q,c,1,2,3,t,1,1,,,,1\n4," + tuple +
           ",200,1,1:0:0:0:0,5,-,0,x,0,0,-,-,1:77_0_0_0_1:77_1_5_1:0:0:0:0___\n";
  }

  // Lets the instance read its first lines, then stand still at its first flowpath: its blob file does not open.
  void start_and_hold(const std::string &instance, int app) {
    raw(identity(instance, 3, 4, app) + names, instance);
    start_connected();
    EXPECT_TRUE(reads(instance));
    held = path(first_partition + "/tq/sqb/" + std::to_string(app));
    fs::create_directories(held);
    append_raw(flowpath(900, 100), instance);
    EXPECT_TRUE(traced("Could not open file '" + directory + "/webapps/logs/TR1234/" + first_partition, 1));
  }

  void let_go() const { fs::remove(held); }

  const std::string done_file = "/tq/csv/.tqp_process_done_v2.txt";
  const std::string names = "99,x,FPGVersion:2.0,JAVA\n" + method(1, "a.B.main()V") + "7,5,/shop\n";
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), fd = -1;
  std::string port, held;
  std::unique_ptr<running_program> tqp;
};

TEST_F(control, instances_lie_partitions_apart_and_the_last_to_leave_finishes_each) {
  raw(identity() + names + flowpath(500, 100));
  start_and_hold("Tier_Server_Busy", 6);
  EXPECT_TRUE(reads("Tier_Server_App"));
  raw(identity() + flowpath(510, 3100) + flowpath(515, 3700), "Tier_Server_App", second_partition); // one is late
  begin_newest_of({first_partition, second_partition});
  EXPECT_TRUE(eventually([&] { return lines_of(data("TQFlowPath.csv", first_partition)).size() == 2; }));
  raw(identity() + flowpath(520, 7100) + flowpath(530, 3100), "Tier_Server_App", third_partition); // late, and too late
  begin_newest_of({first_partition, second_partition, third_partition});
  EXPECT_TRUE(eventually([&] { return lines_of(data("TQFlowPath.csv", second_partition)).size() == 2; }));
  EXPECT_TRUE(reads("Tier_Server_App", third_partition));
  EXPECT_FALSE(is_done(first_partition) || is_done(second_partition)) << "one instance still reads the first";
  let_go();
  EXPECT_TRUE(exists(second_partition + done_file));
  EXPECT_EQ("", read(second_partition + done_file)) << "what was late before needs no notice";
  append_raw(flowpath(540, 7150));
  EXPECT_TRUE(eventually([&] { return lines_of(read(second_partition + done_file)).size() == 2; }));
  for (const char *file : {",5,Tier_Server_App/TQMethodTiming.csv\n", ",5,Tier_Server_App/TQFlowPath.csv\n"})
    EXPECT_EQ(1, occurrences(read(second_partition + done_file), file));
  EXPECT_TRUE(is_done(first_partition) && read(first_partition + done_file).empty());
  EXPECT_EQ(2U, lines_of(data("TQFlowPath.csv", first_partition)).size()) << "older rows are dropped";
  EXPECT_FALSE(is_done(third_partition));
  expect_normal_end();
}

// Half a line at the end of a partition joins the next file's first one, and is no part of that file's offset.
TEST_F(control, a_restart_after_half_a_line_reads_every_line_once) {
  raw(identity() + "5,half.a.line.without.its.end()V");
  start_connected();
  EXPECT_TRUE(reads("Tier_Server_App"));
  raw("3\n" + identity() + method(1, "a.B.one()V"), "Tier_Server_App", second_partition);
  begin_newest_of({first_partition, second_partition});
  EXPECT_TRUE(eventually([&] {
    return saved_offset("Tier_Server_App", second_partition) ==
           static_cast<long>(fs::file_size(raw_path("Tier_Server_App", second_partition)));
  }));
  tqp->signal(SIGTERM);
  tqp->wait();
  std::string more;
  for (int i = 2; i < 9; ++i)
    more += method(i, "a.B.m" + std::to_string(i) + "()V");
  append_raw(more, "Tier_Server_App", second_partition);
  start_connected();
  EXPECT_TRUE(eventually([&] { return occurrences(common("TQMetaData.csv"), ",0,a.B.") == 8; }));
  expect_normal_end();
}

TEST_F(control, a_switch_too_many_finishes_nothing) {
  start_and_hold("Tier_Server_App", 5);
  begin_newest_of({first_partition, second_partition});
  say("x=test_run_switch\n");
  EXPECT_TRUE(traced("Sending PARTITION_SWITCH_SIG to tqu_db_upload (process id '", 2));
  let_go();
  EXPECT_TRUE(traced("Error in retrieving next partition name, ", 1) && traced("Processing over for jvmid = 0,", 1));
  EXPECT_TRUE(is_done(first_partition) && !is_done(second_partition));
  expect_normal_end();
}

// The instance stays behind when nobody tells it; a message that comes after all changes nothing.
TEST_F(control, partitions_that_begin_before_the_connection_are_entered) {
  close(std::exchange(listener, -1));
  raw(identity());
  tqp = start({"-l", port});
  EXPECT_TRUE(traced("failed to connect TQC retry count: 1 and msg ", 1) && reads("Tier_Server_App"));
  make_partitions({first_partition, second_partition, third_partition});
  for (const std::string &each : {second_partition, third_partition})
    raw(identity(), "Tier_Server_App", each);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
  listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) | listen(listener, 1));
  fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  EXPECT_TRUE(reads("Tier_Server_App", second_partition) && reads("Tier_Server_App", third_partition));
  EXPECT_TRUE(exists(first_partition + done_file) && exists(second_partition + done_file));
  say("x=test_run_switch;PARTITION_NAME=" + third_partition + "\n");
  EXPECT_TRUE(traced("was entered before its message came", 1));
  expect_normal_end();
}

// A file that came after the last look at its partition is found by the next start, as long as that is not marked.
TEST_F(control, a_file_nobody_has_found_keeps_its_partition_from_being_done) {
  raw(identity());
  start_connected();
  EXPECT_TRUE(reads("Tier_Server_App"));
  raw(identity("Tier_Server_Found", 3, 4, 6) + method(1, "found.A.one()V"), "Tier_Server_Found");
  raw(identity(), "Tier_Server_App", second_partition);
  begin_newest_of({first_partition, second_partition});
  EXPECT_TRUE(traced("Partition " + first_partition + " is not marked as done: 1 raw files are not read", 1));
  tqp->signal(SIGRTMIN + 3);
  EXPECT_EQ(1, occurrences(tqp->wait().errors, "Partition " + first_partition + " is not read to its end"));
  EXPECT_FALSE(is_done(first_partition) || is_done(second_partition));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1, occurrences(common("TQMetaData.csv"), "found.A.one()V"));
  EXPECT_TRUE(is_done(first_partition));
}

TEST_F(control, messages_of_one_read_run_in_order_and_a_fragment_behind_them_is_lost) {
  raw(identity());
  start_connected();
  EXPECT_TRUE(reads("Tier_Server_App"));
  make_partitions({first_partition, second_partition, third_partition});
  for (const std::string &each : {second_partition, third_partition})
    raw(identity(), "Tier_Server_App", each);
  raw(identity("Tier_Server_Found", 3, 4, 6), "Tier_Server_Found", third_partition); // no message tells of it
  say("a=test_run_switch;PARTITION_NAME=" + second_partition + "\nb=test_run_switch;PARTITION_NAME=" + third_partition +
      "\nc=enableInstance Tier Server One\nd=enableInstance Tier Server Tw");
  EXPECT_TRUE(reads("Tier_Server_App", second_partition) && reads("Tier_Server_App", third_partition));
  EXPECT_TRUE(reads("Tier_Server_Found", third_partition) && exists("tq/recovery/Tier_Server_One"));
  say("e=enableInstance Tier ");
  usleep(100000); // the rest of a line that has just begun is waited for
  say("Server Three\n");
  EXPECT_TRUE(exists("tq/recovery/Tier_Server_Three") && exists(second_partition + done_file));
  expect_normal_end();
}

TEST_F(control, every_message_that_adds_or_removes_an_instance_does) {
  start_connected();
  const char *const ways[][2] = {
      {"tqc_node_discovery_ctrl_msg:tierName=T;x;serverHost=S;instance=0;\n",
       "tqc_instance_inactive:tierName=T;serverHost=S;instance=0\n"},
      {"a=active_instance_msg;Instance=1;Tier=T;Server=S\n", "=disableInstance T S 1\n"},
      {"=enableInstance  T\tS 2 more words\n", "any=removeInstance T S 2\n"},
  };
  for (int round = 0; round < 6; ++round) { // who was removed may come back
    const std::string name = "T_S_" + std::to_string(round % 3);
    raw(identity(name) + std::string(static_cast<size_t>(round), '\n'), name);
    say(ways[round % 3][0]);
    EXPECT_TRUE(eventually([&] { return fs::file_size(raw_path(name)) == static_cast<size_t>(saved_offset(name)); }));
    say(ways[round % 3][1]);
    EXPECT_TRUE(traced("Processing over for jvmid = 0, file", round + 1));
  }
  expect_normal_end();
}

TEST_F(control, instances_beyond_the_limit_wait_for_a_place) {
  keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 20\nTQP_MAX_INSTANCES 2\n");
  for (const auto &[name, app] : {std::pair("T_S_0", 5), std::pair("T_S_1", 6), std::pair("T_S_2", 7)})
    raw(identity(name, 3, 4, app), name);
  start_connected();
  EXPECT_TRUE(traced("TQP_MAX_INSTANCES = 2 instances are served, '", 1));
  const auto all_read = [&] {
    int read_files = 0;
    for (const char *name : {"T_S_0", "T_S_1", "T_S_2"})
      read_files += saved_offset(name) > 0;
    return read_files;
  };
  EXPECT_TRUE(eventually([&] { return all_read() == 2; }));
  say("=enableInstance T S 3\n");
  const int served = saved_offset("T_S_0") > 0 ? 0 : 1;
  say("=removeInstance T S " + std::to_string(served) + "\n");
  EXPECT_TRUE(traced("Processing over for jvmid = ", 1));
  EXPECT_FALSE(fs::exists(path("tq/recovery/T_S_3")));
  EXPECT_TRUE(eventually([&] { // its place is free a moment after that line
    for (int i = 0; i < 3; ++i)
      if (saved_offset("T_S_" + std::to_string(i)) == 0)
        say("=enableInstance T S " + std::to_string(i) + "\n");
    return all_read() == 3;
  }));
  expect_normal_end();
}

TEST_F(control, leaves_within_a_second_whatever_the_channel_waits_for) {
  raw(identity());
  for (const std::string waits_for : {"a message", "the rest of a line", "a collector"}) {
    if (waits_for == "a collector") {
      close(std::exchange(listener, -1));
      tqp = start({"-l", port});
      EXPECT_TRUE(traced("failed to connect TQC retry count: 1 and msg ", 1));
    } else {
      start_connected();
      say(waits_for == "a message" ? "" : "a=test_run_swi");
      usleep(50000);
    }
    const int64_t told = get_ms_stamp_tqp();
    expect_normal_end();
    EXPECT_LT(get_ms_stamp_tqp() - told, 1000) << waits_for;
  }
}

TEST_F(control, an_error_ends_the_process_and_a_collector_that_is_gone_does_not) {
  raw(identity());
  start_connected();
  say("x=fp_stats;result=Error;all is lost\n");
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_TRUE(traced("Got error from TQC [x=fp_stats;result=Error;all is lost] now going to exit", 1) &&
              !is_done(first_partition));
  for (const size_t flood : {0, 100000, 200000}) { // no line of a collector is so long
    start_connected();
    say(std::string(flood, 'x'));
    close(std::exchange(fd, -1));
    append_raw(std::string(1, '\n'));
    EXPECT_TRUE(eventually([&] { return static_cast<size_t>(saved_offset()) == fs::file_size(raw_path()); }));
    expect_normal_end();
  }
}

// In process: each message's effects are over when the call returns.
TEST_F(control, lines_that_mean_harm_do_nothing) {
  tqp_process_state_init();
  testidx = 1234;
  dbmode = 0;
  wllb_copy_text(wl_wdir, sizeof wl_wdir, directory);
  base_dir = directory + "/logs/TR1234/";
  fs::create_directories(path(first_partition + "/tq/csv"));
  g_partition_idx = std::stoll(first_partition);
  g_cur_partition = first_partition;
  const auto run = [](std::string text) { process_message_from_tqc((text += '\n').data()); };
  const auto started = []() WLLB_NO_THREAD_CHECK { return total_instances; };
  for (const std::string &name :
       std::vector<std::string>{"../../x", "..", ".hidden", "", std::string(300, 't'), "\x1b[2J", "a/'$(touch x)'"})
    for (const std::string &line :
         {"tqc_node_discovery_ctrl_msg:tierName=" + name + ";serverHost=s;instance=i;",
          "x=enableInstance " + name + " s i", "x=active_instance_msg;Tier=" + name + ";Server=s;Instance=i",
          "tqc_instance_inactive;instance=" + name, name}) {
      run(line);
      EXPECT_EQ(0, started()) << line;
    }
  const auto lag = []() WLLB_NO_THREAD_CHECK { return tqp_mon_stat_info.process_done_lag_count; };
  uint32_t messages = 0;
  for (const std::string value : {"", "=", "=../1", "=-5", "=0", "=7777777777777777777", "=2026x", "='1'",
                                  "=2026112211000", "=202611221100000", "= 20261122110000"}) {
    run("x=test_run_switch;PARTITION_NAME" + value + (value.size() > 18 ? std::string(281, '7') : ""));
    EXPECT_EQ(first_partition, g_cur_partition) << value;
    EXPECT_EQ(++messages, lag()) << "it counts as a switch without a name";
    EXPECT_FALSE(is_done(first_partition)) << "nobody has left it";
  }
  run("x=test_run_switch;PARTITION_NAME=30000000000000;more\nx=test_run_switch\nx=removeInstance;\n=");
  EXPECT_TRUE(g_partition_idx == 30000000000000 && is_done(first_partition) && lag() == messages + 1);
  int64_t last = 30000000000000;
  for (int i = 1; i <= 99; ++i) // none of them is there
    run("x=test_run_switch;PARTITION_NAME=" + std::to_string(++last) + " \r");
  EXPECT_EQ(last, g_partition_idx);
  run("x=test_run_switch;PARTITION_NAME=" + std::to_string(last + 1));
  EXPECT_EQ(last, g_partition_idx) << "one too many";
  put_file(path(std::to_string(last) + "/.partition_info.txt"), "");
  run("x=test_run_switch;PARTITION_NAME=" + std::to_string(last + 1));
  EXPECT_EQ(last + 1, g_partition_idx) << "one of them has come";
  int is_new = 0;
  key_sql_query_mutex.lock();
  const int taken = wllb_get_or_gen_norm_id(&key_sql_nonprep_query, "its row is not written yet", 0, &is_new);
  key_sql_query_mutex.unlock();
  run("x=test_run_switch");
  key_sql_query_mutex.lock();
  EXPECT_EQ(taken + 1, wllb_get_or_gen_norm_id(&key_sql_nonprep_query, "another", 0, &is_new));
  key_sql_query_mutex.unlock();
  wllb_trace_partition = 0;
  wllb_obj_hash_destroy(&key_sql_nonprep_query);
  tqp_process_state_init();
}
