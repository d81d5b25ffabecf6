// The threads beside the instances': the collector's control channel and the two monitors.
//   In      tqc_port and the keywords that switch monitors on
//   Out     running threads; they leave when wl_status leaves 1
//   Thread  main
//   Failure a thread that cannot be made ends the process with -1; a failed join is traced

#include "process_frame.h"

#include "control_channel.h"
#include "tqp_fp_stats_mon.h"
#include "tqp_stat_mon.h"
#include "wllb_fail.h"

#include <pthread.h>

struct service_row {
  const char *name;
  bool (*wanted)();
  void *(*entry)(void *);
};

// In the order of their start. The control channel is waited for last.
static const service_row service_rows[] = {
    {"TQP_TQC_COMM", [] { return true; }, tqp_tqc_comm},
    {"TQP_FP_STAT_MON", [] { return enable_fp_stat_mon != 0; }, send_fp_stat_data_to_wl},
    {"TQP_HEALTH_MON", [] { return tqp_enable_health_mon && tqp_enable_auto_mon_reg; }, init_tqp_monitor},
};
constexpr int service_count = static_cast<int>(sizeof service_rows / sizeof *service_rows);
constexpr int join_order[service_count] = {1, 2, 0};

struct service_thread {
  pthread_t id;
  bool started;
};

static service_thread service_threads[service_count];

static void start(const service_row &row, service_thread *thread) {
  const int error = pthread_create(&thread->id, nullptr, row.entry, nullptr);
  if (error != 0) {
    wllb_trace(1, "Error", "Error in pthread_create, errno = %d, error = '%s'", error, wllb_strerror(error).c_str());
    wllb_fail(-1, "thread %s cannot be started: %s", row.name, wllb_strerror(error).c_str());
  }
  thread->started = true;
  pthread_setname_np(thread->id, row.name);
}

void tqp_start_service_threads() {
  if (tqc_port == -1)
    return;
  for (int i = 0; i < service_count; ++i)
    if (service_rows[i].wanted())
      start(service_rows[i], &service_threads[i]);
}

void tqp_join_service_threads() {
  for (const int i : join_order) {
    service_thread *thread = &service_threads[i];
    if (!thread->started)
      continue;
    thread->started = false;
    const int error = pthread_join(thread->id, nullptr);
    if (error != 0)
      wllb_trace(1, "Error", "Error in pthread_join, errno = %d, error = '%s'", error, wllb_strerror(error).c_str());
  }
}
