// Discovery: which instances have a raw file in the partitions that are not finished yet.
//   In      raw file names of "<base_dir>/<partition>/tq/raw_data/"; names from the collector
//   Out     new records and their threads
//   Thread  main at start-up, the control thread afterwards, never two at once; the whole of a discovery runs under
//           check_and_create_partition_done_file_mutex, so that it never overlaps the making of a done file
//   Failure -1 only when the chain of partitions cannot be read

#include "instance_registry.h"
#include "tqp_init.h"
#include "tqp_process_data.h"

#include "wllb_partition.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <dirent.h>

int periodic_scandir_flag;
time_t last_scandir_time;

// --- raw files -------------------------------------------------------------------------------------------------

bool filter_tsa_entries(const char *file_name) {
  const std::string_view name = file_name;
  return std::count(name.begin(), name.end(), '_') >= 2 && name.size() > 4 && name.substr(name.size() - 4) == ".txt" &&
         name.rfind("agg_data", 0) != 0 && tqp_is_instance_name(name);
}

int get_num_raw_data_files(const char *partition, std::vector<std::string> *names) {
  names->clear();
  const std::string path = wllb_format("%s/%s/tq/raw_data/", base_dir.c_str(), partition);
  const auto began = std::chrono::steady_clock::now();
  DIR *dir = opendir(path.c_str());
  if (!dir)
    return -1;
  while (const dirent *entry = readdir(dir)) // NOLINT(concurrency-mt-unsafe): each call site has its own stream
    if (filter_tsa_entries(entry->d_name))
      names->emplace_back(entry->d_name);
  closedir(dir);
  const auto took = std::chrono::steady_clock::now() - began;
  {
    wllb_hold hold(tqp_mon_stat_info_mutex);
    tqp_mon_stat_info.scandir_ex_time_usec =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
  }
  const int found = static_cast<int>(names->size());
  wllb_trace(1, "Info", "Total instance files found: %d in %s ", found, path.c_str());
  return found;
}

static std::string without_extension(const std::string &file_name) {
  return file_name.substr(0, file_name.rfind('.'));
}

// --- one instance ------------------------------------------------------------------------------------------------

static void count_periodic_find() {
  if (!periodic_scandir_flag)
    return;
  wllb_hold hold(tqp_mon_stat_info_mutex);
  ++tqp_mon_stat_info.instance_discover_count_at_periodic_scandir;
}

static void start_found_instance(const std::string &name, int id) {
  {
    wllb_hold hold(tqp_imap_lock);
    if (id != total_instances)
      wllb_trace(1, "Error", "Error: tqp_imap_idx = %d, current total_instances = %d, Do not match", id,
                 total_instances);
    ++total_instances;
  }
  if (!tqp_imap_reallocator(id)) {
    wllb_trace(1, "Error", "Ignoring the new index as tqp_imap[] could not be extended");
    return;
  }
  tqp_instance_t *inst = tqp_new_instance(name.c_str(), id);
  if (!inst) {
    wllb_trace(1, "Error", "mempool get slot failed for instance instances_dirent[i]->d_name");
    return;
  }
  tqp_start_instance(inst);
  count_periodic_find();
}

static bool is_known_name(const char *name) {
  wllb_hold hold(key_tsa_name_mutex);
  return key_tsa_name.nt && wllb_get_norm_id(&key_tsa_name, name, static_cast<int>(strlen(name))) >= 0;
}

static void start_unknown_instances(const std::vector<std::string> &files) {
  for (const std::string &file : files) {
    const std::string name = without_extension(file);
    if (check_instance_thread_is_running(name.c_str()) == 0 || is_known_name(name.c_str()) ||
        !tqp_has_room_for_instance(name.c_str()))
      continue;
    int is_new = 0;
    int id;
    {
      wllb_hold hold(key_tsa_name_mutex);
      id = wllb_get_or_gen_norm_id(&key_tsa_name, name.c_str(), 0, &is_new);
    }
    if (is_new)
      start_found_instance(name, id);
  }
}

// --- the walk ------------------------------------------------------------------------------------------------------

static bool is_done(const std::string &partition) {
  const std::string path = wllb_format("%s/%s/tq/csv/%s", base_dir.c_str(), partition.c_str(), wllb_done_file_name);
  if (!wllb_path_exists(path.c_str()))
    return false;
  wllb_trace(1, "Info", "%s file found. Breaking loop", path.c_str());
  return true;
}

