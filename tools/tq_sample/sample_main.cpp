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

#include <unistd.h>

#include "online_run.h"
#include "sample_append.h"
#include "sample_layout.h"
#include "sample_model.h"
#include "sample_records.h"
#include "sample_stream.h"
#include "wllb_options.h"
#include "wllb_util.h"

struct sample_options : online_options {
  std::string dir, start = "20260302090000", keywords;
  int64_t testrun = -1, seed = 1, instances = 4, partitions = 2, flowpaths = 200, mb = -1, methods = 40, in_flight = 8;
  int64_t rate = 0, seconds = 0, forget = 0, late = 0; // 0: not said
  bool online = false;
  int end = -1; // -1: not said
  sample_mix mix = SAMPLE_MIX_ALL;
  sample_forms forms = SAMPLE_BOTH;
  bool old_agents = false;
};

// --- command line ---------------------------------------------------------------------------------------------

static constexpr wllb_program program = {
    .name = "tq_sample",
    .synopsis = "--dir DIR --testrun N [options]",
    .about =
        "Makes the test run DIR/logs/TR<N> with raw data of made-up agents; the same options give the same bytes."};

// What stands for enumerations; words are in the order of their values.
struct sample_words {
  int mix = SAMPLE_MIX_ALL, form = SAMPLE_BOTH, agents = 0;
  int add_with = ONLINE_ADD_ACTIVE, remove_with = ONLINE_REMOVE_INACTIVE, replies = ONLINE_GOOD;
};

static std::vector<wllb_option> option_rows(sample_options &o, sample_words &w) {
  const auto set_end = [&o](int end) {
    return [&o, end](const char *) {
      o.end = end;
      return std::string();
    };
  };
  return {
      // clang-format off
  {.name = "dir", .value = "DIR", .help = "working directory; made if it is not there", .required = true, .text = &o.dir},
  {.name = "testrun", .value = "N", .help = "number of the test run", .required = true, .number = &o.testrun},
  {.name = "seed", .value = "S", .help = "other data of the same kind", .number = &o.seed, .max = INT64_MAX},
  {.name = "keywords", .value = "TEXT", .help = "lines of the keyword file, separated by semicolons: \"KEY VALUE;KEY VALUE\"",
   .text = &o.keywords},
  {.help = "How much:"},
  {.name = "instances", .value = "N", .help = "application instances, two to a tier, in six tiers at most",
   .number = &o.instances, .min = 1, .max = 1000},
  {.name = "partitions", .value = "N", .help = "partitions, an hour each", .number = &o.partitions, .min = 1, .max = 1000},
  {.name = "start", .value = "TIME", .help = "begin of the first partition, YYYYMMDDHHMMSS in UTC", .text = &o.start},
  {.name = "flowpaths", .value = "N", .help = "flowpaths of each instance, over all partitions", .number = &o.flowpaths,
   .max = 1000000000},
  {.name = "mb", .value = "MB", .help = "instead: megabytes of each instance, over all partitions", .default_text = "",
   .number = &o.mb, .max = 1000000},
  {.help = "Of what kind:"},
  {.name = "mix", .value = "NAME", .help = "discovery: method announcements and skipped records; skipped: records that readers pass over; all: whole agents",
   .words = "discovery|skipped|all", .chosen = &w.mix},
  {.name = "flowpath-methods", .value = "N", .help = "about so many methods in a flowpath's first segment",
   .number = &o.methods, .min = 1, .max = 10000000},
  {.name = "in-flight", .value = "N", .help = "flowpaths of an instance whose records interleave", .number = &o.in_flight,
   .min = 1, .max = 100000},
  {.name = "form", .value = "NAME", .help = "form of the call trees; both: every second instance", .words = "classic|exit|both",
   .chosen = &w.form},
  {.name = "agents", .value = "NAME", .help = "old agents are asked for metadata in the old form", .words = "new|old",
   .chosen = &w.agents},
  {.name = "forget", .value = "N", .help = "leave out every Nth announcement of an id, so that a reader must ask for it; 0: none",
   .number = &o.forget, .max = 1000000},
  {.name = "late", .value = "N", .help = "every Nth flowpath is reported two seconds late, so that it may belong to the partition before; 0: none",
   .number = &o.late, .max = 1000000},
  {.help = "Appending to the last partition, as a collector does:"},
  {.name = "rate", .value = "BYTES", .help = "bytes a second for all files together; the writes are cut anywhere",
   .default_text = "off, with --online 100000", .number = &o.rate, .min = 1, .max = 10000000000},
  {.name = "seconds", .value = "SEC", .help = "for so long", .default_text = "10, with --online until SIGTERM",
   .number = &o.seconds, .min = 1, .max = 1000000},
  {.name = "end", .help = "end all flowpaths and close each file with its end record (default without --rate)", .take = set_end(1)},
  {.name = "no-end", .help = "do not (default with --rate)", .take = set_end(0)},
  {.help = "Playing the collector and the parent of a live run, on two ports of 127.0.0.1 that are printed first:"},
  {.name = "online", .help = "do so beside the appending", .flag = &o.online},
  {.name = "port", .value = "N", .help = "the collector's port; 0: any", .number = &o.port, .max = 65535},
  {.name = "switch-every", .value = "SEC", .help = "a new partition so often", .default_text = "never", .number = &o.switch_every,
   .min = 1, .max = 1000000},
  {.name = "add-after", .value = "SEC", .help = "one more instance comes, and is announced", .default_text = "never",
   .number = &o.add_after, .min = 1, .max = 1000000},
  {.name = "add-with", .value = "NAME", .help = "announced as", .words = "active|enable|discovery", .chosen = &w.add_with},
  {.name = "remove-after", .value = "SEC", .help = "the first instance goes, which is announced", .default_text = "never",
   .number = &o.remove_after, .min = 1, .max = 1000000},
  {.name = "remove-with", .value = "NAME", .help = "announced as", .words = "inactive|disable|remove", .chosen = &w.remove_with},
  {.name = "metadata-replies", .value = "NAME",
   .help = "answers of the agents; late: after 2 s, split: in pieces, wrong: a new fault each time, closed: in the middle",
   .words = "good|late|split|wrong|silent|closed", .chosen = &w.replies},
  {.name = "linger", .value = "SEC", .help = "answer on for so long when all is written", .number = &o.linger, .max = 1000000},
  {.name = "quiet", .help = "do not print monitors, their samples and requests", .flag = &o.quiet},
      // clang-format on
  };
}

