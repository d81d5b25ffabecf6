// Which files there are, whether they keep what they had, who owns them, and how they move on with the partitions.

#include "output_files_fixture.h"
#include "tqp_process_data.h"

#include <thread>

namespace {

class file_set : public output_files {
protected:
  int open_slots() const {
    int count = 0;
    for (const FILE *stream : inst->csv_file_pointers)
      count += stream != nullptr;
    return count;
  }

  void move_on_to(const std::string &next) const {
    close_all_instance_files_open_debug_files(inst);
    wllb_copy_text(inst->partition_name, sizeof inst->partition_name, next);
    set_csvfilepath_in_tqp_instance(inst, next.c_str());
    create_tq_dir_and_subdir(inst, next.c_str());
    create_csv_files(inst, 1);
  }
};

TEST_F(file_set, a_fresh_run_truncates_and_a_resumed_one_appends) {
  for (const int resumed : {0, 1}) {
    resume_flag = resumed;
    put_file(data("TQFlowPath.csv"), "old\n");
    create_csv_files(inst, 1);
    tqp_append_rows(inst->csv_file_pointers[FLOWPATH_CSV_FP], "new\n");
    csv_dump_all_files(inst);
    EXPECT_EQ(resumed ? "old\nnew\n" : "new\n", file_text(data("TQFlowPath.csv")));
    tqp_close_stream(&inst->csv_file_pointers[FLOWPATH_CSV_FP]);
  }
}

TEST_F(file_set, streams_stay_in_their_slots_only_when_asked_for) {
  ownerid = geteuid() == 0 ? 54321 : static_cast<int>(getuid());
  grpid = geteuid() == 0 ? 54322 : static_cast<int>(getgid());
  tqp_enable_sql_record = tqp_dump_urc = 0;
  create_csv_files(inst, 0);
  EXPECT_EQ(0, open_slots());
  for (const char *name : {"TQCustomData.csv", "TQExceptions.csv", "TQFlowPath.csv", "TQSQLTiming.csv", "TQJMS.csv"}) {
    struct stat made = {};
    ASSERT_EQ(0, stat(data(name).c_str(), &made)) << name;
    EXPECT_EQ(static_cast<uid_t>(ownerid), made.st_uid) << name;
    EXPECT_EQ(static_cast<gid_t>(grpid), made.st_gid) << name;
  }
  EXPECT_FALSE(wllb_path_exists(data("TQSQLRecord.csv").c_str()));

  tqp_enable_sql_record = tqp_dump_urc = 1;
  create_csv_files_ex(inst, 1);
  EXPECT_EQ(8, open_slots());
}

TEST_F(file_set, an_open_slot_keeps_its_file_and_the_sql_timing_file_hangs_on_its_neighbour) {
  tqp_enable_sql_record = 1;
  create_csv_files(inst, 1);
  FILE *const before = inst->csv_file_pointers[FLOWPATH_CSV_FP];
  unlink(data("TQSQLTiming.csv").c_str());
  create_csv_files(inst, 1);
  EXPECT_EQ(before, inst->csv_file_pointers[FLOWPATH_CSV_FP]);
  EXPECT_FALSE(wllb_path_exists(data("TQSQLTiming.csv").c_str()));
  tqp_close_stream(&inst->csv_file_pointers[SQL_RECORD_TABLE_FP]);
  create_csv_files(inst, 1);
  EXPECT_TRUE(wllb_path_exists(data("TQSQLTiming.csv").c_str()));
}

TEST_F(file_set, an_instance_whose_thread_has_not_begun_gets_no_files) {
  inst->active_flag = 0;
  create_csv_files(inst, 1);
  EXPECT_TRUE(std::filesystem::is_empty(inst->csvfilepath));
}

TEST_F(file_set, a_file_lives_for_its_partition_and_one_more) {
  tqp_dump_urc = 1;
  const std::string names[] = {partition, "20261122220000", "20261122223000"};
  std::string paths[3];
  create_csv_files(inst, 1);
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      move_on_to(names[i]);
      ASSERT_NE(nullptr, inst->prev_csv_file_pointers[FLOWPATH_CSV_FP]);
      tqp_append_rows(inst->prev_csv_file_pointers[FLOWPATH_CSV_FP], "late\n");
    }
    paths[i] = data("TQFlowPath.csv");
    tqp_append_rows(inst->csv_file_pointers[FLOWPATH_CSV_FP], "own\n");
    csv_dump_all_files(inst);
  }
  EXPECT_EQ("own\nlate\n", file_text(paths[0]));
  EXPECT_EQ("own\nlate\n", file_text(paths[1]));
  EXPECT_EQ("own\n", file_text(paths[2]));
  close_all_instance_files_open_debug_files(inst);
  EXPECT_EQ(0, open_slots()) << "files without a previous generation are closed";
}

