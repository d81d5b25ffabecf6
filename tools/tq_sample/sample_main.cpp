// tq_sample: makes test runs with the data of made-up agents, and appends to them as a collector does.
//   In      the command line; the same seed and options give the same bytes
//   Out     a test run under --dir; one line of totals on standard output; with --online what happens, in words
//   Thread  one
//   Failure exit status 1 and a line on standard error
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <getopt.h>
#include <unistd.h>

#include "online_run.h"
#include "sample_append.h"
#include "sample_layout.h"
#include "sample_model.h"
#include "sample_records.h"
#include "sample_stream.h"
#include "wllb_util.h"

static const char usage_text[] =
    "tq_sample --dir WORKDIR --testrun N [options]\n"
    "  makes the test run WORKDIR/logs/TR<N> with raw data of made-up agents; the same options give the same bytes\n"
    "\n"
    "  --seed S               other data of the same kind (default 1)\n"
    "  --instances N          application instances, two to a tier, in six tiers at most (4)\n"
    "  --partitions N         partitions, an hour each (2)\n"
    "  --start TIME           begin of the first partition, YYYYMMDDHHMMSS in UTC (20260302090000)\n"
    "  --flowpaths N          flowpaths of each instance, over all partitions (200)\n"
    "  --mb N                 instead: megabytes of each instance, over all partitions\n"
    "  --mix NAME             all: whole agents (default); discovery: method announcements and skipped records;\n"
    "                         skipped: records that readers pass over\n"
    "  --flowpath-methods N   about so many methods in a flowpath's first segment (40)\n"
    "  --in-flight N          flowpaths of an instance whose records interleave (8)\n"
    "  --form NAME            call trees in the classic form, the exit form, or both: every second instance (both)\n"
    "  --keywords TEXT        lines of the keyword file, parted by semicolons: \"KEY VALUE;KEY VALUE\"\n"
    "  --agents NAME          new (default), or old: of the version that is asked for metadata in the old form\n"
    "  --forget N             leave out every Nth announcement of an id, so that a reader must ask for it\n"
    "  --rate BYTES           append to the last partition: so many bytes a second for all files together,\n"
    "  --seconds N            for so long (10; with --online: until SIGTERM); the writes are cut anywhere\n"
    "  --end, --no-end        end all flowpaths and close each file with its end record (without --rate: --end)\n"
    "\n"
    "  --online               play the collector and the parent of a live run beside the appending (--rate 100000):\n"
    "                         answer on two ports of 127.0.0.1, which are told first\n"
    "  --port N               the collector's port (0: any)\n"
    "  --switch-every N       a new partition every N seconds\n"
    "  --add-after N          one more instance comes after N seconds, told\n"
    "  --add-with NAME        as active (default), enable or discovery\n"
    "  --remove-after N       the first instance goes after N seconds, told\n"
    "  --remove-with NAME     as inactive (default), disable or remove\n"
    "  --metadata-replies NAME  good (default), late: after 2 s, split: in pieces, wrong: a new fault each time, silent,\n"
    "                         closed: in the middle\n"
    "  --linger N             answer on for N seconds when all is written (0)\n"
    "  --quiet                no words about monitors, their samples and requests\n"
    "  --help\n";

struct sample_options : online_options {
  std::string dir, start = "20260302090000", keywords;
  int64_t testrun = -1, seed = 1, instances = 4, partitions = 2, flowpaths = 200, mb = -1, methods = 40, in_flight = 8;
  int64_t rate = 0, seconds = 0, forget = 0; // 0: not said
  bool online = false;
  int end = -1; // -1: not said
  sample_mix mix = SAMPLE_MIX_ALL;
  sample_forms forms = SAMPLE_BOTH;
  bool old_agents = false;
};

// --- command line ---------------------------------------------------------------------------------------------

struct number_option {
  const char *name;
  int64_t sample_options::*value;
  int64_t min, max;
};

static constexpr number_option number_options[] = {
    // clang-format off
  {"testrun",          &sample_options::testrun,       0, 2147483647},
  {"seed",             &sample_options::seed,          0, INT64_MAX},
  {"instances",        &sample_options::instances,     1, 1000},
  {"partitions",       &sample_options::partitions,    1, 1000},
  {"flowpaths",        &sample_options::flowpaths,     0, 1000000000},
  {"mb",               &sample_options::mb,            0, 1000000},
  {"flowpath-methods", &sample_options::methods,       1, 10000000},
  {"in-flight",        &sample_options::in_flight,     1, 100000},
  {"rate",             &sample_options::rate,          1, 10000000000},
  {"seconds",          &sample_options::seconds,       1, 1000000},
  {"forget",           &sample_options::forget,        0, 1000000},
  {"port",             &sample_options::port,          0, 65535},
  {"switch-every",     &sample_options::switch_every,  1, 1000000},
  {"add-after",        &sample_options::add_after,     1, 1000000},
  {"remove-after",     &sample_options::remove_after,  1, 1000000},
  {"linger",           &sample_options::linger,        0, 1000000},
}; // clang-format on

