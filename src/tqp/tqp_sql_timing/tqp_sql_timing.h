// Sums over the executions of one query within one segment, and their rows; resources; the numbers per kind of query.
//   In      database calls of blobs   Out  "TQSQLTiming.csv" when the segment ends or an interval has passed
//   Thread  the instance's; the numbers per kind are read by the monitor under fp_stats_mutex
#pragma once

#include "tqp_main.h"

void tq_update_sqlarray(segment_fp_t *segment, int32_t sql_id, double exec_time, uint64_t begin_timestamp, char status,
                        int32_t backend_id);

// Writes the segment's rows and clears the sums. Nothing without sums.
void csv_dump_sql_timing(tqp_instance_t *inst, const concurrent_flowpath_t *fp, segment_fp_t *segment);

// The same for a segment that goes on, once interval_to_dump_sql_timing_data has passed.
void clean_segment_sql_timing_array(tqp_instance_t *inst, const concurrent_flowpath_t *fp, segment_fp_t *segment);

// Empties the sums; the memory stays.
void tqp_clear_sql_sums(segment_fp_t *segment);
void tqp_free_sql_sums(segment_fp_t *segment);

// Counts an execution (ms) in all queries and in those of its kind.
void update_sql_stats(tqp_instance_t *inst, int query_type, double duration);

// One database call of a blob.
struct sql_call {
  const char *sql_id;     // local id as text
  const char *parameters; // text or ""
  int64_t flowpath_id;    // self_fpi
  uint64_t begin_ts;      // s, of the segment
  int64_t time;           // ms, begin of the call on the clock of begin_ts * 1000
  double duration;        // ms
  int32_t found_norm_id;  // below 1: look it up, ask for it, make a placeholder
  char status;            // the callout's kind; 0: an exit token
  int32_t backend_norm_id;
  int32_t backend_type; // decides whether calls of its kind are kept
};

// Turns a database call into its rows and numbers.
void process_sql_record_data(tqp_instance_t *inst, segment_fp_t *segment, const sql_call &call);
