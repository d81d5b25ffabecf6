// Sums over the calls of one method within one segment, and their rows.
//   In      each method exit   Out  "TQMethodTiming.csv", or records of the dat file, when the segment ends
//   Thread  the instance's     Failure  a file that cannot be opened is traced; the sums then stay or go as told
#pragma once

#include "tqp_main.h"

// Amounts of one call, total and self, ms.
struct method_amounts {
  int64_t wall = 0, self = 0;
  int64_t cpu = 0, cpu_self = 0;
  int64_t wait = 0, wait_self = 0;
  int64_t sync = 0, sync_self = 0;
  int64_t io = 0, io_self = 0;
  int64_t suspension = 0, suspension_self = 0;
};

// Adds a call that ended at `time` (ms).
void tq_update_mtarray(segment_fp_t *segment, int32_t method_id, const method_amounts &amounts, int64_t time);

// The same a little later: calls are collected and settled some at a time, so that the memory of their sums, far away with
// thousands of segments in flight, is fetched for all of them at once. Whoever collects settles before the segment can go.
void tqp_collect_method_call(segment_fp_t *segment, int32_t method_id, const method_amounts &amounts, int64_t time);
void tqp_settle_method_calls();

// Writes the segment's rows, each by its own end time, and clears the sums.
void csv_dump_method_timing(tqp_instance_t *inst, const concurrent_flowpath_t *fp, segment_fp_t *segment);

void tqp_free_method_sums(segment_fp_t *segment);

// 2 to the power that is above n.
int64_t tq_next_power_of_2(int64_t n);

// One record of the dat file, host layout.
struct t_csv_fields {
  int64_t methodid;
  int64_t flowpathinstance;
  uint32_t urlindex;
  uint32_t cumselftime;
  uint64_t cumcputime;
  uint32_t count;
  uint32_t min;
  uint32_t max;
  uint32_t starttime;
  uint32_t endtime;
  uint32_t cumwalltime;
  uint64_t cumselfcputime;
  int16_t tierindex;
  int32_t serverindex;
  int32_t appindex;
  uint64_t cumwaittime, cumsynctime, cumiotime, cumsuspensiontime;
  uint64_t cumselfwaittime, cumselfsynctime, cumselfiotime, cumselfsuspensiontime;
};

static_assert(sizeof(t_csv_fields) == 144);
