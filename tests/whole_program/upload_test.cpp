// The real upload child, beside the daemon and by hand, without a database: its journal must tile the files.
#include "test_run.h"
#include "wllb_util.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <unistd.h>

namespace fs = std::filesystem;

class upload : public tqp_test_run {
protected:
  const std::string journal = "tq/logs/tqu_db_upload.journal";

  upload() {
    setenv("TQU_DATABASE", "journal:", 1); // the programs started here inherit it
    fs::create_directories(directory + "/bin");
    fs::create_symlink(TQP_BINARY_DIR "/tqu_db_upload", directory + "/bin/tqu_db_upload");
  }

  ~upload() override { unsetenv("TQU_DATABASE"); }

  void put(const std::string &below, const std::string &text) const { put_file(path(below), text, std::ios::app); }

  std::unique_ptr<running_program> load(int ppid) const {
    const std::string words = TQP_BINARY_DIR "/tqu_db_upload --running_mode 1 --vector_separator : --idle_time 3600"
                                             " --num_cycles 1 --resume 1 --testrun 1234 --ppid ";
    return std::make_unique<running_program>(
        wllb_words("/usr/bin/env WL_WDIR=" + directory + " " + words + std::to_string(ppid), 20), directory + "/load");
  }

  // Every row of every file once, in order, and nothing else.
  void expect_journal_tiles_files() const {
    std::map<std::string, std::pair<long, long>> taken, there; // by path: bytes, rows
    for (const std::string &line : lines_of(read(journal))) {
      long from = 0, to = 0, rows = 0, at = 0;
      ASSERT_EQ(3, sscanf(line.c_str(), "%*d,%ld,%ld,%ld,%*u,%ln", &from, &to, &rows, &at)) << line;
      if (line.ends_with(".conf")) // the topology, replaced as a whole
        continue;
      auto &file = taken[line.substr(static_cast<size_t>(at))];
      EXPECT_EQ(file.first, from) << line;
      file = {to, file.second + rows};
    }
    for (const auto &entry : fs::recursive_directory_iterator(path(""))) {
      const std::string name = entry.path().string().substr(path("").size());
      const std::string text = name.ends_with(".csv") || name.ends_with("_MethodTiming.dat") ? read(name) : "";
      if (!text.empty())
        there[name] = {text.size(), name.ends_with(".csv") ? occurrences(text, "\n") : text.size() / 144};
    }
    EXPECT_LT(4U, there.size());
    EXPECT_EQ(there, taken);
  }
};

TEST_F(upload, journal_tiles_a_live_run_and_goes_on_wherever_it_was_broken_off) {
  fs::remove_all(path(""));
  const std::string options = " --partitions 1 --online --quiet --rate 300000 --seconds 3 --switch-every 1 --end"
                              " --remove-after 2 --remove-with disable"; // for which the child is started anew
  running_program agents(wllb_words(TQP_BINARY_DIR "/tq_sample --testrun 1234 --dir " + directory + options, 99),
                         directory + "/agents");
  const auto said = [&] { return wllb_read_small_file((directory + "/agents.out").c_str()); };
  EXPECT_TRUE(eventually([&] { return occurrences(said(), "port") == 2; }));
  auto program = start({"-m", "1", "-l", wllb_words(said(), 3)[2]});
  EXPECT_EQ(0, agents.wait().exit_status);
  program->signal(SIGRTMIN + 3);
  EXPECT_EQ(0, program->wait().exit_status);
  expect_journal_tiles_files();
  for (const size_t left : {read(journal).size() - 1, read(journal).size() / 2, size_t{1}, size_t{0}}) {
    fs::resize_file(path(journal), left);
    EXPECT_EQ(0, load(0)->wait().exit_status);
    expect_journal_tiles_files();
  }
}

TEST_F(upload, loader_follows_growing_renamed_and_late_files_by_its_signals) {
  const std::string rows = "/tq/csv/T_S_A/TQFlowPath.csv", late = first_partition + rows,
                    done = first_partition + "/tq/csv/.tqp_process_done_v2.txt", next = second_partition + rows,
                    sql = "tq/csv/TQSQL_nonprepared.csv";
  const auto noted = [&](const std::string &front, const std::string &file) {
    const auto is_it = [&](const auto &line) { return line.starts_with(front) && line.ends_with("," + file); };
    return eventually([&] { return std::ranges::any_of(lines_of(read(journal)), is_it); });
  };
  put(late, "1\n2\nhalf");
  put(sql, "a\nb\n");
  auto program = load(getpid());
  EXPECT_TRUE(noted("0,0,4,2,", sql) && noted(first_partition + ",0,4,2,", late));
  put(late, " row\n");
  fs::rename(path(sql), path(sql + ".prev"));
  put(sql, "d\n");
  put(done, "");
  make_partitions({first_partition, second_partition});
  put(next, "x\n");
  program->signal(SIGRTMIN + 2);
  EXPECT_TRUE(noted("0,4,4,0,", sql + ".prev") && noted("0,0,2,1,", sql) && noted(first_partition + ",4,13,1,", late));
  EXPECT_TRUE(noted(second_partition + ",0,2,1,", next));
  put(next, "y\n");
  program->signal(SIGRTMIN + 2);
  EXPECT_TRUE(noted(second_partition + ",2,4,1,", next)); // nothing new in the first partition, so it is finished
  put(first_partition + "/tq/csv/T_S_A/TQJMS.csv", "without a note\n");
  put(late, "3\n");
  put(done, "0,5,../../x\n0,5\n0,5,T_S_A/TQFlowPath.csv\n");
  program->signal(SIGRTMIN + 3);
  EXPECT_EQ(0, program->wait().exit_status);
  EXPECT_TRUE(noted(first_partition + ",13,15,1,", late));
  EXPECT_EQ(0, occurrences(read(journal), "TQJMS.csv"));
}
