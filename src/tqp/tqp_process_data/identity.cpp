// Who the instance is: the identity record at the head of a raw file, and the agent's connection record.
//   In      0,tier,server,app,tier id,server id,app id    99,x,FPGVersion:2.0,JAVA
//   Out     names, ids, flowpath format version and agent kind of the instance; the maps of the last run, read back
//   Thread  the instance's; names and ids change under tqp_imap_lock, since other threads read them
//   Failure a bad identity record sets get_tsa_id, which gives up the block

#include "data_files.h"
#include "event_table.h"
#include "state_save.h"
#include "tqp_process_data.h"
#include "tqp_run_time_v2.h"

#include <cstring>
#include <pthread.h>

static void replace_name(char **name, const char *text, const char *label) WLLB_REQUIRES(tqp_imap_lock) {
  const size_t size = strlen(text) + 1;
  auto *copy = static_cast<char *>(malloc(size));
  if (!copy)
    wllb_out_of_memory(size, label);
  memcpy(copy, text, size);
  free(*name);
  *name = copy;
}

// The next field of an identity record that must not be its last; null when it is.
static char *next_but_not_last(tq_event &ev) {
  char *text = ev.f.next();
  if (!ev.f.ended)
    return text;
  wllb_trace(1, "Error", "0 record is not in proper syntx in %s", ev.inst->tier_server_app_name);
  return nullptr;
}

static bool read_names(tq_event &ev) WLLB_REQUIRES(tqp_imap_lock) {
  struct name_row {
    char **name;
    const char *label;
  };

  tqp_instance_t *inst = ev.inst;
  char composite[1024] = "";
  for (const name_row &row : {name_row{&inst->tierName, "tierName"}, name_row{&inst->serverName, "serverName"},
                              name_row{&inst->appName, "appName"}}) {
    const char *text = next_but_not_last(ev);
    if (!text)
      return false;
    const size_t len = strlen(composite);
    snprintf(composite + len, sizeof composite - len, "%s%s", row.name == &inst->tierName ? "" : "_", text);
    replace_name(row.name, text, row.label);
  }
  // A shorter name that begins the file's name passes.
  if (strncmp(inst->tier_server_app_name, composite, strlen(composite)) == 0)
    return true;
  wllb_trace(1, "Error", "tsa name %s is not matched with tqp_instance_tptr->tier_server_app name %s", composite,
             inst->tier_server_app_name);
  return false;
}

// Blob files are named by the application's id, so two instances with the same one would write over each other's blobs:
// the first one keeps it as long as it lives.
static bool belongs_to_another(const tqp_instance_t *inst, int app_id) WLLB_REQUIRES(tqp_imap_lock) {
  for (const tqp_instance_t *other : tqp_imap) {
    if (!other || other == inst || !other->has_identity || other->appID != app_id)
      continue;
    wllb_trace(1, "Critical", "CRITICAL ERROR: %s | Its application id %d is that of %s, so its file is not read.",
               inst->tier_server_app_name, app_id, other->tier_server_app_name);
    return true;
  }
  return false;
}

// 0; -1 for a record that ends early or belongs to another file; -2 for one with another instance's id. Others see the names and the ids at once.
static int parse_tq_ev_tsa_id_header(tq_event &ev) {
  wllb_hold hold(tqp_imap_lock);
  ev.inst->has_identity = false;
  if (!read_names(ev))
    return -1;
  for (int *id : {&ev.inst->tierID, &ev.inst->serverID}) {
    const char *text = next_but_not_last(ev);
    if (!text)
      return -1;
    *id = atoi(text);
  }
  const int app_id = atoi(ev.f.next());
  if (belongs_to_another(ev.inst, app_id))
    return -2;
  ev.inst->appID = app_id;
  ev.inst->has_identity = true;
  return 0;
}

static void name_thread(const tqp_instance_t *inst) {
  char name[16];
  snprintf(name, sizeof name, "TQP_%d_%d_%d", inst->tierID, inst->serverID, inst->appID);
  if (pthread_setname_np(pthread_self(), name) != 0)
    wllb_trace(1, "Error", "Unable to set thread Name for instance %s", inst->tier_server_app_name);
}

void tq_run_identity(tq_event &ev) {
  tqp_instance_t *inst = ev.inst;
  const int result = parse_tq_ev_tsa_id_header(ev);
  if (result < 0) {
    inst->get_tsa_id = static_cast<char>(-result);
    return;
  }
  name_thread(inst);
  if (!resume_flag || inst->flag_loc2norm_read)
    return;
  wllb_trace(1, "Info", "Reading local 2 normalized mapping tables");
  read_loc2norm_rec_file(inst, 65535);
  // A run over a chosen range that found no recovery file tries again at the next identity record.
  inst->flag_loc2norm_read = inst->recovery_file_found || !tqp_is_offline();
}

static std::string fpg_version_path(const tqp_instance_t *inst) {
  return wllb_format("%s/webapps/logs/TR%d/tq/recovery/%s/tqp/.fpg_version", wl_wdir, testidx,
                     inst->tier_server_app_name);
}

void write_fpg_version_in_file(tqp_instance_t *inst) {
  const std::string path = fpg_version_path(inst);
  if (!tqp_replace_data_file(path, wllb_format("%f", static_cast<double>(inst->fpg_version))))
    wllb_trace(1, "Error", "Error in opening file[%s],Error [%s],errno= [%d]", path.c_str(),
               wllb_strerror(errno).c_str(), errno);
}

void set_fpg_version_from_file(tqp_instance_t *inst) {
  const std::string path = fpg_version_path(inst);
  const wllb_file file = tqp_open_plain_file(path, "r");
  if (!file) {
    wllb_trace(1, "Error", "Not able to open file[%s],Error [%s],errno= [%d],tqp_instance_tptr->fpg_version [%f]",
               path.c_str(), wllb_strerror(errno).c_str(), errno, static_cast<double>(inst->fpg_version));
    return;
  }
  char text[64];
  text[fread(text, 1, sizeof text - 1, file.get())] = 0;
  inst->fpg_version = strtof(text, nullptr);
}

static int agent_type_of(const char *text) {
  static constexpr const char *kinds[] = {"JAVA", "DOTNET", "NODEJS"};
  for (int kind = 0; kind < 3; ++kind)
    if (strncmp(text, kinds[kind], strlen(kinds[kind])) == 0)
      return kind;
  return -1;
}

void tq_run_new_connection(tq_event &ev) {
  tqp_instance_t *inst = ev.inst;
  dump_all_incomplete_flowpaths(inst); // the old agent's open flowpaths will never complete
  inst->fpg_version = 0;
  ev.f.next();
  if (ev.f.ended)
    return;
  const char *version = ev.f.next();
  if (strncmp(version, "FPGVersion:1.0", 14) == 0 || strncmp(version, "FPGVersion:2.0", 14) == 0)
    inst->fpg_version = strtof(version + 11, nullptr);
  write_fpg_version_in_file(inst);
  inst->agent_type = agent_type_of(ev.f.next());
}
