// What an operator meets: wrong command lines, the keyword file's warnings, signals of a terminal, starting over.

#include "test_run.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>

namespace fs = std::filesystem;

class operating : public tqp_test_run {
protected:
  program_end program(const std::string &name, const std::vector<std::string> &options) const {
    std::vector<std::string> argv = {std::string(TQP_BINARY_DIR) + "/" + name};
    argv.insert(argv.end(), options.begin(), options.end());
    return running_program(argv, directory + "/" + name).wait();
  }

  // Every file below the test run but for logs, whose lines carry times, and pid files.
  std::map<std::string, std::string> output() const {
    std::map<std::string, std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(directory + "/logs/TR1234"))
      if (entry.is_regular_file() && entry.path().extension() != ".pid" && entry.path().extension() != ".log")
        files[entry.path()] = file_text(entry.path());
    return files;
  }
};

// --- wrong command lines --------------------------------------------------------------------------------------

TEST_F(operating, wrong_command_lines_are_refused_with_one_line_that_names_the_word) {
  struct wrong_line {
    const char *program;
    std::vector<std::string> options;
    int status;
    std::string names;
  };

  std::vector<wrong_line> lines = {
      {"tqp", {"-z"}, 1, "-z"},
      {"tqp", {"-P"}, 1, "-P"},
      {"tqp", {}, 255, "-t"},
      {"tqp", {"-t", "1", "--testrun", "1"}, 255, "-t"},
      {"tqp", {"-t", "1", "-W", directory, "word"}, 1, "'word'"},
      {"tqp", {"--testrun", "5x"}, 1, "'5x'"},
      {"tqp", {"-t", "1234", "-W", directory, "-E", "20990101000000"}, 255, directory + "/logs/TR1234/20990101000000"},
      {"tqp", {"-t", "1234", "-W", directory + "/none"}, 255, directory + "/none/logs/TR1234"},
      {"tq_sample", {"--dir", directory}, 1, "--testrun"},
      {"tq_sample", {"--dir", directory, "--testrun", "7", "--mix", "none"}, 1, "'none'"},
      {"tq_sample", {"--dir", directory, "--testrun", "7", "--linger", "7"}, 1, "--linger"},
      {"tqtop", {"--dir", directory}, 1, "--testrun"},
      {"tqtop", {"--dir", directory, "--testrun", "7"}, 1, directory + "/logs/TR7"},
      {"tqtop", {"--dir", directory, "--testrun", "7", "--interval", "0"}, 1, "'0'"},
      {"tqshow", {"--dir", directory, "--testrun", "7"}, 1, directory + "/logs/TR7"},
      {"tqcheck", {"--dir", directory}, 1, "--testrun"},
      {"tqcheck", {"--dir", directory, "--testrun", "7"}, 1, directory + "/logs/TR7"},
      {"tq_reset", {"--testrun", "7"}, 1, "--dir"},
      {"tq_reset", {"--dir", directory, "--testrun", "7"}, 1, directory + "/logs/TR7"},
  };
  for (const char *name : {"tq_sample", "tqtop", "tqshow", "tqcheck", "tq_reset"}) {
    lines.push_back({name, {"--nonsense"}, 1, "--nonsense"});
    lines.push_back({name, {"--dir", directory, "--testrun", "5x"}, 1, "'5x'"});
    lines.push_back({name, {"--dir", directory, "--testrun", "-1"}, 1, "'-1'"});
    lines.push_back({name, {"--dir", directory, "--testrun", "99999999999"}, 1, "'99999999999'"});
    lines.push_back({name, {"--dir", directory, "--testrun", "1", "word"}, 1, "'word'"});
    lines.push_back({name, {"--testrun", "1", "--dir"}, 1, "--dir"});
  }
  for (const wrong_line &line : lines) {
    std::string words = line.program;
    for (const std::string &option : line.options)
      words += " " + option;
    SCOPED_TRACE(words);
    const program_end end = program(line.program, line.options);
    EXPECT_EQ(line.status, end.exit_status);
    const std::vector<std::string> errors = lines_of(end.errors);
    EXPECT_EQ(1, std::count_if(errors.begin(), errors.end(),
                               [&](const std::string &text) { return text.find(line.names) != std::string::npos; }))
        << end.errors;
    EXPECT_EQ(0, occurrences(end.errors, "Usage:"));
    ASSERT_FALSE(errors.empty());
    EXPECT_TRUE(std::string(line.program) == "tqshow" || errors.back().find(line.program) == 0U)
        << end.errors; // who speaks
  }
}

