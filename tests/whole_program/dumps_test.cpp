// What operators ask a running program for by signal: map dumps, with and without a request file, and the status file.

#include "test_run.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

class dumps_on_demand : public tqp_test_run {
protected:
  void SetUp() override {
    setenv("TQP_OUTSIDE_ROOT", (directory + "/outside").c_str(), 1);
    fs::create_directories(directory + "/outside/tmp");
    raw(identity() + method(17, "a.B.c()V") + "6,User-Agent,3\n22,8731,9,select * from cart\n36,17,at c\n" +
        "2,100:100:0:100,1,1.0,5,0,/x,,,1,2,0,thread,0\n");
    raw(identity("T_S_Other", 3, 4, 6), "T_S_Other");
  }

  void TearDown() override { unsetenv("TQP_OUTSIDE_ROOT"); }

  void ask_for(const std::string &lines) const {
    std::ofstream(directory + "/outside/tmp/tqp_dump_loc2norm_maps.txt") << lines;
  }

  std::unique_ptr<running_program> start_and_read_all() {
    auto tqp = start();
    EXPECT_TRUE(eventually([&] {
      return saved_offset() == static_cast<long>(fs::file_size(raw_path())) &&
             saved_offset("T_S_Other") == static_cast<long>(fs::file_size(raw_path("T_S_Other")));
    }));
    return tqp;
  }

  // Names of the dumps made so far, without directory and time.
  std::vector<fs::path> dumps() const {
    std::vector<fs::path> found;
    for (const auto &entry : fs::directory_iterator(path("tq/logs")))
      if (entry.path().filename().string().rfind("tqp_loc2norm_map_dump_", 0) == 0)
        found.push_back(entry.path());
    return found;
  }
};

static const std::string rule = "\n---------------------------\n";

TEST_F(dumps_on_demand, a_request_file_chooses_instances_and_maps) {
  ask_for("# all of it\n#T_S_Other,5\n\n \tTier_Server_App,5, 6,21,37,999\nNobody_S_A,5\nT_S_Oth\n");
  const auto tqp = start_and_read_all();
  tqp->signal(SIGRTMIN + 5);
  const std::string end_of_dump = "entry_methods_count,entry_exit_methods_count\n";
  ASSERT_TRUE(
      eventually([&] { return dumps().size() == 1 && file_text(dumps()[0]).find(end_of_dump) != std::string::npos; }));

  const std::string name = dumps()[0].filename().string();
  EXPECT_EQ(0U, name.find("tqp_loc2norm_map_dump_Tier_Server_App_" + first_partition + "_")) << name;
  EXPECT_NE(std::string::npos, name.find("_1.log"));
  // 37 asks for causes in the records, and gets the cause map's neighbour here: the two are crossed.
  EXPECT_EQ(0U, file_text(dumps()[0])
                    .find("METHOD MAP" + rule + "BCI_Local_ID | Normalized_ID\n17|1\n" + "Exception Cause MAP" + rule +
                          "BCI_Local_ID | Normalized_ID\n17|1\n" + "HTTP Header MAP" + rule +
                          "BCI_Local_ID | Normalized_ID | Header_Name\n3|0|User-Agent\n" + "SQL MAP" + rule +
                          "BCI_Local_ID | Normalized_ID | Query_Type\n9|1|1\n" + "Con FP Buf" + rule +
                          "last_occupied_fp_idx=0\ncur_max_concurrent_flowpaths="))
      << file_text(dumps()[0]);
  EXPECT_NE(std::string::npos, file_text(dumps()[0]).find("\n0.0,100:100:0:100,")) << file_text(dumps()[0]);
}

TEST_F(dumps_on_demand, without_a_request_file_everything_is_dumped_and_an_empty_one_asks_for_nothing) {
  const auto tqp = start_and_read_all();
  tqp->signal(SIGRTMIN + 5);
  ASSERT_TRUE(eventually([&] { return dumps().size() == 2; }));
  ask_for("");
  tqp->signal(SIGRTMIN + 5);
  ASSERT_TRUE(eventually([&] { return occurrences(trace(), "Received TQP_DUMP_LOC2NORM_MAPS Signal") == 2; }));
  ask_for("T_S_Other\nT_S_Other,112\n");
  tqp->signal(SIGRTMIN + 5);
  EXPECT_TRUE(eventually([&] { return dumps().size() == 3; })) << "one request an instance";
  tqp->signal(SIGRTMIN + 5);
  EXPECT_TRUE(eventually([&] { return dumps().size() == 4; })) << dumps().size();
  const std::string request = directory + "/outside/tmp/tqp_dump_loc2norm_maps.txt";
  if (geteuid() != 0)
    return;
  ASSERT_EQ(0, chown(request.c_str(), 65534, 65534)); // somebody else's does not choose
  tqp->signal(SIGRTMIN + 5);
  EXPECT_TRUE(eventually([&] { return dumps().size() == 6; })) << dumps().size();
  EXPECT_EQ(1, occurrences(trace(), request + " belongs to user 65534 and is not looked at"));
}

TEST_F(dumps_on_demand, the_status_file_tells_how_far_each_instance_is) {
  const auto tqp = start_and_read_all();
  append_raw("5,cut");
  fs::remove(raw_path("T_S_Other")); // without a file there is no line
  const auto size = fs::file_size(raw_path());
  tqp->signal(SIGRTMIN + 6);
  const std::string wanted =
      "#Instance_name|Current_processing_partiton|File_size|Processed_size|No_of_remaining_partitions\n"
      "Tier_Server_App|" +
      first_partition + "|" + std::to_string(size) + "|" + std::to_string(size - 5) + "|0\n";
  EXPECT_TRUE(eventually([&] { return read("tq/logs/tqp_current_processing_status") == wanted; }))
      << read("tq/logs/tqp_current_processing_status");
}

TEST_F(dumps_on_demand, at_trace_level_2_the_maps_are_shown_before_and_after_each_switch) {
  const std::vector<std::string> all = {first_partition, second_partition, "20261122120000"};
  std::vector<int> shown;
  for (const int level : {1, 2}) { // each run moves on by one partition
    keywords("TQP_TRACE_LEVEL " + std::to_string(level) + "\n");
    make_partitions({all.begin(), all.begin() + level + 1});
    raw(identity());
    EXPECT_EQ(0, run().exit_status);
    for (const std::string &partition : all)
      shown.push_back(static_cast<int>(std::ranges::count_if(dumps(), [&](const fs::path &file) {
        return file.filename().string().find("_App_" + partition + "_") != std::string::npos &&
               file_text(file).find("METHOD MAP" + rule + "BCI_Local_ID | Normalized_ID\n17|1\n") == 0;
      })));
  }
  EXPECT_EQ((std::vector<int>{0, 0, 0, 0, 1, 1}), shown);
}
