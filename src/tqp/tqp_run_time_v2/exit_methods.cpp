// The finished methods of the exit form: their rows in the call stack, the sums of each depth, and the blob that is
// written from the rows when the segment ends.
//   In      methods in the order of their ends, so that children come before their parent
//   Out     rows, method timing, argument rows; at the end the whole text of seq_blob and the signature source
//   Thread  the instance's
//   Failure a method at an impossible depth is told and lost
// Samples:  17:99_0:3:0_120   17:0_1:6:0_155_4:0:0:0:0_23_2

#include "blob_fields.h"
#include "blob_memory.h"
#include "classic_form.h"
#include "flowpath_files.h"
#include "side_texts.h"
#include "tqp_method_timing.h"

#include <algorithm>
#include <memory>

static constexpr char stack_label[] = "method_call_stack";
static constexpr char uninstr_label[] = "uninstr_mtd";
static constexpr char blob_label[] = "fp->seq_blob";
static constexpr char signature_label[] = "fp->signstr";

// --- depth ----------------------------------------------------------------------------------------------------------

// A method may be this much deeper than there is room for, and no deeper than the limit at all.
static constexpr int32_t most_depth_step = 10000;
static constexpr int32_t max_depth = 1000000;

// Room for the entry of a depth. The growth decides which depths the next methods may have.
static bool make_depth_room(record_array<children_time_t> &ctarray, int32_t depth) {
  const int32_t room = ctarray.room;
  if (depth - room > most_depth_step || depth > max_depth) {
    wllb_trace(1, "Critical", "Critical: Error in method,  depth %d is exceeding its limit previous depth is %d", depth,
               room);
    return false;
  }
  if (depth >= room) {
    const int32_t grown = std::max(depth, room + 16);
    record_array_room(ctarray, grown, grown - room, "fp->ctarray");
  }
  return true;
}

// Whether the durations leave something decides for all six amounts, so a self CPU time may be below 0.
static method_amounts own_amounts(const method_times &t, const children_time_t &c) {
  method_amounts a = {t.wall, 0, t.cpu, 0, t.wait, 0, t.sync, 0, t.io, 0, t.suspension, 0};
  if (t.wall > c.time) {
    a.self = tqp_wrap_less(t.wall, c.time);
    a.cpu_self = tqp_wrap_less(t.cpu, c.cpu_time);
    a.wait_self = tqp_wrap_less(t.wait, c.wait_time);
    a.sync_self = tqp_wrap_less(t.sync, c.sync_time);
    a.io_self = tqp_wrap_less(t.io, c.io_time);
    a.suspension_self = tqp_wrap_less(t.suspension, c.susp_time);
  }
  return a;
}

static void add_child(children_time_t &parent, const method_times &t) {
  parent.time = tqp_wrap_sum(parent.time, t.wall);
  parent.cpu_time = tqp_wrap_sum(parent.cpu_time, t.cpu);
  parent.wait_time = tqp_wrap_sum(parent.wait_time, t.wait);
  parent.sync_time = tqp_wrap_sum(parent.sync_time, t.sync);
  parent.io_time = tqp_wrap_sum(parent.io_time, t.io);
  parent.susp_time = tqp_wrap_sum(parent.susp_time, t.suspension);
}

// --- rows -----------------------------------------------------------------------------------------------------------

// Room for the two rows of the method that finishes next.
static void make_row_room(record_array<method_call_stack_t> &stack) {
  if (stack.used + 2 > stack.room)
    record_array_room(stack, stack.used + 2, std::max(16, stack.room / 2), stack_label);
}

static void fill_entry_row(method_call_stack_t &row, const finished_method &m) {
  row.entry_exit = 0;
  row.custom_data_flag = m.custom_data_flag;
  row.thread_id = m.thread_id;
  row.async_call = m.async_call;
  row.children_time = row.cpu_children_time = row.wait_children_time = 0;
  row.sync_children_time = row.io_children_time = row.suspension_children_time = 0;
  row.method_id = m.method_id;
  row.time_stamp = m.start_time;
  row.page_id = m.page_id;
  row.seq_num = m.start_seq_num;
}

// The thread stays what the row held, and so do the texts: what belongs behind this method has come before it.
static void fill_exit_row(method_call_stack_t &row, const finished_method &m) {
  row.entry_exit = 1;
  row.custom_data_flag = m.custom_data_flag;
  row.children_time = tqp_wrap_sum(m.times.wall, m.start_time);
  row.cpu_children_time = m.times.cpu;
  row.wait_children_time = m.times.wait;
  row.sync_children_time = m.times.sync;
  row.io_children_time = m.times.io;
  row.suspension_children_time = m.times.suspension;
  row.method_id = m.method_id;
  row.time_stamp = m.start_time;
  row.page_id = m.page_id;
  row.seq_num = m.end_seq_num;
}

