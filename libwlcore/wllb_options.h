// The command line of every program: a table of options, read, checked and explained in one way.
//   In      the program's rows, argc and argv
//   Out     the rows' targets; help and version on standard output, one line on standard error for a mistake
//   Thread  main, before any other (getopt_long keeps its place in globals)
//   Failure by return value: the exit status to end with, or the mistake
// Every program also takes --help, -h and --version. Long names may be shortened as far as they stay unique.
// Sample row:
//   {.name = "interval", .letter = 'i', .value = "SEC", .help = "time between two pictures", .number = &interval, .min = 1, .max = 3600}
#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// One option. It has one target, and `take` beside it where something else must happen, too. What the target holds before
// the reading is the default, and help shows it. A row with help alone is a heading in the help text, which keeps the
// order of the rows.
struct wllb_option {
  const char *name = nullptr;  // "testrun" for --testrun; null: the letter alone
  char letter = 0;             // 't' for -t; 0: the long name alone
  const char *value = nullptr; // what help calls the value, its unit where it has one: "SEC", "BYTES"; flags have none
  const char *help = nullptr;  // what it is for; wrapped when it is shown. Null: works, but help does not show it
  const char *default_text = nullptr; // shown as the default instead of the target's value; "": none is shown
  bool required = false;              // must be given
  bool as_c_library = false; // by its letter, a number is taken as strtoll reads it, with a warning if it is malformed

  bool *flag = nullptr;        // set to true
  std::string *text = nullptr; // any text
  int64_t *number = nullptr;   // a decimal number from min to max
  int *number32 = nullptr;     // the same, in an int
  const char *words = nullptr; // "all|discovery": one of these, its place is stored in *chosen
  int *chosen = nullptr;       // place of the word in `words`, from 0
  std::function<std::string(const char *value)> take =
      nullptr; // own reading: "" or why not, as in "is not a time"; "" for flags

  int64_t min = 0, max = INT_MAX; // of numbers, both allowed
};

struct wllb_program {
  const char *name;            // as in messages: "tqtop"
  const char *synopsis;        // the usual words after the name: "--dir DIR --testrun N [options]"
  const char *about;           // what it does, in some sentences; wrapped
  const char *notes = nullptr; // text after the options, lines as they are
};

// Why a command line is not taken.
struct wllb_option_mistake {
  std::string text; // names the word at fault: "unknown option '--x'"
  char letter = 0;  // of an unknown option or one whose value is missing, if it was given by its letter; else 0
};

enum wllb_options_found { WLLB_OPTIONS_TAKEN, WLLB_OPTIONS_HELP, WLLB_OPTIONS_VERSION, WLLB_OPTIONS_MISTAKE };

// Reads the words into the targets, in their order, up to the first mistake, --help or --version. Words that are no options
// are a mistake, and so is a required option that is missing.
wllb_options_found wllb_parse_options(std::span<const wllb_option> rows, int argc, char **argv,
                                      wllb_option_mistake *mistake);

// The whole of it for a usual program: reads the options, answers --help and --version, and reports a mistake. The exit
// status to end with: 0 after --help and --version, 1 after a mistake; nothing when the program has to run.
std::optional<int> wllb_read_options(const wllb_program &program, std::span<const wllb_option> rows, int argc,
                                     char **argv);

// The texts of --help (at most 78 columns, but for longer words) and --version, with their newlines. Defaults are read from
// the targets, so ask before the options are read. With WLLB_HELP_MDOC in the environment, help is the part of a manual
// page from SYNOPSIS to the options, in mdoc(7).
std::string wllb_help_text(const wllb_program &program, std::span<const wllb_option> rows);
std::string wllb_version_text(const wllb_program &program);

// Plain text as lines for mdoc(7): each sentence begins one, they are short, and none could be taken for a request.
std::string wllb_mdoc_lines(std::string_view text);

// One line on standard error, "NAME: TEXT; --help explains the options". The exit status of a mistake, 1.
int wllb_report_mistake(const wllb_program &program, const std::string &text);

// "1.0.0 (cd05fa1)": the release, and the commit it was built from where that is known; "-dirty" marks changes.
extern const char *const wllb_version;
