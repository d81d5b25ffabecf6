// What a service manager and a collector of metrics learn about the process.
//   In      numbers of the process and of each instance; TQP_METRICS_FILE_SEC; the manager's environment
//   Out     readiness, signs of life, the end; a text file of metrics, replaced as a whole
//   Thread  main starts and ends it; "TQP_SERVICE" between
//   Failure a file that cannot be written is traced once; the work goes on
// Sample:  tqp_lag_bytes{instance="Tier_Server_App",testrun="1234"} 524288
#pragma once

#include "tqp_main.h"

// Says that the process is ready, and starts the thread if there is something for it to do. Main, before its wait.
void tqp_start_service_report();

// Says that the process is about to end. Main, when its wait is over.
void tqp_note_stopping();

// Ends the thread and writes the metrics for the last time. Main; no instance thread runs any more.
void tqp_end_service_report();

// Adds what an instance's counters have gained to its totals. Before anybody sets the counters back.
void tqp_add_up_counts(tqp_instance_mon_stat_info_t *n) WLLB_REQUIRES(n->tqp_instance_mon_str_lock);

// The metrics as they stand, in the text format of the exposition.
std::string tqp_metrics_text(bool running);

// Where they go: tqp_TR<n>.prom in the directory that TQP_METRICS_DIR names, else tqp_metrics.prom in the test run's tq/logs.
std::string tqp_metrics_path();
