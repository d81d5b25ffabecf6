// Reports about the process itself.
#pragma once

#include "tqp_main.h"

// --- summary report (summary_report.cpp) ---------------------------------------------------------------------

// Appends the instance's counters to "%s/logs/TR%d/%s/tq/logs/tqp_summary_report.txt" of its partition. The caller
// holds summary_report_mutex.
void print_summary_report(tqp_instance_t *inst) WLLB_REQUIRES(summary_report_mutex);
