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
  {11, 2, 2},  {12, 2, 2},  {13, 3, 3},  {16, 3, 3},  {17, 2, 2},  {18, 2, 2},   {19, 2, 2},   {20, 10, 12},
  {22, 2, 3},  {23, 2, 3},  {25, 1, 0},  {26, 2, 2},  {31, 9, 9},  {32, 2, 2},   {33, 2, 2},   {34, 2, 2},
  {35, 2, 2},  {36, 2, 2},  {37, 2, 2},  {38, 13, 13},{41, 2, 2},  {43, 3, 3},   {44, 10, 10}, {45, 8, 8},  {46, 8, 8},
  {51, 1, 0},  {52, 1, 0},  {53, 1, 0},  {61, 1, 0},  {62, 1, 0},  {63, 1, 0},   {71, 1, 0},   {72, 1, 0},  {73, 1, 0},
  {74, 1, 0},  {75, 1, 0},  {80, 7, 7},  {81, 1, 0},  {82, 18, 18},{83, 4, 4},   {84, 13, 13}, {85, 1, 0},  {86, 1, 0},
  {87, 1, 0},  {88, 1, 0},  {89, 1, 0},  {91, 3, 3},  {99, 3, 3},  {110, 1, 0},  {111, 1, 0},  {112, 2, 0}, {121, 1, 0},
}; // clang-format on

struct open_segment {
  int64_t main;
  std::string begin_seq;
  std::vector<std::pair<std::string_view, int64_t>> stack; // method with thread, time of entry
  int64_t last_time;
  int64_t finished;
};

struct open_flowpath {
  std::set<std::string> announced, arrived; // begin sequence numbers
  int64_t async_calls;
};

// Reads one instance's files and refuses what a good agent would not send.
struct strict_reader {
  std::map<int, std::set<int64_t>> known;   // local ids by the event that announces them
  std::map<int64_t, open_segment> segments; // by self
  std::map<int64_t, open_flowpath> flowpaths;
  std::map<int, int64_t> counts; // of records
  int64_t first_segment_methods = 0;
  std::string error; // the first one

  void refuse(const std::string &why) {
    if (error.empty())
      error = why;
  }

  void want(bool good, const char *why) {
    if (!good)
      refuse(why);
  }

  void want_known(int event, std::string_view id, const char *why) {
    want(is_number(id) && (known[event].count(number(id)) > 0), why);
  }

  void line(std::string_view text);
  void discovery(int event, const words_t &f);
  void header(int event, words_t f);
  void blob(int event, const words_t &tuple, std::string_view text);
  void async_response(const words_t &f);
  void classic_tokens(open_segment &segment, std::string_view text);
  void exit_tokens(open_segment &segment, std::string_view text);
  void method_entry(open_segment &segment, std::string_view method, std::string_view time);
  void method_exit(open_segment &segment, std::string_view method, std::string_view duration);
  void callout(open_segment &segment, std::string_view token);
  void close(const words_t &tuple);
};

void strict_reader::discovery(int event, const words_t &f) {
  const size_t id_at = f.size() == 3 && event != 7 ? 1 : is_number(f[0]) ? 0 : 1;
  want(is_number(f[id_at]), "no local id");
  const int row = event == 23 ? 22 : event; // SQL texts share one row of ids
  want(number(f[id_at]) == static_cast<int64_t>(known[row].size()) + 1, "ids are dense");
  known[row].insert(number(f[id_at]));
}

void strict_reader::header(int event, words_t f) {
  if (event == 82)
    f.erase(f.begin());
  const words_t tuple = cut(f[0], ':');
  want(tuple.size() == 4 && is_number(f[1]) && is_number(f[2]) && number(f[16]) / 1000 == number(f[1]),
       "header fields");
  want(f[4] == "0" || known[7].count(number(f[4])) > 0, "unknown URL");
  const int64_t self = number(tuple[0]), main = number(tuple.back());
  want((event == 2) == (self == main), "an event 2 owns its flowpath");
  open_flowpath &flowpath = flowpaths[main];
  want(event == 2 || !flowpath.announced.empty(), "segment of no flowpath");
  flowpath.announced.emplace(f[3]);
  want(segments.emplace(self, open_segment{main, std::string(f[3]), {}, 0, 0}).second, "segment opened twice");
}

