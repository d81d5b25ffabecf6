// What a service manager and a collector of metrics learn about the process; see the header.
//   In      numbers of the process and of each instance; TQP_METRICS_FILE_SEC; the manager's environment
//   Out     readiness, signs of life, the end; a text file of metrics, replaced as a whole
//   Thread  main starts and ends it; "TQP_SERVICE" between, the registry under its lock, the counters under theirs
//   Failure a file that cannot be written is traced once; the work goes on
// A sign of life is sent only after a walk over the registry, so that a process that hangs there is noticed.

#include "service_report.h"

#include "tqp_init.h"
#include "tqp_stat_mon.h"

#include "wllb_fail.h"
#include "wllb_notify.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>

namespace {
struct service_thread {
  std::mutex mutex;
  std::condition_variable wake;
  bool over = false; // under mutex
  int64_t metrics_ms = 0, watchdog_ms = 0;
  pthread_t id = {};
  bool started = false; // main's
  std::atomic<time_t> started_at{0};
};

service_thread service;
} // namespace

// --- metrics -----------------------------------------------------------------------------------------------------

namespace {
using instance_counts = tqp_instance_mon_stat_info_t;

struct counter_row {
  const char *metric, *label; // one metric has its rows side by side
  uint32_t instance_counts::*count;
  const char *help; // null: the same metric as the row before
};

// In the order of tqp_instance_mon_stat_info_t::totals.
constexpr counter_row counter_rows[] = {
    // clang-format off
  {"tqp_flowpath_steps_total",         "",                               &instance_counts::processed_flowpath_count,       "Segments completed, and flowpath rows written"},
  {"tqp_raw_data_bytes_total",         "",                               &instance_counts::raw_data_processed_size_mb,     "Bytes of raw data read"},
  {"tqp_metadata_requests_total",      "",                               &instance_counts::metadata_recovery_req_count,    "Metadata requests to the agent"},
  {"tqp_large_flowpath_records_total", "",                               &instance_counts::large_flowpaths_count,          "Records of large flowpaths"},
  {"tqp_late_flowpaths_total",         ",partition=\"previous\"",        &instance_counts::prv_partition_flowpath_count,   "Flowpaths of earlier partitions"},
  {"tqp_late_flowpaths_total",         ",partition=\"older\"",           &instance_counts::older_partition_flowpath_count, nullptr},
  {"tqp_errors_total",                 ",kind=\"bad_record\"",           &instance_counts::invalid_rawdata_count,          "Errors in raw data"},
  {"tqp_errors_total",                 ",kind=\"entry_record_missing\"", &instance_counts::entry_record_missing_count,     nullptr},
  {"tqp_errors_total",                 ",kind=\"bad_method_timestamp\"", &instance_counts::invalid_method_timestamp_count, nullptr},
  {"tqp_errors_total",                 ",kind=\"dead_flowpath\"",        &instance_counts::dead_flowpath_count,            nullptr},
    // clang-format on
};
static_assert(std::size(counter_rows) == std::extent_v<decltype(instance_counts::totals)>);

struct instance_numbers {
  std::string name;
  uint64_t totals[std::size(counter_rows)];
  int64_t partition, offset, raw_size;
};

// A label's text, with what would end it escaped.
std::string label_text(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '"')
      escaped += '\\';
    if (c == '\n')
      escaped += "\\n";
    else
      escaped += c;
  }
  return escaped;
}

instance_numbers take_instance(tqp_instance_t *inst) {
  instance_numbers taken = {.name = inst->tier_server_app_name ? inst->tier_server_app_name : "",
                            .totals = {},
                            .partition = inst->partition_idx,
                            .offset = inst->raw_data_file_offset,
                            .raw_size = 0};
  instance_counts &n = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(n.tqp_instance_mon_str_lock);
  tqp_add_up_counts(&n);
  std::copy(std::begin(n.totals), std::end(n.totals), taken.totals);
  return taken;
}

std::vector<instance_numbers> take_instances() {
  std::vector<instance_numbers> taken;
  tqp_for_each_instance([&taken](tqp_instance_t *inst) { taken.push_back(take_instance(inst)); });
  for (instance_numbers &n : taken) { // no lock is held while a file is looked at
    const std::string raw_file = wllb_format("%s/webapps/logs/TR%d/%lld/tq/raw_data/%s.txt", wl_wdir, testidx,
                                             static_cast<long long>(n.partition), n.name.c_str());
    struct stat found;
    n.raw_size = stat(raw_file.c_str(), &found) == 0 ? static_cast<int64_t>(found.st_size) : n.offset;
  }
  return taken;
}

void put_head(std::string &out, const char *metric, const char *type, const char *help) {
  out += wllb_format("# HELP %s %s.\n# TYPE %s %s\n", metric, help, metric, type);
}

void put_process(std::string &out, const char *metric, const char *help, int64_t value) {
  put_head(out, metric, "gauge", help);
  out += wllb_format("%s{testrun=\"%d\"} %lld\n", metric, testidx, static_cast<long long>(value));
}

template <class Value>
void put_gauge(std::string &out, const std::vector<instance_numbers> &all, const char *metric, const char *help,
               Value value) {
  put_head(out, metric, "gauge", help);
  for (const instance_numbers &n : all)
    out += wllb_format("%s{instance=\"%s\",testrun=\"%d\"} %lld\n", metric, label_text(n.name).c_str(), testidx,
                       static_cast<long long>(value(n)));
}
} // namespace

