// The open methods of a segment, classic form: who called whom, and whose time it was.
//   In      entries and exits in time order, of several threads
//   Out     the segment's method_call_stack; for methods that are closed by force also their exit in the blob, their
//           timing and their argument row
//   Thread  the instance's
//   Failure an exit without its entry changes nothing; the parser tells it

#include "blob_memory.h"
#include "classic_form.h"

#include "flowpath_files.h"
#include "tqp_method_timing.h"

#include <algorithm>

static bool is_closed(const method_call_stack_t &row) {
  return row.deleted == 1;
}

void tqp_push_method(segment_fp_t *segment, int32_t method_id, int32_t page_id, int32_t seq_num, int64_t time_stamp,
                     int64_t thread_id) {
  auto &stack = segment->method_call_stack;
  if (stack.used == stack.room)
    record_array_room(stack, stack.used + 1, std::max(16, stack.room / 2), "Segment Method Call Stack");
  method_call_stack_t &row = stack.data[stack.used++];
  row.children_time = row.cpu_children_time = row.wait_children_time = 0;
  row.sync_children_time = row.io_children_time = row.suspension_children_time = 0;
  row.time_stamp = time_stamp;
  row.thread_id = thread_id;
  row.method_id = method_id;
  row.page_id = page_id;
  row.seq_num = seq_num;
  row.deleted = 0;
}

void tqp_dump_argument(tqp_instance_t *inst, const segment_fp_t *segment, const method_call_stack_t &row,
                       const method_times &own) {
  if (!tqp_enable_bciarg || row.page_id == 0)
    return;
  bci_arg_row out = {};
  out.flowpath_id = segment->self_fpi;
  out.tier = segment->flowpath_segment_tier;
  out.seq_num = row.seq_num;
  out.page_id = row.page_id;
  out.method_id = row.method_id;
  out.wall = own.wall;
  out.cpu = own.cpu;
  out.wait = own.wait;
  out.sync = own.sync;
  out.io = own.io;
  out.suspension = own.suspension;
  out.timestamp = tqp_wrap_sum(row.time_stamp / 1000, static_cast<int64_t>(segment->begin_ts));
  csv_dump_bci_arg_data(inst, &out, 0);
}

// Adds amounts to what a row's children have used.
static void add_to_children(method_call_stack_t &row, const method_times &amounts) {
  row.children_time = tqp_wrap_sum(row.children_time, amounts.wall);
  row.cpu_children_time = tqp_wrap_sum(row.cpu_children_time, amounts.cpu);
  row.wait_children_time = tqp_wrap_sum(row.wait_children_time, amounts.wait);
  row.sync_children_time = tqp_wrap_sum(row.sync_children_time, amounts.sync);
  row.io_children_time = tqp_wrap_sum(row.io_children_time, amounts.io);
  row.suspension_children_time = tqp_wrap_sum(row.suspension_children_time, amounts.suspension);
}

// Closes an open method that its agent never closed, at the time of the last record. Its times are unknown: it passes on
// its children's as its own, and keeps nothing for itself.
static void close_by_force(tqp_instance_t *inst, segment_fp_t *segment, int32_t index) {
  const int64_t timestamp = segment->last_record_timestamp;
  method_call_stack_t &row = segment->method_call_stack.data[index];
  const int64_t wall_time = tqp_wrap_less(timestamp, row.time_stamp);
  wllb_trace(4, "Info", "Last Record TS = %lld, entry record TS = %lld, walltime = %lld",
             static_cast<long long>(timestamp), static_cast<long long>(row.time_stamp),
             static_cast<long long>(wall_time));
  tqp_count_memory_step(segment->sqb_malloced_len, segment->seq_blob, 99);
  tqp_join_blob(segment);
  segment->seq_num = static_cast<int32_t>(tqp_wrap_sum(segment->seq_num, 1));
  tqp_put_forced_exit_token(segment, row, timestamp);
  tqp_dump_argument(inst, segment, row, {tqp_wrap_less(wall_time, row.children_time), 0, 0, 0, 0, 0});
  method_amounts amounts = {};
  amounts.wall = wall_time;
  amounts.cpu = row.cpu_children_time;
  amounts.wait = row.wait_children_time;
  amounts.sync = row.sync_children_time;
  amounts.io = row.io_children_time;
  amounts.suspension = row.suspension_children_time;
  tq_update_mtarray(segment, row.method_id, amounts,
                    static_cast<int64_t>(segment->begin_ts * 1000 + static_cast<uint64_t>(timestamp)));
  if (index > 0)
    add_to_children(segment->method_call_stack.data[index - 1],
                    {row.children_time, row.cpu_children_time, row.wait_children_time, row.sync_children_time,
                     row.io_children_time, row.suspension_children_time});
  row.deleted = 1;
}

// The open row that an exit means when it is not the top one; -1 for none. A thread_id of -1 means any.
static int32_t find_below_top(const segment_fp_t *segment, int32_t method_id, int64_t thread_id) {
  const auto &stack = segment->method_call_stack;
  for (int32_t i = stack.used - 2; i >= 0; --i) {
    const method_call_stack_t &row = stack.data[i];
    if (row.method_id == method_id && !is_closed(row) && (row.thread_id == thread_id || thread_id == -1))
      return i;
  }
  return -1;
}

// A method ends while methods above it are open: those of its thread are closed. All of them stay in the stack, marked.
static int32_t pop_below_top(tqp_instance_t *inst, segment_fp_t *segment, int32_t method_id, int64_t thread_id) {
  const auto &stack = segment->method_call_stack;
  const int32_t found = find_below_top(segment, method_id, thread_id);
  if (found < 0)
    return -1;
  for (int32_t i = stack.used - 1; i > found; --i)
    if (stack.data[i].thread_id == thread_id && !is_closed(stack.data[i]))
      close_by_force(inst, segment, i);
  stack.data[found].deleted = 1;
  return found;
}

// The nearest open method of the thread has called the one that ended.
static void charge_caller(segment_fp_t *segment, int64_t thread_id, const method_times &times) {
  const auto &stack = segment->method_call_stack;
  for (int32_t i = stack.used - 1; i >= 0; --i)
    if (stack.data[i].thread_id == thread_id && stack.data[i].deleted == 0) {
      add_to_children(stack.data[i], times);
      return;
    }
}

int tqp_pop_method(tqp_instance_t *inst, segment_fp_t *segment, int /*slot*/, int32_t method_id,
                   const method_times &times, int64_t thread_id) {
  auto &stack = segment->method_call_stack;
  if (stack.used == 0)
    return -2;
  int32_t index = stack.used - 1;
  if (stack.data[index].method_id == method_id && stack.data[index].thread_id == thread_id) {
    --stack.used;
    while (stack.used > 0 && is_closed(stack.data[stack.used - 1]))
      --stack.used;
  } else {
    index = pop_below_top(inst, segment, method_id, thread_id);
    if (index < 0)
      return -1;
  }
  charge_caller(segment, thread_id, times);
  return index;
}
