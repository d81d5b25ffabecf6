// tqtop: what a running daemon is doing, an instance a line, again and again.
//   In      the command line; a test run that a daemon works on
//   Out     text on standard output; on a terminal each picture replaces the one before
//   Thread  one
//   Failure exit status 1 and a line on standard error: a bad option, no daemon, no answer
#include "top_sources.h"

#include "wllb_alloc.h"
#include "wllb_util.h"

#include <chrono>
#include <climits>
#include <cstdlib>
#include <getopt.h>
#include <unistd.h>

static const char usage_text[] =
    "tqtop --dir WORKDIR --testrun N [options]\n"
    "  shows what the daemon that works on WORKDIR/logs/TR<N> is doing, an instance a line\n"
    "\n"
    "  --interval SECONDS  between two pictures; rates are over this time (2)\n"
    "  --once              one picture, for scripts; --rounds N: so many\n"
    "  --samples FILE      errors by kind from the newest health samples in this file (monitor_samples.txt of the test run,\n"
    "                      where tq_sample --online keeps them)\n"
    "  --open              counts the flowpaths in flight, too: the daemon dumps them for it\n"
    "  --help\n"
    "\n"
    "  lag: bytes of the present raw file not yet read; parts: partitions still to come; lines/s, flowpaths/s: over the\n"
    "  interval, flowpaths by their rows, which come in batches; errors: since the sample before; -: not known\n";

struct top_options {
  std::string dir, samples;
  int64_t testrun = -1, interval = 2, rounds = INT64_MAX;
  bool open = false;
};

// What is remembered of an instance to tell its speed.
struct top_mark {
  top_position position;
  int64_t flowpath_bytes = 0;
};

using top_marks = std::map<std::string, top_mark>;

// --- the picture -------------------------------------------------------------------------------------------------

static top_marks mark(const top_run &run, const std::vector<top_position> &positions) {
  top_marks marks;
  for (const top_position &p : positions)
    marks[p.name] = {p, top_file_size(top_flowpath_file(run, p.partition, p.name))};
  return marks;
}

// What a file has gained, over a switch to another partition's file, too.
template <class F>
static int64_t gained(const top_position &was, const top_position &is, int64_t from, int64_t to, F path) {
  if (was.partition == is.partition)
    return top_count_lines(path(is.partition), from, to);
  return top_count_lines(path(was.partition), from, INT64_MAX) + top_count_lines(path(is.partition), 0, to);
}

static std::string number_or_dash(bool known, int64_t number) {
  return known ? std::to_string(number) : "-";
}

static void put_heading(const top_options &options) {
  printf("%-32s %14s %12s %5s %9s %11s", "instance", "partition", "lag", "parts", "lines/s", "flowpaths/s");
  if (options.open)
    printf(" %6s", "open");
  for (const char *name : top_error_names)
    printf(" %8s", name);
  putchar('\n');
}

struct top_picture {
  std::vector<top_position> positions;
  top_marks was, is;
  double seconds;
  std::map<std::string, top_errors> errors;
  std::map<std::string, int64_t> open;
};

static void put_instance(const top_run &run, const top_options &options, const top_picture &picture,
                         const top_position &p) {
  const auto before = picture.was.find(p.name);
  std::string lines = "-", flowpaths = "-";
  if (before != picture.was.end()) {
    const top_mark &was = before->second;
    const auto raw = [&](const std::string &partition) { return top_raw_file(run, partition, p.name); };
    const auto rows = [&](const std::string &partition) { return top_flowpath_file(run, partition, p.name); };
    const auto line_count = gained(was.position, p, was.position.processed, p.processed, raw);
    const auto row_count = gained(was.position, p, was.flowpath_bytes, picture.is.at(p.name).flowpath_bytes, rows);
    lines = wllb_format("%.0f", static_cast<double>(line_count) / picture.seconds);
    flowpaths = wllb_format("%.1f", static_cast<double>(row_count) / picture.seconds);
  }
  printf("%-32s %14s %12lld %5lld %9s %11s", p.name.c_str(), p.partition.c_str(),
         static_cast<long long>(p.file_size - p.processed), static_cast<long long>(p.remaining), lines.c_str(),
         flowpaths.c_str());
  if (options.open) {
    const auto open = picture.open.find(p.name);
    printf(" %6s", number_or_dash(open != picture.open.end(), open == picture.open.end() ? 0 : open->second).c_str());
  }
  const auto errors = picture.errors.find(p.name);
  for (size_t i = 0; i < top_error_kinds; ++i)
    printf(
        " %8s",
        number_or_dash(errors != picture.errors.end(), errors == picture.errors.end() ? 0 : errors->second[i]).c_str());
  putchar('\n');
}

