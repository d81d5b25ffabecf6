// Discovery records: a text and the agent's local id for it become a norm id in a global table and an entry of the
// instance's map.
//   In      5,com.acme.Pay.charge,17    6,User-Agent,3    7,5,/shop/a,b    32,12,java.lang.Error    41,Login,4
//   Out     the norm table (under its lock), the map with its unsaved mark, and a metadata row for a text that is new
//   Thread  the instance's
//   Failure a record that is refused is told and counted, and changes no map; an empty text ends it silently
// Where a record has two forms, a first field that begins with a digit is the id.

#include "discovery_records.h"

#include "event_table.h"
#include "local_maps.h"
#include "record_errors.h"
#include "tqp_csv_files.h"

#include <array>
#include <cstring>

// How a record says which field is the text.
enum discovery_form { TEXT_FIRST, EITHER_FIRST };

using metadata_writer = void (*)(tqp_instance_t *inst, int norm_id, const char *text);

struct discovery_row {
  int event_id;
  discovery_form form;
  NormObjKey *table;
  wllb_mutex *lock;
  int bit; // loc2norm_bit of the map
  metadata_writer write_row;
};

static void write_resource(tqp_instance_t *inst, int norm_id, const char *text) {
  csv_dump_resource_meta_data(inst, norm_id, text, 0);
}

static void write_bci_arg(tqp_instance_t *inst, int norm_id, const char *text) {
  csv_dump_meta_data(inst, norm_id, METADATA_TYPE_BCI_ARG, text, 0);
}

// clang-format off
static const discovery_row discovery_rows[] = {
  {TQ_EV_RESOURCE_DISCOVERY,      TEXT_FIRST,   &key_resource_id,     &key_resource_id_mutex,     LOC2NORM_RESOURCE,     write_resource},
  {TQ_EV_EXCP_CLS_DISCOVERY,      EITHER_FIRST, &key_excp_cls_id,     &key_excp_cls_id_mutex,     LOC2NORM_EXCP_CLS,     csv_dump_excp_cls_data},
  {TQ_EV_EXCP_THR_CLS_DISCOVERY,  EITHER_FIRST, &key_excp_thr_cls_id, &key_excp_thr_cls_id_mutex, LOC2NORM_EXCP_THR_CLS, csv_dump_excp_thr_cls_data},
  {TQ_EV_EXCP_THR_MTD_DISCOVERY,  EITHER_FIRST, &key_excp_thr_mtd_id, &key_excp_thr_mtd_id_mutex, LOC2NORM_EXCP_THR_MTD, csv_dump_excp_thr_mtd_data},
  {TQ_EV_EXCP_MSG_DISCOVERY,      EITHER_FIRST, &key_excp_msg_id,     &key_excp_msg_id_mutex,     LOC2NORM_EXCP_MSG,     csv_dump_excp_msg_data},
  {TQ_EV_EXCP_CAUSE_DISCOVERY,    EITHER_FIRST, &key_excp_cause_id,   &key_excp_cause_id_mutex,   LOC2NORM_EXCP_CAUSE,   csv_dump_excp_cause_data},
  {TQ_EV_EXCP_ST_DISCOVERY,       EITHER_FIRST, &key_excp_st_id,      &key_excp_st_id_mutex,      LOC2NORM_EXCP_ST,      csv_dump_excp_st_data},
  {TQ_EV_BCI_ARG_META_DATA_EVENT, EITHER_FIRST, &key_bci_arg,         &key_bci_arg_mutex,         LOC2NORM_BCI_ARG,      write_bci_arg},
};

// clang-format on

static const discovery_row &discovery_row_of(int event_id) {
  for (const discovery_row &row : discovery_rows)
    if (row.event_id == event_id)
      return row;
  __builtin_unreachable(); // the event table sends only ids that stand above
}

struct norm_id_found {
  int id; // -1: an empty text
  int is_new;
};

static norm_id_found find_or_add(NormObjKey *table, wllb_mutex *lock, const char *text, size_t len) {
  norm_id_found found = {-1, 0};
  if (len == 0)
    return found;
  wllb_hold hold(*lock);
  found.id = wllb_get_or_gen_norm_id(table, text, static_cast<int>(len), &found.is_new);
  return found;
}

static bool begins_with_digit(const char *text) {
  return *text >= '0' && *text <= '9';
}

bool tq_local_id(const char *text, int64_t *local_id) {
  *local_id = strtoll(text, nullptr, 10);
  return *local_id >= 0 && *local_id <= max_local_id;
}

// --- resources, exceptions, arguments --------------------------------------------------------------------------

// An argument's text is kept to 254 bytes once it is longer than 255.
static void cut_bci_arg(const tq_event &ev, char *text) {
  if (ev.id == TQ_EV_BCI_ARG_META_DATA_EVENT && strlen(text) > 255)
    text[254] = 0;
}

