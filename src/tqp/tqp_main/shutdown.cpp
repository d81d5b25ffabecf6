// The end of the process, in its fixed order.
//   In      wl_status not 1: every other thread is on its way out
//   Out     the done file of the newest partition after a normal end; the last lines on standard output
//   Thread  main; the instance threads are gone after the wait, which has no limit
//   Failure nothing here stops the rest from being done

#include "process_frame.h"
#include "service_report.h"
#include "tag_ids.h"
#include "tqp_init.h"
#include "tqp_process_data.h"
#include "upload_child.h"

#include "wllb_partition.h"

#include <algorithm>
#include <unistd.h>

static void report_unread(int64_t partition, const std::vector<std::string> &files) {
  constexpr size_t most_named = 10;
  std::string names;
  for (size_t i = 0; i < files.size() && i < most_named; ++i)
    names += (i > 0 ? ", " : "") + files[i];
  const std::string line = wllb_format(
      "Partition %lld is not read to its end and not marked as done, raw files: %zu (%s%s)",
      static_cast<long long>(partition), files.size(), names.c_str(), files.size() > most_named ? ", ..." : "");
  wllb_trace(1, "Critical", "%s", line.c_str());
  fprintf(stderr, "%s\n", line.c_str());
}

// Reports each unfinished partition, the newest first, that an instance has not come to or was not found in. False when
// there is one.
static bool is_everything_read() WLLB_REQUIRES(check_and_create_partition_done_file_mutex) {
  bool all = true;
  int found = g_partition_idx > 0 ? 0 : -1;
  for (int64_t partition = g_partition_idx; found == 0 && !tqp_is_partition_done(partition);
       found = wllb_get_prev_partition(base_dir.c_str(), std::to_string(partition).c_str(), &partition)) {
    const std::vector<std::string> unread = tqp_unread_files(partition);
    if (!unread.empty())
      report_unread(partition, unread);
    all = all && unread.empty();
  }
  return all;
}

// A done partition hides those before it from the next start, so the newest one is marked only when nothing is unread.
// A stop marks nothing.
static void finish_newest_partition(bool asked_for) {
  const wllb_hold hold(check_and_create_partition_done_file_mutex);
  if (wl_status != WL_STOP_NOW && !tqp_is_offline() && is_everything_read() && asked_for)
    tqp_create_partition_done_file(g_partition_idx);
}

// The end that the parent asked for leaves the newest partition finished, and the upload child time; a stop does not.
static void end_with_upload_child() {
  const bool asked_for = sig_test_post_proc; // looked at once: the parent may still ask
  finish_newest_partition(asked_for);
  send_test_run_stop_signal_to_tqu_db_upload(asked_for && !sig_stop_comp ? 0 : 1);
}

static void close_done_file() {
  const wllb_hold hold(check_and_create_partition_done_file_mutex);
  tqpdone_fileptr_v2.reset();
}

static void print_last_lines() {
  const long seconds = static_cast<long>(wllb_monotonic_s() - init_time);
  puts("Processing completed for TQ Data!");
  printf("Total time taken = %02d:%02d:%02d\n", static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
         static_cast<int>(seconds % 60));
  fflush(stdout);
}

static void close_trace_log() {
  MTTraceLogKey *last = trkey;
  trkey = nullptr;
  if (last)
    wllb_clean_mt_trace_log(last);
}

void tqp_shutdown(int epfd) {
  wllb_trace(1, "Info", "Test run stopped, joining threads");
  tqp_wait_for_instance_threads(epfd);
  tqp_join_service_threads();
  tqp_wait_for_instance_threads(epfd); // the control thread may have started one meanwhile
  tqp_note_stopping();                 // only now: without a parent the wait is the work
  close(epfd);
  end_with_upload_child();
  tq_close();
  tqp_end_service_report();
  tqp_free_registry();
  tqp_free_norm_table();
  close_done_file();
  print_last_lines();
  close_trace_log();
}
