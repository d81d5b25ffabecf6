// The command line of every program: a table of options, read, checked and explained in one way.
//   In      the program's rows, argc and argv
//   Out     the rows' targets; help and version on standard output, one line on standard error for a mistake
//   Thread  main, before any other (getopt_long keeps its place in globals)
//   Failure by return value: the exit status to end with, or the mistake

#include "wllb_options.h"

#include "wllb_util.h"

#include <algorithm>
#include <cerrno>
#include <getopt.h>
#include <vector>

// What getopt_long gives back for long names: the row's place behind all letters.
constexpr int long_base = 0x100;
constexpr int help_id = 0x10000;
constexpr int version_id = help_id + 1;

static bool takes_value(const wllb_option &row) {
  return row.value != nullptr;
}

static bool is_heading(const wllb_option &row) {
  return !row.name && row.letter == 0;
}

// --- reading -------------------------------------------------------------------------------------------------

static std::string range_text(const wllb_option &row) {
  if (row.min == INT64_MIN && row.max == INT64_MAX)
    return "";
  const auto min = static_cast<long long>(row.min);
  const auto max = static_cast<long long>(row.max);
  if (row.max >= INT_MAX)
    return row.min == INT64_MIN ? "" : wllb_format("%lld or more", min);
  return wllb_format("%lld to %lld", min, max);
}

static void store_number(const wllb_option &row, int64_t number) {
  if (row.number)
    *row.number = number;
  if (row.number32)
    *row.number32 = static_cast<int>(number);
}

// "" when the row has taken the value; else why not.
static std::string take_number(const wllb_option &row, const char *value, bool by_letter) {
  char *end = nullptr;
  errno = 0;
  const int64_t number = strtoll(value, &end, 10);
  const bool whole = end != value && *end == '\0' && errno == 0 && (*value == '-' || (*value >= '0' && *value <= '9'));
  if (row.as_c_library && by_letter) {
    store_number(row, number);
    if (!whole)
      fprintf(stderr, "%s: warning: -%c: '%s' is not a number, %lld is used\n", program_invocation_short_name,
              row.letter, value, static_cast<long long>(row.number32 ? static_cast<int>(number) : number));
    return "";
  }
  if (!whole)
    return errno == ERANGE ? "is too large" : "is not a number";
  if (number < row.min || number > row.max)
    return number < row.min ? wllb_format("is below %lld", static_cast<long long>(row.min))
                            : wllb_format("is above %lld", static_cast<long long>(row.max));
  store_number(row, number);
  return "";
}

static std::string joined_words(const wllb_option &row) {
  std::string text;
  const std::vector<std::string_view> words = wllb_split(row.words, '|');
  for (size_t i = 0; i < words.size(); ++i)
    text.append(i == 0 ? "" : i + 1 == words.size() ? " or " : ", ").append(words[i]);
  return text;
}

static std::string take_word(const wllb_option &row, const char *value) {
  const std::vector<std::string_view> words = wllb_split(row.words, '|');
  const auto found = std::find(words.begin(), words.end(), std::string_view(value));
  if (found == words.end())
    return "is not " + joined_words(row);
  *row.chosen = static_cast<int>(found - words.begin());
  return "";
}

static std::string take_value(const wllb_option &row, const char *value, bool by_letter) {
  if (row.flag)
    *row.flag = true;
  if (row.text)
    *row.text = value;
  if (row.number || row.number32)
    if (std::string why = take_number(row, value, by_letter); !why.empty())
      return why;
  if (row.words)
    return take_word(row, value);
  return row.take ? row.take(value ? value : "") : "";
}

static std::string option_text(const wllb_option &row, bool by_letter) {
  return by_letter ? wllb_format("-%c", row.letter) : wllb_format("--%s", row.name);
}