void strict_reader::close(const words_t &tuple) {
  const auto at = segments.find(number(tuple[0]));
  want(at->second.stack.empty() && at->second.finished > 0, "methods still open");
  open_flowpath &flowpath = flowpaths[at->second.main];
  flowpath.arrived.insert(at->second.begin_seq);
  first_segment_methods += at->first == at->second.main ? at->second.finished : 0;
  segments.erase(at);
  if (flowpath.arrived == flowpath.announced && flowpath.async_calls == 0)
    flowpaths.erase(number(tuple[3]));
}

void strict_reader::method_entry(open_segment &segment, std::string_view method, std::string_view time) {
  want(number(time) >= segment.last_time, "entry before its time");
  segment.last_time = number(time);
  const words_t parts = cut(method, ':');
  segment.stack.emplace_back(method.substr(0, parts[0].size() + 1 + parts[1].size()), number(time));
}

void strict_reader::method_exit(open_segment &segment, std::string_view method, std::string_view duration) {
  want(!segment.stack.empty() && segment.stack.back().first == method, "exit of another method");
  if (segment.stack.empty())
    return;
  const int64_t at = segment.stack.back().second + number(duration);
  want(at >= segment.last_time, "exit before its time");
  segment.last_time = at;
  segment.stack.pop_back();
  ++segment.finished;
}

void strict_reader::callout(open_segment &segment, std::string_view token) {
  const words_t f = cut(token, ':');
  open_flowpath &flowpath = flowpaths[segment.main];
  flowpath.async_calls += token[0] == 'a' ? 1 : token[0] == 'A' ? -1 : 0;
  if (token[0] == 'x') {
    const std::string &own = segment.begin_seq;
    flowpath.announced.insert(own.substr(0, own.rfind('.') + 1) + std::string(f[0].substr(1)) + ".1");
  }
  if (f.size() == 1)
    return want(token[0] == 'x' || token[0] == 't', "bare callout");
  if (token[0] == 'G' || token[0] == 'C') {
    want_known(5, f[0].substr(1), "unknown backend");
    return want(f.size() == (token[0] == 'G' ? 9U : 8U), "fields of a sum");
  }
  const size_t front = token[0] == 'a' || token[0] == 'A' ? 4 : 1;
  want(f.size() > front + 4 && is_number(f[0].substr(1)), "callout fields");
  if (f.size() <= front + 4)
    return;
  want_known(5, f[front], "unknown backend");
  if (f[front + 2] == "2")
    want_known(22, f[front + 3], "unknown SQL");
  const size_t resource = token[0] == 'T' || token[0] == 't' || token[0] == 'x' ? front + 5 : front + 6;
  if (f.size() > resource && !f[resource].empty())
    want_known(26, f[resource], "unknown resource");
  if (resource == front + 5) // these move the clock
    segment.last_time = std::max(segment.last_time, static_cast<int64_t>(strtod(f[front + 1].data(), nullptr) + 0.999) +
                                                        number(f[front + 4]));
}

