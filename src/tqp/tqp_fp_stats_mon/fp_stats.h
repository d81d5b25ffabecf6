// Counters of the statistics monitor: instances' threads count, the monitor takes.
#pragma once

#include "tqp_main.h"

// Counts a finished flowpath; duration in ms.
void update_fp_stats(tqp_instance_t *inst, uint64_t duration);

// Takes the flowpath numbers and begins a new interval; the totals go on. *data_delta gets the bytes of raw data that
// were processed since the last call.
void get_and_reset_fp_stats(tqp_instance_t *inst, fp_stat_data *out, uint64_t *data_delta);

// The same for one of the instance's query statistics; an unset minimum is given as 0.
void get_and_reset_db_query_stats(tqp_instance_t *inst, db_query_stat_data tqp_instance_t::*stats,
                                  db_query_stat_data *out);

void get_and_reset_excp_count(tqp_instance_t *inst, uint64_t *out) WLLB_REQUIRES(tqp_imap_lock);
