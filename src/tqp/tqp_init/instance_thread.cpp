// The life of one instance: its thread's entry, where it goes on, what is made for it and what is freed.
//   In      a record with a name, from discovery
//   Out     the reader loop's life; at the end every buffer written, every file closed, the summary report
//   Thread  the instance's; tq_close_app_instance also runs on main for records whose thread has left them behind
//   Failure without a partition the thread ends and its entry stays

#include "instance_registry.h"
#include "output_wait.h"
#include "state_save.h"
#include "tqp_async_handling.h"
#include "tqp_csv_files.h"
#include "tqp_init.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"
#include "tqp_run_time_v2.h"
#include "tqp_stat_mon.h"
#include "tqp_tags.h"

#include "wllb_partition.h"

#include <csignal>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

// --- running as an instance ----------------------------------------------------------------------------------

tqp_running_as::tqp_running_as(tqp_instance_t *inst) : before(tqp_instance_tptr), trace_before(wllb_trace_self) {
  tqp_instance_tptr = inst;
  wllb_trace_self = {inst->tier_server_app_name, &inst->debug_level};
}

tqp_running_as::~tqp_running_as() {
  tqp_instance_tptr = before;
  wllb_trace_self = trace_before;
}

void set_debug_for_instance(tqp_instance_t *inst) {
  inst->debug_level = wllb_trace_mask(tq_trace_level);
}

char *get_tier_server_app_with_display_name(const tqp_instance_t *inst, char *dst, size_t n, char sep) {
  if (dst)
    snprintf(dst, n, "%s%c%s%c%s", inst->tierName, sep, inst->serverName, sep, inst->appName);
  return dst;
}

// The level file names instances from its second line on; the first holds the level, which the handle has taken.
void tqp_set_debug_level_on_instance() {
  if (!wllb_path_exists(outside_paths.trace_level_conf.c_str()))
    return;
  const std::string text = wllb_read_small_file(outside_paths.trace_level_conf.c_str());
  const uint32_t mask = trkey->log_level;
  int line_number = 0;
  const auto set_where = [&](const auto &wanted) {
    bool found = false;
    tqp_for_each_instance([&](tqp_instance_t *inst) {
      if (!wanted(inst))
        return;
      inst->debug_level = mask;
      found = true;
      wllb_trace(1, "Info", "TQP TRACE LEVEL changed to %u", mask);
    });
    return found;
  };
  for (std::string_view rest = text; !rest.empty();) {
    const std::string name(wllb_take_piece(&rest, '\n'));
    if (name.empty() || strchr("# \t", name[0]) || ++line_number == 1)
      continue;
    if (!set_where([&](const tqp_instance_t *inst) { return name == inst->tier_server_app_name; }))
      wllb_trace(1, "Error", "Instance '%s' not found in tqp_imap active list", name.c_str());
  }
  if (line_number == 1)
    set_where([](const tqp_instance_t *) { return true; });
}

// --- thread entry -------------------------------------------------------------------------------------------------

static void block_process_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGCHLD, SIGTERM, SIGRTMIN + 3, SIGRTMIN + 4, SIGRTMIN + 6})
    sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// True when the job really is the removal of this instance's recovery files: its number may have been given to another
// since.
static bool is_removal_job_of(const std::string &job, const char *name) {
  // at(1) shows the environment first, then the command; one line follows it.
  const std::string text = wllb_run_program({"at", "-c", job}).output;
  std::string_view command, last;
  for (std::string_view rest = text; !rest.empty();) {
    command = last;
    last = wllb_take_piece(&rest, '\n');
  }
  const size_t path = command.find("tq/recovery");
  const size_t at = path == std::string::npos ? path : command.find(std::string("/") + name, path);
  if (at == std::string::npos)
    return false;
  const size_t behind = at + 1 + strlen(name);
  return behind >= command.size() || !(isalnum(static_cast<unsigned char>(command[behind])) || command[behind] == '_');
}

// The instance is back: its recovery files stay.
static void cancel_removal_of_recovery_files(const tqp_instance_t *inst) {
  const char *name = inst->tier_server_app_name;
  const std::string path = wllb_format("%s/logs/TR%d/tq/recovery/%s/tqp/.atjob.id", wl_wdir, testidx, name);
  if (!wllb_is_regular_file(path.c_str()))
    return;
  const int number = atoi(wllb_read_small_file(path.c_str(), 64).c_str());
  unlink(path.c_str());
  if (number == 0)
    return;
  const std::string job = std::to_string(number);
  if (is_removal_job_of(job, name) && wllb_run_program({"at", "-d", job}).exit_status == 0)
    wllb_trace(1, "Info", "job  %s is  successfully removed for instance %s", job.c_str(), name);
  else
    wllb_trace(1, "Error", "Unable to remove the job  %s for instance %s", job.c_str(), name);
}