TEST_F(operating, help_and_version_go_to_standard_output) {
  for (const char *name : {"tqp", "tq_sample", "tqtop", "tqshow", "tqcheck", "tq_reset", "tqu_db_upload"})
    for (const char *option : {"--help", "-h", "--version"}) {
      SCOPED_TRACE(std::string(name) + " " + option);
      const program_end end = program(name, {option});
      EXPECT_EQ(0, end.exit_status);
      EXPECT_EQ("", end.errors);
      EXPECT_EQ(0U, end.output.find(std::string(option) == "--version" ? std::string(name) + " 1."
                                                                       : "Usage: " + std::string(name)));
      for (const std::string &line : lines_of(end.output)) {
        if (line.rfind("  ", 0) == 0) { // an option
          EXPECT_LE(line.size(), 80U) << line;
        }
      }
    }
}

TEST_F(operating, a_number_by_its_letter_is_read_as_far_as_it_goes_with_a_warning) {
  raw(identity());
  const program_end end = run({"-i", "12ab"});
  EXPECT_EQ(0, end.exit_status);
  EXPECT_EQ("tqp: warning: -i: '12ab' is not a number, 12 is used\n", end.errors);
}

// --- the keyword file -----------------------------------------------------------------------------------------

TEST_F(operating, findings_in_the_keyword_file_are_warned_of_once_at_start) {
  raw(identity());
  keywords("TQP_TRACE_LEVEl 2\nTQP_TRACE_LEVEL 9\n");
  const program_end end = run();
  EXPECT_EQ(0, end.exit_status);
  const std::string file = path("tq/conf/tqprof/default/TQKeywords.conf");
  const std::string first = file + ":1: TQP_TRACE_LEVEl is not a keyword; the nearest is TQP_TRACE_LEVEL";
  const std::string second = file + ":2: TQP_TRACE_LEVEL '9' is not 0 to 4; 1 is used";
  EXPECT_EQ("tqp: warning: " + first + "\ntqp: warning: " + second + "\n", end.errors);
  EXPECT_EQ(1, occurrences(trace(), first));
  EXPECT_EQ(1, occurrences(trace(), second));
  const program_end check = program("tqcheck", {"--dir", directory, "--testrun", "1234"});
  EXPECT_EQ(1, check.exit_status);
  EXPECT_EQ(first + "\n" + second + "\n", check.output);
  keywords("TQP_TRACE_LEVEL 2\n");
  EXPECT_EQ(0, program("tqcheck", {"--dir", directory, "--testrun", "1234"}).exit_status);
}

TEST_F(operating, the_page_of_keywords_is_the_list_that_tqcheck_prints) {
  const std::string list = program("tqcheck", {"--list", "--form", "markdown"}).output;
  ASSERT_GT(list.size(), 1000U);
  const std::string page = file_text(std::string(TQP_SOURCE_DIR) + "/docs/keywords.md");
  EXPECT_NE(std::string::npos, page.find("\n\n" + list)) << "scripts/make_docs.sh writes the page anew";
}

// --- signals --------------------------------------------------------------------------------------------------

TEST_F(operating, signals_of_a_terminal_stop_it_as_a_stop_does) {
  keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 10\n");
  raw(identity() + method(17, "com.acme.Pay.charge()V"));
  int started = 0;
  for (const int signal : {SIGINT, SIGHUP, SIGTERM}) {
    SCOPED_TRACE(signal);
    const auto tqp = start();
    ++started;
    ASSERT_TRUE(eventually([&] { return occurrences(trace(), "Going in epoll") == started; }));
    tqp->signal(signal);
    const program_end end = tqp->wait();
    EXPECT_EQ(0, end.exit_status);
    EXPECT_EQ(1, occurrences(end.output, "Processing completed for TQ Data!"));
  }
}

