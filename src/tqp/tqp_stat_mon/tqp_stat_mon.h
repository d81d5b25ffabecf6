// Reports about the process itself: the summary report, the health monitor, dumps on demand.
#pragma once

#include "tqp_main.h"

// --- summary report (summary_report.cpp) ---------------------------------------------------------------------

// Appends the instance's counters to "%s/logs/TR%d/%s/tq/logs/tqp_summary_report.txt" of its partition. The caller
// holds summary_report_mutex.
void print_summary_report(tqp_instance_t *inst) WLLB_REQUIRES(summary_report_mutex);

// The same for all instances together, in the newest partition's file. No instance thread may run meanwhile.
void print_aggregated_summary_report() WLLB_REQUIRES(summary_report_mutex);

// --- health monitor (health_monitor.cpp) -----------------------------------------------------------------------

// Thread entry of "TQP_HEALTH_MON"; returns when wl_status has left 1.
void *init_tqp_monitor(void *arg);

// --- dumps on demand (map_dump.cpp, status_file.cpp) -----------------------------------------------------------

// Main, when the flag of the signal is up: lets each asked instance's thread dump its maps.
void process_sig_tqp_dump_loc2norm_maps();

// The instance's thread, each round and each block: writes the dump that main has asked for, if any.
void tqp_dump_maps_if_asked(const tqp_instance_t *inst);

// The instance's thread, at moments of its own: writes a dump of all its maps.
void tqp_dump_maps_now(const tqp_instance_t *inst);

// Forgets what was asked of an instance that leaves; its place is another's next.
void tqp_forget_dump_requests(const tqp_instance_t *inst);

// Main, when the flag of the signal is up: writes what each instance is reading.
void process_sig_tqp_dump_current_processing_status();
