// The command line, the working directory and the chosen range of partitions.
//   In      argv, the environment variable WL_WDIR
//   Out     the command line's globals of process_state.h, wl_wdir; the usage and fixed words about mistakes on standard
//           output, for callers that know them; a line that names the mistake on standard error
//   Thread  main, before any other
//   Failure an exit status for main to end with
// Sample:  tqp -t 1234 -l 7892 -N 4711 -W /home/vexorium/work -V _

#include "process_frame.h"
#include "wllb_options.h"

#include <cstdlib>
#include <cstring>

static constexpr wllb_program program = {
    .name = "tqp",
    .synopsis = "-t N [-W DIR] [options]",
    .about =
        "Processes the raw data of the test run DIR/logs/TR<N>: one thread for each raw data file reads it as it grows "
        "and writes CSV, dat and sequence blob files. With -N it runs as long as that process does; without it, every "
        "file is read to its end and tqp leaves.",
    .notes = "A number given by its letter is taken as far as it is one, with a warning;\n"
             "given by its long name it must be one. A second tqp on the same test run\n"
             "replaces the first. Exit status: 0 at a normal end; 1 for a wrong option, an\n"
             "unreadable keyword file, a wrong TQ_FPI_MASK or a broken chain of partitions;\n"
             "255 for a missing -t, working directory or partition, an offline run that met\n"
             "new metadata, or no memory.\n"};

// The topology name means nothing.
static std::vector<wllb_option> option_rows(tqp_command_line *out) {
  const auto each = [](auto take) { // for values that cannot be wrong
    return [take](const char *value) {
      take(value);
      return std::string();
    };
  };
  return {
      // clang-format off
  {.name = "testrun", .letter = 't', .value = "N", .help = "test run; mandatory, given once", .default_text = "", .as_c_library = true,
   .number32 = &testidx, .take = each([out](const char *) { ++out->testidx_count; })},
  {.name = "dir", .letter = 'W', .value = "DIR", .help = "working directory", .default_text = "$WL_WDIR",
   .take = each([out](const char *value) { out->working_dir = value; })},
  {.name = "parent-pid", .letter = 'N', .value = "PID", .help = "run as long as this process does",
   .default_text = "read every file to its end and leave", .as_c_library = true, .number32 = &wl_pid},
  {.name = "collector-port", .letter = 'l', .value = "PORT", .help = "control port of the collector",
   .default_text = "no collector", .as_c_library = true, .number32 = &tqc_port, .min = 1, .max = 65535},
  {.name = "collector-address", .letter = 'I', .value = "ADDR", .help = "its address", .default_text = tqc_ipaddr,
   .take = each([](const char *value) { wllb_copy_text(tqc_ipaddr, sizeof tqc_ipaddr, value); })},
  {.name = "upload", .letter = 'm', .value = "0|1", .help = "1: start the loader DIR/bin/tqu_db_upload as a child",
   .as_c_library = true, .number32 = &out->online_flag, .max = 1},
  {.name = "resume", .letter = 'r', .value = "0|1", .help = "1: go on from the saved offsets; 0: begin every file anew and empty the output",
   .as_c_library = true, .number32 = &resume_flag, .max = 1},
  {.name = "first-partition", .letter = 'P', .value = "PARTITION", .help = "offline: process again from this partition on (YYYYMMDDHHMMSS)",
   .default_text = "", .as_c_library = true, .number = &start_partition_idx, .max = INT64_MAX},
  {.name = "last-partition", .letter = 'E', .value = "PARTITION", .help = "offline: up to this partition, included",
   .default_text = "", .as_c_library = true, .number = &end_partition_idx, .max = INT64_MAX},
  {.name = "add-metadata", .letter = 'f', .value = "0|1", .help = "1: an offline run may add metadata", .as_c_library = true,
   .number32 = &force_write_in_meta_data_csv, .max = 1},
  {.name = "epoch-diff", .letter = 'e', .value = "SEC", .help = "epoch difference of the test run",
   .default_text = "from its files", .as_c_library = true, .number = &g_vex_epoc_diff, .take = each([out](const char *) { out->has_epoch_diff = true; }), .min = INT64_MIN,
   .max = INT64_MAX},
  {.name = "start-time", .letter = 'S', .value = "MSEC", .help = "start time of the parent in milliseconds since 1970",
   .default_text = "from the test run's files", .as_c_library = true, .number = &g_wl_time_stamp_ms, .max = INT64_MAX},
  {.name = "sample-interval", .letter = 'i', .value = "MSEC", .help = "time between two flowpath statistics samples",
   .as_c_library = true, .number32 = &fp_stats_mon_frequency, .min = 1},
  {.name = "separator", .letter = 'V', .value = "C", .help = "character between tier, server and application in display names",
   .take = each([](const char *value) { g_tq_vector_separator = value[0]; })},
  {.name = "topology", .letter = 'T', .value = "NAME", .help = "accepted, without effect", .take = each([](const char *) {})},
      // clang-format on
  };
}

