// Where an instance goes on after a restart: its partition, and how many switches lie between that and the newest.
//   In      partition info, raw data and offset files of the test run
//   Out     partition_name and test_run_swtch_flag of the instance; done files of empty partitions met on the way
//   Thread  the instance's, before it opens its raw file
//   Failure a chain that cannot be read ends the walk; the partition found so far stands

#include "tqp_recovery.h"

#include "wllb_partition.h"

#include <algorithm>

static std::string test_run_dir() {
  return wllb_format("%s/logs/TR%d", wl_wdir, testidx);
}

static void set_pending_switches(tqp_instance_t *inst, int count) {
  wllb_hold hold(inst->test_run_swtch_mutex);
  inst->test_run_swtch_flag = count;
}

static void set_partition_name(tqp_instance_t *inst, const std::string &partition) {
  wllb_copy_text(inst->partition_name, 16, partition);
}

// --- live run ---------------------------------------------------------------------------------------------------

// The partition to resume in by the instance's files; 0 when none of them has any, -1 when the newest cannot be read.
static int64_t last_partition_with_data(const tqp_instance_t *inst) {
  DataFileInfo info = {};
  wllb_copy_text(info.partition, sizeof info.partition, inst->partition_name);
  const std::string file_name = std::string(inst->tier_server_app_name) + ".txt";
  int result;
  {
    wllb_hold hold(check_and_create_partition_done_file_mutex); // the walk may make done files
    result = wllb_get_last_partition(test_run_dir().c_str(), "tq/raw_data", file_name.c_str(), &info);
  }
  if (info.err_msg[0])
    wllb_trace(1, "Info", "%s", info.err_msg);
  return result == 0 ? info.partition_idx : -1;
}

// A cut info file still gives some neighbours, and the walk goes on by them: it has to be told.
static void tell_damaged_info(const std::string &partition) {
  const std::string path = wllb_format("%s/%s/.partition_info.txt", test_run_dir().c_str(), partition.c_str());
  const std::string text = wllb_read_small_file(path.c_str());
  if (!text.ends_with('\n') || text.find("PreviousPartition=") == std::string::npos ||
      text.find("NextPartition=") == std::string::npos)
    wllb_trace(1, "Warning", "Partition info file %s is missing, cut or damaged", path.c_str());
}

static int count_following_partitions(const char *partition) {
  int count = 0;
  std::string at = partition;
  tell_damaged_info(at);
  for (int64_t next; wllb_get_next_partition(wl_wdir, testidx, at.c_str(), &next) == 0; ++count) {
    at = std::to_string(next);
    tell_damaged_info(at);
  }
  return count;
}

void tqp_discover_partition_to_resume(tqp_instance_t *inst) {
  const int64_t found = last_partition_with_data(inst);
  const int64_t done = g_process_done_partition; // what was uploaded as finished is not read again
  if (found >= 0 && std::max(found, done) > 0)
    set_partition_name(inst, std::to_string(std::max(found, done)));
  // Counted under the lock: a partition announced after the count raises the flag again, one too many does no harm.
  wllb_hold hold(inst->test_run_swtch_mutex);
  inst->test_run_swtch_flag = count_following_partitions(inst->partition_name);
}

// --- run over a chosen range ------------------------------------------------------------------------------------

static bool has_raw_file(const tqp_instance_t *inst, const std::string &partition) {
  const std::string path = wllb_format("%s/logs/TR%d/%s/tq/raw_data/%s.txt", wl_wdir, testidx, partition.c_str(),
                                       inst->tier_server_app_name);
  return wllb_path_exists(path.c_str());
}

void tqp_discover_partition_to_resume_ex(tqp_instance_t *inst, int64_t start_partition) {
  const std::string end_partition = inst->partition_name;
  std::string at = std::to_string(start_partition);
  bool found = false;
  int count = 0;
  while (at != end_partition) {
    if (found)
      ++count; // with the file or without: it is a switch on the way
    else if (has_raw_file(inst, at)) {
      found = true;
      set_partition_name(inst, at);
    }
    int64_t next;
    if (wllb_get_next_partition(wl_wdir, testidx, at.c_str(), &next) != 0) {
      wllb_trace(1, "Error", "Error in reading .partition_info.txt file");
      break;
    }
    at = std::to_string(next);
  }
  if (has_raw_file(inst, end_partition))
    ++count;
  set_pending_switches(inst, count);
}