// The partition to begin from; not above 0 when there is none.
static int64_t newest_partition_of_run() {
  if (!tqp_is_offline())
    return wllb_get_cur_partition(base_dir.c_str());
  return end_partition_idx > 0 ? end_partition_idx : start_partition_idx;
}

static void take_partition(tqp_instance_t *inst, int64_t partition) {
  {
    wllb_hold hold(inst->test_run_swtch_mutex);
    inst->test_run_swtch_flag = 0;
  }
  snprintf(inst->partition_name, sizeof inst->partition_name, "%lld", static_cast<long long>(partition));
  // Its number stays 0 until the instance is placed: others who leave a partition must not take it for one ahead of them.
}

static time_t begin_of_partition(const char *partition) {
  return wllb_get_vexepoch_time_from_partition(partition, g_vex_epoc_diff, -1, base_dir.c_str());
}

// After the partition to go on in is known: those before it, its begin, and at last its number, which others look at.
static void place_instance(tqp_instance_t *inst) {
  inst->partition_begintime = begin_of_partition(inst->partition_name);
  int64_t prev = 0;
  if (wllb_get_prev_partition(base_dir.c_str(), inst->partition_name, &prev) == 0) {
    snprintf(inst->prev_partition_name, sizeof inst->prev_partition_name, "%lld", static_cast<long long>(prev));
    inst->prev_partition_idx = prev;
    inst->prev_partition_begintime = begin_of_partition(inst->prev_partition_name);
  }
  if (resume_flag && !tqp_is_offline())
    inst->resumed_partition = atoll(inst->partition_name);
  tqp_take_place(inst, atoll(inst->partition_name));
}

static void make_files(tqp_instance_t *inst) {
  set_csvfilepath_in_tqp_instance(inst, inst->partition_name);
  create_tq_dir_and_subdir(inst, inst->partition_name);
  if (tqp_is_offline()) {
    create_csv_files_ex(inst, 1);
    inst->raw_data_file_offset = 0;
  } else {
    create_csv_files(inst, 1);
  }
}

static void count_running_thread() {
  wllb_hold hold(tqp_imap_lock);
  ++total_num_running_threads;
}

void *process_raw_data(void *arg) {
  auto *inst = static_cast<tqp_instance_t *>(arg);
  block_process_signals();
  count_running_thread();
  tqp_instance_tptr = inst;
  wllb_trace_self = {inst->tier_server_app_name, &inst->debug_level};
  const tqp_waits_for_output waits(inst);
  const tqp_descriptor_claim descriptors;
  if (pthread_setname_np(pthread_self(), "TQP_NEWINSTANCE") != 0)
    wllb_trace(1, "Error", "Unable to set thread Name for instance %s", inst->tier_server_app_name);
  if (!tqp_is_offline())
    cancel_removal_of_recovery_files(inst);
  const int64_t partition = newest_partition_of_run();
  if (partition <= 0) {
    wllb_trace(
        1, "Critical",
        "CRITICAL ERROR: %s | Unable to get current partiton. Library function wllb_get_cur_partition()  returned '%lld'. Please check that file  '%s/.curPartition.txt' is present and disk space is available.  Exiting the instance thread.",
        inst->tier_server_app_name, static_cast<long long>(partition), base_dir.c_str());
    return nullptr;
  }
  inst->active_flag = 1;
  set_debug_for_instance(inst);
  take_partition(inst, partition);
  set_csvfilepath_in_tqp_instance(inst, inst->partition_name);
  create_tq_dir_and_subdir(inst, inst->partition_name);
  create_csv_files(inst, 0);
  if (tqp_is_offline())
    tqp_discover_partition_to_resume_ex(inst, start_partition_idx);
  else
    tqp_discover_partition_to_resume(inst);
  place_instance(inst);
  make_files(inst);
  tq_init_app_instance(inst);
  set_fpg_version_from_file(inst);
  process_data(inst, tqp_raw_file_path(inst));
  return nullptr;
}

static constexpr wllb_growth data_buf_growth = {0, 0, "Data Buffer"};
static constexpr wllb_growth recent_fpi_growth = {0, 1, "tqp_instance_tptr->recent_fpi_array"};

// --- made and freed -------------------------------------------------------------------------------------------------

