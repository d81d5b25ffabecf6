// The segments that a flowpath expects or has finished, by begin sequence number.
//   In      dotted numbers: "1", "1.2.1"
//   Out     entries from the instance's pool
//   Thread  the instance's
//   Failure none beyond the limit of entries and no slot from the pool, both reported as no entry
// Order:  1 < 1.2 < 1.2.1 < 1.9 < 1.10 < 2   (component by component, never as text)

#include "segment_arrays.h"
#include "tqp_async_handling.h"

#include <algorithm>
#include <climits>

static constexpr const char *pending_array_label = "Pending Segment Array";
static constexpr const char *key_label = "Begin Seq Num ";
static constexpr const char *line_label = "segment_csv_str";

// --- order ------------------------------------------------------------------------------------------------------------

// Reads a component as the C library reads numbers, and moves on to its dot or to the end. Far larger numbers than any
// agent counts to are all the same.
static int64_t read_component(const char **at) {
  constexpr int64_t most = INT64_MAX / 2; // a difference of two never overflows
  const char *p = *at;
  while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
    ++p;
  const bool negative = *p == '-';
  if (negative || *p == '+')
    ++p;
  int64_t value = 0;
  for (; *p >= '0' && *p <= '9'; ++p)
    value = value > (most - 9) / 10 ? most : value * 10 + (*p - '0');
  while (*p && *p != '.')
    ++p;
  *at = p;
  return negative ? -value : value;
}

int compare_begin_seq_num_str(const char *a, const char *b) {
  if (!a || !b)
    return (a != nullptr) - (b != nullptr);
  for (;; ++a, ++b) {
    const int64_t difference = read_component(&a) - read_component(&b);
    if (difference != 0)
      return static_cast<int>(std::clamp<int64_t>(difference, -INT_MAX, INT_MAX));
    if (*a != '.' || *b != '.')
      return (*a == '.') - (*b == '.');
  }
}

static int compare_begin_seq_num(const pending_segment_fp_t *a, const pending_segment_fp_t *b) {
  return compare_begin_seq_num_str(wllb_text_str(a->begin_seq_number), wllb_text_str(b->begin_seq_number));
}

// Moves the last entry behind all that are not above it.
static void place_last(const record_array<pending_segment_fp_t *> &array) {
  if (array.used < 2)
    return;
  pending_segment_fp_t **end = array.data + array.used - 1;
  pending_segment_fp_t *last = *end;
  pending_segment_fp_t **place = std::upper_bound(
      array.data, end, last, [](const auto *a, const auto *b) { return compare_begin_seq_num(a, b) < 0; });
  std::move_backward(place, end, end + 1);
  *place = last;
}

static void make_order(concurrent_flowpath_t *fp) {
  if (fp->pending_seg_arr_sorted_flag == ORDER_BUT_LAST)
    place_last(fp->pending_seg_arr);
  else
    tqp_sort_array(fp->pending_seg_arr, pending_array_label, compare_begin_seq_num);
  fp->pending_seg_arr_sorted_flag = ORDER_KNOWN;
}

// --- entries ----------------------------------------------------------------------------------------------------------

static void empty_text(wllb_text &text, const char *label) {
  constexpr size_t free_from = 1025; // bytes
  if (tqp_free_fp_mem_on_completion || text.size >= free_from)
    wllb_text_free(text, label);
  else
    wllb_text_clear(text);
}

static void empty_entry(pending_segment_fp_t *entry) {
  empty_text(entry->begin_seq_number, key_label);
  empty_text(entry->segment_csv_str, line_label);
  entry->status = PENDING_EXPECTED;
}

void tqp_free_pending_segment_memory(pending_segment_fp_t *entry) {
  wllb_text_free(entry->begin_seq_number, key_label);
  wllb_text_free(entry->segment_csv_str, line_label);
  entry->status = PENDING_EXPECTED;
}

// Room is made for the key and little more: a flowpath may have tens of thousands of them.
static void copy_key(wllb_text &text, std::string_view key) {
  if (text.size <= key.size()) {
    const size_t size = (key.size() + 16) / 16 * 16;
    text.data = static_cast<char *>(wllb_grow_block(text.data, text.size, size, key_label));
    text.size = size;
  }
  text.len = key.copy(text.data, key.size());
  text.data[text.len] = 0;
}

// An entry that keeps the order of an ordered array costs no sort; the first that does not is remembered as such.
static void note_order(concurrent_flowpath_t *fp) {
  const record_array<pending_segment_fp_t *> &array = fp->pending_seg_arr;
  if (fp->pending_seg_arr_sorted_flag != ORDER_KNOWN)
    fp->pending_seg_arr_sorted_flag = ORDER_UNKNOWN;
  else if (array.used > 1 && compare_begin_seq_num(array.data[array.used - 2], array.data[array.used - 1]) > 0)
    fp->pending_seg_arr_sorted_flag = ORDER_BUT_LAST;
}

pending_segment_fp_t *insert_in_pending_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp,
                                                      std::string_view begin_seq_number, int8_t status) {
  if (!fp || fp->pending_seg_arr.used >= tqp_max_fp_segments_count)
    return nullptr;
  pending_segment_fp_t *entry =
      tqp_append_pool_slot(fp->pending_seg_arr, &inst->tqp_flowpath_pending_seg_pool, pending_array_label);
  if (!entry) {
    wllb_trace(1, "Error", "mempool get slot failed for instance pending_seg_arr[*pending_seg_arr_sz].fp");
    return nullptr;
  }
  empty_entry(entry);
  copy_key(entry->begin_seq_number, begin_seq_number);
  entry->status = status;
  note_order(fp);
  return entry;
}

pending_segment_fp_t *search_pending_segment_array_using_begin_seq_number(tqp_instance_t * /*inst*/,
                                                                          concurrent_flowpath_t *fp,
                                                                          const char *begin_seq_number) {
  if (fp->pending_seg_arr.used < 1) {
    wllb_trace(3, "Info", "pending_seg_arr NULL, begin_seq_number=%s", begin_seq_number ? begin_seq_number : "");
    return nullptr;
  }
  if (fp->pending_seg_arr_sorted_flag != ORDER_KNOWN)
    make_order(fp);
  const int index = tqp_find_in_order(fp->pending_seg_arr, [begin_seq_number](const pending_segment_fp_t *entry) {
    return compare_begin_seq_num_str(wllb_text_str(entry->begin_seq_number), begin_seq_number);
  });
  return index < 0 ? nullptr : fp->pending_seg_arr.data[index];
}

bool tqp_announce_segment(tqp_instance_t *inst, concurrent_flowpath_t *fp, const char *begin_seq_number) {
  if (!begin_seq_number || search_pending_segment_array_using_begin_seq_number(inst, fp, begin_seq_number) ||
      !insert_in_pending_segment_array(inst, fp, begin_seq_number, PENDING_EXPECTED))
    return false;
  ++fp->pending_segments_count;
  return true;
}

void remove_from_pending_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp, int index) {
  if (index < 0 || index >= fp->pending_seg_arr.used)
    return;
  empty_entry(fp->pending_seg_arr.data[index]);
  tqp_remove_pool_slot(fp->pending_seg_arr, &inst->tqp_flowpath_pending_seg_pool, index);
}
