// tq_sample: the data it makes is what an agent may send, whatever the options, and is the same for the same options.
//   In      the program beside this one
//   Out     test runs in a directory of their own
//   Failure a line that a strict reader of its own refuses
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "wllb_partition.h"
#include "wllb_util.h"

namespace fs = std::filesystem;

namespace {

using words_t = std::vector<std::string_view>;

words_t cut(std::string_view text, char separator) {
  words_t words;
  for (size_t end = 0; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1))
    words.push_back(text.substr(0, end));
  words.push_back(text);
  return words;
}

bool is_number(std::string_view text) {
  return wllb_is_numeric(text);
}

int64_t number(std::string_view text) {
  return strtoll(std::string(text).c_str(), nullptr, 10);
}

std::string whole_file(const fs::path &path) {
  return wllb_read_small_file(path.c_str(), 1U << 28U);
}

// --- a strict reader ------------------------------------------------------------------------------------------

// How many fields follow each event id. A max of 0: as many as there are.
struct field_count {
  int event;
  size_t min, max;
};

constexpr field_count field_counts[] = {
    // clang-format off
  {0, 6, 6},   {2, 17, 17}, {3, 2, 2},   {4, 13, 13}, {5, 2, 2},   {6, 2, 2},    {7, 2, 3},    {8, 1, 0},   {10, 1, 1},
  {11, 2, 2},  {12, 2, 2},  {13, 3, 3},  {14, 2, 2},  {15, 2, 2},  {16, 3, 3},  {17, 2, 2},   {18, 2, 2},
  {19, 2, 2},  {20, 10, 12},
  {22, 2, 3},  {23, 2, 3},  {25, 1, 0},  {26, 2, 2},  {31, 9, 9},  {32, 2, 2},   {33, 2, 2},   {34, 2, 2},
  {35, 2, 2},  {36, 2, 2},  {37, 2, 2},  {38, 13, 13},{41, 2, 2},  {43, 3, 3},   {44, 10, 10}, {45, 8, 8},  {46, 8, 8},
  {51, 1, 0},  {52, 1, 0},  {53, 1, 0},  {61, 1, 0},  {62, 1, 0},  {63, 1, 0},   {71, 1, 0},   {72, 1, 0},  {73, 1, 0},
  {74, 1, 0},  {75, 1, 0},  {80, 7, 7},  {81, 1, 0},  {82, 18, 18},{83, 4, 4},   {84, 13, 13}, {85, 1, 0},  {86, 1, 0},
  {87, 1, 0},  {88, 1, 0},  {89, 1, 0},  {91, 3, 3},  {99, 3, 3},  {110, 1, 0},  {111, 1, 0},  {112, 2, 0}, {121, 1, 0},
}; // clang-format on

// Reads one instance's files and refuses what a good agent would not send: wrong numbers of fields, ids that are not
// dense, segments of no flowpath, ends of no segment. What stands inside blobs, the real program tells by what it makes.
struct strict_reader {
  std::map<int, std::set<int64_t>> known; // local ids by the event that announces them
  std::map<int64_t, int64_t> segments;    // their flowpaths
  std::map<int64_t, int64_t> flowpaths;   // how many segments of each are open
  std::map<int, int64_t> counts;          // of records
  size_t body = 0;                        // bytes that the next line has, announced by the last one; 0: none
  std::string error;                      // the first one

  void want(bool good, const char *why) {
    if (!good && error.empty())
      error = why;
  }

  void discovery(int event, const words_t &f) {
    const std::string_view id = f[(f.size() == 3 && event != 7) || !is_number(f[0]) ? 1 : 0];
    std::set<int64_t> &ids = known[event == 23 ? 22 : event]; // SQL texts share one row of ids
    want(is_number(id) && number(id) == static_cast<int64_t>(ids.size()) + 1, "ids are dense");
    ids.insert(number(id));
  }

  void header(int event, words_t f) {
    if (event == 82)
      f.erase(f.begin());
    const words_t tuple = cut(f[0], ':');
    want(tuple.size() == 4 && is_number(f[1]) && is_number(f[2]) && number(f[16]) / 1000 == number(f[1]),
         "header fields");
    want(f[4] == "0" || known[7].contains(number(f[4])), "unknown URL");
    const int64_t self = number(tuple[0]), main = number(tuple.back());
    want((event == 2) == (self == main), "an event 2 owns its flowpath");
    want(segments.emplace(self, main).second, "segment opened twice");
    ++flowpaths[main];
  }

  void blob(bool ends, std::string_view self) {
    const auto at = segments.find(number(self.substr(0, self.find(':'))));
    want(at != segments.end(), "no header for this blob");
    if (!ends || at == segments.end())
      return;
    if (--flowpaths[at->second] == 0)
      flowpaths.erase(at->second);
    segments.erase(at);
  }