void tq_init_app_instance(tqp_instance_t *inst) {
  set_debug_for_instance(inst);
  inst->flag_close_done = 0;
  inst->sql_first_time = 1;
  if (!inst->url_map.data) {
    wllb_zarray_reserve(inst->url_map, 1, url_map_growth);
    inst->url_map.data[0] = norm_id_flag;
  }
  wllb_zarray_reserve(inst->method_map, 1, method_map_growth);
  wllb_zarray_reserve(inst->bci_arg_id_map, 1, bci_arg_id_map_growth);
  wllb_zarray_reserve(inst->recent_fpi_array, max_fi_array_entries, recent_fpi_growth);
  const std::string directory =
      wllb_format("%s/logs/TR%d/tq/recovery/%s/tqp", wl_wdir, testidx, inst->tier_server_app_name);
  if (mkdir_ex((directory + "/tmpfile").c_str()) != 0)
    wllb_trace(1, "Error", "ERROR creating recovery directory %s", directory.c_str());
  tqp_own_directory(directory.c_str());
}

static bool file_ends_with_data_over(FILE *file) {
  constexpr long tail = 5;
  char text[tail + 1];
  fseek(file, 0, SEEK_END);
  const long size = ftell(file);
  fseek(file, size < tail ? 0 : -tail, size < tail ? SEEK_SET : SEEK_END);
  const size_t got = fread(text, 1, tail, file);
  const std::string_view seen(text, got);
  return seen.find(size < tail ? "10," : "\n10,") != std::string_view::npos;
}

bool is_tq_data_over_event_logged(const tqp_instance_t *inst) {
  // The path has no partition in it, so the file is hardly ever there.
  const std::string path =
      wllb_format("%s/webapps/logs/TR%d/tq/raw_data/%s.txt", wl_wdir, testidx, inst->tier_server_app_name);
  if (!wllb_is_regular_file(path.c_str()))
    return false;
  const wllb_file file(my_fopen(path.c_str(), "r"));
  if (!file) {
    fprintf(stderr, "Error in opening file %s, err = %s, errno = %d\n", path.c_str(), wllb_strerror(errno).c_str(),
            errno);
    return false;
  }
  return file_ends_with_data_over(file.get());
}

static void close_files(tqp_instance_t *inst) {
  for (FILE *&stream : inst->csv_file_pointers)
    tqp_close_stream(&stream);
  for (FILE *&stream : inst->prev_csv_file_pointers)
    tqp_close_stream(&stream);
  tqp_close_stream(&inst->sqb_fp);
  tqp_close_stream(&inst->prev_sqb_fp);
}

static void free_buffers(tqp_instance_t *inst) {
  tqp_free_metadata_buffers(inst);
  for (wllb_text *text :
       {&inst->sql_record_data_buf, &inst->excp_data_buf, &inst->http_header_data_buf, &inst->bciarg_data_buf,
        &inst->jms_data_buf, &inst->sqb_file_buf, &inst->flowpath_sqb_buffer, &inst->segment_list_buf})
    wllb_text_free(*text, "instance buffer");
  wllb_zarray_free(inst->data_buf, data_buf_growth);
  wllb_zarray_free(inst->recent_fpi_array, recent_fpi_growth);
  free(inst->csvfilepath);
  free(inst->commoncsvfilepath);
  inst->csvfilepath = inst->commoncsvfilepath = nullptr;
}

void tqp_free_instance_data(tqp_instance_t *inst) {
  close_files(inst);
  free_buffers(inst);
  tqp_free_local_maps(inst);
  tqp_free_global_texts(inst);
  tqp_free_flowpath_store(inst);
}

int tq_close_app_instance(tqp_instance_t *inst) {
  if (!inst || inst->flag_close_done)
    return 1;
  if (is_tq_data_over_event_logged(inst))
    inst->tq_data_over = 1;
  csv_dump_all_files(inst);
  dump_all_incomplete_flowpaths(inst);
  tqp_save_auto_topology();
  save_tqp_app_instance_thread_state(inst);
  tqp_free_instance_data(inst);
  {
    wllb_hold hold(summary_report_mutex);
    print_summary_report(inst);
  }
  inst->flag_close_done = 1;
  return 0;
}

void tqp_free_instance_names(tqp_instance_t *inst) {
  for (char **name : {&inst->tierName, &inst->serverName, &inst->appName}) {
    free(*name);
    *name = nullptr;
  }
  wllb_free_block(inst->tier_server_app_name, strlen(inst->tier_server_app_name) + 1, "tier_server_app_name");
  inst->tier_server_app_name = nullptr;
}
