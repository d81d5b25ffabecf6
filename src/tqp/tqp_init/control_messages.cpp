// The collector's messages: a table of lines and what each one does.
//   In      lines of text from outside; nothing in them is trusted
//   Out     the newest partition, pending switches, started and deleted instances, signals to the upload child
//   Thread  the control thread
//   Failure a line that matches nothing is skipped; a name that cannot be one is traced, and its line ignored
// Samples:  tqc_control_req:action=test_run_switch;PARTITION_NAME=20261122110000
//           tqc_node_discovery_ctrl_msg:tierName=Tier;serverHost=Server;instance=App;
//           tqc_control_req:action=enableInstance Tier Server App

#include "control_channel.h"

#include "instance_registry.h"
#include "process_frame.h"
#include "process_wake.h"
#include "tqp_init.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"
#include "upload_child.h"

#include "wllb_partition.h"

#include <algorithm>
#include <cstring>
#include <set>

constexpr int metadata_type_nonprepared = 9;
constexpr int nonprepared_table_size = 262144;
constexpr size_t partition_digits = 14;
constexpr size_t most_missing_partitions = 100; // that may be announced before they are there
constexpr int most_told = 300;                  // bytes of an ignored line that are traced

struct control_line {
  const char *text;   // the whole line
  const char *action; // behind its first '=', or ""
};

static void tell_ignored(const control_line &line) {
  wllb_trace(1, "Warning", "Control message with an unusable name is ignored: '%.*s'", most_told, line.text);
}

// --- names -------------------------------------------------------------------------------------------------------

// "<tier>_<server>_<instance>"; empty when a part is missing.
static std::string instance_name(const std::string &tier, const std::string &server, const std::string &instance) {
  if (tier.empty() || server.empty() || instance.empty())
    return {};
  return tier + "_" + server + "_" + instance;
}

static std::string value_up_to(const char *text, char end) {
  return {text, strchrnul(text, end)};
}

// The values of "tierName=", "serverHost=" and "instance=", each looked for behind the one before it.
static std::string name_of_fields(const char *at) {
  std::string values[3];
  const char *const fields[3] = {"tierName=", "serverHost=", "instance="};
  for (int i = 0; i < 3; ++i) {
    at = strstr(at, fields[i]);
    if (!at)
      return {};
    at += strlen(fields[i]);
    values[i] = value_up_to(at, ';');
    at += values[i].size();
  }
  return instance_name(values[0], values[1], values[2]);
}

// The values of tokens that begin with "Tier", "Server" and "Instance".
static std::string name_of_tokens(const char *text) {
  constexpr int most_tokens = 10;
  std::string copy = text;
  char *tokens[most_tokens];
  const int count = get_tokens_with_multi_delimiter(copy.data(), tokens, ";", most_tokens);
  std::string values[3];
  const char *const begins[3] = {"Tier", "Server", "Instance"};
  for (int i = 0; i < count; ++i)
    for (int j = 0; j < 3; ++j) {
      const char *equals = strchr(tokens[i], '=');
      if (equals && strncmp(tokens[i], begins[j], strlen(begins[j])) == 0)
        values[j] = equals + 1;
    }
  return instance_name(values[0], values[1], values[2]);
}

// The words behind the action word; empty when there are too few.
static std::string name_of_words(const char *text) {
  const std::vector<std::string> words = wllb_words(text, 5);
  return words.size() < 4 ? std::string() : instance_name(words[1], words[2], words[3]);
}

// True for a line whose name, if it has one, can be an instance's.
static bool is_usable(const std::string &name, const control_line &line) {
  if (name.empty() || tqp_is_instance_name(name))
    return true;
  tell_ignored(line);
  return false;
}

// --- instances ---------------------------------------------------------------------------------------------------

static void add_instance(const std::string &name, const control_line &line) {
  if (!name.empty() && is_usable(name, line))
    searchInstanceInHashMap(name.c_str());
}

static void add_by_fields(const control_line &line) {
  add_instance(name_of_fields(line.text), line);
}

static void add_by_tokens(const control_line &line) {
  add_instance(name_of_tokens(line.action), line);
}

static void remove_by_fields(const control_line &line) {
  const std::string name = name_of_fields(line.text);
  if (!name.empty() && is_usable(name, line))
    setInstanceDisableFlag(name.c_str());
}

