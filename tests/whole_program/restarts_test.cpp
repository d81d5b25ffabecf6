// Stops and restarts of the real program over several partitions: late rows, done files, the offset a stop leaves, what
// the end of the test reports.
//   In      raw data in partitions that begin at 0 and 3600 s; offset files as an earlier run leaves them
//   Failure rows lost or read by nobody, a partition marked as done that was not read

#include "test_run.h"

#include "wllb_partition.h"

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

class restarts : public tqp_test_run {
protected:
  restarts() { make_partitions({first_partition, second_partition}); }

  static std::string header(int fpi, int time_sec) {
    const std::string tuple = std::to_string(fpi) + ":0:0:" + std::to_string(fpi);
    return "2," + tuple + "," + std::to_string(time_sec) + ",7,1,5,q,c,1,2,3,t,1,1,,,,1\n";
  }

  static std::string flowpath(int fpi, int time_sec) {
    return header(fpi, time_sec) + "4," + std::to_string(fpi) + ":0:0:" + std::to_string(fpi) +
           ",200,1,1:0:0:0:0,5,-,0,x,0,0,-,-,1:77_0_0_0_1:77_1_5_1:0:0:0:0___\n";
  }

  // Keeps the instance busy long enough for a signal to find it reading.
  static std::string long_stretch() {
    std::string text;
    for (int i = 0; i < 6'000'000; ++i)
      text += "61,1\n";
    return text;
  }

  // Starts over a long first partition and returns once it is being read.
  std::unique_ptr<running_program> start_in_long_partition(const std::vector<std::string> &options = {}) {
    raw(identity() + names + header(1, 100) + header(2, 100) + header(3, 100) + long_stretch(), "Tier_Server_App",
        first_partition);
    raw(identity() + flowpath(520, 3700));
    auto tqp = start(options);
    EXPECT_TRUE(eventually([&] { // the headers are in the same block as this name
      return fs::exists(offset_path(first_partition)) && occurrences(common("TQURLTable.csv"), "/shop") > 0;
    }));
    return tqp;
  }

  std::string offset_path(const std::string &partition) const {
    return path(partition + "/tq/raw_data/.Tier_Server_App.txt.offset");
  }

  bool is_done(const std::string &partition) const {
    return fs::exists(path(partition + "/tq/csv/" + wllb_done_file_name));
  }

  std::string done(const std::string &partition) const { return read(partition + "/tq/csv/" + wllb_done_file_name); }

  const std::string names = "99,x,FPGVersion:2.0,JAVA\n" + method(1, "a.B.main()V") + "7,5,/shop\n";
};

TEST_F(restarts, late_rows_find_the_files_of_the_partition_before) {
  raw(identity() + names + flowpath(500, 100), "Tier_Server_App", first_partition);
  raw(identity() + flowpath(510, 3700));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1U, lines_of(data("TQFlowPath.csv", first_partition)).size());
  EXPECT_TRUE(is_done(first_partition) && done(first_partition).empty());
  put_file(path(first_partition + "/tq/csv/Tier_Server_App/TQFlowPath.csv"), "77,torn", std::ios::app);
  const auto blobs = fs::file_size(path(first_partition + "/tq/sqb/5"));
  append_raw(flowpath(520, 200) + flowpath(530, 300));
  EXPECT_EQ(0, run().exit_status);
  const std::vector<std::string> rows = lines_of(data("TQFlowPath.csv", first_partition));
  ASSERT_EQ(3U, rows.size());
  EXPECT_TRUE(rows[1].starts_with("520,") && rows[2].starts_with("530,"));
  EXPECT_LT(blobs, fs::file_size(path(first_partition + "/tq/sqb/5")));
  EXPECT_EQ(2, occurrences(done(first_partition), "0,5,Tier_Server_App/TQFlowPath.csv\n"));
  EXPECT_EQ(1U, lines_of(data("TQFlowPath.csv")).size());
}

TEST_F(restarts, a_stop_moves_no_offset_enters_no_partition_and_marks_none) {
  const auto tqp = start_in_long_partition();
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_EQ(3U, lines_of(data("TQFlowPath.csv", first_partition)).size()) << "flowpaths in flight are written";
  EXPECT_EQ(0, saved_offset("Tier_Server_App", first_partition));
  EXPECT_FALSE(fs::exists(offset_path(second_partition)));
  EXPECT_FALSE(is_done(first_partition) || is_done(second_partition));
}

TEST_F(restarts, a_stop_ends_a_test_that_is_still_being_read) {
  const auto tqp = start_in_long_partition();
  tqp->signal(SIGRTMIN + 3);
  EXPECT_TRUE(eventually([&] { return occurrences(trace(), "Test run stopped, joining threads") == 1; }));
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_EQ(0, saved_offset("Tier_Server_App", first_partition));
  EXPECT_FALSE(is_done(first_partition) || is_done(second_partition));
}

// With a collector, nobody moves on once the test is over.
TEST_F(restarts, the_end_of_the_test_reports_partitions_nobody_has_come_to) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  ASSERT_EQ(0, listen(listener, 1) | getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size));
  const auto tqp = start_in_long_partition({"-l", std::to_string(ntohs(address.sin_port))});
  tqp->signal(SIGRTMIN + 3);
  const program_end end = tqp->wait();
  close(listener);
  const std::string words = "Partition " + second_partition +
                            " is not read to its end and not marked as done, raw files: 1 (Tier_Server_App.txt)";
  EXPECT_EQ(1, occurrences(end.errors, words)) << end.errors;
  EXPECT_EQ(1, occurrences(trace(), words));
  EXPECT_TRUE(is_done(first_partition) && !is_done(second_partition));
  EXPECT_EQ("", data("TQFlowPath.csv"));
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(1U, lines_of(data("TQFlowPath.csv")).size()) << "the next start reads it";
}

// What an earlier run has left: the instance stands in the second partition.
TEST_F(restarts, a_partition_without_an_instance_is_done_when_its_files_are_read) {
  for (const size_t unread : {0U, 1U}) {
    SCOPED_TRACE(unread);
    fs::remove(path(first_partition + "/tq/csv/" + wllb_done_file_name));
    fs::remove(path(second_partition + "/tq/csv/" + wllb_done_file_name));
    const std::string before = identity() + "61,a\n";
    raw(before + "61,half a line", "Tier_Server_App", first_partition);
    put_file(offset_path(first_partition), std::to_string(before.size() - unread));
    raw(identity() + "61,b\n");
    put_file(offset_path(second_partition), std::to_string(identity().size()));
    const auto tqp = start();
    EXPECT_TRUE(eventually([&] { return static_cast<size_t>(saved_offset()) == identity().size() + 5; }));
    EXPECT_EQ(unread == 0, is_done(first_partition));
    tqp->signal(SIGRTMIN + 3);
    const program_end end = tqp->wait();
    EXPECT_EQ(unread == 0, is_done(second_partition));
    EXPECT_EQ(static_cast<int>(unread),
              occurrences(end.errors, "Partition " + first_partition + " is not read to its end"));
  }
}
