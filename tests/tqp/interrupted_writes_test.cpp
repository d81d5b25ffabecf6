// Writes that the system interrupts or takes only in part are continued: what stands in the files is the same.

#include "one_instance_run.h"
#include "state_save.h"
#include "test_files.h"
#include "tqp_csv_files.h"
#include "watched_writes.h"

#include <gtest/gtest.h>

#include <map>

static int calls;

// Every other call is interrupted, the others take some bytes only.
static size_t disturb(std::string_view bytes) {
  return ++calls % 2 == 1 ? 0 : std::min<size_t>(bytes.size(), 7);
}

static std::map<std::string, std::string> files_written(bool disturbed) {
  std::map<std::string, std::string> found;
  tqp_instance_t *inst = open_one_instance_run();
  const std::string flowpath =
      "2,5:0:0:5,10,5,1,5,q,c,1,2,3,t,1,1,,,,1\n4,5:0:0:5,200,1,1:0:0:0:0,5,-,0,x,0,0,-,-,1:1_0_0_0_1:1_1_5_1:0:0:0:0___\n";
  const write_watch disturbance = disturb;
  watched_write = disturbed ? &disturbance : nullptr;
  run_block(inst, "0,Tier,Server,App,3,4,5\n99,x,FPGVersion:2.0,JAVA\n5,a.B.c()V,1\n7,5,/shop\n6,User-Agent,3\n" +
                      std::string("23,select 1,9\n") + flowpath);
  save_tqp_app_instance_thread_state(inst);
  watched_write = nullptr;
  const std::string root = wl_wdir;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(root + "/logs"))
    if (entry.is_regular_file() && entry.path().filename() != "TQMetaDataEx.csv")
      found[entry.path().string().substr(root.size())] = file_text(entry.path());
  close_one_instance_run(inst);
  return found;
}

TEST(interrupted_writes, leave_every_file_as_it_should_be) {
  const std::map<std::string, std::string> expected = files_written(false);
  const auto filled =
      std::count_if(expected.begin(), expected.end(), [](const auto &file) { return !file.second.empty(); });
  EXPECT_LT(10, filled);
  EXPECT_EQ(expected, files_written(true));
  EXPECT_LT(100, calls);
}