int tqp_manage_ctarray(tqp_instance_t *inst, segment_fp_t *segment, const finished_method &m) {
  auto &ctarray = segment->ctarray;
  auto &stack = segment->method_call_stack;
  if (!make_depth_room(ctarray, m.depth))
    return -1;
  children_time_t &children = ctarray.data[m.depth - 1];
  const method_amounts amounts = own_amounts(m.times, children);
  if (m.depth > 1)
    add_child(ctarray.data[m.depth - 2], m.times);
  make_row_room(stack);
  fill_entry_row(stack.data[stack.used++], m);
  method_call_stack_t &exit_row = stack.data[stack.used];
  fill_exit_row(exit_row, m);
  // The time leaves out when the method began; rows have always been stamped so.
  tqp_collect_method_call(segment, m.method_id, amounts,
                          tqp_wrap_sum(m.times.wall, static_cast<int64_t>(segment->begin_ts * 1000)));
  tqp_dump_argument(inst, segment, exit_row, {tqp_wrap_less(m.times.wall, exit_row.children_time), 0, 0, 0, 0, 0});
  ++stack.used;
  children = {};
  return 0;
}

void tqp_hang_uninstrumented(segment_fp_t *segment, int32_t method_id) {
  auto &stack = segment->method_call_stack;
  make_row_room(stack);
  wllb_putter out = tqp_begin_side_text(segment, 14, uninstr_label);
  tqp_end_side_text(segment, &stack.data[stack.used + 1].uninstr_mtd, out.put('_').num(method_id).put("_2"));
}

// --- order ----------------------------------------------------------------------------------------------------------

// A row in the sort: seq_num above, the row's index below.
using row_key = uint64_t;

static row_key make_key(int32_t seq_num, int32_t index) {
  return row_key{static_cast<uint32_t>(seq_num)} << 32U | static_cast<uint32_t>(index);
}

static uint32_t seq_of(row_key key) {
  return static_cast<uint32_t>(key >> 32U);
}

static int32_t index_of(row_key key) {
  return static_cast<int32_t>(key & UINT32_MAX);
}

// Numbers more than 2^31 apart have no consistent order, hence a sort that takes any answer.
static int32_t sequence_comparator(row_key a, row_key b) {
  return static_cast<int32_t>(seq_of(a) - seq_of(b));
}

// Equal numbers stay in order. `spare` has room for `count` keys.
static void merge_sort_keys(row_key *keys, int32_t count, row_key *spare) {
  if (count < 2)
    return;
  const int32_t half = count / 2;
  merge_sort_keys(keys, half, spare);
  merge_sort_keys(keys + half, count - half, spare);
  std::copy(keys, keys + half, spare);
  row_key *out = keys;
  const row_key *left = spare, *right = keys + half;
  const row_key *const left_end = spare + half, *const right_end = keys + count;
  while (left < left_end && right < right_end)
    *out++ = sequence_comparator(*left, *right) <= 0 ? *left++ : *right++;
  std::copy(left, left_end, out);
}

// One pass over eight bits of the numbers' distance from the least one. Equal digits stay in order.
static void distribute_keys(const row_key *from, int32_t count, row_key *to, int shift, uint32_t least) {
  const auto digit_of = [shift, least](row_key key) { return ((seq_of(key) - least) >> shift) & 255U; };
  int32_t starts[257] = {};
  for (int32_t i = 0; i < count; ++i)
    ++starts[digit_of(from[i]) + 1];
  for (int digit = 0; digit < 255; ++digit)
    starts[digit + 1] += starts[digit];
  for (int32_t i = 0; i < count; ++i)
    to[starts[digit_of(from[i])]++] = from[i];
}

// The rows of a stack in the order of their seq_num. Rows are large: they are walked in this order, not moved.
struct row_order {
  std::unique_ptr<row_key[]> keys;
  row_key *first;
};

static row_order sort_rows(const record_array<method_call_stack_t> &stack) {
  const int32_t count = stack.used;
  row_order order = {std::unique_ptr<row_key[]>(new row_key[2 * static_cast<size_t>(count)]), nullptr};
  row_key *keys = order.keys.get(), *spare = keys + count;
  int32_t least = INT32_MAX, most = INT32_MIN;
  for (int32_t i = 0; i < count; ++i) {
    const int32_t seq_num = stack.data[i].seq_num;
    keys[i] = make_key(seq_num, i);
    least = std::min(least, seq_num);
    most = std::max(most, seq_num);
  }
  const int64_t range = int64_t{most} - least;
  if (range > INT32_MAX)
    merge_sort_keys(keys, count, spare);
  else
    for (int shift = 0; range >> shift > 0; shift += 8) {
      distribute_keys(keys, count, spare, shift, static_cast<uint32_t>(least));
      std::swap(keys, spare);
    }
  order.first = keys;
  return order;
}