void strict_reader::classic_tokens(open_segment &segment, std::string_view text) {
  words_t f = cut(text, '_');
  want(f.back().empty(), "the last field is not ended");
  f.pop_back();
  for (size_t at = 0; at < f.size();) {
    if (f[at].empty() || !is_number(f[at].substr(0, 1))) {
      want(!f[at].empty() && (segment.finished > 0 || !segment.stack.empty() || f[at][0] == 'A'),
           "callout ahead of methods");
      callout(segment, f[at++]);
      continue;
    }
    want_known(5, cut(f[at], ':')[0], "unknown method");
    const char kind = at + 1 < f.size() && !f[at + 1].empty() ? f[at + 1][0] : '?';
    const size_t fields = kind == '0' ? 4 : kind == '2' ? 2 : kind == '1' || kind == '3' ? 6 : 1000;
    if (at + fields > f.size())
      return refuse("token cut short");
    if (kind == '0')
      method_entry(segment, f[at], f[at + 2]);
    else if (kind != '2')
      method_exit(segment, f[at], f[at + 2]);
    if (kind == '0' && f[at + 3] != "0")
      want_known(41, f[at + 3], "unknown page");
    if (fields == 6 && !f[at + 4].empty())
      want_known(22, f[at + 4], "unknown SQL");
    at += fields;
  }
}

void strict_reader::exit_tokens(open_segment &segment, std::string_view text) {
  words_t tokens = cut(text, '|');
  want(tokens.back().empty(), "the last token is not ended");
  tokens.pop_back();
  for (const std::string_view token : tokens) {
    if (token.empty() || !is_number(token.substr(0, 1))) {
      want(!token.empty() && segment.finished > 0 && token[0] != 'x', "callout ahead of methods");
      callout(segment, token);
      continue;
    }
    const words_t f = cut(token, '_');
    want_known(5, cut(f[0], ':')[0], "unknown method");
    if (f.size() == 2 && f[1] == "2")
      continue;
    if (f.size() != 7)
      return refuse("fields of a finished method");
    const words_t numbers = cut(f[1], ':');
    want(numbers.size() == 3 && number(numbers[1]) < number(numbers[2]), "numbers of entry and exit");
    want(number(f[2]) >= 1 && cut(f[3], ':').size() == 2 && cut(f[5], ':').size() == 5, "depth or times");
    if (f[4] != "0")
      want_known(41, f[4], "unknown page");
    ++segment.finished;
  }
}

void strict_reader::blob(int event, const words_t &tuple, std::string_view text) {
  const auto at = segments.find(number(tuple[0]));
  if (at == segments.end())
    return refuse("no header for this blob");
  if (event == 43 || event == 44)
    exit_tokens(at->second, text);
  else
    classic_tokens(at->second, text);
  if (event == 4 || event == 44 || event == 84)
    close(tuple);
}

void strict_reader::async_response(const words_t &f) {
  const words_t tuple = cut(f[1], ':');
  const int64_t main = number(tuple.back());
  want(flowpaths.count(main) > 0 && segments.count(number(tuple[0])) == 0, "response of no flowpath");
  flowpaths[main].announced.emplace(f[4]);
  segments[number(tuple[0])] = {main, std::string(f[4]), {}, 0, 1};
  blob(80, tuple, f[6]);
  close(tuple);
}

void strict_reader::line(std::string_view text) {
  const words_t all = cut(text, ',');
  const int event = static_cast<int>(number(all[0]));
  const words_t f(all.begin() + 1, all.end());
  const auto *row = std::find_if(std::begin(field_counts), std::end(field_counts),
                                 [&](const field_count &r) { return r.event == event; });
  if (!is_number(all[0]) || row == std::end(field_counts))
    return refuse("unknown event");
  if (f.size() < row->min || (row->max > 0 && f.size() > row->max))
    return refuse("wrong number of fields");
  ++counts[event];
  const bool names_segment = (event >= 12 && event <= 20 && event != 16) || event == 31 || event == 38 || event > 44;
  if (event == 5 || event == 6 || event == 7 || (event >= 22 && event <= 26 && event != 25) || event == 41 ||
      (event >= 32 && event <= 37))
    discovery(event, f);
  else if (event == 2 || event == 82)
    header(event, f);
  else if (event == 80)
    async_response(f);
  else if (event == 3 || event == 4 || event == 43 || event == 44 || event == 83 || event == 84)
    blob(event, cut(f[event >= 83 ? 2 : event >= 43 ? 1 : 0], ':'), f.back());
  else if (names_segment && event < 50)
    want(cut(f[0], ':').size() == 4, "tuple");
}

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
  constexpr int64_t flowpaths = 600, methods = 20, in_flight = 60;
  for (const std::string form : {"classic", "exit"}) {
    SCOPED_TRACE(form);
    ASSERT_EQ(0, run(form, {"--form", form, "--instances", "1", "--partitions", "1", "--flowpaths", "600",
                            "--flowpath-methods", "20", "--in-flight", "60"})
                     .exit_status);
    const std::string bytes = raw_data(form).at("Storefront_web01_shop").at("20260302090000");
    strict_reader reader;
    int64_t least = in_flight, most = 0;
    for (const std::string_view text : cut(std::string_view(bytes).substr(0, bytes.size() - 1), '\n')) {
      reader.line(text);
      const auto now = static_cast<int64_t>(reader.flowpaths.size());
      most = std::max(most, now);
      if (reader.counts[2] >= in_flight && reader.counts[2] < flowpaths)
        least = std::min(least, now);
    }
    EXPECT_EQ("", reader.error);
    EXPECT_LE(most, in_flight);
    EXPECT_GE(least, in_flight * 9 / 10) << "a few have only sent request headers so far";
    EXPECT_NEAR(static_cast<double>(methods), static_cast<double>(reader.first_segment_methods) / flowpaths, 1.0);
  }
}