// What getopt_long found wrong: ':' a missing value, '?' anything else. `word` is the one it was looking at.
static wllb_option_mistake mistake_in(std::span<const wllb_option> rows, int found, const char *word) {
  if (optopt >= long_base) { // a known long name
    const std::string name(std::string_view(word).substr(0, std::string_view(word).find('=')));
    return {found == ':' ? wllb_format("%s needs a value", name.c_str())
                         : wllb_format("%s takes no value", name.c_str())};
  }
  if (optopt == 0) {
    const bool some = std::any_of(rows.begin(), rows.end(), [word](const wllb_option &row) {
      return row.name && std::string_view(row.name).starts_with(word + 2) && word[2] != '\0';
    });
    return {wllb_format(some ? "%s could be several options" : "unknown option '%s'", word)};
  }
  const auto letter = static_cast<char>(optopt);
  return {wllb_format(found == ':' ? "-%c needs a value" : "unknown option '-%c'", letter), letter};
}

struct getopt_rows {
  std::vector<std::string> letter_names; // --t is -t
  std::string letters = ":h";            // errors are reported here, not by getopt_long
  std::vector<option> names = {{"help", no_argument, nullptr, help_id}, {"version", no_argument, nullptr, version_id}};
};

static getopt_rows make_getopt_rows(std::span<const wllb_option> rows) {
  getopt_rows made;
  made.letter_names.reserve(rows.size()); // they do not move
  for (size_t i = 0; i < rows.size(); ++i) {
    const int with_value = takes_value(rows[i]) ? required_argument : no_argument;
    if (rows[i].letter)
      made.letters.append(1, rows[i].letter).append(with_value == required_argument ? ":" : "");
    if (rows[i].letter)
      made.letter_names.emplace_back(1, rows[i].letter);
    for (const char *name : {rows[i].name, rows[i].letter ? made.letter_names.back().c_str() : nullptr})
      if (name)
        made.names.push_back({name, with_value, nullptr, long_base + static_cast<int>(i)});
  }
  made.names.push_back({});
  return made;
}

static const wllb_option *row_of(std::span<const wllb_option> rows, int id) {
  if (id >= long_base)
    return &rows[static_cast<size_t>(id - long_base)];
  const auto found = std::find_if(rows.begin(), rows.end(), [id](const wllb_option &row) { return row.letter == id; });
  return found == rows.end() ? nullptr : &*found;
}

// The first required option that was not given; "" when there is none.
static std::string missing_option(std::span<const wllb_option> rows, const std::vector<bool> &given) {
  for (size_t i = 0; i < rows.size(); ++i)
    if (rows[i].required && !given[i])
      return wllb_format("%s is missing", option_text(rows[i], !rows[i].name).c_str());
  return "";
}

wllb_options_found wllb_parse_options(std::span<const wllb_option> rows, int argc, char **argv,
                                      wllb_option_mistake *mistake) {
  const getopt_rows made = make_getopt_rows(rows);
  std::vector<bool> given(rows.size());
  optind = 0; // from the beginning, also in a second call
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  for (int id; (id = getopt_long(argc, argv, made.letters.c_str(), made.names.data(), nullptr)) != -1;) {
    if (id == version_id)
      return WLLB_OPTIONS_VERSION;
    const wllb_option *row = id == help_id ? nullptr : row_of(rows, id);
    if (id == help_id || (id == 'h' && !row))
      return WLLB_OPTIONS_HELP;
    if (!row) {
      *mistake = mistake_in(rows, id, argv[optind - 1]);
      return WLLB_OPTIONS_MISTAKE;
    }
    given[static_cast<size_t>(row - rows.data())] = true;
    const std::string why = take_value(*row, optarg, id < long_base);
    if (why.empty())
      continue;
    const std::string option = option_text(*row, id < long_base);
    mistake->text = optarg ? wllb_format("%s: '%s' %s", option.c_str(), optarg, why.c_str())
                           : wllb_format("%s %s", option.c_str(), why.c_str());
    return WLLB_OPTIONS_MISTAKE;
  }
  mistake->text = optind < argc ? wllb_format("'%s' is not an option", argv[optind]) : missing_option(rows, given);
  return mistake->text.empty() ? WLLB_OPTIONS_TAKEN : WLLB_OPTIONS_MISTAKE;
}

