// The body of an instance's thread: tails its raw file, hands whole lines on, moves from partition to partition, and
// does the periodic work that needs the instance's own thread.
//   In      a growing text file; wl_status, enable_flag and test_run_swtch_flag from other threads
//   Out     blocks of whole lines to tq_process_data; saves of the instance's state
//   Thread  the instance's; the read block lives on its stack
//   Failure a missing file is tried again every two minutes; only a failed identity record at the first line ends it

#include "output_wait.h"
#include "process_wake.h"
#include "state_save.h"
#include "tqp_async_handling.h"
#include "tqp_csv_files.h"
#include "tqp_init.h"
#include "tqp_process_data.h"
#include "tqp_run_time_v2.h"
#include "tqp_stat_mon.h"
#include "tqp_tags.h"

#include <cstring>

struct reader_t {
  tqp_instance_t *inst;
  std::string filepath;
  FILE *raw_fp = nullptr;      // null while there is no file
  size_t carried = 0;          // bytes at the front of buf that belong to a line not yet complete
  int is_test_running = 1;     // 0 ends the loop
  int open_wait_ms = 0;        // until the next attempt to open a missing file
  bool at_end = false;         // the last round has read the file to its end
  int idle_rounds = 0;         // counter_to_dump_incomplete_flowpath: rounds since bytes were last seen
  time_t last_force_write = 0; // s, monotonic clock, of the last timed flush
  char *buf = nullptr;         // tqp_raw_data_buf_size + 1 bytes
};

constexpr int open_retry_ms = 120000;
constexpr size_t first_line_room = 2048;

std::string tqp_raw_file_path(const tqp_instance_t *inst) {
  return wllb_format("%s/webapps/logs/TR%d/%s/tq/raw_data/%s.txt", wl_wdir, testidx, inst->partition_name,
                     inst->tier_server_app_name);
}

// --- the raw file --------------------------------------------------------------------------------------------

FILE *tqp_open_raw_file(tqp_instance_t *inst, const std::string &path) {
  FILE *raw_fp = my_fopen(path.c_str(), "r");
  if (raw_fp)
    tqp_note_raw_file_open(inst->tier_server_app_name, true);
  else
    wllb_trace(1, "Error", "Error in opening file %s, err = %s, errno = %d", path.c_str(), wllb_strerror(errno).c_str(),
               errno);
  return raw_fp;
}

static void close_raw_file(reader_t &r) {
  if (!r.raw_fp)
    return;
  tqp_close_stream(&r.raw_fp);
  tqp_note_raw_file_open(r.inst->tier_server_app_name, false);
}

// Bytes read; a null stream has none. A growing file's end is not for ever, so the stream's mark of it is cleared.
static size_t read_from_file(tqp_instance_t *inst, FILE *stream, char *buf, size_t n) {
  if (!stream)
    return 0;
  clearerr(stream);
  const size_t got = fread(buf, 1, n, stream);
  buf[got] = 0;
  if (got > 0) {
    tqp_instance_mon_stat_info_t &stats = inst->tqp_instance_mon_stat_info;
    wllb_hold hold(stats.tqp_instance_mon_str_lock);
    stats.raw_data_processed_size_mb += static_cast<uint32_t>(got);
  }
  return got;
}

char *get_last_newline_ptr(char *buf, size_t len) {
  if (len == 1)
    return buf[0] == '\n' ? buf : nullptr;
  return len < 2 ? nullptr : static_cast<char *>(memrchr(buf + 1, '\n', len - 1));
}

// The identity record stands in the first line: it is run ahead, so that it is known also when reading goes on in the
// middle of the file. False when it failed.
static bool run_first_line_ahead(reader_t &r) {
  char first[first_line_room + 1];
  const size_t got = read_from_file(r.inst, r.raw_fp, first, first_line_room);
  const auto *newline = static_cast<const char *>(memchr(first, '\n', got));
  if (!newline)
    return true;
  const auto len = static_cast<size_t>(newline + 1 - first);
  first[len] = 0;
  if (tq_process_data(r.inst, first, len, r.is_test_running) < 0) {
    fputs("Error : error in tq_process_data\n", stderr);
    return false;
  }
  r.inst->raw_data_file_offset -= static_cast<int64_t>(len);
  if (len > 1)
    r.idle_rounds = 0;
  return true;
}

// False when the first line's identity record failed.
static bool open_if_due(reader_t &r) {
  if (r.raw_fp || r.open_wait_ms > 0)
    return true;
  r.open_wait_ms = open_retry_ms;
  r.raw_fp = tqp_open_raw_file(r.inst, r.filepath);
  if (!r.raw_fp)
    return true;
  r.inst->file_not_present_count = 0;
  if (!run_first_line_ahead(r))
    return false;
  if (resume_flag && !tqp_is_offline())
    check_offset_file_and_seek_raw_file(r.inst, r.raw_fp);
  else
    fseek(r.raw_fp, 0, SEEK_SET);
  return true;
}