TEST_F(tq_sample, makes_a_test_run_that_the_partition_reader_knows) {
  ASSERT_EQ(0, run("a", {"--partitions", "3", "--start", "20260101233000", "--flowpaths", "4", "--keywords",
                         "TQP_TRACE_LEVEL 2; TQ_FPI_MASK TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8;"})
                   .exit_status);
  const std::string dir = base("a");
  EXPECT_EQ(20260102013000, wllb_get_cur_partition(dir.c_str()));
  EXPECT_EQ(1577836800, wllb_get_cur_epoch_diff(dir.c_str()));
  int64_t neighbour = 0;
  EXPECT_EQ(0, wllb_get_next_partition((top / "a").c_str(), 7, "20260101233000", &neighbour));
  EXPECT_EQ(20260102003000, neighbour);
  EXPECT_EQ(1, wllb_get_next_partition((top / "a").c_str(), 7, "20260102013000", &neighbour));
  EXPECT_EQ(0, wllb_get_prev_partition(dir.c_str(), "20260102013000", &neighbour));
  EXPECT_EQ(20260102003000, neighbour);
  EXPECT_EQ(1767312000 - 1577836800 + 5400, // 2026-01-02 00:00:00 UTC and an hour and a half
            wllb_get_vexepoch_time_from_partition("20260102013000", 1577836800, -1, dir.c_str()));
  EXPECT_EQ("TQP_TRACE_LEVEL 2\nTQ_FPI_MASK TQEID:56:4;AppID:46:10;TS:8:38;SeqNo:0:8\n",
            whole_file(base("a") / "tq/conf/tqprof/default/TQKeywords.conf"));
  EXPECT_TRUE(fs::equivalent(top / "a/webapps/logs/TR7", dir));
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
  for (const std::vector<std::string> &options : std::vector<std::vector<std::string>>{{"--seed", "x"},
                                                                                       {"--instances", "0"},
                                                                                       {"--instances", "1001"},
                                                                                       {"--mix", "none"},
                                                                                       {"--form", ""},
                                                                                       {"--start", "2026030209000"},
                                                                                       {"--start", "20191231235959"},
                                                                                       {"--rate", "0"},
                                                                                       {"--nothing"},
                                                                                       {"word"}}) {
    SCOPED_TRACE(options[0] + " " + options.back());
    EXPECT_EQ(1, run("bad", options).exit_status);
    EXPECT_FALSE(fs::exists(top / "bad"));
  }
  EXPECT_EQ(0, run("twice", {"--flowpaths", "1"}).exit_status);
  EXPECT_EQ(1, run("twice", {"--flowpaths", "1"}).exit_status) << "a test run that stands there stays as it is";
}

} // namespace