// The counters are 32 bits wide and may wrap around between two calls.
void tqp_add_up_counts(tqp_instance_mon_stat_info_t *n) {
  for (size_t i = 0; i < std::size(counter_rows); ++i) {
    const uint32_t now = n->*counter_rows[i].count;
    n->totals[i] += now - n->added_up[i];
    n->added_up[i] = now;
  }
}

std::string tqp_metrics_text(bool running) {
  const std::vector<instance_numbers> all = take_instances();
  std::string out;
  put_process(out, "tqp_up", "1 while tqp works on the test run", running);
  put_process(out, "tqp_start_time_seconds", "When it started, in seconds since 1970", service.started_at);
  put_process(out, "tqp_instances", "Application instances", static_cast<int64_t>(all.size()));
  put_process(out, "tqp_newest_partition", "The newest partition, as YYYYMMDDHHMMSS", g_partition_idx);
  put_gauge(out, all, "tqp_instance_partition", "The partition that is read, as YYYYMMDDHHMMSS",
            [](const instance_numbers &n) { return n.partition; });
  put_gauge(out, all, "tqp_lag_bytes", "Bytes of the present raw file that are not read yet",
            [](const instance_numbers &n) { return std::max<int64_t>(n.raw_size - n.offset, 0); });
  for (size_t i = 0; i < std::size(counter_rows); ++i) {
    const counter_row &row = counter_rows[i];
    if (row.help)
      put_head(out, row.metric, "counter", row.help);
    for (const instance_numbers &n : all)
      out += wllb_format("%s{instance=\"%s\",testrun=\"%d\"%s} %llu\n", row.metric, label_text(n.name).c_str(), testidx,
                         row.label, static_cast<unsigned long long>(n.totals[i]));
  }
  return out;
}

std::string tqp_metrics_path() {
  const char *dir = getenv("TQP_METRICS_DIR"); // NOLINT(concurrency-mt-unsafe): nothing changes the environment then
  if (dir && *dir)
    return wllb_format("%s/tqp_TR%d.prom", dir, testidx);
  return wllb_format("%s/logs/TR%d/tq/logs/tqp_metrics.prom", wl_wdir, testidx);
}

// Written beside and renamed: whoever reads sees the old text or the new one.
static bool write_metrics(bool running) {
  static bool complained; // the thread's, then main's
  const std::string path = tqp_metrics_path();
  const std::string beside = path + ".new"; // collectors look at *.prom alone
  const std::string text = tqp_metrics_text(running);
  const wllb_fd file(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  const bool written = file.fd >= 0 && wllb_write_all(file.fd, text) && rename(beside.c_str(), path.c_str()) == 0;
  if (!written && !complained)
    wllb_trace(1, "Error", "Could not write metrics file %s, err = %s", path.c_str(), wllb_strerror(errno).c_str());
  complained = !written;
  return written;
}

// --- the thread --------------------------------------------------------------------------------------------------

static void look_at_registry() {
  tqp_for_each_instance([](const tqp_instance_t *) {});
}

static void *run_service(void * /*arg*/) {
  using clock = std::chrono::steady_clock;
  const auto never = clock::time_point::max();
  auto next_metrics = service.metrics_ms > 0 ? clock::now() : never;
  auto next_sign = service.watchdog_ms > 0 ? clock::now() : never;
  std::unique_lock<std::mutex> hold(service.mutex);
  while (!service.over) {
    hold.unlock();
    if (next_metrics <= clock::now()) {
      write_metrics(true);
      next_metrics = clock::now() + std::chrono::milliseconds(service.metrics_ms);
    }
    if (next_sign <= clock::now()) {
      look_at_registry();
      wllb_notify("WATCHDOG=1");
      next_sign = clock::now() + std::chrono::milliseconds(service.watchdog_ms / 3 + 1);
    }
    hold.lock();
    service.wake.wait_until(hold, std::min(next_metrics, next_sign), [] { return service.over; });
  }
  return nullptr;
}

void tqp_start_service_report() {
  wllb_notify(wllb_format("READY=1\nSTATUS=Test run %d of %s", testidx, wl_wdir).c_str());
  service.started_at = wllb_now();
  service.metrics_ms = int64_t{tqp_metrics_file_sec} * 1000;
  service.watchdog_ms = wllb_watchdog_ms();
  if (service.metrics_ms == 0 && service.watchdog_ms == 0)
    return;
  const int error = pthread_create(&service.id, nullptr, run_service, nullptr);
  if (error != 0)
    wllb_fail(-1, "thread TQP_SERVICE cannot be started: %s", wllb_strerror(error).c_str());
  service.started = true;
  pthread_setname_np(service.id, "TQP_SERVICE");
}

void tqp_note_stopping() {
  wllb_notify("STOPPING=1");
}

void tqp_end_service_report() {
  if (!service.started)
    return;
  {
    const std::lock_guard<std::mutex> hold(service.mutex);
    service.over = true;
  }
  service.wake.notify_all();
  pthread_join(service.id, nullptr);
  service.started = false;
  if (service.metrics_ms > 0)
    write_metrics(false);
}