// What was not given, and depends on what was. The exit status when the options do not go together.
static std::optional<int> complete_options(sample_options &options) {
  if (options.seconds == 0)
    options.seconds = options.online ? 1'000'000'000 : 10;
  if (options.online && options.rate == 0)
    options.rate = 100000;
  if (options.online)
    options.keywords = "ENABLE_FP_STAT_MONITOR 1;TQP_MONITORS 1 1;" + options.keywords;
  const int64_t live = options.switch_every + options.add_after + options.remove_after + options.linger;
  if (live > 0 && !options.online)
    return wllb_report_mistake(program, "--switch-every, --add-after, --remove-after and --linger need --online");
  return std::nullopt;
}

static std::optional<int> read_command_line(sample_options &options, int argc, char **argv) {
  sample_words words;
  if (const auto status = wllb_read_options(program, option_rows(options, words), argc, argv))
    return status;
  options.mix = static_cast<sample_mix>(words.mix);
  options.forms = static_cast<sample_forms>(words.form);
  options.old_agents = words.agents == 1;
  options.add_with = static_cast<online_add_message>(words.add_with);
  options.remove_with = static_cast<online_remove_message>(words.remove_with);
  options.replies = static_cast<online_replies>(words.replies);
  return complete_options(options);
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
  run.load = {options.mix,
              static_cast<uint32_t>(options.methods),
              static_cast<uint32_t>(options.in_flight),
              static_cast<uint32_t>(options.forget),
              options.old_agents,
              static_cast<uint32_t>(options.late)};
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
  if (const auto status = read_command_line(run.options, argc, argv))
    return *status;
  const sample_options &options = run.options;
  const int testrun = static_cast<int>(options.testrun);
  if (!sample_plan_layout(&run.layout, options.dir, testrun, static_cast<int>(options.partitions), options.start))
    return wllb_report_mistake(program,
                               wllb_format("--start: '%s' is not YYYYMMDDHHMMSS, from 2020 on", options.start.c_str()));
  if (sample_make_layout(run.layout, options.dir, testrun, keyword_lines(options.keywords), options.online) != 0)
    return 1;
  make_streams(run);
  for (size_t p = 0; p < static_cast<size_t>(options.partitions); ++p)
    if (write_partition(run, p) != 0)
      return 1;
  print_totals(run);
  return 0;
}
