// tqtop: what a running daemon is doing, an instance a line, again and again.
//   In      the command line; a test run that a daemon works on
//   Out     text on standard output; on a terminal each picture replaces the one before
//   Thread  one
//   Failure exit status 1 and a line on standard error: a bad option, no daemon, no answer
#include "top_sources.h"

#include "wllb_alloc.h"
#include "wllb_options.h"
#include "wllb_util.h"

#include <chrono>
#include <cstdlib>
#include <unistd.h>

static constexpr wllb_program program = {
    .name = "tqtop",
    .synopsis = "--dir DIR --testrun N [options]",
    .about = "Shows what the daemon that works on DIR/logs/TR<N> is doing, an instance a line.",
    .notes = "lag: bytes of the present raw file not yet read; parts: partitions still to come;\n"
             "lines/s, flowpaths/s: over the interval, flowpaths by their rows, which come in\n"
             "batches; errors: since the sample before; -: not known\n"};

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

static std::vector<wllb_option> option_rows(top_options &o) {
  return {
      // clang-format off
  {.name = "dir", .value = "DIR", .help = "working directory of the daemon", .required = true, .text = &o.dir},
  {.name = "testrun", .value = "N", .help = "number of the test run", .required = true, .number = &o.testrun},
  {.name = "interval", .value = "SEC", .help = "time between two pictures; rates are over this time",
   .number = &o.interval, .min = 1, .max = 3600},
  {.name = "once", .help = "one picture, for scripts",
   .take = [&o](const char *) { o.rounds = 1; return std::string(); }},
  {.name = "rounds", .value = "N", .help = "so many pictures", .default_text = "no end", .number = &o.rounds, .min = 1},
  {.name = "samples", .value = "FILE", .help = "errors by kind from the newest health samples in this file",
   .default_text = "monitor_samples.txt of the test run, where tq_sample --online keeps them", .text = &o.samples},
  {.name = "open", .help = "counts the flowpaths in flight, too: the daemon dumps them for it", .flag = &o.open},
      // clang-format on
  };
}

int main(int argc, char **argv) {
  wllb_install_new_handler();
  top_options options;
  if (const auto status = wllb_read_options(program, option_rows(options), argc, argv))
    return *status;
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
