// The registry of instances: tqp_imap by jvmid, the name table, the pool of records, and which raw files are open.
//   In      names from discovery and from the collector
//   Out     records, threads; entries cleared when a thread leaves
//   Thread  discovery's for making, the instance's own for release; tqp_imap_lock guards the entries
//   Failure no slot or no place: the one instance is skipped

#include "instance_registry.h"

#include "process_wake.h"
#include "tqp_csv_files.h"
#include "tqp_init.h"
#include "tqp_stat_mon.h"
#include "wllb_fail.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <pthread.h>
#include <set>

static int mempool_size;  // 0 until the pool is made; discovery's thread alone
static int hashmap_size;  // 0 until the name table is made
static int imap_size;     // 0 until the registry is sized
static bool defaults_set; // the default entries are set once in a process, though index 0 may be given out again

constexpr int least_names = 1024;

// --- names and open files ------------------------------------------------------------------------------------

bool tqp_is_instance_name(std::string_view name) {
  return !name.empty() && name.size() <= 255 && name[0] != '.' && std::none_of(name.begin(), name.end(), [](char c) {
    return c == '/' || static_cast<unsigned char>(c) < 32 || c == 127;
  });
}

static wllb_mutex open_raw_files_mutex;
static std::multiset<std::string> open_raw_files WLLB_GUARDED_BY(open_raw_files_mutex); // names without ".txt"

void tqp_note_raw_file_open(const char *tier_server_app_name, bool open) {
  wllb_hold hold(open_raw_files_mutex);
  if (open) {
    open_raw_files.insert(tier_server_app_name);
    return;
  }
  const auto it = open_raw_files.find(tier_server_app_name);
  if (it != open_raw_files.end())
    open_raw_files.erase(it);
}

int check_instance_thread_is_running(const char *name) {
  if (!name) {
    wllb_trace(1, "Error", "some argument is missing so not checking for offset is present or not");
    return 0;
  }
  std::string bare = name;
  if (bare.size() > 4 && bare.compare(bare.size() - 4, 4, ".txt") == 0)
    bare.resize(bare.size() - 4);
  wllb_hold hold(open_raw_files_mutex);
  return open_raw_files.count(bare) > 0 ? 0 : 1;
}

// --- sizes -------------------------------------------------------------------------------------------------------

static void make_pool(int with_headroom, int raw_files) {
  if (raw_files > 0 && (!tqp_mempool_config_mode || raw_files > tqp_num_tqp_instances_init))
    tqp_num_tqp_instances_init = with_headroom;
  if (raw_files > 0 && !tqp_mempool_config_mode)
    tqp_num_tqp_instances_delta = std::clamp(tqp_num_tqp_instances_init / 10, 8, 64);
  if (wllb_mp_init(&tqp_instance_pool, sizeof(tqp_instance_t), tqp_num_tqp_instances_init, tqp_num_tqp_instances_delta,
                   1) != 0 ||
      wllb_mp_create(&tqp_instance_pool) != 0) {
    wllb_trace(1, "Error", "Error in initializing memory pool for TQP instances");
    wllb_fail(1, "the memory pool for %d instances cannot be made", tqp_num_tqp_instances_init);
  }
  mempool_size = tqp_num_tqp_instances_init;
}

static void make_name_table(int names) {
  wllb_hold hold(key_tsa_name_mutex);
  if (wllb_init_norm_id_table(&key_tsa_name, names) != 0) {
    wllb_trace(1, "Error", "Error in initializing hashmap for key_tsa_name");
    wllb_fail(1, "the table for the names of %d instances cannot be made", names);
  }
  hashmap_size = names;
}

void tqp_size_registry(int raw_files) {
  const int with_headroom = static_cast<int>(static_cast<int64_t>(raw_files) * 110 / 100);
  if (mempool_size == 0)
    make_pool(with_headroom, raw_files);
  if (hashmap_size == 0)
    make_name_table(std::max(with_headroom, least_names));
  if (imap_size == 0)
    tqp_imap_reallocator(with_headroom - 1);
}

bool tqp_has_room_for_instance(const char *name) {
  static bool reported; // discovery's thread alone
  int64_t served = 0;
  tqp_for_each_instance([&served](const tqp_instance_t *) { ++served; });
  if (served < tqp_max_instances) {
    reported = false;
    return true;
  }
  if (!reported)
    wllb_trace(1, "Critical", "TQP_MAX_INSTANCES = %d instances are served, '%s' and further ones have to wait",
               tqp_max_instances, name);
  reported = true;
  return false;
}

