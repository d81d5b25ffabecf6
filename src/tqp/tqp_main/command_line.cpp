// The command line, the working directory and the chosen range of partitions.
//   In      argv, the environment variable WL_WDIR
//   Out     the command line's globals of process_state.h, wl_wdir; usage and complaints on standard output
//   Thread  main, before any other
//   Failure an exit status for main to end with; numbers are read as the C library reads them, whatever they say
// Sample:  tqp -t 1234 -l 7892 -N 4711 -W /home/vexorium/work -V _

#include "process_frame.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

static int as_int(const char *word) {
  return static_cast<int>(strtol(word, nullptr, 10));
}

static void take_testidx(const char *word, tqp_command_line *out) {
  testidx = as_int(word);
  ++out->testidx_count;
}

static void take_online_flag(const char *word, tqp_command_line *out) {
  out->online_flag = as_int(word);
}

static void take_working_dir(const char *word, tqp_command_line *out) {
  out->working_dir = word;
}

static void take_address(const char *word, tqp_command_line *) {
  wllb_copy_text(tqc_ipaddr, sizeof tqc_ipaddr, word);
}

static void take_epoch_diff(const char *word, tqp_command_line *out) {
  g_vex_epoc_diff = strtoll(word, nullptr, 10);
  out->has_epoch_diff = true;
}

static void take_separator(const char *word, tqp_command_line *) {
  g_tq_vector_separator = word[0];
}

// One option: a number to set, or its own function. The topology name (-T) has neither and means nothing.
struct option_row {
  char letter;
  int *number;
  int64_t *number64;
  void (*own)(const char *word, tqp_command_line *out);
};

static const char *const option_letters = "m:t:W:l:i:S:N:e:r:V:I:T:P:E:f:";

constexpr option_row option_rows[] = {
    // clang-format off
    {'m', nullptr,                       nullptr,              take_online_flag},
    {'t', nullptr,                       nullptr,              take_testidx},
    {'W', nullptr,                       nullptr,              take_working_dir},
    {'l', &tqc_port,                     nullptr,              nullptr},
    {'i', &fp_stats_mon_frequency,       nullptr,              nullptr},
    {'S', nullptr,                       &g_wl_time_stamp_ms,  nullptr},
    {'N', &wl_pid,                       nullptr,              nullptr},
    {'e', nullptr,                       nullptr,              take_epoch_diff},
    {'r', &resume_flag,                  nullptr,              nullptr},
    {'V', nullptr,                       nullptr,              take_separator},
    {'I', nullptr,                       nullptr,              take_address},
    {'T', nullptr,                       nullptr,              nullptr},
    {'P', nullptr,                       &start_partition_idx, nullptr},
    {'E', nullptr,                       &end_partition_idx,   nullptr},
    {'f', &force_write_in_meta_data_csv, nullptr,              nullptr},
    // clang-format on
};

static void print_usage(const char *error) {
  printf(
      "Error : %s\ntqp \n\t--t  testid (Mandatory Argument) \n\t--l  tq collector port, default is 7892 where tq process data make the connection for sending FP Stats monitor data.\n\t--i  Interval between two consecutive FP Stats monitor data packets. Default - 10 sec.\n\t--m  0 (tqu_db_upload will not be started), by default 1 (data will be uploaded)\n\t--W  Path of WL Working Directory, if not given take from $WL_WDIR environment variable.\n\t--S  WL start timestamp\n\t--N  WL pid\n\t--r  0 (No recovery, raw data will be processed from beginning) Default 1 (Processing will start from offset as in .offset files) \n\t--V  Separartor used in the name of the instance directory.\n\t--P  Start Partition for offline processing in TQP.\n\t--E  End Partition for offline processing in TQP.\n\t--T  Topology Name \n\t--e  Vexorium epoch diff in seconds\n",
      error);
}

static void take_option(const option_row &row, const char *word, tqp_command_line *out) {
  if (row.number)
    *row.number = as_int(word);
  if (row.number64)
    *row.number64 = strtoll(word, nullptr, 10);
  if (row.own)
    row.own(word, out);
}

static const option_row *find_option(int letter) {
  for (const option_row &row : option_rows)
    if (row.letter == letter)
      return &row;
  return nullptr;
}

static std::string joined_words(int argc, char **argv) {
  std::string text;
  for (int i = 0; i < argc; ++i)
    text.append(i ? " " : "").append(argv[i]);
  return text;
}

int tqp_parse_command_line(int argc, char **argv, tqp_command_line *out) {
  out->text = joined_words(argc, argv); // first, since getopt moves words that are no options
  optind = 0;                           // from the beginning, also in a second call
  for (int letter; (letter = getopt(argc, argv, option_letters)) != -1;) {
    const option_row *row = find_option(letter);
    if (!row) {
      print_usage(wllb_format("Invalid argument %c", optopt).c_str());
      return 1;
    }
    take_option(*row, optarg, out);
  }
  if (out->testidx_count == 1)
    return 0;
  print_usage("Testrun number not specified");
  return -1;
}

int tqp_take_working_directory(const tqp_command_line &given) {
  const char *dir = given.working_dir ? given.working_dir : getenv("WL_WDIR");
  if (!dir) {
    puts("WL_WDIR env variable is not set.");
    return -1;
  }
  wllb_copy_text(wl_wdir, sizeof wl_wdir, dir);
  for (size_t len = strlen(wl_wdir); len > 1 && wl_wdir[len - 1] == '/'; --len)
    wl_wdir[len - 1] = 0; // its last name is the controller's
  if (given.working_dir)
    setenv("WL_WDIR", wl_wdir, 1);
  return 0;
}

static bool end_partition_exists() {
  return wllb_path_exists(wllb_format("%s%lld", base_dir.c_str(), static_cast<long long>(end_partition_idx)).c_str());
}

int tqp_check_partition_range(tqp_command_line *given) {
  if (end_partition_idx && !end_partition_exists()) {
    puts("End Partition does not exists for this testrun");
    return -1;
  }
  if (!tqp_is_offline())
    return 0;
  if (end_partition_idx && start_partition_idx > end_partition_idx) {
    puts("Start Partition can't be greater than End Partition");
    return -1;
  }
  resume_flag = 1;
  given->online_flag = 0;
  tqc_port = -1;
  return 0;
}