static void print_usage(const char *error) {
  printf(
      "Error : %s\ntqp \n\t--t  testid (Mandatory Argument) \n\t--l  tq collector port, default is 7892 where tq process data make the connection for sending FP Stats monitor data.\n\t--i  Interval between two consecutive FP Stats monitor data packets. Default - 10 sec.\n\t--m  0 (tqu_db_upload will not be started), by default 1 (data will be uploaded)\n\t--W  Path of WL Working Directory, if not given take from $WL_WDIR environment variable.\n\t--S  WL start timestamp\n\t--N  WL pid\n\t--r  0 (No recovery, raw data will be processed from beginning) Default 1 (Processing will start from offset as in .offset files) \n\t--V  Separartor used in the name of the instance directory.\n\t--P  Start Partition for offline processing in TQP.\n\t--E  End Partition for offline processing in TQP.\n\t--T  Topology Name \n\t--e  Vexorium epoch diff in seconds\n",
      error);
}

static std::string joined_words(int argc, char **argv) {
  std::string text;
  for (int i = 0; i < argc; ++i)
    text.append(i ? " " : "").append(argv[i]);
  return text;
}

// A letter that is not an option, or lacks its value, is answered with the usage on standard output, as callers know it.
static int refuse(const wllb_option_mistake &mistake) {
  if (mistake.letter)
    print_usage(wllb_format("Invalid argument %c", mistake.letter).c_str());
  fflush(stdout);
  return wllb_report_mistake(program, mistake.text);
}

std::optional<int> tqp_parse_command_line(int argc, char **argv, tqp_command_line *out) {
  out->text = joined_words(argc, argv); // first, since getopt moves words that are no options
  const std::vector<wllb_option> rows = option_rows(out);
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
    return refuse(mistake);
  case WLLB_OPTIONS_TAKEN:
    break;
  }
  if (out->testidx_count == 1)
    return std::nullopt;
  print_usage("Testrun number not specified");
  fflush(stdout);
  wllb_report_mistake(program, out->testidx_count == 0 ? "-t is missing" : "-t is given more than once");
  return -1;
}

int tqp_take_working_directory(const tqp_command_line &given) {
  const char *dir =
      given.working_dir ? given.working_dir : getenv("WL_WDIR"); // NOLINT(concurrency-mt-unsafe): no other thread yet
  if (!dir) {
    puts("WL_WDIR env variable is not set.");
    wllb_report_mistake(program, "the working directory is not known: neither -W nor WL_WDIR is set");
    return -1;
  }
  wllb_copy_text(wl_wdir, sizeof wl_wdir, dir);
  for (size_t len = strlen(wl_wdir); len > 1 && wl_wdir[len - 1] == '/'; --len)
    wl_wdir[len - 1] = 0; // its last name is the controller's
  if (given.working_dir)
    setenv("WL_WDIR", wl_wdir, 1); // NOLINT(concurrency-mt-unsafe): no other thread yet
  return 0;
}

static bool end_partition_exists() {
  return wllb_path_exists(wllb_format("%s%lld", base_dir.c_str(), static_cast<long long>(end_partition_idx)).c_str());
}

int tqp_check_partition_range(tqp_command_line *given) {
  if (end_partition_idx && !end_partition_exists()) {
    puts("End Partition does not exists for this testrun");
    fprintf(stderr, "tqp: -E: there is no directory %s%lld\n", base_dir.c_str(),
            static_cast<long long>(end_partition_idx));
    return -1;
  }
  if (!tqp_is_offline())
    return 0;
  if (end_partition_idx && start_partition_idx > end_partition_idx) {
    puts("Start Partition can't be greater than End Partition");
    fprintf(stderr, "tqp: -P %lld is above -E %lld\n", static_cast<long long>(start_partition_idx),
            static_cast<long long>(end_partition_idx));
    return -1;
  }
  resume_flag = 1;
  given->online_flag = 0;
  tqc_port = -1;
  return 0;
}