std::optional<int> wllb_read_options(const wllb_program &program, std::span<const wllb_option> rows, int argc,
                                     char **argv) {
  const std::string help = wllb_help_text(program, rows); // now: the targets still hold the defaults
  wllb_option_mistake mistake;
  switch (wllb_parse_options(rows, argc, argv, &mistake)) {
  case WLLB_OPTIONS_HELP:
    fputs(help.c_str(), stdout);
    return 0;
  case WLLB_OPTIONS_VERSION:
    fputs(wllb_version_text(program).c_str(), stdout);
    return 0;
  case WLLB_OPTIONS_MISTAKE:
    return wllb_report_mistake(program, mistake.text);
  case WLLB_OPTIONS_TAKEN:
    break;
  }
  return std::nullopt;
}

int wllb_report_mistake(const wllb_program &program, const std::string &text) {
  fprintf(stderr, "%s: %s; --help explains the options\n", program.name, text.c_str());
  return 1;
}

// --- help and version ----------------------------------------------------------------------------------------

constexpr size_t help_width = 78, help_column = 26;

// Adds the words of `text`, broken before help_width; lines after the first begin at column `indent`. The first one begins
// where `out` stands, at column `at`.
static void put_wrapped(std::string &out, std::string_view text, size_t at, size_t indent) {
  bool first = true;
  while (!text.empty()) {
    const std::string_view word = wllb_take_piece(&text, ' ');
    if (!first && at + 1 + word.size() > help_width) {
      out.append("\n").append(indent, ' ');
      at = indent;
    } else if (!first) {
      out += ' ';
      ++at;
    }
    out += word;
    at += word.size();
    first = false;
  }
  out += '\n';
}

// What is used when the option is not given; "" when there is nothing to say.
static std::string default_text(const wllb_option &row) {
  if (row.default_text)
    return row.default_text;
  if (row.required)
    return "";
  if (row.number)
    return std::to_string(*row.number);
  if (row.number32)
    return std::to_string(*row.number32);
  if (row.words)
    return std::string(wllb_split(row.words, '|')[static_cast<size_t>(*row.chosen)]);
  return row.text ? *row.text : "";
}

// The row's words with its choices, range and default.
static std::string row_help(const wllb_option &row) {
  const std::string range = row.words ? joined_words(row) : row.number || row.number32 ? range_text(row) : "";
  const std::string fallback = default_text(row);
  if (range.empty() && fallback.empty())
    return row.help;
  const char *const between = range.empty() || fallback.empty() ? "" : "; ";
  return row.help + (" (" + range) + between + (fallback.empty() ? "" : "default " + fallback) + ")";
}

static void put_row(std::string &out, const wllb_option &row) {
  if (is_heading(row)) {
    out += '\n';
    put_wrapped(out, row.help, 0, 0);
    return;
  }
  std::string front = row.letter ? wllb_format("  -%c", row.letter) : "    ";
  if (row.name)
    front.append(row.letter ? ", --" : "  --").append(row.name);
  if (row.value)
    front.append(" ").append(row.value);
  out += front;
  size_t at = front.size();
  if (at + 2 > help_column) {
    out += '\n';
    at = 0;
  }
  out.append(help_column - at, ' ');
  put_wrapped(out, row_help(row), help_column, help_column);
}

// --- the same for a manual page ---