// The partition before; empty when there is none. -1 when the chain cannot be read.
static int previous_of(const std::string &partition, std::string *prev) {
  prev->clear();
  int64_t idx = 0;
  const int found = wllb_get_prev_partition(base_dir.c_str(), partition.c_str(), &idx);
  if (found < 0) {
    wllb_trace(1, "Error", "Could not find prev partition: this partition: %s", partition.c_str());
    return -1;
  }
  if (found == 0)
    *prev = std::to_string(idx);
  return 0;
}

static int walk_unfinished_partitions(int periodic) WLLB_REQUIRES(check_and_create_partition_done_file_mutex) {
  std::string partition = g_cur_partition;
  std::vector<std::string> files;
  for (;;) {
    const int found = get_num_raw_data_files(partition.c_str(), &files);
    if (found <= 0) {
      wllb_trace(1, "Error", "Error in reading directory for partition: '%s'", partition.c_str());
    } else {
      tqp_size_registry(found);
      start_unknown_instances(files);
    }
    if (periodic || atoll(partition.c_str()) == start_partition_idx)
      return 0;
    std::string prev;
    if (previous_of(partition, &prev) < 0)
      return -1;
    if (prev.empty() || (!tqp_is_offline() && is_done(prev)))
      return 0;
    partition = prev;
    if (!tqp_is_offline())
      g_left_partitions.insert(atoll(prev.c_str())); // whoever left it last may have been killed before it was marked
    wllb_hold hold(tqp_mon_stat_info_mutex);
    ++tqp_mon_stat_info.process_done_lag_count;
  }
}

// No instance anywhere in the stretch: nobody else will say that its partitions are finished.
static int finish_empty_partitions(int running_threads) WLLB_REQUIRES(check_and_create_partition_done_file_mutex) {
  std::string partition = g_cur_partition;
  for (;;) {
    std::string prev;
    if (previous_of(partition, &prev) < 0)
      return -1;
    if (prev.empty() || is_done(prev))
      return 0;
    partition = prev;
    wllb_trace(1, "Info",
               "As number of running threads = %d, so going to create .tqp_process_done_file in partition = %s",
               running_threads, partition.c_str());
    tqp_create_partition_done_file(atoll(partition.c_str()));
  }
}

int tqp_discover_instances(int periodic) {
  wllb_hold hold(check_and_create_partition_done_file_mutex);
  last_scandir_time = wllb_monotonic_s();
  const int result = walk_unfinished_partitions(periodic);
  bool none;
  int running_threads;
  {
    wllb_hold registry(tqp_imap_lock);
    none = total_instances == 0;
    running_threads = total_num_running_threads;
  }
  if (periodic || !none)
    return result;
  return finish_empty_partitions(running_threads) < 0 ? -1 : result;
}

// --- by name -------------------------------------------------------------------------------------------------------

// The first free place, else a new one at the end.
static int take_free_index() {
  {
    wllb_hold hold(tqp_imap_lock);
    for (int i = 0; i < total_instances && static_cast<size_t>(i) < tqp_imap.size(); ++i)
      if (!tqp_imap[static_cast<size_t>(i)])
        return i;
  }
  wllb_hold done_files(check_and_create_partition_done_file_mutex);
  int index;
  {
    wllb_hold hold(tqp_imap_lock);
    index = total_instances++;
  }
  tqp_size_registry(0);
  tqp_imap_reallocator(index);
  return index;
}

void searchInstanceInHashMap(const char *name) {
  if (!tqp_is_instance_name(name) || is_known_name(name) || !tqp_has_room_for_instance(name))
    return;
  const int index = take_free_index();
  if (check_instance_thread_is_running(name) == 0)
    return;
  {
    wllb_hold hold(key_tsa_name_mutex);
    wllb_set_norm_id(&key_tsa_name, name, static_cast<int>(strlen(name)), index);
  }
  tqp_instance_t *inst = tqp_new_instance(name, index);
  if (inst)
    tqp_start_instance(inst);
  else
    wllb_trace(1, "Error", "mempool get slot failed for instance instances_dirent[i]->d_name");
}

void setInstanceDisableFlag(const char *name) {
  int id;
  {
    wllb_hold hold(key_tsa_name_mutex);
    id = key_tsa_name.nt ? wllb_get_norm_id(&key_tsa_name, name, static_cast<int>(strlen(name))) : -2;
  }
  if (id < 0) {
    wllb_trace(1, "Error", "%s is not found in hashMap", name);
    return;
  }
  wllb_hold hold(tqp_imap_lock);
  if (static_cast<size_t>(id) < tqp_imap.size() && tqp_imap[static_cast<size_t>(id)])
    tqp_imap[static_cast<size_t>(id)]->enable_flag = INSTANCE_DELETE;
  wllb_trace(1, "Info", "Set INSTANCE_DELETE bit for instance '%s'", name);
}
