// What stands in the way of the program's files, and whose they are: links and FIFOs at their names, names that cannot be
// opened, too few descriptors, a limit of their size, a parent's epoch that is missing, a second file with one id.
//   In      a small test run that belongs to another user; run as root, as the program is
//   Out     nothing that others own is written or given away; nothing that was read is lost
//   Failure a victim changed, a program that hangs, a row missing

#include "test_run.h"

#include <csignal>
#include <filesystem>
#include <map>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

class unwritable : public tqp_test_run {
protected:
  const uid_t nobody = 65534;
  const std::string records = identity() + "99,x,FPGVersion:2.0,JAVA\n" + method(1, "a.B.main()V") + "7,5,/shop\n" +
                              flowpath(500, 100) + flowpath(510, 110);
  const std::string partition_dir = first_partition + "/";

  unwritable() { begin_anew(); }

  static std::string flowpath(int fpi, int time_sec) {
    const std::string tuple = std::to_string(fpi) + ":0:0:" + std::to_string(fpi);
    return "2," + tuple + "," + std::to_string(time_sec) + ",5,1,5,q,c,1,2,3,t,1,1,,,,1\n4," + tuple +
           ",200,1,1:0:0:0:0,5,-,0,x,0,0,-,-,1:1_0_0_0_1:1_1_5_1:0:0:0:0___\n";
  }

  void begin_anew() {
    fs::remove_all(path(""));
    keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 20\n");
    make_partitions({first_partition});
    raw(records);
    EXPECT_EQ(0, geteuid() == 0 ? chown(path("").c_str(), nobody, nobody) : 0);
  }

  // The plain files of the test run, by their names below it.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> found;
    for (const auto &entry : fs::recursive_directory_iterator(path("")))
      if (entry.is_regular_file() && !entry.is_symlink())
        found[entry.path().string().substr(path("").size())] = file_text(entry.path());
    return found;
  }

  // What readers of the test run find, when the program has ended.
  std::map<std::string, std::string> results() const {
    std::map<std::string, std::string> found = files();
    std::erase_if(found, [](const auto &file) {
      return (file.first.find("/csv/") == std::string::npos && file.first.find("/dat/") == std::string::npos &&
              file.first.find("/sqb/") == std::string::npos && file.first.find(".offset") == std::string::npos) ||
             file.first.ends_with("done_v2.txt");
    });
    return found;
  }

  std::map<std::string, std::string> undisturbed_results() {
    begin_anew();
    EXPECT_EQ(0, run().exit_status);
    const std::map<std::string, std::string> found = results();
    EXPECT_EQ(2U, lines_of(data("TQFlowPath.csv")).size());
    begin_anew();
    return found;
  }

  // run() with limits that the shell sets.
  program_end run_under(const std::string &limits) const {
    const std::string command = limits + "exec " TQP_BINARY_DIR "/tqp -t 1234 -m 0 -W " + directory;
    return running_program({"/bin/sh", "-c", command}, directory + "/tqp").wait();
  }

  std::string errors() const { return file_text(directory + "/tqp.err"); }

  std::set<int> flowpaths_with_rows() const {
    std::set<int> found;
    for (const std::string &row : lines_of(data("TQFlowPath.csv")))
      found.insert(atoi(row.c_str()));
    return found;
  }

  bool has_read_all() const { return saved_offset() == static_cast<long>(fs::file_size(raw_path())); }

  // For each name that a run writes: something at this name that leads to a file of root's, or waits for ever.
  void expect_victims_untouched(const std::function<void(const std::string &name, const std::string &victim)> &plant);
};

void unwritable::expect_victims_untouched(
    const std::function<void(const std::string &name, const std::string &victim)> &plant) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give files away";
  std::set<std::string> names;
  for (const auto &file : files())
    names.insert(file.first);
  EXPECT_EQ(0, run().exit_status);
  std::vector<std::string> written = {"tq/recovery/Tier_Server_App/tqp/.TQMetaData.recovery.new"};
  for (const auto &file : files())
    if (names.count(file.first) == 0)
      written.push_back(file.first);
  EXPECT_LT(30U, written.size());
  const std::string victim = directory + "/victim";
  for (const std::string &name : written) {
    SCOPED_TRACE(name);
    begin_anew();
    put_file(victim, "precious\n");
    fs::create_directories(fs::path(path(name)).parent_path());
    plant(path(name), victim);
    const auto tqp = start();
    EXPECT_TRUE(eventually([&] { return has_read_all() || errors().find("CRITICAL ERROR") != std::string::npos; }));
    tqp->signal(SIGTERM);
    EXPECT_EQ(0, tqp->wait(30).exit_status);
    struct stat facts = {};
    EXPECT_EQ(0, stat(victim.c_str(), &facts));
    EXPECT_EQ(0U, facts.st_uid);
    EXPECT_EQ("precious\n", file_text(victim));
  }
}

