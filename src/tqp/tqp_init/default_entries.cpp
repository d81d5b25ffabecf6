// The "unknown" entries: id 0 of each norm table, so that a number that nobody knows can still be loaded.
//   In      the tables as they were made or rebuilt
//   Out     entries of the tables; metadata rows for those that are new (after a rebuild none is)
//   Thread  whoever starts the first instance; once in a process
//   Failure a row that cannot be written is traced by its writer

#include "tqp_csv_files.h"
#include "tqp_init.h"

struct default_entry {
  NormObjKey *table;
  wllb_mutex *lock;
  const char *text;
  void (*write_row)(tqp_instance_t *inst, int norm_id, const char *text);
};

template <int type> static void write_meta_data(tqp_instance_t *inst, int norm_id, const char *text) {
  csv_dump_meta_data(inst, norm_id, type, text, 0);
}

static void write_sql(tqp_instance_t *inst, int norm_id, const char *text) {
  csv_dump_sql_table(inst, 0, text, -1, norm_id, 0, 0);
}

static void write_resource(tqp_instance_t *inst, int norm_id, const char *text) {
  csv_dump_resource_meta_data(inst, norm_id, text, 0);
}

static void write_url(tqp_instance_t *inst, int norm_id, const char *text) {
  tq_process_url_table_data(inst, norm_id | norm_id_flag, text);
}

static void write_signature(tqp_instance_t *inst, int norm_id, const char *text) {
  csv_dump_fp_signature(inst, text, norm_id);
}

// clang-format off
static const default_entry default_entries[] = {
  {&key_method_id,       &key_method_id_mutex,       "UnknownPackage.UnknownClass.UnknownMethod()V", write_meta_data<METADATA_TYPE_METHOD>},
  {&key_class_id,        &key_class_id_mutex,        "UnknownClass",    write_meta_data<METADATA_TYPE_CLASS>},
  {&key_package_id,      &key_package_id_mutex,      "UnknownPackage",  write_meta_data<METADATA_TYPE_PACKAGE>},
  {&key_sql_query,       &key_sql_query_mutex,       "UnknownDBQuery",  write_sql},
  {&key_resource_id,     &key_resource_id_mutex,     "UnknownResource", write_resource},
  {&key_excp_cls_id,     &key_excp_cls_id_mutex,     "-",               csv_dump_excp_cls_data},
  {&key_excp_thr_cls_id, &key_excp_thr_cls_id_mutex, "-",               csv_dump_excp_thr_cls_data},
  {&key_excp_thr_mtd_id, &key_excp_thr_mtd_id_mutex, "-",               csv_dump_excp_thr_mtd_data},
  {&key_excp_st_id,      &key_excp_st_id_mutex,      "-",               csv_dump_excp_st_data},
  {&key_excp_msg_id,     &key_excp_msg_id_mutex,     "-",               csv_dump_excp_msg_data},
  {&key_excp_cause_id,   &key_excp_cause_id_mutex,   "-",               csv_dump_excp_cause_data},
  {&key_url_id,          &key_url_id_mutex,          "-",               write_url},
  {&key_signature,       &key_signature_mutex,       "DummySignature",  write_signature},
  {&key_bci_arg,         &key_bci_arg_mutex,         " ",               write_meta_data<METADATA_TYPE_BCI_ARG>},
};

// clang-format on

void set_default_entries_in_hashmap(tqp_instance_t *inst) {
  for (const default_entry &entry : default_entries) {
    if (entry.table == &key_signature && !tqp_generate_fp_signatures)
      continue;
    int is_new = 0;
    int id;
    {
      wllb_hold hold(*entry.lock);
      id = wllb_get_or_gen_norm_id(entry.table, entry.text, 0, &is_new);
    }
    if (is_new)
      entry.write_row(inst, id, entry.text);
  }
  wllb_hold hold(key_sql_query_mutex);
  wllb_set_start_norm_id(&key_sql_query, tqp_sql_start_norm_id);
}
