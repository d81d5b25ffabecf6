// tqshow: reads a test run: lists flowpaths, exceptions and sums, answers questions, prints call trees, checks all references.
//   In      the command line; the files that the daemon has written, also while it runs
//   Out     text or JSON lines on standard output
//   Thread  one
//   Failure exit status 1 and a line on standard error: a mistake in the command line or a question about what is not there;
//           what is wrong with files is reported with its place
#include "show_check.h"
#include "show_export.h"
#include "show_flowpath.h"
#include "show_list.h"

#include "tqread_text.h"

#include "wllb_alloc.h"
#include "wllb_options.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

static constexpr wllb_program program = {
    .name = "tqshow",
    .synopsis = "--dir DIR --testrun N [options]",
    .about = "Lists the flowpaths of the test run DIR/logs/TR<N>, a line each, or answers another question about it.",
    .notes = "Patterns: '*' stands for any text, '?' for one byte. Times are UTC: 2026-11-22,\n"
             "'2026-11-22 10:00:05', 20261122100005, or @ and seconds since 1970.\n"
             "What does not exist (a URL, an instance, a tier, a tag) is reported, exit status 1.\n"
             "JSON lines have flowpath numbers as texts.\n"};

struct command_line {
  std::string dir;
  int64_t testrun = -1;
  bool check = false, exceptions = false;
  int color = 0; // auto, always, never
  show_options show;
  show_export_options exported;
};

static std::string take_flowpath(const char *value, show_options *options) {
  options->one = options->asked.asked_flowpath = true;
  return tqread::number_or(value, INT64_MIN) == tqread::number_or(value, INT64_MAX)
             ? (options->asked.flowpath = tqread::number_or(value, 0), "")
             : "is not a flowpath number";
}

// NOLINTNEXTLINE(readability-function-size): a table
static std::vector<wllb_option> option_rows(command_line *line) {
  show_options &show = line->show;
  tqread::question &asked = show.asked;
  return {
      {.name = "dir", .value = "DIR", .help = "the working directory", .required = true, .text = &line->dir},
      {.name = "testrun",
       .value = "N",
       .help = "the test run's number",
       .default_text = "",
       .required = true,
       .number = &line->testrun},
      {.help = "Which flowpaths:"},
      {.name = "flowpath",
       .value = "FPI",
       .help = "this one, printed whole",
       .take = [&show](const char *value) { return take_flowpath(value, &show); }},
      {.name = "partition", .value = "P", .help = "in this partition (YYYYMMDDHHMMSS)", .text = &asked.partition},
      {.name = "instance",
       .value = "NAME",
       .help = "of these instances (Tier_Server_App, a pattern)",
       .text = &asked.instance},
      {.name = "tier",
       .value = "NAME",
       .help = "of these tiers: the first part of the instance's name (a pattern), or the tier's number",
       .text = &asked.tier},
      {.name = "url", .value = "URL", .help = "of these transactions (a pattern)", .text = &asked.url},
      {.name = "min-ms",
       .value = "MS",
       .help = "that took this long or longer",
       .number = &asked.min_ms,
       .max = INT64_MAX},
      {.name = "status",
       .value = "CODES",
       .help = "with one of these status codes: 500, 5xx, 404,5xx",
       .text = &asked.status},
      {.name = "errors", .help = "only with errors, or a status of 400 and above", .flag = &asked.errors},
      {.name = "tag",
       .value = "NAME=VALUE",
       .help = "with this tag, or with a tag of this name or value (patterns)",
       .text = &asked.tag},
      {.name = "correlation",
       .value = "ID",
       .help = "with this correlation id (a pattern)",
       .text = &asked.correlation},
      {.name = "from", .value = "TIME", .help = "that began then or later", .text = &asked.from},
      {.name = "to", .value = "TIME", .help = "that began before then", .text = &asked.to},
      {.name = "text",
       .value = "TEXT",
       .help = "with this text in one of their queries or exceptions, upper or lower case",
       .text = &asked.text},
      {.help = "What is printed of them:"},
      {.name = "sort",
       .value = "KEY",
       .help = "sorted by start, ms, cpu, methods, callouts, errors, status or url; sums by one of their columns",
       .text = &show.sort},
      {.name = "top",
       .value = "N",
       .help = "the first N; without --sort the slowest flowpaths, or the largest sums",
       .default_text = "",
       .number = &show.top,
       .max = INT64_MAX},
      {.name = "count", .help = "how many there are", .flag = &show.count_only},
      {.name = "by",
       .value = "WHAT",
       .help = "sums by transaction, method, query, backend or exception",
       .default_text = "",
       .words = "transaction|method|query|backend|exception",
       .chosen = &show.by},
      {.name = "exceptions", .help = "lists exceptions instead", .flag = &line->exceptions},
      {.name = "json", .help = "one JSON object a line instead of columns", .flag = &show.json},
      {.name = "follow", .help = "lists flowpaths as they arrive, until it is interrupted", .flag = &show.follow},
      {.name = "first", .help = "prints the first one whole, with its call trees and exceptions", .flag = &show.first},
      {.name = "every", .help = "prints every one whole, without exceptions", .flag = &show.every},
      {.help = "Exports (docs/exports.md):"},
      {.name = "export",
       .value = "FORMAT",
       .help = "writes what is found for other programs; html: a page of the first flowpath found",
       .default_text = "",
       .words = "chrome|speedscope|folded|otlp|html",
       .chosen = &line->exported.format},
      {.name = "output",
       .value = "FILE",
       .help = "to this file instead of standard output",
       .text = &line->exported.output},
      {.name = "weight",
       .value = "WHAT",
       .help = "what the lines of folded stacks count",
       .words = "self|wall|cpu|calls",
       .chosen = &line->exported.weight},
      {.name = "push", .value = "URL", .help = "sends it to this OTLP/HTTP endpoint", .text = &line->exported.push_url},
      {.name = "push-header",
       .value = "HEADER",
       .help = "sent with each request: 'Name: value'; may be repeated",
       .take =
           [line](const char *value) {
             line->exported.push_headers.emplace_back(value);
             return std::string();
           }},
      {.help = "Call trees:"},
      {.name = "tiers", .help = "with the trees of called tiers in their places", .flag = &show.tiers},
      {.name = "fold",
       .value = "MS",
       .help = "folds methods below this time, unless there is an error in them",
       .default_text = "",
       .number = &show.fold_ms,
       .max = INT64_MAX},
      {.name = "color",
       .value = "WHEN",
       .help = "colours: auto (on a terminal, unless NO_COLOR is set), always or never",
       .words = "auto|always|never",
       .chosen = &line->color},
      {.help = "Proofs:"},
      {.name = "check",
       .help =
           "checks every reference between the files: exit status 0 and one line of totals, or 1 and what is wrong (texts that inflate to more than 1 GiB count as damaged)",
       .flag = &line->check},
  };
}

