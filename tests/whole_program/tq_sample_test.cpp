// tq_sample: its options, its cuts, and the same data for the same options. That it sends only what an agent may send, the
// runs of the daemon over it tell.
//   In      the program beside this one
//   Out     test runs in a directory of their own
//   Failure other bytes than the same options gave before, a cut that loses some, an event that nobody sends any more
#include "test_files.h"
#include "wllb_util.h"

#include <cctype>
#include <cstdlib>
#include <map>
#include <set>
#include <thread>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

class tq_sample : public testing::Test {
protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "tq_sample_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name.data()));
    top = name;
  }

  void TearDown() override { fs::remove_all(top); }

  wllb_run_result run(const std::string &dir, std::vector<std::string> options) const {
    options.insert(options.begin(), {TQP_BINARY_DIR "/tq_sample", "--dir", top / dir, "--testrun", "7"});
    return wllb_run_program(options);
  }

  fs::path base(const std::string &dir) const { return top / dir / "logs/TR7"; }

  // Every file below a test run, by its path.
  std::map<std::string, std::string> files(const std::string &dir) const {
    std::map<std::string, std::string> found;
    for (const auto &entry : fs::recursive_directory_iterator(base(dir)))
      if (entry.is_regular_file())
        found[fs::relative(entry.path(), base(dir))] = file_text(entry.path());
    return found;
  }

  // The raw data of each instance, by partition.
  std::map<std::string, std::map<std::string, std::string>> raw_data(const std::string &dir) const {
    std::map<std::string, std::map<std::string, std::string>> found;
    for (const auto &[path, bytes] : files(dir))
      if (path.find("/raw_data/") != std::string::npos)
        found[fs::path(path).stem()][path.substr(0, 14)] = bytes;
    return found;
  }

  fs::path top;
};

TEST_F(tq_sample, sends_every_event_that_an_agent_may_send) {
  ASSERT_EQ(0, run("all", {"--flowpaths", "60", "--flowpath-methods", "600"}).exit_status);
  std::set<int> sent;
  for (const auto &[instance, partitions] : raw_data("all"))
    for (const auto &[partition, text] : partitions)
      for (std::string_view rest = text; !rest.empty();) {
        const std::string line(wllb_take_piece(&rest, '\n'));
        if (isdigit(static_cast<unsigned char>(line[0]))) // or else it is a captured body
          sent.insert(atoi(line.c_str()));
      }
  const std::set<int> wanted = {0,  2,  3,  4,  5,  6,  7,  10, 11, 12, 13, 14, 15, 16, 17, 18,  19,  20,  22, 23, 25,
                                26, 31, 32, 33, 34, 35, 36, 37, 38, 41, 43, 44, 45, 46, 51, 52,  53,  61,  62, 63, 71,
                                72, 73, 74, 75, 80, 81, 82, 83, 84, 86, 87, 88, 89, 91, 99, 110, 111, 112, 121};
  EXPECT_EQ(wanted, sent);
}

TEST_F(tq_sample, same_options_give_the_same_bytes) {
  for (const std::string mix : {"all", "discovery", "skipped"}) {
    SCOPED_TRACE(mix);
    ASSERT_EQ(0, run(mix + "1", {"--mix", mix, "--seed", "9"}).exit_status);
    ASSERT_EQ(0, run(mix + "2", {"--mix", mix, "--seed", "9"}).exit_status);
    ASSERT_EQ(0, run(mix + "3", {"--mix", mix, "--seed", "10"}).exit_status);
    EXPECT_EQ(files(mix + "1"), files(mix + "2"));
    EXPECT_NE(files(mix + "1"), files(mix + "3"));
  }
}

TEST_F(tq_sample, appends_in_cuts_that_add_up_to_whole_lines) {
  const std::vector<std::string> options = {"--rate", "400000", "--seconds", "1", "--end"};
  std::thread twin([&] { run("twin", options); });
  std::thread collector([&] { run("a", options); });
  size_t cut_lines = 0, largest = 0;
  const auto deadline = get_ms_stamp_tqp() + 20000;
  const fs::path file = base("a") / "20260302100000/tq/raw_data/Storefront_web01_shop.txt";
  for (std::string seen; seen.find("\n10,\n") == std::string::npos && get_ms_stamp_tqp() < deadline;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    seen = file_text(file);
    EXPECT_GE(seen.size(), largest);
    largest = std::max(largest, seen.size());
    cut_lines += !seen.empty() && seen.back() != '\n' ? 1 : 0;
  }
  collector.join();
  twin.join();
  EXPECT_GT(cut_lines, 0U);
  EXPECT_EQ(files("a"), files("twin"));
  size_t appended = 0;
  for (const auto &[instance, partitions] : raw_data("a")) {
    appended += partitions.at("20260302100000").size();
    EXPECT_TRUE(partitions.at("20260302100000").ends_with("\n10,\n")) << instance;
  }
  EXPECT_GE(appended, 400000U);
}

TEST_F(tq_sample, refuses_what_it_does_not_know) {
  for (const char *words : {"--seed x", "--instances 0", "--instances 1001", "--mix none", "--start 2026030209000",
                            "--start 20191231235959", "--rate 0", "--nothing", "word"}) {
    EXPECT_EQ(1, run("bad", wllb_words(words, 2)).exit_status) << words;
    EXPECT_FALSE(fs::exists(top / "bad"));
  }
  EXPECT_EQ(0, run("twice", {"--flowpaths", "1"}).exit_status);
  EXPECT_EQ(1, run("twice", {"--flowpaths", "1"}).exit_status) << "a test run that stands there stays as it is";
}

} // namespace