  void line(std::string_view text) {
    if (const size_t announced = std::exchange(body, 0))
      return want(text.size() == announced, "a body of another length");
    const words_t all = cut(text, ',');
    const int event = static_cast<int>(number(all[0]));
    const words_t f(all.begin() + 1, all.end());
    const auto *row = std::find_if(std::begin(field_counts), std::end(field_counts),
                                   [&](const field_count &r) { return r.event == event; });
    if (!is_number(all[0]) || row == std::end(field_counts) || f.size() < row->min ||
        (row->max > 0 && f.size() > row->max))
      return want(false, "unknown event, or wrong number of fields");
    ++counts[event];
    static const std::set<int> discoveries = {5, 6, 7, 22, 23, 24, 26, 32, 33, 34, 35, 36, 37, 41};
    static const std::map<int, size_t> blobs = {{3, 0}, {4, 0}, {43, 1}, {44, 1}, {83, 2}, {84, 2}}; // and their tuples
    if (discoveries.contains(event))
      discovery(event, f);
    else if (event == 2 || event == 82)
      header(event, f);
    else if (event == 14 || event == 15)
      body = static_cast<size_t>(number(f[1]));
    else if (blobs.contains(event))
      blob(event % 10 == 4, f[blobs.at(event)]);
  }
};

// --- the runs -------------------------------------------------------------------------------------------------

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
        found[fs::relative(entry.path(), base(dir))] = whole_file(entry.path());
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

  // Reads all files of an instance strictly. Between partitions nothing may be in flight.
  static void read_strictly(strict_reader &reader, const std::string &instance,
                            const std::map<std::string, std::string> &partitions) {
    for (const auto &[partition, bytes] : partitions) {
      SCOPED_TRACE(instance + " " + partition);
      ASSERT_TRUE(!bytes.empty() && bytes.back() == '\n');
      words_t lines = cut(bytes, '\n');
      lines.pop_back();
      const words_t identity = cut(lines[0], ',');
      ASSERT_EQ(instance, wllb_format("%s_%s_%s", std::string(identity[1]).c_str(), std::string(identity[2]).c_str(),
                                      std::string(identity[3]).c_str()));
      ASSERT_EQ("99,x,FPGVersion:2.0,JAVA", lines[1]);
      for (const std::string_view text : lines) {
        reader.line(text);
        ASSERT_EQ("", reader.error) << text.substr(0, 2000);
      }
      ASSERT_EQ(partition == partitions.rbegin()->first, lines.back() == "10,");
      ASSERT_EQ(0U, reader.flowpaths.size() + reader.segments.size()) << "in flight at the partition's end";
    }
  }

  fs::path top;
};

TEST_F(tq_sample, sends_only_what_an_agent_may_send) {
  const std::vector<std::vector<std::string>> runs = {
      {},
      {"--form", "classic", "--flowpaths", "60", "--flowpath-methods", "900", "--in-flight", "30"},
      {"--form", "exit", "--flowpaths", "60", "--flowpath-methods", "900", "--in-flight", "30", "--seed", "5"},
      {"--instances", "7", "--partitions", "3", "--flowpath-methods", "1", "--in-flight", "1", "--seed", "2"},
      {"--instances", "3", "--mb", "1", "--seed", "3"},
  };
  std::set<int> events; // that any run sent
  for (size_t i = 0; i < runs.size(); ++i) {
    SCOPED_TRACE(i);
    const std::string dir = std::to_string(i);
    ASSERT_EQ(0, run(dir, runs[i]).exit_status);
    for (const auto &[instance, partitions] : raw_data(dir)) {
      strict_reader reader;
      read_strictly(reader, instance, partitions);
      if (HasFatalFailure())
        return;
      if (i != 4) { // as many flowpaths as were asked for
        EXPECT_EQ(i == 1 || i == 2 ? 60 : 200, reader.counts[2]) << instance;
      }
      for (const auto &[event, count] : reader.counts)
        events.insert(event);
    }
  }
  for (const field_count &row : field_counts)
    EXPECT_TRUE(events.count(row.event) > 0 || row.event == 8 || row.event == 85) << row.event << " was never sent";
}

// From the time when all of them have begun to the time when no further one begins.
TEST_F(tq_sample, keeps_as_many_flowpaths_in_flight_as_it_is_told) {
  for (const std::string form : {"classic", "exit"}) {
    SCOPED_TRACE(form);
    ASSERT_EQ(0, run(form, wllb_words("--instances 1 --partitions 1 --flowpaths 600 --flowpath-methods 20 "
                                      "--in-flight 60 --form " +
                                          form,
                                      99))
                     .exit_status);
    const std::string bytes = raw_data(form).at("Storefront_web01_shop").at("20260302090000");
    strict_reader reader;
    size_t least = 60, most = 0;
    for (const std::string_view text : cut(std::string_view(bytes).substr(0, bytes.size() - 1), '\n')) {
      reader.line(text);
      most = std::max(most, reader.flowpaths.size());
      if (reader.counts[2] >= 60 && reader.counts[2] < 600)
        least = std::min(least, reader.flowpaths.size());
    }
    EXPECT_EQ("", reader.error);
    EXPECT_LE(most, 60U);
    EXPECT_GE(least, 30U) << "the others have sent no header yet, or wait for a response alone";
  }
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
    seen = whole_file(file);
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
    strict_reader reader;
    read_strictly(reader, instance, partitions);
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