// --- periodic work ---------------------------------------------------------------------------------------------

void check_and_flush_csv_buffers(tqp_instance_t *inst, time_t *last_time) {
  const time_t now = wllb_monotonic_s();
  if (last_time && now - *last_time < force_upload_timeout)
    return;
  if (wllb_trace_on(2)) {
    const time_t time_of_day = wllb_now();
    const std::string at = wllb_local_time_text("%D %T", time_of_day);
    if (last_time)
      wllb_trace(2, "Info", "Force writing Flowpath and other csv files at '%s'. Was last force written at '%s'",
                 at.c_str(), wllb_local_time_text("%D %T", time_of_day - (now - *last_time)).c_str());
    else
      wllb_trace(2, "Info", "Force writing Flowpath and other csv files at '%s'", at.c_str());
  }
  tqp_save_auto_topology(); // before the offset moves on
  save_tqp_app_instance_thread_state(inst);
  if (last_time)
    *last_time = now;
}

static void hand_over_error_totals(tqp_instance_t *inst) {
  const int64_t now = wllb_monotonic_ms();
  if (now - inst->g_count_reset_ts < fp_stats_mon_frequency)
    return;
  inst->g_count_reset_ts = now;
  wllb_hold hold(tqp_mon_stat_info_mutex);
  for (rawerr_log_counter_t &counter : inst->rawerr_log_counter) {
    tqp_mon_stat_info.tqp_errors_count += static_cast<uint32_t>(counter.g_count);
    counter.g_count = 0;
  }
}

// Requests for metadata that were paused may be tried again after a while.
static void unpause_metadata_requests(tqp_instance_t *inst) {
  if (wl_status != WL_RUNNING || !inst->disable_req_metadata_from_bci || tqc_port <= 0)
    return;
  if (wllb_monotonic_s() - inst->last_meta_data_retry_time_in_sec > tqp_meta_data_recovery_retry_timeout_in_sec)
    inst->disable_req_metadata_from_bci = 0;
}

// Flowpaths whose responses are overdue, by the clock of the data.
static void sweep_overdue_responses(tqp_instance_t *inst) {
  if (inst->last_timestamp - inst->last_pending_callout_fp_checked_ts <= sec_to_check_pending_async_resp_fp)
    return;
  clear_async_resp_missed_flowpaths(inst);
  inst->last_pending_callout_fp_checked_ts = inst->last_timestamp;
}

// --- reading -----------------------------------------------------------------------------------------------------

// Hands on the whole lines among the first `total` bytes of the block and keeps the rest. False: the identity record
// failed, and the block stays as it is.
static bool run_block(reader_t &r, size_t total) {
  char *newline = get_last_newline_ptr(r.buf, total);
  if (!newline) {
    r.carried = total;
    return true;
  }
  const auto len = static_cast<size_t>(newline + 1 - r.buf);
  r.carried = total - len;
  const char saved = r.buf[len];
  r.buf[len] = 0;
  if (tq_process_data(r.inst, r.buf, len, r.is_test_running) < 0) {
    fputs("Error : error in tq_process_data\n", stderr);
    return false;
  }
  r.buf[len] = saved;
  memmove(r.buf, r.buf + len, r.carried);
  check_and_flush_csv_buffers(r.inst, &r.last_force_write);
  return true;
}

// The end of the file, for now: a line left at the front of the block goes on, and everything is written out.
static void idle_at_end_of_file(reader_t &r) {
  if (r.carried >= 1 && r.buf[r.carried - 1] == '\n') {
    if (tq_process_data(r.inst, r.buf, r.carried, r.is_test_running) < 0)
      wllb_trace(1, "Error", "Error in tq_process_data\n");
    else
      r.carried = 0;
  }
  check_and_flush_csv_buffers(r.inst, nullptr);
  r.last_force_write = wllb_monotonic_s();
  r.at_end = true;
}

static void read_to_end_of_file(reader_t &r) {
  r.at_end = false;
  for (;;) {
    if (wl_status == WL_STOP_NOW) {
      wllb_trace(1, "Info", "Thread is terminated.");
      return;
    }
    if (!r.raw_fp)
      return;
    tqp_dump_maps_if_asked(r.inst);
    hand_over_error_totals(r.inst);
    unpause_metadata_requests(r.inst);
    sweep_overdue_responses(r.inst);
    const size_t got =
        read_from_file(r.inst, r.raw_fp, r.buf + r.carried, static_cast<size_t>(tqp_raw_data_buf_size) - r.carried);
    if (got == 0)
      return idle_at_end_of_file(r);
    if (got > 1)
      r.idle_rounds = 0;
    if (!run_block(r, got + r.carried))
      return;
  }
}

