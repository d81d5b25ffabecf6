// Flowpath, database call and exception numbers of each instance: counted by the instances' threads, taken and sent to
// the parent once an interval, with a total that survives restarts.
#pragma once

#include "fp_stats.h"

// --- totals over restarts (cumulative_file.cpp) ------------------------------------------------------------------

// Start-up: clears the numbers of all instances and reads their totals from the file of the run before. They are added
// at once where the instance has told its names, later for the others. 0, or -1 when there is no file.
int set_cummulative_count();

// Adds the total of the run before, if it is still due, to an instance of this display name.
void tqp_add_total_of_run_before(tqp_instance_t *inst, const std::string &display_name);

// Lines of the totals that instances may still ask for; forgets them once no instance can.
void tqp_put_totals_not_asked_for(std::string *totals, bool may_be_asked_for);

// Replaces the file's content.
void tqp_write_cumulative_file(const std::string &totals);

// Names as the parent shows them. The instance must have told its names.
std::string tqp_display_name(const tqp_instance_t *inst) WLLB_REQUIRES(tqp_imap_lock);

// --- the monitor (fp_stats_monitor.cpp) ----------------------------------------------------------------------------

// Thread entry of "TQP_FP_STAT_MON"; returns when wl_status has left 1.
void *send_fp_stat_data_to_wl(void *arg);
