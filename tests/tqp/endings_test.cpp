// Flowpaths that are given up: silence by the clock that is never set, overdue responses by the clock of the data.

#include "one_instance_run.h"
#include "tqp_csv_files.h"
#include "tqp_run_time_v2.h"

#include <gtest/gtest.h>

static int64_t told_time; // ms

class endings : public testing::Test {
protected:
  tqp_instance_t *inst = nullptr;
  int64_t (*clock_before)() = wllb_monotonic_ms;

  endings() {
    told_time = 1'700'000'000'000;
    wllb_monotonic_ms = [] { return told_time; };
    inst = open_one_instance_run();
    run_block(inst, "0,Tier,Server,App,3,4,5\n5,a.B.c()V,1\n");
  }

  ~endings() override {
    close_one_instance_run(inst);
    wllb_monotonic_ms = clock_before;
  }

  // A flowpath's header; `start` in seconds of the data.
  static std::string header(int fpi, int start) {
    const std::string id = std::to_string(fpi);
    return "2," + id + ":0:0:" + id + "," + std::to_string(start) + ",1,1,0,q,c,1,2,3,t,1,1,,,,1\n";
  }

  // One method in which an asynchronous call goes out, and its end.
  static std::string asynchronous_flowpath(int fpi) {
    const std::string tuple = std::to_string(fpi) + ":0:0:" + std::to_string(fpi);
    return "4," + tuple + ",200,1,1:0:0:0:0,5,-,0,x,0,0,-,-,1:7_0_0_0_a3:1:1:9:1:2:1:-:1:s:1::_1:7_1_5_1:0:0:0:0___\n";
  }

  // The flowpaths whose rows have been written.
  std::vector<int> rows() const {
    csv_dump_all_files(inst);
    const std::string text = wllb_read_small_file((std::string(inst->csvfilepath) + "TQFlowPath.csv").c_str());
    std::vector<int> out;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1)
      out.push_back(atoi(text.c_str() + at));
    return out;
  }
};

TEST_F(endings, a_silent_flowpath_is_dead_after_more_than_ten_minutes) {
  run_block(inst, header(5, 10));
  told_time += 600'000; // not yet above the limit
  run_block(inst, header(6, 20));
  EXPECT_TRUE(rows().empty());
  told_time += 59'000; // above it, but the last sweep is not a minute ago
  run_block(inst, header(7, 30));
  EXPECT_TRUE(rows().empty());
  told_time += 1'000;
  run_block(inst, header(8, 40));
  EXPECT_EQ(std::vector<int>{5}, rows());
  secs_to_mark_an_fp_dead = 0; // switches it off
  told_time += 10'000'000;
  run_block(inst, header(9, 50));
  EXPECT_EQ(std::vector<int>{5}, rows());
}

TEST_F(endings, an_overdue_response_is_given_up_by_the_clock_of_the_data) {
  run_block(inst, header(5, 100) + asynchronous_flowpath(5) + header(6, 160));
  EXPECT_TRUE(rows().empty());             // it waits for its response
  clear_async_resp_missed_flowpaths(inst); // the data is 60 s ahead: not above the limit
  EXPECT_TRUE(rows().empty());
  run_block(inst, header(7, 161));
  told_time += 100'000'000; // the process's clock does not matter
  clear_async_resp_missed_flowpaths(inst);
  EXPECT_EQ(std::vector<int>{5}, rows()); // 6 awaits no response: this timer leaves it alone
}

TEST_F(endings, a_response_ends_the_waiting) {
  run_block(inst, header(5, 100) + asynchronous_flowpath(5));
  EXPECT_TRUE(rows().empty());
  run_block(inst, "80,x,9:0:5:5,103000,1,8.1,thr,A3:1:1:9:1:2:1:-:1:s:1::_1:8_0_0_0_1:8_1_2_1:0:0:0:0___\n");
  EXPECT_EQ(std::vector<int>{5}, rows()); // its segment is the last one awaited, so it releases the main one
}