TEST_F(operating, nohup_keeps_it_when_the_terminal_goes) {
  keywords("TQP_NEW_RAW_DATA_POLL_INTERVAL 10\n");
  raw(identity());
  signal(SIGHUP, SIG_IGN); // inherited
  const auto tqp = start();
  signal(SIGHUP, SIG_DFL);
  ASSERT_TRUE(eventually([&] { return saved_offset() > 0; }));
  tqp->signal(SIGHUP);
  append_raw(method(17, "com.acme.Pay.charge()V"));
  EXPECT_TRUE(eventually([&] { return saved_offset() == static_cast<long>(fs::file_size(raw_path())); }));
  EXPECT_FALSE(tqp->is_over());
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
}

// --- starting over --------------------------------------------------------------------------------------------

TEST_F(operating, after_a_reset_the_next_run_gives_the_same_bytes) {
  fs::remove_all(path(""));
  const auto sample = program("tq_sample", {"--dir", directory, "--testrun", "1234", "--instances", "1", "--flowpaths",
                                            "30", "--keywords", "TQP_PRINT_SUMMARY_REPORT 1;TQP_EXTENDED_METADATA 0"});
  ASSERT_EQ(0, sample.exit_status) << sample.errors;
  const auto before = output();
  ASSERT_EQ(0, run().exit_status);
  const auto first = output();
  ASSERT_GT(first.size(), before.size() + 20);
  std::ofstream(path("tq/csv/notes.txt")) << "an operator's own\n";

  const std::vector<std::string> which = {"--dir", directory, "--testrun", "1234"};
  const program_end listed = program("tq_reset", which);
  EXPECT_EQ(0, listed.exit_status);
  for (const auto &[name, text] : first) {
    if (before.count(name) == 0) {
      EXPECT_EQ(1, occurrences("\n" + listed.output, "\n" + name + "\n")) << name;
    }
  }
  EXPECT_EQ(first.size() + 1, output().size()); // nothing is gone yet

  EXPECT_EQ(0, program("tq_reset", {"--dir", directory, "--testrun", "1234", "--yes"}).exit_status);
  auto left = output();
  EXPECT_EQ(1U, left.erase(path("tq/csv/notes.txt")));
  EXPECT_EQ(before, left);
  EXPECT_EQ("0 files, 0 bytes\n", program("tq_reset", which).output);

  ASSERT_EQ(0, run().exit_status);
  auto second = output();
  second.erase(path("tq/csv/notes.txt"));
  EXPECT_EQ(first, second);
}

TEST_F(operating, a_reset_waits_for_nobody_and_touches_nothing_beyond_links) {
  raw(identity() + method(17, "com.acme.Pay.charge()V"));
  fs::create_directories(directory + "/elsewhere");
  std::ofstream(directory + "/elsewhere/TQMetaData.csv") << "not ours\n";
  fs::create_directories(path("tq"));
  fs::create_symlink(directory + "/elsewhere", path("tq/csv"));
  EXPECT_EQ(0, program("tq_reset", {"--dir", directory, "--testrun", "1234", "--yes"}).exit_status);
  EXPECT_TRUE(fs::exists(directory + "/elsewhere/TQMetaData.csv"));
  fs::remove(path("tq/csv"));

  const auto tqp = start();
  ASSERT_TRUE(eventually([&] { return !common("TQMetaData.csv").empty(); }));
  const program_end refused = program("tq_reset", {"--dir", directory, "--testrun", "1234", "--yes"});
  EXPECT_EQ(1, refused.exit_status);
  EXPECT_NE(std::string::npos, refused.errors.find("pid " + std::to_string(tqp->pid()))) << refused.errors;
  EXPECT_FALSE(common("TQMetaData.csv").empty());
  fs::remove(path(".tqp.pid")); // known by its open files as well
  EXPECT_EQ(1, program("tq_reset", {"--dir", directory, "--testrun", "1234", "--yes"}).exit_status);
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
}

TEST_F(operating, beginning_anew_over_done_partitions_warns) {
  make_partitions({first_partition, second_partition});
  raw(identity(), "Tier_Server_App", first_partition);
  raw(identity());
  EXPECT_EQ(0, run().exit_status);
  EXPECT_EQ("", run({"-r", "1"}).errors);
  const program_end end = run({"-r", "0"});
  EXPECT_EQ(0, end.exit_status);
  EXPECT_EQ(1, occurrences(end.errors, "tqp: warning: -r 0: " + path("tq/csv") + " is emptied")) << end.errors;
}
