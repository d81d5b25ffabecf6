// A test run with one instance on the calling thread; see the header.

#include "one_instance_run.h"

#include "instance_registry.h"
#include "tag_ids.h"
#include "tqp_csv_files.h"
#include "tqp_init.h"
#include "tqp_parse_keywords.h"
#include "tqp_process_data.h"

#include <cstdlib>
#include <filesystem>

static std::string directory;

static void make_test_run() {
  char made[] = "/tmp/tqp_one_XXXXXX";
  if (!mkdtemp(made))
    abort();
  directory = made;
  std::filesystem::create_directories(directory + "/logs/TR1001/20261122100000/tq/raw_data");
  std::filesystem::create_directory(directory + "/webapps");
  std::filesystem::create_symlink("../logs", directory + "/webapps/logs");
}

static void set_process_state() {
  tqp_process_state_init();
  tqp_keywords_init();
  wllb_copy_text(wl_wdir, sizeof wl_wdir, directory);
  testidx = 1001;
  base_dir = directory + "/logs/TR1001/";
  resume_flag = 0;
  g_wl_time_stamp_ms = 1;
  g_partition_idx = 20261122100000;
  g_cur_partition = "20261122100000";
  tqp_generate_fp_signatures = 1;
  tqp_enable_sql_record = 1;
  tqp_dump_urc = 1;
}

tqp_instance_t *open_one_instance_run() {
  make_test_run();
  set_process_state();
  init_folly_hash();
  tqp_init(0);
  tqp_generate_fp_signatures = 1;
  tqp_size_registry(1);
  tqp_instance_t *inst = tqp_new_instance("Tier_Server_App", 0);
  inst->active_flag = 1;
  wllb_copy_text(inst->partition_name, sizeof inst->partition_name, g_cur_partition);
  inst->partition_idx = 20261122100000;
  tqp_instance_tptr = inst;
  set_csvfilepath_in_tqp_instance(inst, inst->partition_name);
  create_tq_dir_and_subdir(inst, "");
  create_tq_dir_and_subdir(inst, inst->partition_name);
  create_csv_files(inst, 1);
  set_default_entries_in_hashmap(inst);
  tq_init_app_instance(inst);
  wllb_mp_init(&inst->tqp_flowpath_seg_pool, sizeof(segment_fp_t), 8, 8, 0);
  wllb_mp_init(&inst->tqp_flowpath_pending_seg_pool, sizeof(pending_segment_fp_t), 8, 8, 0);
  return inst;
}

void close_one_instance_run(tqp_instance_t *inst) {
  tq_close_app_instance(inst);
  wllb_mp_destroy(&inst->tqp_flowpath_seg_pool);
  wllb_mp_destroy(&inst->tqp_flowpath_pending_seg_pool);
  {
    wllb_hold hold(tqp_imap_lock);
    tqp_imap[0] = inst;
    total_instances = 1;
    ++total_num_running_threads;
  }
  tqp_release_instance(inst);
  tq_close();
  tqp_free_registry();
  tqp_free_norm_table();
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

int run_block(tqp_instance_t *inst, std::string text) {
  const size_t len = text.size();
  return tq_process_data(inst, text.data(), len, 1);
}

uint32_t bad_records(tqp_instance_t *inst) {
  wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
  return inst->tqp_instance_mon_stat_info.invalid_rawdata_count;
}