static void enable_instance(const control_line &line) {
  const std::string name = name_of_words(line.action);
  if (!is_usable(name, line))
    return;
  if (!name.empty())
    searchInstanceInHashMap(name.c_str());
  if (tqu_db_upload_pid < 1 && dbmode == 1) {
    wllb_trace(1, "Info", "Runtime Starting tqu_db_upload process");
    spawn_tqu_db_upload();
  }
}

// Its supervision starts the upload child again, and so it sees what has changed.
static void renew_upload_child() {
  const int pid = tqu_db_upload_pid;
  if (pid > 0) {
    wllb_trace(1, "Info", "Sending STOP_COMP_SIG to tqu_db_upload (process id '%d')", pid);
    kill(pid, SIGTERM);
  } else if (dbmode == 1) {
    spawn_tqu_db_upload();
  }
}

static void delete_instance(const std::string &name) {
  if (!name.empty())
    setInstanceDisableFlag(name.c_str());
  renew_upload_child();
}

static void disable_instance(const control_line &line) {
  const std::string name = name_of_words(line.action);
  if (!is_usable(name, line))
    return;
  wllb_trace(1, "Info", "Runtime Disabling Instance, '%s'", name.c_str());
  delete_instance(name);
}

static void remove_instance(const control_line &line) {
  const std::string name = name_of_words(line.action);
  if (!is_usable(name, line))
    return;
  wllb_trace(1, "Info", "Runtime Removing Instance, '%s'", name.c_str());
  delete_instance(name);
}

// --- the end -----------------------------------------------------------------------------------------------------

static void leave_on_error(const control_line &line) {
  wllb_trace(1, "Error", "Got error from TQC [%s] now going to exit", line.text);
  tqp_set_wl_status(WL_STOP_NOW);
}

// --- partition switch --------------------------------------------------------------------------------------------

// The partition that a line names, up to its first other byte; 0: none, or one that cannot be.
static int64_t partition_of(const control_line &line) {
  const char *field = strstr(line.text, "PARTITION_NAME=");
  if (!field)
    return 0;
  const char *value = strchr(field, '=') + 1;
  const bool good = strspn(value, "0123456789") == partition_digits;
  const int64_t partition = good ? strtoll(value, nullptr, 10) : 0;
  if (partition == 0)
    tell_ignored(line);
  return partition;
}

// False for a partition that is not there when too many such have been announced already.
static bool may_be_announced(int64_t partition) {
  static std::set<int64_t> missing;        // the control thread alone
  const auto is_there = [](int64_t each) { // a directory alone may be our own
    const auto name = static_cast<long long>(each);
    return wllb_path_exists(wllb_format("%s/%lld/.partition_info.txt", base_dir.c_str(), name).c_str());
  };
  if (partition == 0 || missing.contains(partition) || is_there(partition))
    return true;
  std::erase_if(missing, is_there);
  if (missing.size() >= most_missing_partitions) {
    wllb_trace(1, "Critical", "%zu announced partitions do not exist, so that of %lld is ignored", missing.size(),
               static_cast<long long>(partition));
    return false;
  }
  missing.insert(partition);
  return true;
}

// An instance that sees its raised flag also sees the new partition, which was stored before.
static void raise_switch_flags() {
  tqp_for_each_instance([](tqp_instance_t *inst) {
    const wllb_hold hold(inst->test_run_swtch_mutex);
    if (inst->partition_idx < g_partition_idx)
      inst->test_run_swtch_flag += 1;
  });
  tqp_wake_all();
}

// A thread that was made a moment ago stands in the registry before it counts itself.
static bool nobody_runs() {
  const wllb_hold hold(tqp_imap_lock);
  return total_num_running_threads == 0 &&
         std::none_of(tqp_imap.begin(), tqp_imap.end(), [](const tqp_instance_t *inst) { return inst; });
}

// Without a thread nobody will ever leave the old partition, so it is finished here; but not when a stop has ended them.
static void finish_left_partition(int64_t left) {
  const wllb_hold hold(check_and_create_partition_done_file_mutex);
  if (left == g_partition_idx || !nobody_runs() || !tqp_unread_files(left).empty() || wl_status == WL_STOP_NOW)
    return;
  wllb_trace(1, "Info",
             "As number of running threads = %d, so going to create .tqp_process_done_file in partition = %lld", 0,
             static_cast<long long>(left));
  tqp_create_partition_done_file(left);
}

