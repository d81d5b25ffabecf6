// The tables and common files that all instances share, made at start and taken down at the end.
//   In      the keyword values; the metadata files of the run before, when resuming
//   Out     norm tables, opened common files, fixed keyword values
//   Thread  main, before instance threads run and after they have left
//   Failure of files, traced where they are opened and read; the start goes on

#include "tqp_init.h"

#include "parent_start_time.h"
#include "tag_ids.h"
#include "tqp_csv_files.h"
#include "tqp_parse_keywords.h"
#include "tqp_recovery.h"
#include "tqp_tags.h"

#include <unistd.h>

struct norm_table_row {
  NormObjKey *table;
  int buckets;
};

// In the order of their making; the one that stands last is not among those destroyed at the end.
static const norm_table_row norm_tables[] = {
    {&key_signature, 16384},          {&key_method_id, 65536},   {&key_resource_id, 65536},
    {&key_http_header_id, 16384},     {&key_excp_cls_id, 16384}, {&key_excp_thr_cls_id, 16384},
    {&key_excp_thr_mtd_id, 16384},    {&key_excp_msg_id, 16384}, {&key_excp_st_id, 16384},
    {&key_excp_cause_id, 16384},      {&key_class_id, 16384},    {&key_package_id, 16384},
    {&key_bci_arg, 262144},           {&key_url_id, 1048576},    {&key_sql_query, 262144},
    {&key_sql_nonprep_query, 262144}, {&key_get_table_map, 256}, {&key_auto_topo_discovery_src, 16384},
};

static void rebuild_or_say_why_not() {
  const std::string csv_dir = wllb_format("%s/logs/TR%d/tq/csv/", wl_wdir, testidx);
  if (!wllb_is_directory(csv_dir.c_str()))
    wllb_trace(1, "Info", "The csv files directory does not exist: '%s', Hence normalization tables are not built",
               csv_dir.c_str());
  else if (resume_flag)
    tq_build_norm_tables_from_metadata_csv(-1);
}

void tqp_init(int online_flag) {
  if (g_wl_time_stamp_ms == 0)
    get_wl_time_stamp_in_ms();
  for (const norm_table_row &row : norm_tables)
    wllb_init_norm_id_table(row.table, row.buckets);
  tqp_init_norm_table();
  tqp_fix_reset_keywords();
  dbmode = online_flag;
  rebuild_or_say_why_not();
  create_csv_metadata_files(wllb_format("%s/logs/TR%d/tq/csv/", wl_wdir, testidx).c_str());
  create_fn_grp_table();
  for (int64_t &counter : agg_sum_rep_counters)
    counter = 0;
}

static void remove_spawn_marker() {
  const std::string path = wllb_format("%s/logs/TR%d/tq/logs/.sep_proc_spawned", wl_wdir, testidx);
  if (wllb_path_exists(path.c_str()) && unlink(path.c_str()) != 0)
    printf("Error: Could not delete temporary file %s\n", path.c_str());
}

int tq_close() {
  {
    wllb_hold hold(tqp_imap_lock);
    if (total_instances == 0)
      return 0;
  }
  tq_close_metadata_file();
  int result = 0;
  std::vector<tqp_instance_t *> left;
  tqp_for_each_instance([&](tqp_instance_t *inst) { left.push_back(inst); });
  for (tqp_instance_t *inst : left) {
    const tqp_running_as running(inst);
    if (tq_close_app_instance(inst) < 0)
      result = -1;
  }
  for (const norm_table_row &row : norm_tables)
    wllb_obj_hash_destroy(row.table);
  tqp_free_auto_topology();
  remove_spawn_marker();
  return result;
}
