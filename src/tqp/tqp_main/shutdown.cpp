// The end of the process, in its fixed order.
//   In      wl_status not 1: every other thread is on its way out
//   Out     the done file of the newest partition after a normal end; the last lines on standard output
//   Thread  main; the instance threads are gone after the wait, which has no limit
//   Failure nothing here stops the rest from being done

#include "process_frame.h"
#include "tag_ids.h"
#include "tqp_init.h"
#include "tqp_process_data.h"
#include "upload_child.h"

#include <algorithm>
#include <unistd.h>

static void finish_newest_partition() {
  const wllb_hold hold(check_and_create_partition_done_file_mutex);
  tqp_create_partition_done_file(g_partition_idx);
}

// The end that the parent asked for leaves the newest partition finished, and the upload child time; a stop does not.
static void end_with_upload_child() {
  const bool asked_for = sig_test_post_proc; // looked at once: the parent may still ask
  if (asked_for)
    finish_newest_partition();
  send_test_run_stop_signal_to_tqu_db_upload(asked_for ? 0 : 1);
}

static void close_done_file() {
  const wllb_hold hold(check_and_create_partition_done_file_mutex);
  tqpdone_fileptr_v2.reset();
}

static void print_last_lines() {
  const long seconds = static_cast<long>(std::max<time_t>(wllb_now() - init_time, 0));
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
  close(epfd);
  wllb_trace(1, "Info", "Test run stopped, joining threads");
  tqp_wait_for_instance_threads();
  tqp_join_service_threads();
  tqp_wait_for_instance_threads(); // the control thread may have started one meanwhile
  end_with_upload_child();
  tq_close();
  tqp_free_registry();
  tqp_free_norm_table();
  close_done_file();
  print_last_lines();
  close_trace_log();
}