void tq_run_plain_discovery(tq_event &ev) {
  const discovery_row &row = discovery_row_of(ev.id);
  char *first = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  char *second = ev.f.next();
  const bool id_first = row.form == EITHER_FIRST && begins_with_digit(first);
  char *text = id_first ? second : first;
  int64_t local_id;
  if (!tq_local_id(id_first ? first : second, &local_id))
    return tqp_incomplete_record(ev.inst);
  cut_bci_arg(ev, text);
  const norm_id_found found = find_or_add(row.table, row.lock, text, strlen(text));
  if (found.id == -1)
    return;
  tqp_store_loc2norm(ev.inst, row.bit, local_id, found.id);
  if (found.is_new)
    row.write_row(ev.inst, found.id, text);
}

// --- methods -----------------------------------------------------------------------------------------------------

method_name_parts extract_classname_packagename(const char *method_name, size_t len) {
  constexpr size_t longest = 2047;
  const size_t seen = len < longest ? len : longest;
  const auto *dot = static_cast<const char *>(memrchr(method_name, '.', seen));
  if (!dot)
    return {0, 0};
  const auto class_len = static_cast<size_t>(dot - method_name);
  dot = static_cast<const char *>(memrchr(method_name, '.', class_len));
  return {class_len, dot ? static_cast<size_t>(dot - method_name) : 0};
}

// A method's three texts begin alike, so one pass over the name hashes them all.
struct method_hashes {
  uint64_t method, class_name, package;
};

static method_hashes hash_method(const char *name, size_t len, method_name_parts parts) {
  method_hashes h = {};
  uint64_t running = wllb_norm_hash_basis;
  size_t i = 0;
  const auto run_to = [&](size_t to) {
    for (; i < to; ++i)
      running = wllb_norm_hash_step(running, static_cast<unsigned char>(name[i]));
    return running;
  };
  h.package = run_to(parts.package_len);
  h.class_name = run_to(parts.class_len);
  h.method = run_to(len);
  return h;
}

static norm_id_found find_or_add_hashed(NormObjKey *table, wllb_mutex *lock, const char *text, size_t len,
                                        uint64_t hash) {
  norm_id_found found = {-1, 0};
  if (len == 0)
    return found;
  wllb_hold hold(*lock);
  found.id = wllb_get_or_gen_norm_id_hashed(table, text, static_cast<int>(len), hash, &found.is_new);
  return found;
}

static void write_if_new(tqp_instance_t *inst, const norm_id_found &found, int type, const char *text, size_t len) {
  if (found.is_new)
    csv_dump_meta_data(inst, found.id, type, std::string(text, len).c_str(), 0);
}

void tq_run_method_discovery(tq_event &ev) {
  const char *name = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  int64_t local_id;
  if (!tq_local_id(ev.f.next(), &local_id))
    return tqp_incomplete_record(ev.inst);
  const size_t len = strlen(name);
  const method_name_parts parts = extract_classname_packagename(name, len);
  const method_hashes hashes = hash_method(name, len, parts);
  const norm_id_found method = find_or_add_hashed(&key_method_id, &key_method_id_mutex, name, len, hashes.method);
  if (method.id == -1)
    return;
  const norm_id_found class_name =
      find_or_add_hashed(&key_class_id, &key_class_id_mutex, name, parts.class_len, hashes.class_name);
  const norm_id_found package =
      find_or_add_hashed(&key_package_id, &key_package_id_mutex, name, parts.package_len, hashes.package);
  tqp_store_loc2norm(ev.inst, LOC2NORM_METHOD, local_id, method.id);
  write_if_new(ev.inst, method, METADATA_TYPE_METHOD, name, len);
  write_if_new(ev.inst, class_name, METADATA_TYPE_CLASS, name, parts.class_len);
  write_if_new(ev.inst, package, METADATA_TYPE_PACKAGE, name, parts.package_len);
}

// --- headers -----------------------------------------------------------------------------------------------------

void tq_run_header_discovery(tq_event &ev) {
  const char *name = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  int64_t local_id;
  if (!tq_local_id(ev.f.next(), &local_id))
    return tqp_incomplete_record(ev.inst);
  if (*name == 0)
    name = " ";
  const norm_id_found found = find_or_add(&key_http_header_id, &key_http_header_id_mutex, name, strlen(name));
  if (found.id == -1)
    return;
  tqp_store_http_header(ev.inst, local_id, found.id, name);
  if (found.is_new)
    csv_dump_http_header_md_data(ev.inst, name, found.id, 0);
}

// --- URLs --------------------------------------------------------------------------------------------------------

void tq_run_url_discovery(tq_event &ev) {
  const char *first = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  const char *second = ev.f.next('\n'); // the rest of the line: a URL may hold commas
  if (!ev.f.ended)
    return tqp_surplus_fields(ev.inst);
  const bool id_first = begins_with_digit(first);
  const char *url = id_first ? second : first;
  int64_t local_id;
  if (!tq_local_id(id_first ? first : second, &local_id))
    return tqp_incomplete_record(ev.inst);
  const norm_id_found found = find_or_add(&key_url_id, &key_url_id_mutex, url, strlen(url));
  if (found.id == -1)
    return;
  tqp_store_loc2norm(ev.inst, LOC2NORM_URL, local_id, found.id | norm_id_flag);
  if (found.is_new)
    tq_process_url_table_data(ev.inst, found.id | norm_id_flag, url);
}
