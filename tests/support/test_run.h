// A test run on disk and the real program over it, started and watched as a user would.
//   In      raw data that a test writes, keywords, options
//   Out     exit status, standard output, every file the program made
//   The directory is gone after the test, and so is a program that is still running
#pragma once

#include "test_files.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// --- records ----------------------------------------------------------------------------------------------------

std::string identity(const std::string &instance = "Tier_Server_App", int tier = 3, int server = 4, int app = 5);
std::string method(int local_id, const std::string &name);

// --- a running program -------------------------------------------------------------------------------------------

struct program_end {
  int exit_status = -1; // -signal when it was killed
  std::string output;   // standard output
  std::string errors;   // standard error
};

class running_program {
public:
  running_program(std::vector<std::string> argv, std::string output_path);
  ~running_program();
  running_program(const running_program &) = delete;
  running_program &operator=(const running_program &) = delete;

  pid_t pid() const { return child; }

  void signal(int number) const;
  bool is_over();

  // Waits for the end; a program that takes longer than `seconds` is killed and the test fails.
  program_end wait(int seconds = 60);

private:
  pid_t child = -1;
  int status = 0;
  bool over = false;
  std::string output_path;
};

// --- the test run -------------------------------------------------------------------------------------------------

class tqp_test_run : public testing::Test {
protected:
  const std::string first_partition = "20261122100000";
  const std::string second_partition = "20261122110000";

  tqp_test_run();
  ~tqp_test_run() override;

  // --- what is there before ---
  // Makes the partitions, oldest first, with their info files; the last one is the newest.
  void make_partitions(const std::vector<std::string> &names);
  void keywords(const std::string &lines) const; // the whole keyword file
  void raw(const std::string &text, const std::string &instance = "Tier_Server_App",
           const std::string &partition = "") const;
  void append_raw(const std::string &text, const std::string &instance = "Tier_Server_App",
                  const std::string &partition = "") const;

  // --- running ---
  // Runs the program to its end without a parent: it reads every raw file to its end and leaves by itself.
  program_end run(const std::vector<std::string> &options = {});
  // Starts it with this process as its parent: it goes on until it is told to stop.
  std::unique_ptr<running_program> start(const std::vector<std::string> &options = {});

  // --- what came out ---
  std::string path(const std::string &below) const { return directory + "/logs/TR1234/" + below; }

  std::string read(const std::string &below) const;                                   // a file of the test run
  std::string common(const std::string &name) const;                                  // a file of tq/csv
  std::string data(const std::string &name, const std::string &partition = "") const; // a file of the default instance
  std::string raw_path(const std::string &instance = "Tier_Server_App", const std::string &partition = "") const;
  std::string trace(const std::string &partition = "") const;
  int64_t counted(const std::string &label, const std::string &partition = "") const; // summed over the report's parts
  long saved_offset(const std::string &instance = "Tier_Server_App", const std::string &partition = "") const;

  std::string directory;
  std::vector<std::string> partitions;

private:
  std::vector<std::string> argv_of(const std::vector<std::string> &options, bool with_parent) const;
};

int occurrences(const std::string &text, const std::string &words);
std::vector<std::string> lines_of(const std::string &text);

// Polls a condition until it holds; false after `seconds`.
bool eventually(const std::function<bool()> &condition, int seconds = 20);
