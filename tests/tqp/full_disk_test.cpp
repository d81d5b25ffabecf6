// Rows where the system takes no more, or a kill has come: each stands in its file whole or not at all, and those of the
// common files come later, since their ids are in use. A limit of file size plays the full disk.

#include "output_files_fixture.h"

#include <csignal>
#include <sys/resource.h>

namespace {

class full_disk : public output_files {
protected:
  full_disk() { signal(SIGXFSZ, SIG_IGN); }

  ~full_disk() override {
    let_files_grow_to(RLIM_INFINITY);
    signal(SIGXFSZ, SIG_DFL);
  }

  static void let_files_grow_to(rlim_t bytes) {
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
};

TEST_F(full_disk, each_row_stands_there_whole_or_not_at_all) {
  const std::string path = data("rows.csv"), batch = "1,one\n2,two\n", second = "3,three\n", later = "4,four\n5,five\n";
  for (rlim_t room = 0; room <= batch.size() + second.size(); ++room) {
    put_file(path, "");
    FILE *stream = my_fopen(path.c_str(), "a");
    let_files_grow_to(room);
    const bool taken = tqp_append_rows(stream, batch);
    const bool second_taken = tqp_append_rows(stream, second);
    let_files_grow_to(RLIM_INFINITY);
    EXPECT_TRUE(tqp_append_rows(stream, later));
    tqp_close_stream(&stream);
    EXPECT_EQ(room >= batch.size(), taken);
    EXPECT_EQ(room >= (taken ? batch.size() : 0) + second.size(), second_taken);
    EXPECT_EQ((taken ? batch : "") + (second_taken ? second : "") + later, file_text(path)) << room;
  }
}

TEST_F(full_disk, what_ids_stand_for_is_written_once_there_is_room) {
  create_csv_metadata_files((run_dir() + "tq/csv/").c_str());
  const std::string path = run_dir() + "tq/csv/TQExceptionClass.csv", both = "1,first\n2,second\n";
  for (const bool by_next_row : {true, false})
    for (rlim_t room = 0; room < both.size(); ++room) {
      std::filesystem::resize_file(path, 0);
      let_files_grow_to(room);
      csv_dump_excp_cls_data(inst, 1, "first");
      csv_dump_excp_cls_data(inst, 2, "second");
      let_files_grow_to(RLIM_INFINITY);
      if (by_next_row)
        csv_dump_excp_cls_data(inst, 3, "third");
      else
        tqp_write_waiting_metadata();
      EXPECT_EQ(both + (by_next_row ? "3,third\n" : ""), file_text(path)) << room;
    }
}

TEST_F(full_disk, a_row_torn_by_a_kill_is_gone_after_a_restart) {
  resume_flag = 1;
  tqp_binary_format_for_method_timing = 1;
  const std::string rows = "1,2\n" + std::string(5000, '3') + "\n4,5\n", records(2 * tqp_timing_record_size, 'r');
  const std::string dat = run_dir() + partition + "/tq/dat/tier_server_app_MethodTiming.dat";
  std::filesystem::create_directories(run_dir() + partition + "/tq/dat");
  for (size_t cut = 0; cut <= rows.size(); cut += cut < 10 || cut > 4990 ? 1 : 499) {
    put_file(data("TQFlowPath.csv"), rows.substr(0, cut));
    put_file(dat, records.substr(0, cut));
    create_csv_files(inst, 1);
    EXPECT_EQ(rows.substr(0, rows.substr(0, cut).rfind('\n') + 1), file_text(data("TQFlowPath.csv"))) << cut;
    const size_t whole = std::min(cut, records.size());
    EXPECT_EQ(whole - whole % tqp_timing_record_size, file_text(dat).size()) << cut;
    for (FILE *&stream : inst->csv_file_pointers)
      tqp_close_stream(&stream);
  }
}

} // namespace
