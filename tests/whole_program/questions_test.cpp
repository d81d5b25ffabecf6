// tqshow's answers, held against what an independent look at the same files says; what damaged files do to them.
//   In      a sample test run that tqp has processed, its rows cut here by commas; live runs
//   Out     test runs in a directory of their own
//   Failure an answer that differs, a crash, a control byte in what is printed
#include "test_run.h"

#include "wllb_json_parser.h"
#include "wllb_util.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

namespace fs = std::filesystem;

namespace {

class questions : public tqp_test_run {
protected:
  using row_t = std::vector<std::string_view>;

  questions() { fs::remove_all(path("")); }

  void make_sample() {
    const std::string words = TQP_BINARY_DIR "/tq_sample --testrun 1234 --flowpaths 60 --dir " + directory;
    ASSERT_EQ(0, running_program(wllb_words(words, 20), directory + "/sample").wait().exit_status);
    ASSERT_EQ(0, run({}).exit_status);
    each_file([this](const fs::path &file) {
      if (file.filename() == "TQFlowPath.csv")
        texts.push_back(wllb_read_small_file(file.c_str(), size_t{1} << 26U));
    });
    for (const std::string &text : texts)
      for (std::string_view rest = text; !rest.empty();)
        rows.push_back(wllb_split(wllb_take_piece(&rest, '\n'), ','));
    ASSERT_LT(200U, rows.size());
  }

  void each_file(const std::function<void(const fs::path &)> &use) const {
    for (const auto &entry : fs::recursive_directory_iterator(path("")))
      if (entry.is_regular_file())
        use(entry.path());
  }

  static int64_t number(std::string_view text) { return atoll(std::string(text).c_str()); }

  // Rows of which something is so; columns count from 1.
  size_t count_rows(const std::function<bool(const row_t &)> &is_so) const {
    return static_cast<size_t>(std::count_if(rows.begin(), rows.end(), is_so));
  }

  static std::vector<std::string> argv_of_show(const std::string &directory, std::vector<std::string> options) {
    options.insert(options.begin(), {TQP_BINARY_DIR "/tqshow", "--dir", directory, "--testrun", "1234"});
    return options;
  }

  program_end ask(const std::vector<std::string> &options) const {
    program_end end = running_program(argv_of_show(directory, options), directory + "/tqshow").wait();
    EXPECT_EQ(std::string::npos, (end.output + end.errors).find_first_of("\033\x07\x08\r"));
    return end;
  }

  size_t counted(std::vector<std::string> options) const {
    options.emplace_back("--count");
    const program_end end = ask(options);
    EXPECT_EQ(0, end.exit_status) << end.errors;
    return static_cast<size_t>(number(end.output));
  }

