// One instance's move to its next partition, and the done file that says that no instance reads a partition any more.
//   In      test_run_swtch_flag: switches pending; the partition files
//   Out     the instance's position and files of the new partition; ".tqp_process_done_v2.txt" of the one left
//   Thread  the instance's; the done file under check_and_create_partition_done_file_mutex
//   Failure a missing next partition leaves the instance on the current one; a done file that cannot be made is not told
// A partition gets its done file when no instance reads it or has still to come by, and every raw file in it has been
// read to its end: by an instance of this process, or according to its offset file. Partitions are finished in order.

#include "flowpath_files.h"
#include "output_wait.h"
#include "tqp_csv_files.h"
#include "tqp_init.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"
#include "tqp_stat_mon.h"

#include "wllb_partition.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

static void lower_switch_flag(tqp_instance_t *inst) {
  wllb_trace(1, "Info", "test_run_swtch_flag = %d, decrementing by 1.", static_cast<int>(inst->test_run_swtch_flag));
  wllb_hold hold(inst->test_run_swtch_mutex);
  inst->test_run_swtch_flag -= 1;
}

static void clear_partition_counters(tqp_instance_t *inst) {
  if (tqp_print_summary_report) {
    wllb_hold hold(summary_report_mutex);
    print_summary_report(inst);
  }
  memset(inst->sum_rep_counters, 0, sizeof inst->sum_rep_counters);
  inst->first_bad_fp_raw_data_marker_fpg2 = 0;
  wllb_trace(1, "Info", "negative_timestamp_count in partition = %lld",
             static_cast<long long>(inst->negative_timestamp_count));
  inst->negative_timestamp_count = 0;
}

static void enter_partition(tqp_instance_t *inst, int64_t next) {
  memcpy(inst->prev_partition_name, inst->partition_name, sizeof inst->prev_partition_name);
  inst->prev_partition_begintime = inst->partition_begintime;
  {
    wllb_hold hold(check_and_create_partition_done_file_mutex);
    inst->prev_tqpdone_fileptr_v2.reset();
    inst->prev_partition_idx = inst->partition_idx.load();
    inst->partition_idx = next;
  }
  snprintf(inst->partition_name, sizeof inst->partition_name, "%lld", static_cast<long long>(next));
  inst->partition_begintime =
      wllb_get_vexepoch_time_from_partition(inst->partition_name, g_vex_epoc_diff, -1, base_dir.c_str());
  wllb_trace(1, "Info", "Switching to new partition '%s'", inst->partition_name);
}

// Nothing follows: the instance takes the newest partition the process knows, and forgets what was pending. All under
// the flag's lock: a partition announced meanwhile either is the one taken or raises the flag again.
static void fall_back_to_current_partition(tqp_instance_t *inst) {
  wllb_hold hold(inst->test_run_swtch_mutex);
  const int64_t current = g_partition_idx;
  snprintf(inst->partition_name, sizeof inst->partition_name, "%lld", static_cast<long long>(current));
  wllb_trace(
      1, "Error",
      "Error in retrieving next partition name, setting test_run_swtch_flag to 0, and switching to current partition: %s.",
      inst->partition_name);
  inst->partition_idx = current;
  inst->test_run_swtch_flag = 0;
}

// The SQL map starts anew from what was saved of it.
static void restart_sql_map(tqp_instance_t *inst) {
  wllb_zarray_free(inst->sql_query_map, sql_query_map_growth);
  wllb_zarray_reserve(inst->sql_query_map, sql_query_map_growth.first, sql_query_map_growth);
  inst->sql_query_map_size = 0;
  inst->sql_first_time = 0;
  read_loc2norm_rec_file(inst, 1 << LOC2NORM_SQL);
}

int switch_to_next_partition(tqp_instance_t *inst, FILE **raw_fp, std::string *filepath) {
  filepath->clear();
  lower_switch_flag(inst);
  csv_dump_all_files(inst);
  wllb_trace(1, "Info",
             "Reset the meta data recovery counter on partition switch from meta_recovery_counter=[%d] to [0]",
             inst->meta_recovery_counter);
  inst->meta_recovery_counter = 0;
  close_all_instance_files_open_debug_files(inst);
  inst->raw_data_file_offset = 0;
  clear_partition_counters(inst);
  int64_t next;
  if (wllb_get_next_partition(wl_wdir, testidx, inst->partition_name, &next) == 0)
    enter_partition(inst, next);
  else
    fall_back_to_current_partition(inst);
  if (tqp_seq_blob_in_file_flag)
    tqp_rotate_sqb_file(inst);
  tqp_close_stream(&inst->raw_data_file_offset_fp);
  if (!tqp_is_offline() && tqp_copy_recovery_files)
    tqp_copy_local2norm_at_partition_switch(inst);
  else if (!tqp_enable_string_similarity_for_sql)
    restart_sql_map(inst);
  *filepath = tqp_raw_file_path(inst);
  *raw_fp = tqp_open_raw_file(inst, *filepath);
  inst->file_not_present_count = *raw_fp ? 0 : inst->file_not_present_count + 1;
  return *raw_fp ? 1 : 0;
}

// --- done file -----------------------------------------------------------------------------------------------

static std::string done_file_path(const std::string &partition) {
  return wllb_format("%s/logs/TR%d/%s/tq/csv/%s", wl_wdir, testidx, partition.c_str(), wllb_done_file_name);
}

