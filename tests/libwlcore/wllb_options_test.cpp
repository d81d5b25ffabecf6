// The table of options that every program reads its command line with.

#include "wllb_options.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

struct taken_t {
  std::string dir = "here", name;
  int64_t number = 7;
  int small = 3, word = 1;
  bool flag = false;
};

constexpr wllb_program program = {.name = "prog", .synopsis = "--number N [options]", .about = "Does it."};

std::vector<wllb_option> rows_for(taken_t &t) {
  return {{.name = "dir", .letter = 'd', .value = "DIR", .help = "where", .text = &t.dir},
          {.name = "number", .letter = 'n', .value = "N", .help = "how many", .required = true, .number = &t.number},
          {.help = "More:"},
          {.name = "small",
           .letter = 's',
           .value = "SEC",
           .help = "how long",
           .as_c_library = true,
           .number32 = &t.small,
           .min = -5,
           .max = 10},
          {.name = "form", .value = "NAME", .help = "which form", .words = "one|two|three", .chosen = &t.word},
          {.name = "fast", .help = "quickly", .flag = &t.flag},
          {.name = "forget", .help = "less", .flag = &t.flag},
          {.name = "name", .value = "TEXT", .help = "who", .take = [&t](const char *value) {
             t.name += value;
             return std::string(*value == 'x' ? "is not a name" : "");
           }}};
}

wllb_options_found parse(taken_t &t, const std::string &line, std::string *mistake, char *letter = nullptr) {
  std::istringstream in(line);
  std::vector<std::string> words = {"prog"};
  for (std::string word; in >> word;)
    words.push_back(word == "EMPTY" ? "" : word);
  std::vector<char *> argv;
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  const auto rows = rows_for(t);
  wllb_option_mistake found;
  const auto result = wllb_parse_options(rows, static_cast<int>(words.size()), argv.data(), &found);
  *mistake = found.text;
  if (letter)
    *letter = found.letter;
  return result;
}

} // namespace

TEST(options, go_to_their_targets) {
  taken_t t;
  std::string mistake;
  ASSERT_EQ(WLLB_OPTIONS_TAKEN,
            parse(t, "-d /a --number=2147483647 -s-5 --form three --fa --name a --name b", &mistake));
  EXPECT_EQ("/a", t.dir);
  EXPECT_EQ(INT_MAX, t.number);
  EXPECT_EQ(-5, t.small);
  EXPECT_EQ(2, t.word);
  EXPECT_TRUE(t.flag);
  EXPECT_EQ("ab", t.name);
  ASSERT_EQ(WLLB_OPTIONS_TAKEN, parse(t, "--n 1 --s 10", &mistake)); // a letter with two dashes
  EXPECT_EQ(1, t.number);
  EXPECT_EQ(10, t.small);
}

TEST(options, by_letter_a_number_may_be_what_the_c_library_makes_of_it) {
  const std::pair<const char *, int> cases[] = {{"-s 12x", 12}, {"-s 11", 11}, {"-s x", 0}, {"-s EMPTY", 0}};
  for (const auto &[words, number] : cases) {
    SCOPED_TRACE(words);
    taken_t t;
    std::string mistake;
    EXPECT_EQ(WLLB_OPTIONS_TAKEN, parse(t, std::string("-n 1 ") + words, &mistake));
    EXPECT_EQ(number, t.small);
  }
}

TEST(options, mistakes_name_the_word_at_fault) {
  struct {
    const char *words, *mistake;
    char letter;
  } const cases[] = {
      {"--number 5x", "--number: '5x' is not a number", 0},
      {"-n +5", "-n: '+5' is not a number", 0},
      {"--number EMPTY", "--number: '' is not a number", 0},
      {"--number -1", "--number: '-1' is below 0", 0},
      {"--number 2147483648", "--number: '2147483648' is above 2147483647", 0},
      {"--number 9223372036854775808", "--number: '9223372036854775808' is too large", 0},
      {"-n 1 --small 11", "--small: '11' is above 10", 0},
      {"--form four", "--form: 'four' is not one, two or three", 0},
      {"--name xy", "--name: 'xy' is not a name", 0},
      {"--fast=1", "--fast takes no value", 0},
      {"--f", "--f could be several options", 0},
      {"--unknown=3", "unknown option '--unknown=3'", 0},
      {"-z", "unknown option '-z'", 'z'},
      {"-n", "-n needs a value", 'n'},
      {"--number", "--number needs a value", 0},
      {"-n 1 word", "'word' is not an option", 0},
      {"-n 1 -- -s", "'-s' is not an option", 0},
      {"--fast", "--number is missing", 0},
  };

  for (const auto &c : cases) {
    SCOPED_TRACE(c.words);
    taken_t t;
    std::string mistake;
    char letter = 1;
    EXPECT_EQ(WLLB_OPTIONS_MISTAKE, parse(t, c.words, &mistake, &letter));
    EXPECT_EQ(c.mistake, mistake);
    EXPECT_EQ(c.letter, letter);
  }
}

TEST(options, help_and_version_come_before_what_is_missing_or_follows) {
  taken_t t;
  std::string mistake;
  EXPECT_EQ(WLLB_OPTIONS_HELP, parse(t, "--help --nothing", &mistake));
  EXPECT_EQ(WLLB_OPTIONS_HELP, parse(t, "--fast -h", &mistake));
  EXPECT_EQ(WLLB_OPTIONS_VERSION, parse(t, "--version", &mistake));
}

TEST(options, help_shows_units_ranges_and_defaults) {
  taken_t t;
  const std::string help = wllb_help_text(program, rows_for(t));
  EXPECT_EQ("Usage: prog --number N [options]\n"
            "Does it.\n"
            "\n"
            "  -d, --dir DIR           where (default here)\n"
            "  -n, --number N          how many (0 or more)\n"
            "\n"
            "More:\n"
            "  -s, --small SEC         how long (-5 to 10; default 3)\n"
            "      --form NAME         which form (one, two or three; default two)\n"
            "      --fast              quickly\n"
            "      --forget            less\n"
            "      --name TEXT         who\n"
            "\n"
            "  -h, --help              prints this text\n"
            "      --version           prints the version\n",
            help);
  EXPECT_EQ(std::string("prog ") + wllb_version + "\n", wllb_version_text(program));
}