static void signal_switch_to_upload_child() {
  const int pid = tqu_db_upload_pid;
  wllb_trace(1, "Info", "Sending PARTITION_SWITCH_SIG to tqu_db_upload (process id '%d')", pid);
  if (pid > 0)
    kill(pid, SIGRTMIN + 2);
}

// Non-prepared queries are remembered for a partition. An instance may have been given an id whose row it has yet to
// write, so the file alone does not say where the numbers go on.
static void renew_nonprepared_queries() {
  if (tqp_enable_string_similarity_for_sql)
    return;
  const wllb_hold hold(key_sql_query_mutex);
  const int highest = key_sql_nonprep_query.prev_id;
  wllb_obj_hash_destroy(&key_sql_nonprep_query);
  wllb_init_norm_id_table(&key_sql_nonprep_query, nonprepared_table_size);
  wllb_set_start_norm_id(&key_sql_nonprep_query, highest);
  tq_build_norm_tables_from_metadata_csv(metadata_type_nonprepared);
}

// A message without a partition's name has 0 in `entered`.
static void enter_partition(int64_t entered) {
  {
    const wllb_hold hold(tqp_mon_stat_info_mutex);
    ++tqp_mon_stat_info.process_done_lag_count;
  }
  const int64_t left = g_partition_idx;
  if (entered > 0) {
    scandir_count = 0;
    tqp_set_newest_partition(entered);
  }
  tqp_discover_instances(1); // what first appears in the new partition is served at once
  raise_switch_flags();
  finish_left_partition(left);
  signal_switch_to_upload_child();
  renew_nonprepared_queries();
}

static int64_t caught_up_with; // newest partition entered without a message; 0: none

static void switch_partition(const control_line &line) {
  const int64_t entered = partition_of(line);
  if (entered > 0 && entered <= caught_up_with)
    wllb_trace(1, "Info", "Partition %lld was entered before its message came", static_cast<long long>(entered));
  else if (may_be_announced(entered))
    enter_partition(entered);
}

void tqp_enter_missed_partitions() {
  const int64_t newest = wllb_get_cur_partition(base_dir.c_str());
  if (!is_partition(std::to_string(newest).c_str()))
    return;
  while (g_partition_idx > 0 && g_partition_idx < newest && wl_status == WL_RUNNING) {
    int64_t next;
    if (wllb_get_next_partition(wl_wdir, testidx, g_cur_partition.c_str(), &next) != 0 || next > newest)
      next = newest;
    wllb_trace(1, "Info", "Partition %lld began before the collector was connected", static_cast<long long>(next));
    enter_partition(next);
    caught_up_with = next;
  }
}

// --- the table ---------------------------------------------------------------------------------------------------

struct control_row {
  enum { WHOLE_LINE, ACTION } where; // what begins with the words

  const char *begins;
  void (*run)(const control_line &line);
};

// The first row that matches is run.
// clang-format off
constexpr control_row control_rows[] = {
  {control_row::WHOLE_LINE, "tqc_instance_inactive",        remove_by_fields},
  {control_row::WHOLE_LINE, "tqc_node_discovery_ctrl_msg:", add_by_fields},
  {control_row::ACTION,     "test_run_switch",              switch_partition},
  {control_row::ACTION,     "active_instance_msg",          add_by_tokens},
  {control_row::ACTION,     "fp_stats;result=Error",        leave_on_error},
  {control_row::ACTION,     "enableInstance",               enable_instance},
  {control_row::ACTION,     "disableInstance",              disable_instance},
  {control_row::ACTION,     "removeInstance",               remove_instance},
};

// clang-format on

static void run_line(const char *text) {
  const char *equals = strchr(text, '=');
  const control_line line = {.text = text, .action = equals ? equals + 1 : ""};
  for (const control_row &row : control_rows) {
    const char *looked_at = row.where == control_row::ACTION ? line.action : line.text;
    if (strncmp(looked_at, row.begins, strlen(row.begins)) == 0)
      return row.run(line);
  }
}

void process_message_from_tqc(char *buf) {
  char *line = buf;
  // A long row of messages does not hold up the end of the run.
  while (char *newline = wl_status == WL_RUNNING ? strchr(line, '\n') : nullptr) {
    *newline = 0;
    run_line(line);
    line = newline + 1;
  }
}