  std::vector<std::string> texts; // of flowpath rows
  std::vector<row_t> rows;
};

TEST_F(questions, filters_find_what_the_rows_say) {
  make_sample();
  const auto column = [](const row_t &row, size_t which) { return number(row[which - 1]); };
  EXPECT_EQ(rows.size(), counted({}));
  EXPECT_EQ(count_rows([&](auto &row) { return column(row, 9) >= 400; }), counted({"--min-ms", "400"}));
  EXPECT_EQ(count_rows([&](auto &row) { return column(row, 17) / 100 == 5; }), counted({"--status", "5xx"}));
  EXPECT_EQ(count_rows([&](auto &row) { return column(row, 17) == 200 || column(row, 17) / 100 == 4; }),
            counted({"--status", "200,4xx"}));
  EXPECT_EQ(count_rows([&](auto &row) { return column(row, 23) > 0 || column(row, 17) >= 400; }),
            counted({"--errors"}));
  EXPECT_EQ(count_rows([&](auto &row) { return column(row, 2) == 2; }), counted({"--tier", "2"}));
  EXPECT_EQ(counted({"--tier", "Orders"}), counted({"--instance", "Orders_*"}));
  EXPECT_EQ(1U, counted({"--flowpath", std::string(rows[7][0])}));
  const std::string correlation(rows[7][20]);
  EXPECT_EQ(count_rows([&](auto &row) { return row[20] == correlation; }), counted({"--correlation", correlation}));
  constexpr int64_t epoch = 1577836800; // of the sample
  const std::string moment = "@" + std::to_string(column(rows[50], 12) + epoch);
  const size_t later = count_rows([&](auto &row) { return column(row, 12) >= column(rows[50], 12); });
  EXPECT_EQ(later, counted({"--from", moment}));
  EXPECT_EQ(rows.size() - later, counted({"--to", moment}));
  // a URL by its text, looked up here in the file of names
  const std::string names = common("TQURLTable.csv"), id = "1234," + std::string(rows[7][19]) + ",-1,0,0,0,";
  const size_t at = names.find(id) + id.size();
  const std::string url = names.substr(at, names.find(",0,'-'\n", at) - at);
  EXPECT_EQ(count_rows([&](auto &row) { return row[19] == rows[7][19]; }), counted({"--url", url}));
  EXPECT_EQ(rows.size(), counted({"--url", "*"}));
}

TEST_F(questions, what_is_not_there_is_reported) {
  make_sample();
  for (const std::vector<std::string> &options : {std::vector<std::string>{"--url", "/nowhere"},
                                                  {"--instance", "Nobody"},
                                                  {"--tier", "Nobody"},
                                                  {"--tag", "no=tag"},
                                                  {"--text", "no such text"},
                                                  {"--correlation", "none"},
                                                  {"--partition", "19700101000000"},
                                                  {"--from", "yesterday"},
                                                  {"--status", "bad"},
                                                  {"--sort", "colour"},
                                                  {"--by", "method", "--sort", "colour"}}) {
    const program_end end = ask(options);
    EXPECT_EQ(1, end.exit_status) << options[1];
    EXPECT_EQ(1U, lines_of(end.errors).size()) << end.errors;
    EXPECT_EQ(0U, end.errors.find("tqshow: ")) << end.errors;
  }
}

TEST_F(questions, sorted_and_as_json_lines) {
  make_sample();
  std::vector<int64_t> slowest;
  for (const row_t &row : rows)
    slowest.push_back(number(row[8]));
  std::sort(slowest.rbegin(), slowest.rend());
  const std::vector<std::string> lines = lines_of(ask({"--top", "5", "--json"}).output);
  ASSERT_EQ(5U, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string file = directory + "/line.json", ms = "\"ms\":" + std::to_string(slowest[i]) + ",";
    std::ofstream(file) << lines[i];
    std::string error;
    const wllb_json_file json(wllb_json_init(file.c_str(), &error));
    EXPECT_TRUE(json && wllb_json_to_jsont(json.get(), &error)) << error;
    EXPECT_NE(std::string::npos, lines[i].find(ms)) << lines[i];
  }
}

// The sum of a column of lines of sums.
int64_t total(const std::string &output, size_t column) {
  int64_t sum = 0;
  std::vector<std::string> lines = lines_of(output);
  for (size_t i = 1; i < lines.size(); ++i)
    sum += atoll(wllb_words(lines[i], column + 1)[column].c_str());
  return sum;
}

TEST_F(questions, sums_are_those_of_the_rows) {
  make_sample();
  const std::string transactions = ask({"--by", "transaction"}).output;
  EXPECT_EQ(static_cast<int64_t>(rows.size()), total(transactions, 0));
  std::map<std::string_view, std::vector<int64_t>> durations; // by URL
  for (const row_t &row : rows)
    durations[row[19]].push_back(number(row[8]));
  std::vector<std::string> shares, printed; // count, p50, p95, slowest of each transaction
  for (auto &[url, ms] : durations) {
    std::sort(ms.begin(), ms.end());
    const auto at = [&ms = ms](size_t percent) { return std::to_string(ms[(ms.size() * percent + 99) / 100 - 1]); };
    shares.push_back(std::to_string(ms.size()) + " " + at(50) + " " + at(95) + " " + at(100));
  }
  for (const std::string &line : lines_of(transactions)) {
    const std::vector<std::string> words = wllb_words(line, 8);
    printed.push_back(words[0] + " " + words[3] + " " + words[4] + " " + words[6]);
  }
  printed.erase(printed.begin());
  std::sort(shares.begin(), shares.end());
  std::sort(printed.begin(), printed.end());
  EXPECT_EQ(shares, printed);
  int64_t self_ms = 0, calls = 0, exceptions = 0;
  double sql_ms = 0;
  each_file([&](const fs::path &file) {
    const std::string bytes = wllb_read_small_file(file.c_str(), size_t{1} << 26U);
    for (size_t at = 0;
         file.extension() == ".dat" && at + 144 <= bytes.size() && file.parent_path().filename() == "dat"; at += 144) {
      uint32_t value = 0;
      memcpy(&value, bytes.data() + at + 20, sizeof value);
      self_ms += value;
      memcpy(&value, bytes.data() + at + 32, sizeof value);
      calls += value;
    }
    if (file.filename() == "TQExceptions.csv")
      exceptions += std::count(bytes.begin(), bytes.end(), '\n');
    if (file.filename() == "TQSQLTiming.csv")
      for (const std::string &line : lines_of(bytes))
        sql_ms += atof(std::string(wllb_split(line, ',')[6]).c_str());
  });
  const std::string methods = ask({"--by", "method"}).output;
  EXPECT_LT(0, self_ms);
  EXPECT_EQ(self_ms, total(methods, 0));
  EXPECT_EQ(calls, total(methods, 3));
  EXPECT_EQ(exceptions, total(ask({"--by", "exception"}).output, 0));
  const std::string queries = ask({"--by", "query"}).output;
  EXPECT_NEAR(sql_ms, static_cast<double>(total(queries, 0)), static_cast<double>(lines_of(queries).size()));
  EXPECT_LT(0, total(ask({"--by", "backend", "--errors"}).output, 1));
}

// Those that a flowpath without a parent has called stand in its tree, each once.
TEST_F(questions, called_tiers_stand_in_their_places) {
  make_sample();
  std::map<std::string, size_t> called; // by caller
  size_t with_parent = 0;
  for (const std::string &text : texts)
    for (const std::string &line : lines_of(text)) {
      const std::vector<std::string_view> front = wllb_split(std::string_view(line).substr(0, line.find("\"{")), ',');
      with_parent += front[41] != "0" ? 1 : 0;
      ++called[std::string(front[41])];
    }
  ASSERT_LT(0U, with_parent);
  size_t shown = 0;
  for (const auto &[caller, count] : called) {
    if (caller == "0" || shown > 20)
      continue;
    const std::string tree = ask({"--flowpath", caller, "--tiers"}).output;
    size_t arrows = 0;
    for (size_t at = 0; (at = tree.find("=> ", at)) != std::string::npos; ++at)
      ++arrows;
    if (tree.empty())
      continue; // the caller has no row: it never ended
    EXPECT_LE(count, arrows) << caller;
    ++shown;
  }
  EXPECT_LT(3U, shown);
}

TEST_F(questions, follows_flowpaths_as_they_arrive) {
  make_sample();
  std::string flowpaths;
  each_file([&](const fs::path &file) {
    if (file.filename() == "TQFlowPath.csv")
      flowpaths = std::max(flowpaths, file.string());
  });
  const std::string row = lines_of(wllb_read_small_file(flowpaths.c_str(), size_t{1} << 26U)).front();
  running_program follower(argv_of_show(directory, {"--follow", "--json"}), directory + "/follow");
  const auto printed = [&] { return wllb_read_small_file((directory + "/follow.out").c_str()); };
  const std::string fpi = "\"flowpath\":\"" + row.substr(0, row.find(',')) + "\"";
  // it begins at the files' ends: rows are added until it has come there and sees one
  EXPECT_TRUE(eventually([&] {
    std::ofstream(flowpaths, std::ios::app) << row << "\n";
    return printed().find(fpi) != std::string::npos;
  }));
  follower.signal(SIGTERM);
  follower.wait();
}

// --- bad input ------------------------------------------------------------------------------------------------------

// What stands around a bad row is found; the bad one is reported with its place and keeps no memory.
TEST_F(questions, hostile_rows_and_names_hurt_nobody_else) {
  make_sample();
  std::string flowpaths;
  each_file([&](const fs::path &file) {
    if (file.filename() == "TQFlowPath.csv")
      flowpaths = std::max(flowpaths, file.string());
  });
  const std::string good = wllb_read_small_file(flowpaths.c_str(), size_t{1} << 26U);
  const std::string row = good.substr(0, good.find('\n') + 1);
  std::string evil = row;
  evil.replace(evil.find("tx-"), 3, "\033]0;x\007\x9b\xff\xe2\x80\xae"); // a correlation id that commands terminals
  std::ofstream(flowpaths, std::ios::binary) << evil;
  fs::resize_file(flowpaths, evil.size() + (size_t{1} << 30U)); // a row of 1 GB of zeros
  std::ofstream(flowpaths, std::ios::app) << "\n" << row;
  std::ofstream(path("tq/csv/TQURLTable.csv"), std::ios::app)
      << "1234,9223372036854775807,-1,0,0,0,\033[2J,0,'-'\n1234,x,,\n"
      << std::string(3, '\0') << "\n";
  const program_end end = ask({});
  EXPECT_EQ(1, end.exit_status);
  EXPECT_NE(std::string::npos, end.errors.find("TQFlowPath.csv row 2: the row has more than 64 MiB")) << end.errors;
  EXPECT_EQ(1U, lines_of(end.errors).size());
  EXPECT_EQ(1, ask({"--check"}).exit_status);
  EXPECT_LE(ask({"--every", "--tiers", "--color", "never"}).exit_status, 1);
}

// A live run with a partition every other second: every segment is read, also those that came late.
TEST_F(questions, late_segments_of_a_live_run_are_all_found) {
  const std::string options = " --partitions 1 --online --quiet --in-flight 60 --rate 1500000 --seconds 7"
                              " --switch-every 2 --end";
  running_program agents(wllb_words(TQP_BINARY_DIR "/tq_sample --testrun 1234 --dir " + directory + options, 99),
                         directory + "/agents");
  const auto said = [&] { return wllb_read_small_file((directory + "/agents.out").c_str()); };
  EXPECT_TRUE(eventually([&] { return said().find("monitor port") != std::string::npos; }));
  auto program = start({"-m", "1", "-l", wllb_words(said(), 3)[2]});
  EXPECT_EQ(0, agents.wait().exit_status);
  program->signal(SIGRTMIN + 3);
  EXPECT_EQ(0, program->wait().exit_status);
  size_t late = 0; // flowpaths whose row and list are in different partitions
  each_file([&](const fs::path &file) {
    if (file.filename() != "TQFlowPath.csv")
      return;
    const std::string partition = file.parent_path().parent_path().parent_path().parent_path().filename();
    for (const std::string &line : lines_of(wllb_read_small_file(file.c_str(), size_t{1} << 28U)))
      late += line.find("C:1:" + partition) == std::string::npos ? 1 : 0;
  });
  EXPECT_LT(0U, late);
  const program_end end = ask({"--check"});
  EXPECT_EQ(0, end.exit_status) << end.output.substr(0, 2000);
}

} // namespace