TEST_F(file_set, binary_timing_rows_go_to_the_dat_file) {
  tqp_binary_format_for_method_timing = 1;
  const std::string dat = run_dir() + partition + "/tq/dat/tier_server_app_MethodTiming.dat";
  create_csv_files(inst, 0);
  create_csv_files(inst, 1);
  tqp_append_rows(inst->csv_file_pointers[METHOD_TIMING_CSV_FP], "binary");
  csv_dump_all_files(inst);
  EXPECT_EQ("binary", file_text(dat));
}

TEST_F(file_set, the_other_disk_shows_through_one_link_however_many_instances_ask) {
  ownerid = geteuid() == 0 ? 54321 : static_cast<int>(getuid());
  disk_processed_path = root + "/disk";
  tqp_instance_t other;
  begin_instance(other, "tier_server_other");
  std::string paths[2];
  std::thread first([&] { create_method_timing_dat_filename_and_file(inst, nullptr, &paths[0]); });
  std::thread second([&] { create_method_timing_dat_filename_and_file(&other, nullptr, &paths[1]); });
  first.join();
  second.join();
  const std::string target = root + "/disk/TR1001/" + partition + "/tq/dat";
  const std::string link = run_dir() + partition + "/tq/dat";
  EXPECT_EQ(target + "/tier_server_app_MethodTiming.dat", paths[0]);
  EXPECT_EQ(target + "/tier_server_other_MethodTiming.dat", paths[1]);
  EXPECT_EQ(target, std::filesystem::read_symlink(link).string());
  EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(link), {}));
  struct stat made;
  for (const std::string &path : {link, target, paths[0]}) {
    ASSERT_EQ(0, lstat(path.c_str(), &made));
    EXPECT_EQ(static_cast<uid_t>(ownerid), made.st_uid) << path;
  }
  end_instance(other);
}

TEST_F(file_set, late_rows_are_noted_once_their_partition_is_done) {
  inst->jvmid = 3;
  inst->appID = 7;
  write_prev_tqpdone(inst, "TQMethodTiming.csv");
  const std::string done = run_dir() + "done";
  {
    wllb_hold hold(check_and_create_partition_done_file_mutex);
    tqpdone_fileptr_v2.reset(my_fopen(done.c_str(), "a"), wllb_close_file());
    inst->prev_tqpdone_fileptr_v2 = tqpdone_fileptr_v2;
    tqpdone_fileptr_v2.reset(); // as when the next partition is done
  }
  write_prev_tqpdone(inst, "TQFlowPath.csv");
  write_prev_tqpdone(inst, "TQJMS.csv");
  EXPECT_EQ("3,7,tier_server_app/TQFlowPath.csv\n3,7,tier_server_app/TQJMS.csv\n", file_text(done));
}