static row_order sort_rows_and_tell(const segment_fp_t *segment) {
  if (!wllb_trace_on(3))
    return sort_rows(segment->method_call_stack);
  const int64_t begun = wllb_monotonic_ms();
  row_order order = sort_rows(segment->method_call_stack);
  wllb_trace(3, "Info", "Time taken by qsort to sort method_call_stack is %lld ms for self_fpi %lld",
             static_cast<long long>(wllb_monotonic_ms() - begun), static_cast<long long>(segment->self_fpi));
  return order;
}

// --- text -----------------------------------------------------------------------------------------------------------

// More than the longest token of this form with a '_' before it: ten numbers.
static constexpr size_t longest_token = 256;

static void put_entry_token(wllb_putter &out, const method_call_stack_t &row) {
  out.num(row.method_id).put(':').num(row.thread_id);
  if (row.async_call)
    out.put(':').num(row.async_call);
  out.put('_').num(row.entry_exit).put(':').num(row.seq_num).put(':').num(row.custom_data_flag);
  out.put('_').num(row.time_stamp);
}

static void put_exit_token(wllb_putter &out, const method_call_stack_t &row) {
  out.num(row.method_id).put(':').num(row.thread_id);
  out.put('_').num(row.entry_exit).put(':').num(row.seq_num).put(':').num(row.custom_data_flag);
  out.put('_').num(row.children_time).put('_').num(row.cpu_children_time).put(':').num(row.wait_children_time);
  out.put(':').num(row.sync_children_time).put(':').num(row.io_children_time);
  out.put(':').num(row.suspension_children_time);
}

static void move_side_text(segment_fp_t *segment, side_text_t *side) {
  const auto used = static_cast<int64_t>(segment->seq_blob.len);
  tqp_move_side_text_to_blob(segment, side, blob_label);
  const auto moved = static_cast<int64_t>(segment->seq_blob.len) - used;
  if (moved != 0 && segment->sqb_malloced_len - used <= moved)
    segment->sqb_malloced_len = moved + used + blob_memory_step;
}

static void count_memory(segment_fp_t *segment) {
  tqp_count_memory_steps(segment->sqb_malloced_len, segment->seq_blob, 100);
  if (tqp_generate_fp_signatures)
    tqp_count_memory_steps(segment->signstr_malloced_len, segment->signstr, 100);
}

// Only an exit row carries its side texts out.
static void put_row(segment_fp_t *segment, method_call_stack_t &row, bool first) {
  wllb_text &blob = segment->seq_blob;
  wllb_putter out(blob, longest_token, blob_label);
  if (!first)
    out.put('_');
  if (row.entry_exit != 0) {
    put_exit_token(out, row);
    out.done(blob);
    move_side_text(segment, &row.callout_info);
    move_side_text(segment, &row.uninstr_mtd);
  } else {
    if (segment->entry_methods_count++ == 0)
      segment->entryPointId = row.method_id;
    put_entry_token(out, row);
    out.done(blob);
  }
}

static void put_in_signature(wllb_text &signstr, const method_call_stack_t &row) {
  wllb_putter out(signstr, size_t{3} * 20, signature_label);
  out.num(row.method_id).num(row.entry_exit);
  if (row.entry_exit == 0)
    out.num(row.page_id);
  out.done(signstr);
}

// Should the segment go on, exit rows take over the threads that lie here: those of the rows in their written order.
void create_sqb_and_append_fp_signature(tqp_instance_t * /*inst*/, segment_fp_t *segment) {
  auto &stack = segment->method_call_stack;
  const row_order order = sort_rows_and_tell(segment);
  for (int32_t i = 0; i < stack.used; ++i) {
    method_call_stack_t &row = stack.data[index_of(order.first[i])];
    count_memory(segment);
    put_row(segment, row, i == 0);
    if (tqp_generate_fp_signatures)
      put_in_signature(segment->signstr, row);
    order.first[i] = static_cast<row_key>(row.thread_id);
  }
  for (int32_t i = 0; i < stack.used; ++i)
    stack.data[i].thread_id = static_cast<int64_t>(order.first[i]);
  stack.used = 0;
}
