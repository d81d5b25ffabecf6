// Totals of flowpaths that survive restarts: one line for each instance, replaced whole with each sample.
//   In      "%s/logs/TR%d/tq/recovery/fp_stat_cummulative_count.txt" of the run before, once, at start-up
//   Out     the totals of the instances that were found at start; the same file
//   Thread  main at start-up, the statistics monitor afterwards; never two at once
//   Failure a file that cannot be read leaves the totals at 0, one that cannot be written is traced
// Sample:  Tier>Server>App,1207

#include "tqp_fp_stats_mon.h"

#include "data_files.h"
#include "tqp_init.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

struct named_total {
  std::string display_name;
  uint64_t count;
};

static std::vector<named_total> totals_of_run_before; // those that no instance has got yet

constexpr int most_lines = 512;
constexpr size_t most_bytes = size_t{16} << 20U;

static std::string cumulative_file_path() {
  return wllb_format("%s/logs/TR%d/tq/recovery/fp_stat_cummulative_count.txt", wl_wdir, testidx);
}

std::string tqp_display_name(const tqp_instance_t *inst) {
  std::string name(strlen(inst->tierName) + strlen(inst->serverName) + strlen(inst->appName) + 3, '\0');
  return get_tier_server_app_with_display_name(inst, name.data(), name.size(), g_tq_vector_separator);
}

// --- read ------------------------------------------------------------------------------------------------------------

static void clear_numbers(tqp_instance_t *inst) {
  wllb_trace(1, "Info", "Memset'ing fp_stat jvmid = %d", inst->jvmid);
  wllb_hold hold(inst->fp_stats_mutex);
  inst->fp_stats = {.min_duration = 0}; // all bytes, so the first interval's minimum stays 0
  inst->total_fp_counts_due = 1;
}

static void read_totals(const std::string &path) {
  std::string text = wllb_read_small_file(path.c_str(), most_bytes);
  char *lines[most_lines];
  const int count = get_tokens_with_multi_delimiter(text.data(), lines, "\n", most_lines);
  for (int i = 0; i < count; ++i)
    if (char *comma = strchr(lines[i], ','))
      totals_of_run_before.push_back({std::string(lines[i], comma), static_cast<uint64_t>(atoll(comma + 1))});
}

void tqp_add_total_of_run_before(tqp_instance_t *inst, const std::string &display_name) {
  wllb_hold hold(inst->fp_stats_mutex);
  if (!inst->total_fp_counts_due)
    return;
  inst->total_fp_counts_due = 0;
  for (size_t i = 0; i < totals_of_run_before.size(); ++i)
    if (totals_of_run_before[i].display_name == display_name) {
      inst->fp_stats.total_fp_counts += totals_of_run_before[i].count;
      totals_of_run_before.erase(totals_of_run_before.begin() + static_cast<std::ptrdiff_t>(i));
      return;
    }
}

int set_cummulative_count() {
  totals_of_run_before.clear();
  tqp_for_each_instance(clear_numbers);
  const std::string path = cumulative_file_path();
  struct stat found;
  if (stat(path.c_str(), &found) != 0) {
    wllb_trace(1, "Error", "Unable to stat file '%s'", path.c_str());
    return -1;
  }
  read_totals(path);
  tqp_for_each_instance([](tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock) {
    if (inst->appName)
      tqp_add_total_of_run_before(inst, tqp_display_name(inst));
  });
  return 0;
}

// --- written -----------------------------------------------------------------------------------------------------

void tqp_put_totals_not_asked_for(std::string *totals, bool may_be_asked_for) {
  if (!may_be_asked_for)
    totals_of_run_before.clear();
  for (const named_total &total : totals_of_run_before)
    *totals += wllb_format("%s,%llu\n", total.display_name.c_str(), static_cast<unsigned long long>(total.count));
}

void tqp_write_cumulative_file(const std::string &totals) {
  const std::string path = cumulative_file_path();
  mkdir_ex(path.c_str());
  if (!tqp_replace_data_file(path, totals))
    wllb_trace(1, "Error", "Unable to write data in fp_stat_cummulative_count file.");
}