TEST_F(unwritable, a_link_at_any_name_gives_nothing_away) {
  expect_victims_untouched(
      [](const std::string &name, const std::string &victim) { fs::create_symlink(victim, name); });
}

TEST_F(unwritable, a_fifo_at_any_name_holds_nothing_up) {
  expect_victims_untouched(
      [](const std::string &name, const std::string &) { EXPECT_EQ(0, mkfifo(name.c_str(), 0666)); });
}

TEST_F(unwritable, nothing_is_read_on_while_a_file_cannot_be_opened) {
  const std::map<std::string, std::string> expected = undisturbed_results();
  for (const std::string &name :
       {partition_dir + "tq/csv/Tier_Server_App/TQFlowPath.csv",
        partition_dir + "tq/csv/Tier_Server_App/TQSQLTiming.csv",
        partition_dir + "tq/dat/Tier_Server_App_MethodTiming.dat", partition_dir + "tq/sqb/5",
        partition_dir + "tq/raw_data/.Tier_Server_App.txt.offset", std::string("tq/csv/TQMetaData.csv"),
        std::string("tq/recovery/Tier_Server_App/tqp/.TQMetaData.recovery.new"), partition_dir + "tq/csv"})
    for (const bool is_stopped : {false, true}) {
      SCOPED_TRACE(name + (is_stopped ? ", stopped meanwhile" : ""));
      begin_anew();
      if (name.ends_with("/csv"))
        put_file(path(name), "in place of a directory");
      else
        fs::create_directories(path(name));
      auto tqp = start();
      EXPECT_TRUE(eventually([&] { return errors().find("CRITICAL ERROR: Tier_Server_App | ") != std::string::npos; }));
      append_raw(flowpath(520, 120)); // a change that a poll would see
      usleep(100000);
      EXPECT_TRUE(name.ends_with(".offset") || saved_offset() == 0);
      raw(records);
      if (is_stopped) {
        tqp->signal(SIGTERM);
        EXPECT_EQ(0, tqp->wait(10).exit_status);
        fs::remove(path(name));
        EXPECT_EQ(0, saved_offset());
        EXPECT_EQ(0, run().exit_status);
        EXPECT_EQ(2U, flowpaths_with_rows().size());
      } else {
        fs::remove(path(name));
        EXPECT_TRUE(eventually([&] { return has_read_all(); }));
        tqp->signal(SIGRTMIN + 3);
        EXPECT_EQ(0, tqp->wait(10).exit_status);
        EXPECT_EQ(1, occurrences(errors(), "CRITICAL ERROR"));
        EXPECT_EQ(1, occurrences(errors(), "reading goes on"));
        EXPECT_EQ(1, occurrences(trace(), "|Critical|CRITICAL ERROR: "));
        EXPECT_EQ(expected, results());
      }
    }
}

TEST_F(unwritable, every_file_is_read_however_few_descriptors_there_are) {
  const int instances = 20;
  for (const std::string limit : {"ulimit -Sn 64; ", "ulimit -n 120; "}) { // the first one may be raised
    begin_anew();
    for (int i = 0; i < instances; ++i) {
      const std::string name = "Tier_Server_" + std::to_string(i);
      raw(identity(name, 3, 4, 100 + i) + method(i + 2, "a.B.m" + std::to_string(i) + "()V"), name);
    }
    EXPECT_EQ(0, run_under(limit).exit_status);
    for (int i = 0; i < instances; ++i) {
      const std::string name = "Tier_Server_" + std::to_string(i);
      EXPECT_EQ(static_cast<long>(fs::file_size(raw_path(name))), saved_offset(name)) << name << ", " << limit;
    }
    EXPECT_EQ(instances + 1, occurrences(common("TQMetaData.csv"), ",0,a.B."));
  }
}