std::string wllb_mdoc_lines(std::string_view text) {
  std::string out, flat(text);
  std::replace(flat.begin(), flat.end(), '\n', ' ');
  size_t at = 0; // column
  for (std::string_view rest = flat; !rest.empty();) {
    const std::string_view word = wllb_take_piece(&rest, ' ');
    if (word.empty())
      continue;
    if (at > 0 && at + 1 + word.size() > help_width) {
      out += '\n';
      at = 0;
    }
    if (at > 0)
      out += ' ';
    else if (word[0] == '.' || word[0] == '\'')
      out += "\\&";
    for (const char c : word)
      c == '\\' ? out += "\\e" : out += c;
    at += word.size() + 1;
    if (word.ends_with('.')) {
      out += '\n';
      at = 0;
    }
  }
  if (at > 0)
    out += '\n';
  return out;
}

// One word of a synopsis: "--dir", "-t", "DIR", "[options]".
static std::string mdoc_word(std::string_view word) {
  if (word.starts_with("-"))
    return "Fl " + std::string(word.substr(1));
  return "Ar " + std::string(word);
}

static void put_mdoc_synopsis(std::string &out, std::string_view synopsis) {
  out += ".Sh SYNOPSIS\n.Nm\n";
  bool in_brackets = false;
  while (!synopsis.empty()) {
    std::string_view word = wllb_take_piece(&synopsis, ' ');
    if (word == "|") {
      out += ".Nm\n";
      continue;
    }
    const bool opens = word.starts_with('['), closes = word.ends_with(']');
    word = word.substr(opens ? 1 : 0, word.size() - (opens ? 1 : 0) - (closes ? 1 : 0));
    const bool goes_on = in_brackets || (!opens && !word.starts_with('-') && !out.ends_with(".Nm\n"));
    if (goes_on)
      out.back() = ' ';
    else
      out += opens ? ".Op " : ".";
    out += mdoc_word(word) + "\n";
    in_brackets = (in_brackets || opens) && !closes;
  }
}

static void put_mdoc_row(std::string &out, const wllb_option &row) {
  if (is_heading(row)) {
    out += ".El\n.Pp\n";
    out += wllb_mdoc_lines(row.help);
    out += ".Bl -tag -width Ds\n";
    return;
  }
  out += ".It";
  if (row.letter)
    out += wllb_format(" Fl %c", row.letter);
  if (row.name)
    out += wllb_format("%s Fl -%s", row.letter ? " ," : "", row.name);
  if (row.value)
    out += wllb_format(" Ar %s", row.value);
  out += "\n";
  out += wllb_mdoc_lines(row_help(row) + ".");
}

static std::string mdoc_text(const wllb_program &program, std::span<const wllb_option> rows) {
  std::string out;
  put_mdoc_synopsis(out, program.synopsis);
  out += ".Sh DESCRIPTION\n";
  out += wllb_mdoc_lines(program.about);
  out += ".Bl -tag -width Ds\n";
  for (const wllb_option &row : rows)
    if (row.help)
      put_mdoc_row(out, row);
  out += ".El\n";
  if (program.notes) {
    out += ".Pp\n";
    out += wllb_mdoc_lines(program.notes);
  }
  return out;
}

std::string wllb_help_text(const wllb_program &program, std::span<const wllb_option> rows) {
  if (getenv("WLLB_HELP_MDOC")) // NOLINT(concurrency-mt-unsafe): there is one thread
    return mdoc_text(program, rows);
  std::string out = wllb_format("Usage: %s ", program.name);
  put_wrapped(out, program.synopsis, out.size(), out.size());
  put_wrapped(out, program.about, 0, 0);
  out += '\n';
  for (const wllb_option &row : rows)
    if (row.help)
      put_row(out, row);
  if (std::any_of(rows.begin(), rows.end(), is_heading))
    out += '\n';
  const bool h_is_taken = row_of(rows, 'h') != nullptr;
  put_row(out, {.name = "help", .letter = h_is_taken ? '\0' : 'h', .help = "prints this text"});
  put_row(out, {.name = "version", .help = "prints the version"});
  if (program.notes)
    out.append("\n").append(program.notes);
  return out;
}

std::string wllb_version_text(const wllb_program &program) {
  return wllb_format("%s %s\n", program.name, wllb_version);
}