// NOLINTBEGIN(concurrency-mt-unsafe): there is one thread
static bool wants_colours(int color) {
  const char *no_color = getenv("NO_COLOR"), *term = getenv("TERM");
  const bool terminal = isatty(STDOUT_FILENO) && !(no_color && *no_color) && term && strcmp(term, "dumb") != 0;
  return color == 1 || (color == 0 && terminal);
}

static bool locale_is_utf8() {
  for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"})
    if (const char *value = getenv(name); value && *value)
      return strstr(value, "UTF-8") || strstr(value, "utf8");
  return false;
}

// NOLINTEND(concurrency-mt-unsafe)

static int show(const tqread::test_run &run, const command_line &line, show_out *out) {
  const show_options &options = line.show;
  if (line.check)
    return show_check(run, options, out);
  if (line.exported.wanted())
    return show_export(run, options, line.exported);
  if (line.exceptions)
    return show_exceptions(run, options, out);
  if (options.by >= 0)
    return show_sums(run, options, out);
  if (options.count_only)
    return show_count(run, options, out);
  if (options.follow)
    return show_follow(run, options, out);
  return options.one || options.first || options.every ? show_flowpaths(run, options, out)
                                                       : show_list(run, options, out);
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  command_line line;
  line.show.by = -1;
  if (const std::optional<int> status = wllb_read_options(program, option_rows(&line), argc, argv))
    return *status;
  if (const std::string words = show_check_sort(line.show); !words.empty())
    return wllb_report_mistake(program, words);
  if (const std::string words = show_check_export(line.show, line.exported); !words.empty())
    return wllb_report_mistake(program, words);
  tqread::test_run run;
  if (const tqread::error error = tqread::open_run(line.dir, static_cast<int>(line.testrun), &run)) {
    show_fault(error);
    return 1;
  }
  show_out out;
  out.colours = wants_colours(line.color);
  out.guide = locale_is_utf8() ? "\u2502 " : "| ";
  const int status = show(run, line, &out);
  out.flush();
  return out.failed() ? 1 : status;
}