bool tqp_imap_reallocator(int index) {
  if (index < imap_size)
    return true;
  int size = imap_size;
  if (imap_size == 0)
    size = index + 1; // sized for what was found
  while (size <= index)
    size += tqp_num_tqp_instances_delta;
  wllb_hold hold(tqp_imap_lock);
  tqp_imap.resize(static_cast<size_t>(size));
  imap_size = size;
  return true;
}

void tqp_free_registry() {
  {
    wllb_hold hold(key_tsa_name_mutex);
    if (hashmap_size != 0)
      wllb_obj_hash_destroy(&key_tsa_name);
  }
  if (mempool_size != 0)
    wllb_mp_destroy(&tqp_instance_pool);
  wllb_hold hold(tqp_imap_lock);
  tqp_imap.clear();
  total_instances = 0;
  mempool_size = hashmap_size = imap_size = 0;
  defaults_set = false;
}

// --- records -----------------------------------------------------------------------------------------------------

tqp_instance_t *tqp_new_instance(const char *tier_server_app_name, int jvmid) {
  void *slot = wllb_mp_get_slot(&tqp_instance_pool);
  if (!slot)
    return nullptr;
  const wllb_mp_slot linkage = *static_cast<wllb_mp_slot *>(slot);
  auto *inst = new (slot) tqp_instance_t();
  inst->slot = linkage;
  const size_t size = strlen(tier_server_app_name) + 1;
  inst->tier_server_app_name = static_cast<char *>(wllb_new_block(size, "tier_server_app_name"));
  memcpy(inst->tier_server_app_name, tier_server_app_name, size);
  inst->jvmid = jvmid;
  inst->debug_level = wllb_trace_mask(tq_trace_level);
  return inst;
}

void tqp_start_instance(tqp_instance_t *inst) {
  {
    wllb_hold hold(tqp_imap_lock);
    tqp_imap[static_cast<size_t>(inst->jvmid)] = inst;
  }
  {
    const tqp_running_as running(inst);
    set_csvfilepath_in_tqp_instance(inst, g_cur_partition.c_str());
    create_tq_dir_and_subdir(inst, "");
    create_tq_dir_and_subdir(inst, g_cur_partition.c_str());
    create_csv_files(inst, 1);
    if (inst->jvmid == 0 && !defaults_set) {
      defaults_set = true;
      set_default_entries_in_hashmap(inst);
    }
  }
  pthread_attr_t detached;
  pthread_attr_init(&detached);
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const int error = pthread_create(&thread, &detached, process_raw_data, inst);
  pthread_attr_destroy(&detached);
  if (error == 0)
    return;
  wllb_trace(1, "Error", "ERROR creating thread #%d; return code from pthread_create() is %d", inst->jvmid, error);
  wllb_fail(-1, "the thread of instance %s cannot be started: %s", inst->tier_server_app_name,
            wllb_strerror(error).c_str());
}

void tqp_release_instance(tqp_instance_t *inst) {
  tqp_free_instance_data(inst); // a stop leaves without a close
  tqp_close_stream(&inst->raw_data_file_offset_fp);
  const std::string name = inst->tier_server_app_name;
  {
    wllb_hold hold(key_tsa_name_mutex);
    int id;
    wllb_delete_norm_id_ex(&key_tsa_name, name.c_str(), static_cast<int>(name.size()), &id);
  }
  tqp_instance_tptr = nullptr;
  wllb_trace_self = {};
  const int jvmid = inst->jvmid;
  {
    wllb_hold hold(tqp_imap_lock);
    tqp_forget_dump_requests(inst);
    tqp_free_instance_names(inst);
    const wllb_mp_slot linkage = inst->slot;
    inst->~tqp_instance_t();
    auto *slot = new (static_cast<void *>(inst)) wllb_mp_slot(linkage);
    wllb_mp_free_slot(&tqp_instance_pool, slot);
    tqp_imap[static_cast<size_t>(jvmid)] = nullptr;
    --total_num_running_threads;
  }
  tqp_wake_main(); // it may wait for the last one
}

// --- walking -------------------------------------------------------------------------------------------------------

void tqp_for_each_instance(const std::function<void(tqp_instance_t *)> &visit) {
  wllb_hold hold(tqp_imap_lock);
  for (tqp_instance_t *inst : tqp_imap)
    if (inst)
      visit(inst);
}

int tqp_count_instances() {
  int count = 0;
  tqp_for_each_instance([&](const tqp_instance_t *) { ++count; });
  return count;
}