TEST_F(unwritable, a_file_waits_for_a_descriptor) {
  raw(records.substr(0, records.find("2,500:")));
  const auto tqp = start();
  EXPECT_TRUE(eventually([&] { return has_read_all(); }));
  rlimit before = {};
  EXPECT_EQ(0, prlimit(tqp->pid(), RLIMIT_NOFILE, nullptr, &before));
  const rlimit too_low = {.rlim_cur = 10, .rlim_max = before.rlim_max};
  EXPECT_EQ(0, prlimit(tqp->pid(), RLIMIT_NOFILE, &too_low, nullptr));
  raw(records); // the first flowpath opens the blob file
  EXPECT_TRUE(eventually([&] { return errors().find("Too many open files") != std::string::npos; }));
  EXPECT_FALSE(has_read_all());
  EXPECT_EQ(0, prlimit(tqp->pid(), RLIMIT_NOFILE, &before, nullptr));
  EXPECT_TRUE(eventually([&] { return has_read_all(); }));
  tqp->signal(SIGRTMIN + 3);
  EXPECT_EQ(0, tqp->wait(10).exit_status);
  EXPECT_EQ(2U, lines_of(data("TQFlowPath.csv")).size());
  EXPECT_EQ(1, occurrences(errors(), "CRITICAL ERROR"));
  EXPECT_EQ(1, occurrences(errors(), "reading goes on"));
}

TEST_F(unwritable, a_limit_of_file_size_is_reported_and_survived) {
  const program_end end = run_under("ulimit -f 4; "); // of 512 bytes each
  EXPECT_EQ(0, end.exit_status);
  EXPECT_NE(std::string::npos, end.errors.find("File too large"));
  EXPECT_EQ(2U, lines_of(data("TQFlowPath.csv")).size()) << "files below the limit are written";
}

TEST_F(unwritable, a_start_needs_the_epoch_difference) {
  const std::string expected = read(".vex_epoch.diff"), name = path("") + ".vex_epoch.diff";
  for (const std::string text : {"missing", "", "\n", "x", "12x", "1 2", "99999999999999999999"}) {
    SCOPED_TRACE(text);
    put_file(name, text);
    if (text == "missing")
      fs::remove(name);
    const program_end refused = run();
    EXPECT_EQ(255, refused.exit_status);
    EXPECT_EQ(1U, lines_of(refused.errors).size());
    EXPECT_NE(std::string::npos, refused.errors.find("/.vex_epoch.diff'"));
    EXPECT_FALSE(fs::exists(path(".tqp.pid")) || fs::exists(path("tq/csv"))) << "nothing was begun";
  }
  EXPECT_EQ(0, run({"-e", expected}).exit_status);
  EXPECT_EQ(2U, lines_of(data("TQFlowPath.csv")).size());
  begin_anew();
  put_file(name, " " + expected + "\n");
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ(2U, lines_of(data("TQFlowPath.csv")).size());
}

TEST_F(unwritable, a_second_file_with_the_id_of_a_live_instance_is_refused) {
  const std::string names[] = {"Tier_Server_App", "Tier_Server_Twin"}, others = records.substr(identity().size());
  raw(identity(names[1], 3, 4, 5) + others, names[1]);
  raw(identity("Tier_Server_Other", 3, 4, 6) + others, "Tier_Server_Other");
  const auto tqp = start();
  const auto has_read = [this](const std::string &name) {
    return saved_offset(name) == static_cast<long>(fs::file_size(raw_path(name)));
  };
  EXPECT_TRUE(eventually([&] { return has_read("Tier_Server_Other") && (has_read(names[0]) || has_read(names[1])); }));
  const int first = has_read(names[0]) ? 0 : 1;
  EXPECT_TRUE(eventually([&] {
    return occurrences(trace(), "|Critical|CRITICAL ERROR: " + names[1 - first] +
                                    " | Its application id 5 is that of " + names[first]) == 1;
  }));
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_EQ(0, saved_offset(names[1 - first]));
  EXPECT_EQ(read(partition_dir + "tq/sqb/5").size(), read(partition_dir + "tq/sqb/6").size());
}