struct word_option {
  const char *name, *word;
  void (*take)(sample_options &);
};

static constexpr word_option word_options[] = {
    // clang-format off
  {"mix",              "all",       [](sample_options &o) { o.mix = SAMPLE_MIX_ALL; }},
  {"mix",              "discovery", [](sample_options &o) { o.mix = SAMPLE_MIX_DISCOVERY; }},
  {"mix",              "skipped",   [](sample_options &o) { o.mix = SAMPLE_MIX_SKIPPED; }},
  {"form",             "both",      [](sample_options &o) { o.forms = SAMPLE_BOTH; }},
  {"form",             "classic",   [](sample_options &o) { o.forms = SAMPLE_CLASSIC; }},
  {"form",             "exit",      [](sample_options &o) { o.forms = SAMPLE_EXIT; }},
  {"agents",           "new",       [](sample_options &o) { o.old_agents = false; }},
  {"agents",           "old",       [](sample_options &o) { o.old_agents = true; }},
  {"add-with",         "active",    [](sample_options &o) { o.add_with = ONLINE_ADD_ACTIVE; }},
  {"add-with",         "enable",    [](sample_options &o) { o.add_with = ONLINE_ADD_ENABLE; }},
  {"add-with",         "discovery", [](sample_options &o) { o.add_with = ONLINE_ADD_DISCOVERY; }},
  {"remove-with",      "inactive",  [](sample_options &o) { o.remove_with = ONLINE_REMOVE_INACTIVE; }},
  {"remove-with",      "disable",   [](sample_options &o) { o.remove_with = ONLINE_REMOVE_DISABLE; }},
  {"remove-with",      "remove",    [](sample_options &o) { o.remove_with = ONLINE_REMOVE_REMOVE; }},
  {"metadata-replies", "good",      [](sample_options &o) { o.replies = ONLINE_GOOD; }},
  {"metadata-replies", "late",      [](sample_options &o) { o.replies = ONLINE_LATE; }},
  {"metadata-replies", "split",     [](sample_options &o) { o.replies = ONLINE_SPLIT; }},
  {"metadata-replies", "wrong",     [](sample_options &o) { o.replies = ONLINE_WRONG; }},
  {"metadata-replies", "silent",    [](sample_options &o) { o.replies = ONLINE_SILENT; }},
  {"metadata-replies", "closed",    [](sample_options &o) { o.replies = ONLINE_CLOSED; }},
}; // clang-format on

struct flag_option {
  const char *name;
  void (*take)(sample_options &);
};

static constexpr flag_option flag_options[] = {{"end", [](sample_options &o) { o.end = 1; }},
                                               {"no-end", [](sample_options &o) { o.end = 0; }},
                                               {"online", [](sample_options &o) { o.online = true; }},
                                               {"quiet", [](sample_options &o) { o.quiet = true; }}};

static bool take_number(sample_options &options, const number_option &row, const char *text) {
  char *end = nullptr;
  const int64_t value = strtoll(text, &end, 10);
  if (end == text || *end != '\0' || value < row.min || value > row.max) {
    fprintf(stderr, "--%s wants a number from %lld to %lld, not '%s'\n", row.name, static_cast<long long>(row.min),
            static_cast<long long>(row.max), text);
    return false;
  }
  options.*row.value = value;
  return true;
}

static bool take_word(sample_options &options, const char *name, const char *text) {
  for (const word_option &row : word_options)
    if (strcmp(row.name, name) == 0 && strcmp(row.word, text) == 0) {
      row.take(options);
      return true;
    }
  fprintf(stderr, "--%s does not know '%s'\n", name, text);
  return false;
}

static bool take_option(sample_options &options, const char *name, const char *text) {
  for (const number_option &row : number_options)
    if (strcmp(row.name, name) == 0)
      return take_number(options, row, text);
  for (const word_option &row : word_options)
    if (strcmp(row.name, name) == 0)
      return take_word(options, name, text);
  for (const flag_option &row : flag_options)
    if (strcmp(row.name, name) == 0) {
      row.take(options);
      return true;
    }
  (strcmp(name, "dir") == 0 ? options.dir : strcmp(name, "start") == 0 ? options.start : options.keywords) = text;
  return true;
}