bool tqp_is_partition_done(int64_t partition) {
  return wllb_path_exists(done_file_path(std::to_string(partition)).c_str());
}

void tqp_create_partition_done_file(int64_t partition) {
  const std::string path = done_file_path(std::to_string(partition));
  wllb_trace(1, "Info", "All app instance completed the processing for partition '%lld', going to create '%s' file.",
             static_cast<long long>(partition), path.c_str());
  const tqp_waits_for_output spared(nullptr); // all instances would wait for the lock of done files
  mkdir_ex(path.c_str());                     // nobody may ever have been in this partition
  FILE *const opened = tqp_make_data_file_as(path.c_str(), "a", true);
  const std::shared_ptr<FILE> stream(opened, [](FILE *f) {
    if (f)
      fclose(f);
  });
  tqpdone_fileptr_v2 = stream;
  tqp_for_each_instance([&](tqp_instance_t *other) {
    if (other->prev_partition_idx == partition)
      other->prev_tqpdone_fileptr_v2 = stream;
  });
  g_process_done_partition = partition;
  g_left_partitions.erase(partition);
  g_files_read.erase(g_files_read.begin(), g_files_read.lower_bound({partition + 1, ""}));
  wllb_hold hold(tqp_mon_stat_info_mutex);
  --tqp_mon_stat_info.process_done_lag_count;
}

static bool is_to_be_read(int64_t partition) {
  bool in_use = false;
  tqp_for_each_instance([&](const tqp_instance_t *inst) { in_use = in_use || inst->partition_idx <= partition; });
  return in_use;
}

// True when no whole line of the file lies after its saved offset. What is no regular file has nothing to be read.
static bool is_read_by_offset(const std::string &raw_data_dir, const std::string &file_name) {
  const std::string path = raw_data_dir + file_name;
  if (!wllb_is_regular_file(path.c_str()))
    return true;
  const wllb_fd raw(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat facts;
  if (raw.fd < 0 || fstat(raw.fd, &facts) != 0)
    return false;
  const std::string offset = wllb_read_small_file((raw_data_dir + "." + file_name + ".offset").c_str(), 64);
  return wllb_line_begin(raw.fd, facts.st_size) <= strtoll(offset.c_str(), nullptr, 10);
}

std::vector<std::string> tqp_unread_files(int64_t partition) {
  std::vector<std::string> unread;
  const std::string raw_data_dir =
      wllb_format("%s/%lld/tq/raw_data/", base_dir.c_str(), static_cast<long long>(partition));
  std::error_code error;
  for (const auto &entry : std::filesystem::directory_iterator(raw_data_dir, error)) {
    const std::string name = entry.path().filename();
    if (filter_tsa_entries(name.c_str()) && g_files_read.count({partition, name.substr(0, name.size() - 4)}) == 0 &&
        !is_read_by_offset(raw_data_dir, name))
      unread.push_back(name);
  }
  return unread;
}

static bool is_read(int64_t partition) WLLB_REQUIRES(check_and_create_partition_done_file_mutex) {
  const std::vector<std::string> unread = tqp_unread_files(partition);
  if (!unread.empty())
    wllb_trace(1, "Warning", "Partition %lld is not marked as done: %zu raw files are not read to their end, one is %s",
               static_cast<long long>(partition), unread.size(), unread[0].c_str());
  return unread.empty();
}

// The caller has stored where it reads now, and counts like the others: the partition it has entered is not done.
// Instances that are being stopped have given up their places without being ready, hence the state is looked at last.
static void finish_left_partitions() WLLB_REQUIRES(check_and_create_partition_done_file_mutex) {
  while (!g_left_partitions.empty()) {
    const int64_t oldest = *g_left_partitions.begin();
    if (is_to_be_read(oldest) || !is_read(oldest) || wl_status == WL_STOP_NOW)
      return;
    tqp_create_partition_done_file(oldest);
  }
}

void tqp_note_file_read(const tqp_instance_t *inst) {
  wllb_hold hold(check_and_create_partition_done_file_mutex);
  g_files_read.insert({inst->partition_idx, inst->tier_server_app_name});
}

void check_and_create_partition_done_file(tqp_instance_t *inst, int64_t left_partition) {
  wllb_hold hold(check_and_create_partition_done_file_mutex);
  if (tqpdone_fileptr_v2 && g_process_done_partition == left_partition && inst->prev_tqpdone_fileptr_v2)
    return; // another one left it at the same time, saw nobody behind, and was here first
  g_left_partitions.insert(left_partition);
  finish_left_partitions();
}

void tqp_take_place(tqp_instance_t *inst, int64_t partition) {
  wllb_hold hold(check_and_create_partition_done_file_mutex);
  inst->partition_idx = partition;
  finish_left_partitions();
}

int get_partion_number_to_start_with(std::string this_partition, std::string *out) {
  out->clear();
  for (int found = 0; found == 0;) {
    if (wllb_path_exists(done_file_path(this_partition).c_str()))
      return 0;
    *out = this_partition;
    int64_t prev = 0;
    found = wllb_get_prev_partition(base_dir.c_str(), this_partition.c_str(), &prev);
    if (found < 0) {
      wllb_trace(1, "Error", "Error in reading .partition_info.txt file in %s", this_partition.c_str());
      return found;
    }
    this_partition = std::to_string(prev);
  }
  return 0;
}
