// The operator's view of a running program: where each instance stands, how fast it is, what it has in flight.

#include "test_run.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

class operators_view : public tqp_test_run {
protected:
  void SetUp() override {
    setenv("TQP_OUTSIDE_ROOT", (directory + "/outside").c_str(), 1);
    fs::create_directories(directory + "/outside/tmp");
  }

  void TearDown() override { unsetenv("TQP_OUTSIDE_ROOT"); }

  std::unique_ptr<running_program> top(std::vector<std::string> options) const {
    options.insert(options.begin(), {std::string(TQP_BINARY_DIR) + "/tqtop", "--dir", directory, "--testrun", "1234"});
    return std::make_unique<running_program>(options, directory + "/tqtop");
  }

  // The words of the instance's line.
  static std::vector<std::string> words_of(const std::string &output, const std::string &instance) {
    for (const std::string &line : lines_of(output))
      if (line.rfind(instance + " ", 0) == 0) {
        std::istringstream in(line);
        return {std::istream_iterator<std::string>(in), {}};
      }
    return {};
  }
};

TEST_F(operators_view, tells_lag_rates_flowpaths_in_flight_and_errors) {
  keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 10\n");
  const std::string header = ",1,1.0,5,0,/x,,,1,2,0,thread,0\n";
  raw(identity() + "2,100:100:0:100" + header + "2,102:102:0:102" + header + "5,cut");
  raw(identity("T_S_Other", 3, 4, 6), "T_S_Other");
  std::ofstream(directory + "/samples")
      << "0:TQP|2 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n5:Tier_Server_App|9 9 9 9 9 9 9 9 9 9 9\n"
         "5:Tier_Server_App|1 2 3 4 5 6 7 8 90 10 0.5\n3|4|5:T_S_Other|1 2\n";
  const auto tqp = start();
  ASSERT_TRUE(eventually([&] { return saved_offset() > 0 && saved_offset("T_S_Other") > 0; }));
  const auto view = top({"--once", "--interval", "1", "--open", "--samples", directory + "/samples"});
  ASSERT_TRUE(eventually([&] { return fs::exists(path("tq/logs/tqp_current_processing_status")); }));
  std::string more;
  for (int i = 0; i < 500; ++i)
    more += "62,x\n";
  std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the first look is over
  append_raw(" short\n" + more + "5,cut");
  const program_end end = view->wait();
  ASSERT_EQ(0, end.exit_status) << end.errors;

  const std::vector<std::string> words = words_of(end.output, "Tier_Server_App");
  ASSERT_EQ(8U, words.size()) << end.output;
  EXPECT_EQ(first_partition, words[1]);
  EXPECT_EQ("5", words[2]); // bytes of the cut line
  EXPECT_EQ("0", words[3]);
  EXPECT_NEAR(501, std::stod(words[4]), 150); // lines a second, over about one second
  EXPECT_EQ("0.0", words[5]);
  EXPECT_EQ("2", words[6]);   // flowpaths that have begun
  EXPECT_EQ("101", words[7]); // and their kinds below
  EXPECT_EQ(1, occurrences(end.output, "\nTier_Server_App: 1 "));
  for (const std::string &line : lines_of(end.output))
    EXPECT_LE(line.size(), 80U) << line;
  const std::vector<std::string> other = words_of(end.output, "T_S_Other");
  ASSERT_EQ(8U, other.size()) << end.output;
  EXPECT_EQ("0", other[6]);
  EXPECT_EQ("-", other[7]);
  for (const auto &entry : fs::directory_iterator(path("tq/logs"))) // what was asked for is tidied up
    EXPECT_EQ(std::string::npos, entry.path().string().find("map_dump")) << entry.path();
  EXPECT_TRUE(fs::is_empty(directory + "/outside/tmp"));
}

// The same as JSON, and names that would not fit or not be harmless.
TEST_F(operators_view, json_has_null_for_what_is_not_known) {
  keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 10\n");
  const std::string long_name = "A" + std::string(30, 'b') + "_" + std::string(30, 'c') + "_App";
  raw(identity(long_name), long_name);
  const auto tqp = start();
  ASSERT_TRUE(eventually([&] { return saved_offset(long_name) > 0; }));
  const program_end end = top({"--rounds", "2", "--interval", "1", "--json"})->wait();
  ASSERT_EQ(0, end.exit_status) << end.errors;
  const std::vector<std::string> lines = lines_of(end.output);
  ASSERT_EQ(2U, lines.size()) << end.output;
  EXPECT_NE(std::string::npos, lines[1].find("\"instance\":\"" + long_name + "\",\"partition\":\"" + first_partition +
                                             "\",\"lag_bytes\":0,\"partitions_left\":0,\"lines_per_second\":0"))
      << lines[1];
  EXPECT_NE(std::string::npos, lines[1].find("\"open_flowpaths\":null,\"errors\":null}]}"));
  const program_end table = top({"--once", "--interval", "1"})->wait();
  for (const std::string &line : lines_of(table.output))
    EXPECT_LE(line.size(), 80U) << line;
}

TEST_F(operators_view, without_a_daemon_there_is_nothing_to_see) {
  const program_end end = top({"--once"})->wait();
  EXPECT_EQ(1, end.exit_status);
  EXPECT_NE(std::string::npos, end.errors.find("no tqp works on ")) << end.errors;
}