// What was not said, and depends on what was. False: the options do not go together.
static bool complete_options(sample_options &options) {
  if (options.seconds == 0)
    options.seconds = options.online ? 1'000'000'000 : 10;
  if (options.online && options.rate == 0)
    options.rate = 100000;
  if (options.online)
    options.keywords = "ENABLE_FP_STAT_MONITOR 1;TQP_MONITORS 1 1;" + options.keywords;
  const int64_t live = options.switch_every + options.add_after + options.remove_after + options.linger;
  if (live > 0 && !options.online)
    fputs("--switch-every, --add-after, --remove-after and --linger want --online\n", stderr);
  return live == 0 || options.online;
}

static bool read_command_line(sample_options &options, int argc, char **argv) {
  std::vector<option> rows;
  for (const number_option &row : number_options)
    rows.push_back({row.name, required_argument, nullptr, 0});
  for (const char *name :
       {"dir", "start", "keywords", "mix", "form", "agents", "add-with", "remove-with", "metadata-replies"})
    rows.push_back({name, required_argument, nullptr, 0});
  for (const flag_option &row : flag_options)
    rows.push_back({row.name, no_argument, nullptr, 0});
  rows.push_back({"help", no_argument, nullptr, 0});
  rows.push_back({});
  int which = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  for (int found = 0; (found = getopt_long(argc, argv, "", rows.data(), &which)) != -1;) {
    if (found != 0)
      return false; // getopt_long has said why
    const char *name = rows[static_cast<size_t>(which)].name;
    if (strcmp(name, "help") == 0) {
      fputs(usage_text, stdout);
      exit(0); // NOLINT(concurrency-mt-unsafe): there is one thread
    }
    if (!take_option(options, name, optarg))
      return false;
  }
  if (optind < argc)
    fprintf(stderr, "Nothing is known of '%s'\n", argv[optind]);
  else if (options.dir.empty() || options.testrun < 0)
    fputs("--dir and --testrun are needed; --help tells more\n", stderr);
  else
    return complete_options(options);
  return false;
}

// "KEY VALUE;KEY VALUE" as lines. A piece without a blank is no keyword: it belongs to the value before, which had a
// semicolon of its own.
static std::string keyword_lines(const std::string &text) {
  std::string lines;
  for (std::string_view rest = text; !rest.empty();) {
    std::string_view piece = wllb_take_piece(&rest, ';');
    while (!piece.empty() && piece.front() == ' ')
      piece.remove_prefix(1);
    if (piece.empty())
      continue;
    if (!lines.empty() && piece.find(' ') == std::string_view::npos)
      lines.back() = ';'; // in place of the newline
    sample_put(lines, piece, '\n');
  }
  return lines;
}

// --- the run --------------------------------------------------------------------------------------------------

struct sample_run {
  sample_options options;
  sample_layout_t layout;
  sample_model_t model;
  sample_load_t load;
  std::vector<std::string> vocabulary;
  std::vector<sample_stream_t> streams;
  size_t held_back; // streams at the end of the list whose instances come later
};

// This partition's share of a total that is spread over all of them.
static int64_t share(int64_t total, int64_t partition, int64_t partitions) {
  return total * (partition + 1) / partitions - total * partition / partitions;
}

static void set_limits(sample_run &run, size_t partition, bool endless) {
  const sample_options &options = run.options;
  const bool by_size = options.mb >= 0 || options.mix != SAMPLE_MIX_ALL;
  const int64_t megabytes = options.mb >= 0 ? options.mb : 1;
  const auto p = static_cast<int64_t>(partition);
  for (size_t i = 0; i < run.streams.size(); ++i) {
    sample_stream_t &stream = run.streams[i];
    stream.now_ms = (run.layout.begins[partition] - sample_epoch + 2) * 1000;
    stream.end_ms = stream.now_ms + (sample_partition_seconds - 120) * 1000;
    stream.begin_limit =
        by_size || endless ? INT64_MAX : stream.begun + share(options.flowpaths, p, options.partitions);
    if (i >= run.streams.size() - run.held_back)
      stream.begin_limit = 0;
    stream.write_limit =
        !by_size || endless ? INT64_MAX : stream.written + share(megabytes * 1000000, p, options.partitions);
    stream.paced = endless;
  }
}

static void make_streams(sample_run &run) {
  const sample_options &options = run.options;
  run.held_back = options.add_after > 0 ? 1 : 0;
  run.model = sample_make_model(static_cast<int>(options.instances) + static_cast<int>(run.held_back), options.forms);
  run.load = {options.mix, static_cast<uint32_t>(options.methods), static_cast<uint32_t>(options.in_flight),
              static_cast<uint32_t>(options.forget), options.old_agents};
  if (options.mix == SAMPLE_MIX_DISCOVERY)
    run.vocabulary = sample_method_vocabulary();
  for (size_t i = 0; i < run.model.instances.size(); ++i) {
    run.streams.push_back(sample_make_stream(run.model, i, run.load, static_cast<uint64_t>(options.seed)));
    run.streams.back().vocabulary = &run.vocabulary;
  }
  sample_connect_tiers(run.streams);
}

