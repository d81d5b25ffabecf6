// tqtop: what a running daemon is doing, an instance a line, again and again.
//   In      the command line; a test run that a daemon works on
//   Out     text on standard output; on a terminal each picture replaces the one before
//   Thread  one
//   Failure exit status 1 and a line on standard error: a bad option, no daemon, no answer
#include "top_view.h"

#include "wllb_alloc.h"
#include "wllb_options.h"
#include "wllb_util.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

static const wllb_program program = {
    .name = "tqtop",
    .synopsis = "--dir DIR --testrun N [options]",
    .about = "Shows what the daemon that works on DIR/logs/TR<N> is doing, an instance a line.",
    .notes = top_legend};

struct top_options {
  std::string dir, samples;
  int64_t testrun = -1, interval = 2, rounds = INT64_MAX;
  bool open = false, json = false;
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

struct top_picture {
  std::vector<top_position> positions;
  top_marks was, is;
  double seconds = 0;
  std::map<std::string, top_errors> errors;
  std::map<std::string, int64_t> open;
};

static top_row row_of(const top_run &run, const top_picture &picture, const top_position &p) {
  top_row row = {.instance = p.name, .partition = p.partition, .partitions_left = p.remaining};
  if (p.file_size >= p.processed)
    row.lag = p.file_size - p.processed;
  const auto before = picture.was.find(p.name);
  if (before != picture.was.end() && picture.seconds > 0) {
    const top_mark &was = before->second;
    const auto raw = [&](const std::string &partition) { return top_raw_file(run, partition, p.name); };
    const auto rows = [&](const std::string &partition) { return top_flowpath_file(run, partition, p.name); };
    const auto line_count = gained(was.position, p, was.position.processed, p.processed, raw);
    const auto row_count = gained(was.position, p, was.flowpath_bytes, picture.is.at(p.name).flowpath_bytes, rows);
    row.lines = static_cast<double>(line_count) / picture.seconds;
    row.flowpaths = static_cast<double>(row_count) / picture.seconds;
  }
  if (const auto open = picture.open.find(p.name); open != picture.open.end())
    row.open = open->second;
  if (const auto errors = picture.errors.find(p.name); errors != picture.errors.end())
    row.errors = errors->second;
  return row;
}

static void put_picture(const top_run &run, const top_options &options, const top_picture &picture, bool explained) {
  std::vector<top_row> rows;
  for (const top_position &p : picture.positions)
    rows.push_back(row_of(run, picture, p));
  if (options.json) {
    fputs(top_json(run.pid, rows).c_str(), stdout);
  } else {
    if (isatty(STDOUT_FILENO))
      fputs("\033[H\033[2J", stdout);
    fputs(top_table(run.pid, rows).c_str(), stdout);
    if (explained)
      printf("\n%s", top_legend);
    else if (isatty(STDIN_FILENO) && isatty(STDOUT_FILENO))
      fputs("? explains the headings, q leaves\n", stdout);
  }
  fflush(stdout);
}

// --- keys of the terminal ----------------------------------------------------------------------------------------

// Lets keys through one by one while it lives. Nothing happens where there is no terminal, or the process is in the
// background, where a change of the terminal would stop it.
class top_keys {
public:
  top_keys() {
    if (!isatty(STDIN_FILENO) || tcgetpgrp(STDIN_FILENO) != getpgrp() || tcgetattr(STDIN_FILENO, &before) != 0)
      return;
    termios by_key = before;
    by_key.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    changed = tcsetattr(STDIN_FILENO, TCSANOW, &by_key) == 0;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
      ::signal(signal, [](int number) { // all of it may be called there
        put_back();
        _exit(128 + number);
      });
  }

  ~top_keys() { put_back(); }

  top_keys(const top_keys &) = delete;
  top_keys &operator=(const top_keys &) = delete;

  // The next key within `ms`; 0: none, or no terminal.
  static char wait(int ms) {
    pollfd key = {changed ? STDIN_FILENO : -1, POLLIN, 0};
    char c = 0;
    if (poll(&key, 1, ms) == 1 && read(STDIN_FILENO, &c, 1) == 1)
      return c;
    return 0;
  }

private:
  static void put_back() {
    if (changed)
      tcsetattr(STDIN_FILENO, TCSANOW, &before);
  }

  static inline termios before = {}; // there is one terminal
  static inline bool changed = false;
};

static double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Waits for the interval, or until a key asks for something. False: the user leaves.
static bool wait_for_next(const top_options &options, const std::function<void(bool)> &repaint) {
  const double until = seconds_now() + static_cast<double>(options.interval);
  bool explained = false;
  for (double left; (left = until - seconds_now()) > 0;) {
    const char key = top_keys::wait(static_cast<int>(left * 1000) + 1);
    if (key == 'q')
      return false;
    if (key == '?')
      repaint(explained = !explained);
  }
  return true;
}

static int report(const std::string &text) {
  fprintf(stderr, "tqtop: %s\n", text.c_str());
  return 1;
}

// Exit status. The first look only marks where everything stands, since rates need two; on a terminal it is shown all the
// same.
static int show_rounds(top_run &run, const top_options &options) {
  const top_keys keys;
  top_picture picture = {};
  if (!top_ask_status(run, &picture.positions))
    return report(wllb_format("the daemon (pid %d) gives no answer", static_cast<int>(run.pid)));
  double last = seconds_now();
  picture.is = mark(run, picture.positions);
  const auto repaint = [&](bool explained) { put_picture(run, options, picture, explained); };
  if (isatty(STDOUT_FILENO) && !options.json)
    repaint(false);
  for (int64_t round = 0; round < options.rounds; ++round) {
    if (!wait_for_next(options, repaint))
      return 0;
    picture.was = std::move(picture.is);
    if (!top_ask_status(run, &picture.positions))
      return report(wllb_format(top_find_daemon(run) == run.pid ? "the daemon (pid %d) gives no answer"
                                                                : "the daemon (pid %d) has left",
                                static_cast<int>(run.pid)));
    picture.is = mark(run, picture.positions);
    picture.seconds = seconds_now() - last;
    last += picture.seconds;
    picture.errors = top_read_samples(options.samples);
    if (options.open)
      picture.open = top_ask_open_flowpaths(run, picture.positions);
    repaint(false);
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
  {.name = "json", .help = "pictures as lines of JSON; null: not known (yet)", .flag = &o.json},
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
  if (run.pid == 0)
    return report("no tqp works on " + run.base);
  return show_rounds(run, options);
}