static void put_picture(const top_run &run, const top_options &options, const top_picture &picture) {
  if (isatty(STDOUT_FILENO))
    fputs("\033[H\033[2J", stdout);
  printf("tqp %d, %s, %zu instances\n", static_cast<int>(run.pid), wllb_local_time_text("%H:%M:%S", wllb_now()).c_str(),
         picture.positions.size());
  put_heading(options);
  for (const top_position &p : picture.positions)
    put_instance(run, options, picture, p);
  fflush(stdout);
}

static double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Exit status. The first look only marks where everything stands: rates need two.
static int show_rounds(top_run &run, const top_options &options) {
  top_picture picture = {};
  if (!top_ask_status(run, &picture.positions)) {
    fputs("The daemon gives no answer\n", stderr);
    return 1;
  }
  double last = seconds_now();
  picture.is = mark(run, picture.positions);
  for (int64_t round = 0; round < options.rounds; ++round) {
    sleep(static_cast<unsigned>(options.interval)); // NOLINT(concurrency-mt-unsafe): there is one thread
    picture.was = std::move(picture.is);
    if (!top_ask_status(run, &picture.positions)) {
      fputs(top_find_daemon(run) == run.pid ? "The daemon gives no answer\n" : "The daemon has left\n", stderr);
      return 1;
    }
    picture.is = mark(run, picture.positions);
    picture.seconds = seconds_now() - last;
    last += picture.seconds;
    picture.errors = top_read_samples(options.samples);
    if (options.open)
      picture.open = top_ask_open_flowpaths(run, picture.positions);
    put_picture(run, options, picture);
  }
  return 0;
}

// --- command line ------------------------------------------------------------------------------------------------

enum option_id { OPT_DIR = 1, OPT_TESTRUN, OPT_INTERVAL, OPT_ONCE, OPT_ROUNDS, OPT_SAMPLES, OPT_OPEN, OPT_HELP };

static constexpr option long_options[] = {
    // clang-format off
  {"dir",      required_argument, nullptr, OPT_DIR},
  {"testrun",  required_argument, nullptr, OPT_TESTRUN},
  {"interval", required_argument, nullptr, OPT_INTERVAL},
  {"once",     no_argument,       nullptr, OPT_ONCE},
  {"rounds",   required_argument, nullptr, OPT_ROUNDS},
  {"samples",  required_argument, nullptr, OPT_SAMPLES},
  {"open",     no_argument,       nullptr, OPT_OPEN},
  {"help",     no_argument,       nullptr, OPT_HELP},
  {},
}; // clang-format on

static bool take_number(const char *name, int64_t min, int64_t max, int64_t *value) {
  char *end = nullptr;
  *value = strtoll(optarg, &end, 10);
  if (end != optarg && *end == '\0' && min <= *value && *value <= max)
    return true;
  fprintf(stderr, "--%s does not take '%s'\n", name, optarg);
  return false;
}

static bool take_option(top_options &options, int id) {
  switch (id) {
  case OPT_DIR:
    options.dir = optarg;
    return true;
  case OPT_TESTRUN:
    return take_number("testrun", 0, INT_MAX, &options.testrun);
  case OPT_INTERVAL:
    return take_number("interval", 1, 3600, &options.interval);
  case OPT_ONCE:
    options.rounds = 1;
    return true;
  case OPT_ROUNDS:
    return take_number("rounds", 1, INT_MAX, &options.rounds);
  case OPT_SAMPLES:
    options.samples = optarg;
    return true;
  case OPT_OPEN:
    return options.open = true;
  case OPT_HELP:
    fputs(usage_text, stdout);
    wllb_exit(0);
  default:
    return false; // getopt_long has said why
  }
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  top_options options;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  for (int id = 0; (id = getopt_long(argc, argv, "", long_options, nullptr)) != -1;)
    if (!take_option(options, id))
      return 1;
  if (optind < argc || options.dir.empty() || options.testrun < 0) {
    fputs("--dir and --testrun are needed; --help tells more\n", stderr);
    return 1;
  }
  top_run run;
  run.base = options.dir + "/logs/TR" + std::to_string(options.testrun);
  run.pid = top_find_daemon(run);
  if (options.samples.empty())
    options.samples = run.base + "/monitor_samples.txt";
  if (run.pid == 0) {
    fprintf(stderr, "No daemon works on %s\n", run.base.c_str());
    return 1;
  }
  return show_rounds(run, options);
}