// --- the end of a round ------------------------------------------------------------------------------------------

// What a switch does to the maps is seen by comparing.
static void dump_maps_when_tracing(const tqp_instance_t *inst) {
  if (wllb_trace_on(2))
    tqp_dump_maps_now(inst);
}

// Moves on by as many partitions as are pending, until one has the instance's file.
static void switch_partitions(reader_t &r) {
  tqp_instance_t *inst = r.inst;
  wllb_trace(1, "Info", "Test run switch flag is non zero ('%d'), Closing raw data file '%s'",
             static_cast<int>(inst->test_run_swtch_flag), r.filepath.c_str());
  close_raw_file(r);
  if (r.at_end)
    tqp_note_file_read(inst);
  int switch_result;
  do {
    const int64_t left = inst->partition_idx;
    dump_maps_when_tracing(inst);
    switch_result = switch_to_next_partition(inst, &r.raw_fp, &r.filepath);
    if (r.raw_fp && resume_flag && !tqp_is_offline())
      check_offset_file_and_seek_raw_file(inst, r.raw_fp);
    else if (r.raw_fp)
      tqp_make_offset_file(inst);
    set_csvfilepath_in_tqp_instance(inst, inst->partition_name);
    create_tq_dir_and_subdir(inst, inst->partition_name);
    if (tqp_is_offline())
      create_csv_files_ex(inst, 1);
    else
      create_csv_files(inst, 0);
    if (inst->partition_idx > left) // a switch too many leaves the instance where it is
      check_and_create_partition_done_file(inst, left);
    dump_maps_when_tracing(inst);
  } while (switch_result == 0 && inst->test_run_swtch_flag != 0 && wl_status != WL_STOP_NOW);
  // A fragment left at the old file's end joins the new one's first bytes; it will count as read with them, but does not
  // stand in this file.
  if (switch_result == 0)
    r.carried = 0;
  else
    inst->raw_data_file_offset -= static_cast<int64_t>(r.carried);
}

static void forget_needless_switch(tqp_instance_t *inst) {
  wllb_trace(
      1, "Info",
      "Test run switch flag is non zero ('%d'), but the thread is in current partition, Forcing set to 0 after checking for current partition once more after securing lock",
      static_cast<int>(inst->test_run_swtch_flag));
  wllb_hold hold(inst->test_run_swtch_mutex);
  if (inst->partition_idx == g_partition_idx)
    inst->test_run_swtch_flag = 0;
}

static bool file_is_gone(const tqp_instance_t *inst, int partitions) {
  return inst->file_not_present_count >= partitions && inst->test_run_swtch_flag == 0;
}

static bool is_deleted(const tqp_instance_t *inst) {
  return (inst->enable_flag & INSTANCE_DELETE) != 0;
}

static bool is_finished(const tqp_instance_t *inst) {
  return wl_status == WL_OVER || is_deleted(inst) || file_is_gone(inst, 2) || inst->partition_idx == end_partition_idx;
}

static bool is_switch_honoured(const tqp_instance_t *inst) {
  const char status = wl_status; // looked at once: it may change
  return inst->test_run_swtch_flag != 0 && status != WL_STOP_NOW && (status == WL_RUNNING || tqc_port == -1);
}

// Whether a round that ends now leaves the file.
static bool is_leaving(const tqp_instance_t *inst) {
  return is_switch_honoured(inst) ? inst->partition_idx != g_partition_idx : is_finished(inst);
}

static void end_round(reader_t &r) {
  tqp_instance_t *inst = r.inst;
  tqp_dump_maps_if_asked(inst);
  if (wl_status == WL_STOP_NOW) { // the file may not have been read to its end: no switch, no close
    r.is_test_running = 0;
    return;
  }
  if (is_switch_honoured(inst)) {
    if (inst->partition_idx != g_partition_idx)
      switch_partitions(r);
    else
      forget_needless_switch(inst);
  } else if (is_finished(inst)) {
    wllb_trace(1, "Info", "Resetting the is_test_running flag");
    r.is_test_running = 0;
    tq_close_app_instance(inst);
    if (r.at_end)
      tqp_note_file_read(inst);
  }
}

