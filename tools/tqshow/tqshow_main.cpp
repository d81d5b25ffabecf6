// tqshow: reads a test run as a loader would: lists flowpaths and exceptions, prints call trees, checks every reference.
//   In      the command line; the files that the daemon has written, also while it runs
//   Out     text on standard output
//   Thread  one
//   Failure exit status 1: a line on standard error for the command line, or what is wrong with the files, on standard output
#include "show_check.h"
#include "show_exceptions.h"
#include "show_flowpath.h"

#include "wllb_alloc.h"

#include <climits>
#include <cstdlib>
#include <getopt.h>

static const char usage_text[] =
    "tqshow --dir WORKDIR --testrun N [options]\n"
    "  lists the flowpaths of the test run WORKDIR/logs/TR<N>, a line each\n"
    "\n"
    "  --first            prints the first flowpath instead, with the call trees of its segments\n"
    "  --flowpath FPI     prints this flowpath, below its call trees its exceptions\n"
    "  --every            prints every flowpath so, without exceptions\n"
    "  --exceptions       lists the exceptions instead, a line each\n"
    "  --check            checks every reference between the files: exit status 0 and one line of totals, or\n"
    "                     exit status 1 and what is wrong (texts that inflate to more than 1 GiB count as damaged)\n"
    "  --partition P      looks at this partition only (YYYYMMDDHHMMSS)\n"
    "  --instance NAME    looks at this instance only (Tier_Server_App)\n"
    "  --help\n";

struct command_line {
  std::string dir;
  int64_t testrun = -1;
  bool check = false, one = false, exceptions = false;
  show_choice choice;
};

static bool take_number(const char *name, const char *text, int64_t min, int64_t max, int64_t *value) {
  if (show_number(text, value) && min <= *value && *value <= max)
    return true;
  fprintf(stderr, "--%s does not take '%s'\n", name, text);
  return false;
}

enum option_id {
  OPT_DIR = 1,
  OPT_TESTRUN,
  OPT_PARTITION,
  OPT_INSTANCE,
  OPT_FIRST,
  OPT_FLOWPATH,
  OPT_EVERY,
  OPT_EXCEPTIONS,
  OPT_CHECK,
  OPT_HELP
};

static constexpr option options[] = {
    // clang-format off
  {"dir",        required_argument, nullptr, OPT_DIR},
  {"testrun",    required_argument, nullptr, OPT_TESTRUN},
  {"partition",  required_argument, nullptr, OPT_PARTITION},
  {"instance",   required_argument, nullptr, OPT_INSTANCE},
  {"first",      no_argument,       nullptr, OPT_FIRST},
  {"flowpath",   required_argument, nullptr, OPT_FLOWPATH},
  {"every",      no_argument,       nullptr, OPT_EVERY},
  {"exceptions", no_argument,       nullptr, OPT_EXCEPTIONS},
  {"check",      no_argument,       nullptr, OPT_CHECK},
  {"help",       no_argument,       nullptr, OPT_HELP},
  {},
}; // clang-format on

static bool take_option(command_line &line, int id) {
  switch (id) {
  case OPT_DIR:
    line.dir = optarg;
    return true;
  case OPT_TESTRUN:
    return take_number("testrun", optarg, 0, INT_MAX, &line.testrun);
  case OPT_PARTITION:
    line.choice.partition = optarg;
    return true;
  case OPT_INSTANCE:
    line.choice.instance = optarg;
    return true;
  case OPT_FIRST:
    line.one = line.choice.first = true;
    return true;
  case OPT_FLOWPATH:
    line.one = true;
    return take_number("flowpath", optarg, INT64_MIN, INT64_MAX, &line.choice.flowpath);
  case OPT_EVERY:
    line.one = line.choice.every = true;
    return true;
  case OPT_EXCEPTIONS:
    line.exceptions = true;
    return true;
  case OPT_CHECK:
    line.check = true;
    return true;
  case OPT_HELP:
    fputs(usage_text, stdout);
    wllb_exit(0);
  default:
    return false; // getopt_long has said why
  }
}

static bool read_command_line(command_line &line, int argc, char **argv) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  for (int id = 0; (id = getopt_long(argc, argv, "", options, nullptr)) != -1;)
    if (!take_option(line, id))
      return false;
  if (optind < argc)
    fprintf(stderr, "Nothing is known of '%s'\n", argv[optind]);
  else if (line.dir.empty() || line.testrun < 0)
    fputs("--dir and --testrun are needed; --help tells more\n", stderr);
  else
    return true;
  return false;
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  command_line line;
  if (!read_command_line(line, argc, argv))
    return 1;
  show_run run;
  if (!show_find_run(line.dir, static_cast<int>(line.testrun), &run)) {
    fprintf(stderr, "There is no test run in %s\n", run.base.c_str());
    return 1;
  }
  if (line.check)
    return show_check(run, line.choice);
  if (line.one)
    return show_one(run, line.choice);
  return line.exceptions ? show_exceptions(run, line.choice) : show_list(run, line.choice);
}