// Two leave at the same time; a newcomer whose place is not known yet is in the way, and later goes for good.
TEST_F(file_set, a_partition_is_done_once_when_the_last_one_is_out_of_its_way) {
  const int64_t first = stoll(partition), second = first + 10000, third = second + 10000;
  for (const int64_t idx : {second, third})
    std::filesystem::create_directories(run_dir() + std::to_string(idx) + "/tq/csv");
  tqp_instance_t other, newcomer;
  begin_instance(other, "t_s_other");
  begin_instance(newcomer, "t_s_newcomer");
  newcomer.partition_idx = 0;
  const auto register_all = [&]() WLLB_NO_THREAD_CHECK { tqp_imap = {inst, &other, &newcomer}; };
  register_all();
  const auto both_leave = [&](int64_t from, int64_t to) {
    for (tqp_instance_t *one : {inst, &other}) {
      one->prev_partition_idx = from;
      one->partition_idx = to;
    }
    for (tqp_instance_t *one : {inst, &other})
      check_and_create_partition_done_file(one, from);
  };
  const auto done = []() WLLB_NO_THREAD_CHECK { return -static_cast<int>(tqp_mon_stat_info.process_done_lag_count); };
  both_leave(first, second);
  EXPECT_EQ(0, done());
  tqp_take_place(&newcomer, second);
  EXPECT_EQ(1, done());
  EXPECT_TRUE(inst->prev_tqpdone_fileptr_v2 && inst->prev_tqpdone_fileptr_v2 == other.prev_tqpdone_fileptr_v2);
  both_leave(first, second);
  EXPECT_EQ(1, done());
  both_leave(second, third);
  EXPECT_EQ(1, done());
  tqp_take_place(&newcomer, nowhere_to_read);
  EXPECT_EQ(2, done());
  EXPECT_EQ(2, traced("All app instance completed the processing for partition"));
  wl_status = WL_OVER; // who stays behind now does not finish what others have not read
  put_file(run_dir() + std::to_string(third) + "/tq/raw_data/t_s_newcomer.txt", "0,t,s,newcomer,1,1,1\n");
  tqp_take_place(&newcomer, third);
  both_leave(third, third + 10000);
  tqp_take_place(&newcomer, nowhere_to_read);
  EXPECT_EQ(2, done());
  end_instance(other);
  end_instance(newcomer);
}

// One is ahead by two partitions, the other reads them one by one, the last of them a second time.
TEST_F(file_set, what_the_one_behind_has_still_to_read_is_not_done) {
  const int64_t places[] = {20261122080000, 20261122090000, 20261122100000};
  tqp_instance_t behind;
  begin_instance(behind, "t_s_behind");
  const auto register_both = [&]() WLLB_NO_THREAD_CHECK { tqp_imap = {inst, &behind}; };
  register_both();
  const auto leave = [](tqp_instance_t *one, int64_t from, int64_t to) {
    one->prev_tqpdone_fileptr_v2.reset();
    one->prev_partition_idx = from;
    one->partition_idx = to;
    check_and_create_partition_done_file(one, from);
  };
  const auto done = [&](int64_t place) {
    return wllb_path_exists((run_dir() + std::to_string(place) + "/tq/csv/.tqp_process_done_v2.txt").c_str());
  };
  behind.partition_idx = places[0];
  leave(inst, places[0], places[1]);
  leave(inst, places[1], places[2]);
  EXPECT_FALSE(done(places[0]) || done(places[1]));
  leave(&behind, places[0], places[1]);
  EXPECT_TRUE(done(places[0]) && !done(places[1])) << "it has only begun with the next one";
  leave(&behind, places[1], places[2]);
  EXPECT_TRUE(done(places[1]) && behind.prev_tqpdone_fileptr_v2);
  leave(&behind, places[1], places[2]);
  EXPECT_TRUE(behind.prev_tqpdone_fileptr_v2) << "late rows of a done partition are noted, whoever writes them";
  wl_status = WL_STOP_NOW; // those that have given up their places may not be ready with it
  leave(inst, places[2], places[2] + 10000);
  leave(&behind, places[2], nowhere_to_read);
  EXPECT_FALSE(done(places[2]));
  end_instance(behind);
}

} // namespace