static void sleep_a_round(reader_t &r) {
  if (!tqp_sleep_or_wake(tqp_new_raw_data_poll_interval))
    return; // woken early: rounds are counted by time
  if (++r.idle_rounds == g_sleep_count_to_dump_fp) {
    wllb_trace(1, "Info", "dumping incomplete flowpath, jvmid = %d, file %s, counter_to_dump_incomplete_flowpath=%d",
               r.inst->jvmid, r.filepath.c_str(), r.idle_rounds);
    dump_all_incomplete_flowpaths(r.inst);
    r.idle_rounds = 0;
  }
  r.open_wait_ms -= tqp_new_raw_data_poll_interval;
}

// --- leaving -------------------------------------------------------------------------------------------------------

static std::string first_job_number(const std::string &at_output) {
  const size_t job = at_output.rfind("job ", 0) == 0 ? 0 : at_output.find("\njob ");
  if (job == std::string::npos)
    return {};
  const std::vector<std::string> words = wllb_words(at_output.substr(job), 2);
  return words.size() == 2 ? words[1] : std::string();
}

// A machine that keeps nothing of instances that are gone: their recovery files are removed later, by at(1).
static void schedule_removal_of_recovery_files(const tqp_instance_t *inst) {
  const char *name = inst->tier_server_app_name;
  const std::string directory = wllb_format("%s/logs/TR%d/tq/recovery/%s", wl_wdir, testidx, name);
  std::vector<std::string> argv = {"at", "now", "+"};
  for (const std::string &word : wllb_words(deleted_instance_cleanup_delay, 4))
    argv.push_back(word);
  const wllb_run_result run = wllb_run_program(argv, "rm -r " + wllb_shell_quote(directory) + "\n");
  const std::string job = first_job_number(run.output);
  if (job.empty()) {
    wllb_trace(1, "Error", "Unable to set the job  %s for instance %s", job.c_str(), name);
    return;
  }
  wllb_trace(1, "Info", "Added at job for removing recovery files; will be executed after %s",
             deleted_instance_cleanup_delay);
  const std::string path = directory + "/tqp/.atjob.id";
  const tqp_waits_for_output spared(nullptr);
  if (!tqp_write_data_file(path.c_str(), job)) {
    wllb_trace(1, "Error", "Could not open file %s for writing", path.c_str());
    return;
  }
  wllb_trace(1, "Info", "Added at job id (%s) in file %s", job.c_str(), path.c_str());
}

static void leave(reader_t &r) {
  tqp_instance_t *inst = r.inst;
  close_raw_file(r);
  tqp_close_stream(&inst->raw_data_file_offset_fp);
  wllb_trace(1, "Info", "Processing over for jvmid = %d, file %s", inst->jvmid, r.filepath.c_str());
  if (machine_mode.rfind("TQE", 0) == 0 && (is_deleted(inst) || file_is_gone(inst, 2)))
    schedule_removal_of_recovery_files(inst);
  dump_all_incomplete_flowpaths(inst);
  tqp_free_flowpath_store(inst); // before its pools go
  wllb_mp_destroy(&inst->tqp_flowpath_seg_pool);
  wllb_mp_destroy(&inst->tqp_flowpath_pending_seg_pool);
  tqp_take_place(inst, nowhere_to_read);
  tqp_release_instance(inst);
}

void process_data(tqp_instance_t *inst, std::string filepath) {
  char block[tqp_raw_data_buf_size + 1];
  reader_t r = {.inst = inst, .filepath = std::move(filepath), .buf = block};
  r.last_force_write = wllb_monotonic_s();
  inst->g_count_reset_ts = wllb_monotonic_ms();
  inst->meta_recovery_counter = 0;
  wllb_mp_init(&inst->tqp_flowpath_seg_pool, sizeof(segment_fp_t), 8, 8, 0);
  wllb_mp_init(&inst->tqp_flowpath_pending_seg_pool, sizeof(pending_segment_fp_t), 8, 8, 0);
  while (r.is_test_running) {
    if (!open_if_due(r)) {
      // The entry stays in the registry on purpose: nothing else may serve a file that belongs elsewhere.
      close_raw_file(r);
      if (inst->get_tsa_id != 2)
        return;
      while (wl_status == WL_RUNNING &&
             !is_deleted(inst)) // a file that only has its id in common may not hold up the end
        tqp_sleep_or_wake(tqp_new_raw_data_poll_interval);
      return leave(r);
    }
    const bool was_leaving = is_leaving(inst);
    read_to_end_of_file(r);
    if (!was_leaving && is_leaving(inst) && wl_status != WL_STOP_NOW)
      continue; // asked since the file's end was seen: what was written before that is read first
    end_round(r);
    if (r.is_test_running)
      sleep_a_round(r);
  }
  leave(r);
}