static int open_files(sample_run &run, size_t partition, std::vector<sample_raw_file> &files) {
  for (size_t i = 0; i < run.streams.size() - run.held_back; ++i) {
    sample_stream_t &stream = run.streams[i];
    const int fd = sample_open_raw_file(run.layout, partition, sample_instance_file_name(*stream.inst));
    if (fd < 0)
      return -1;
    files.push_back({fd, &stream});
    sample_begin_file(stream, partition == 0);
    if (sample_write_out(files.back(), stream.out.size()) != 0)
      return -1;
  }
  return 0;
}

// Each stream in turn, a record at a time, until all have reached their limits and nothing is in flight.
static int fill_files(const std::vector<sample_raw_file> &files) {
  constexpr size_t block = 1 << 20;
  bool more = true;
  while (more) {
    more = false;
    for (const sample_raw_file &file : files) {
      more = sample_next_record(*file.stream) || more;
      if (file.stream->out.size() >= block && sample_write_out(file, block) != 0)
        return -1;
    }
  }
  return 0;
}

static int end_files(const std::vector<sample_raw_file> &files, bool with_end_record) {
  int result = 0;
  for (const sample_raw_file &file : files) {
    if (with_end_record)
      sample_put_end(file.stream->out);
    if (result == 0)
      result = sample_write_out(file, file.stream->out.size());
    close(file.fd);
  }
  return result;
}

// The last partition of a live run, and those that begin during it.
static int play_online(sample_run &run, std::vector<sample_raw_file> &files, bool with_end) {
  const sample_options &options = run.options;
  sample_stream_t *const to_add = run.held_back > 0 ? &run.streams.back() : nullptr;
  const sample_random random = {static_cast<uint64_t>(options.seed) ^ 0xa9e475U};
  online_run online = {&options, &run.layout, static_cast<int>(options.testrun),
                       &files,   to_add,      {&files, options.replies, random, 0},
                       {}};
  if (online_begin(online) != 0)
    return -1;
  const sample_beside beside = online_beside(online);
  int result =
      sample_append(files, static_cast<uint64_t>(options.seed), options.rate, options.seconds, with_end, &beside);
  result = std::min(result, end_files(files, with_end));
  online_end(online);
  return result;
}

static int write_partition(sample_run &run, size_t partition) {
  const sample_options &options = run.options;
  const bool last = partition + 1 == static_cast<size_t>(options.partitions);
  const bool appending = last && options.rate > 0;
  const bool with_end = options.end >= 0 ? options.end == 1 : options.rate == 0;
  std::vector<sample_raw_file> files;
  set_limits(run, partition, appending);
  int result = open_files(run, partition, files);
  if (result == 0 && last && options.online)
    return play_online(run, files, with_end);
  if (result == 0 && appending)
    result = sample_append(files, static_cast<uint64_t>(options.seed), options.rate, options.seconds, with_end);
  else if (result == 0)
    result = fill_files(files);
  return std::min(result, end_files(files, last && with_end));
}

static void print_totals(const sample_run &run) {
  long long bytes = 0, flowpaths = 0;
  for (const sample_stream_t &stream : run.streams)
    bytes += stream.written, flowpaths += stream.flowpaths;
  printf("%zu instances, %zu partitions, %lld flowpaths, %lld bytes in %s\n", run.streams.size(),
         run.layout.names.size(), flowpaths, bytes, run.layout.base.c_str());
}

int main(int argc, char **argv) {
  sample_run run = {};
  if (!read_command_line(run.options, argc, argv))
    return 1;
  const sample_options &options = run.options;
  const int testrun = static_cast<int>(options.testrun);
  if (!sample_plan_layout(&run.layout, options.dir, testrun, static_cast<int>(options.partitions), options.start)) {
    fprintf(stderr, "--start wants YYYYMMDDHHMMSS, from 2020 on, not '%s'\n", options.start.c_str());
    return 1;
  }
  if (sample_make_layout(run.layout, options.dir, testrun, keyword_lines(options.keywords), options.online) != 0)
    return 1;
  make_streams(run);
  for (size_t p = 0; p < static_cast<size_t>(options.partitions); ++p)
    if (write_partition(run, p) != 0)
      return 1;
  print_totals(run);
  return 0;
}
