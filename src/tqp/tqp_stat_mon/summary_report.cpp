// The summary report: how many records of each kind an instance has seen, so that a user can tell that all were counted.
//   In      sum_rep_counters of the instance
//   Out     "%s/logs/TR%d/%s/tq/logs/tqp_summary_report.txt", appended
//   Thread  the instance's, under summary_report_mutex, since instances close at the same time
//   Failure a file that cannot be opened is traced; the report is lost

#include "data_files.h"
#include "output_wait.h"
#include "tqp_init.h"
#include "tqp_stat_mon.h"

#include <algorithm>

// In counter order; the last three counters have no label.
static constexpr const char *sum_rep_cnt_names[] = {
    "Incomplete Flowpaths Generated",
    "Complete Flowpaths Generated",
    "Non-WL Flowpaths Generated",
    "Raw Data Lines Processed",
    "Ignored Entry/Exit Raw Records From Different Testrun",
    "App Logs Records Processed",
    "Method Discovery (Event ID 5) Records Processed",
    "URL Discovery (Event ID 7) Records Processed",
    "TQ Data Over (Event ID 10) Records Processed",
    "HTTP Req Header Capture (Event ID 12)Records Processed",
    "HTTP Resp Header Capture (Event ID 13) Records Processed",
    "HTTP Req Body Capture (Event ID 14)Records Processed",
    "HTTP Resp Body Capture (Event ID 15) Records Processed",
    "JMS Data (Event ID 16) Records Processed",
    "HTTP Session Attribute Specific (Event ID 17) Records Processed",
    "HTTP Session Attribute All(Event ID 18) Records Processed",
    "HTTP Attribute Specific Method Args (Event ID 19) Records Processed",
    "HTTP Body Response (Event ID 20) Records Processed",
    "SQL Prepared Statement Discovery (Event ID 22) Records Processed",
    "SQL Non Prepared Statement Discovery (Event ID 23) Records Processed",
    "Resource Discovery (Event ID 26) Records Processed",
    "Auto Sensor Threads Count (Event ID 51) Records Processed",
    "Auto Sensor Hotspot Threads (Event ID 52) Records Processed",
    "Maximum method call depth in a flowpath",
    "HTTP Header Discovery (Event ID 6) Records Processed",
    "Exception Data (Event ID 31) Records Processed",
    "Exception Class Discovery (Event ID 32) Records Processed",
    "Exception Throwing Class Discovery (Event ID 33) Records Processed",
    "Exception Throwing Method Discovery (Event ID 34) Records Processed",
    "Exception Message Discovery (Event ID 35) Records Processed",
    "Exception Cause Discovery (Event ID 36) Records Processed",
    "Exception Stack Trace Discovery (Event ID 37) Records Processed",
    "Exception Data Ex (Event ID 38) Records Processed",
    "FPGMode2 - Flowpath header (Event ID 2) Records Processed",
    "FPGMode2 - Flowpath sequence blob (Event ID 3) Records Processed",
    "FPGMode2 - Flowpath complete (Event ID 4) Records Processed",
    "FPGMode2 - Page name Discovery (Event ID 41) Records Processed",
    "FPGMode2 - Bad flowpaths count where method time stamps have errors",
    "FPGMode2 - Bad flowpaths count where complete record (4) not received",
    "FPGMode2 - Bad flowpaths count where header record (2) not received",
};

constexpr int label_count = static_cast<int>(sizeof sum_rep_cnt_names / sizeof *sum_rep_cnt_names);
static_assert(label_count == __NUM_SUM_REP_CNT__ - 3);

static void print_report(const char *partition, const std::string &heading, const int64_t *counters) {
  const std::string path = wllb_format("%s/logs/TR%d/%s/tq/logs/tqp_summary_report.txt", wl_wdir, testidx, partition);
  const tqp_waits_for_output spared(nullptr);
  const wllb_file file(tqp_make_data_file_as(path.c_str(), "a", true));
  if (!file) {
    wllb_trace(1, "Error", "Error in opening Summary Report Document for writing: '%s'", path.c_str());
    return;
  }
  std::string text = heading;
  for (int i = 0; i < __NUM_SUM_REP_CNT__; ++i)
    text += wllb_format("%s: %lld\n", i < label_count ? sum_rep_cnt_names[i] : "(null)",
                        static_cast<long long>(counters[i]));
  tqp_append_rows(file.get(), text + "\n");
}

void print_summary_report(tqp_instance_t *inst) {
  print_report(inst->partition_name,
               wllb_format("Summary for %s\n", inst->tier_server_app_name) +
                   "============================================\n",
               inst->sum_rep_counters);
}

static void add_counters(const tqp_instance_t *inst) {
  for (int i = 0; i < __NUM_SUM_REP_CNT__; ++i)
    if (i == SUM_REP_CNT_MAX_METHODS_CALL_DEPTH)
      agg_sum_rep_counters[i] = std::max(agg_sum_rep_counters[i], inst->sum_rep_counters[i]);
    else
      agg_sum_rep_counters[i] += inst->sum_rep_counters[i];
}

void print_aggregated_summary_report() {
  tqp_for_each_instance(add_counters);
  print_report(g_cur_partition.c_str(),
               "TQ Collector Aggregated Summary Report\n========================-----------===\n",
               agg_sum_rep_counters);
}
