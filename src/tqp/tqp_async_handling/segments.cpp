// The open segments of a flowpath: put in, found by number, reset and taken out.
//   In      self_fpi of records
//   Out     segments from the instance's pool; what a reset leaves to the next user of the pool slot
//   Thread  the instance's
//   Failure a pool that gives no slot, or a segment that is not there, is traced and reported as no entry
// The sort looks at the low 32 bits of the numbers, the search at all 64. Where the two disagree a segment is not found
// and enters again, and readers of the output know these flowpaths as they are.

#include "segment_arrays.h"
#include "tqp_async_handling.h"
#include "tqp_method_timing.h"
#include "tqp_sql_timing.h"

#include <cstring>

static constexpr const char *segment_array_label = "Segment Array";

// --- the array ------------------------------------------------------------------------------------------------------

segment_fp_t *insert_in_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp, int64_t self_fpi) {
  segment_fp_t *segment = tqp_append_pool_slot(fp->seg_arr, &inst->tqp_flowpath_seg_pool, segment_array_label);
  if (!segment) {
    wllb_trace(1, "Error", "mempool get slot failed for instance seg_arr[*seg_arr_sz].fp");
    return nullptr;
  }
  segment->self_fpi = self_fpi;
  segment->bci_urlid = -1;
  const int32_t used = fp->seg_arr.used;
  if (used > 1 && self_fpi < fp->seg_arr.data[used - 2]->self_fpi)
    fp->seg_arr_sorted_flag = ORDER_UNKNOWN;
  return segment;
}

static int32_t compare_low_words(const segment_fp_t *a, const segment_fp_t *b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a->self_fpi) - static_cast<uint32_t>(b->self_fpi));
}

static int find_segment(concurrent_flowpath_t *fp, int64_t self_fpi) {
  if (fp->seg_arr_sorted_flag != ORDER_KNOWN) {
    tqp_sort_array(fp->seg_arr, segment_array_label, compare_low_words);
    fp->seg_arr_sorted_flag = ORDER_KNOWN;
  }
  return tqp_find_in_order(fp->seg_arr, [self_fpi](const segment_fp_t *segment) {
    return (segment->self_fpi > self_fpi) - (segment->self_fpi < self_fpi);
  });
}

segment_fp_t *search_segment_array_using_fpi(tqp_instance_t * /*inst*/, concurrent_flowpath_t *fp, int64_t self_fpi,
                                             int *index_out) {
  const int index = find_segment(fp, self_fpi);
  if (index_out)
    *index_out = index;
  return index < 0 ? nullptr : fp->seg_arr.data[index];
}

// --- reset ----------------------------------------------------------------------------------------------------------

// A text is emptied; its memory goes when it has `free_from` bytes, or with tqp_free_fp_mem_on_completion. What it has may
// be counted by itself.
struct segment_text_row {
  wllb_text segment_fp_t::*text;
  int64_t free_from;
  const char *label;
  int64_t segment_fp_t::*counted = nullptr;
};

static constexpr segment_text_row segment_texts[] = {
    // clang-format off
  {&segment_fp_t::seq_blob,          16385,    "Segment Sequence Blob", &segment_fp_t::sqb_malloced_len},
  {&segment_fp_t::signstr,           16385,    "Segment Signature", &segment_fp_t::signstr_malloced_len},
  {&segment_fp_t::side_texts,        4097,     "callout_info"},
  {&segment_fp_t::req_detail_buf,    16385,    "curr_fp->req_detail_buf"},
  {&segment_fp_t::callout_buf,       1025,     "Segment Callout"},
  {&segment_fp_t::request_body_buf,  INT64_MAX, "Request Body Buffer"},
  {&segment_fp_t::response_body_buf, INT64_MAX, "Response Body Buffer"},
  {&segment_fp_t::dynamic_data_buf,  INT64_MAX, "Segment Dynamic Data"},
}; // clang-format on

static void reset_texts(segment_fp_t *segment, bool free_all) {
  wllb_text_clear(segment->begin_seq_num); // short: its memory always stays
  for (const segment_text_row &row : segment_texts) {
    wllb_text &text = segment->*row.text;
    const int64_t size = row.counted ? segment->*row.counted : static_cast<int64_t>(text.size);
    if (free_all || size >= row.free_from) {
      wllb_text_free(text, row.label);
      if (row.counted)
        segment->*row.counted = 0;
    } else {
      wllb_text_clear(text);
    }
  }
}

template <class T> static void zero_entries(const record_array<T> &array) {
  if (array.data)
    memset(static_cast<void *>(array.data), 0, static_cast<size_t>(array.room) * sizeof(T));
}

// The sums of methods are left as they are unless the memory goes: their writer has cleared them.
static void reset_arrays(segment_fp_t *segment, bool free_all) {
  if (free_all) {
    method_call_stack_free(segment);
    record_array_free(segment->ctarray, "ctarray");
    tqp_free_method_sums(segment);
    tqp_free_sql_sums(segment);
    return;
  }
  zero_entries(segment->method_call_stack);
  zero_entries(segment->ctarray);
  segment->method_call_stack.used = 0;
  tqp_clear_sql_sums(segment);
}

static void zero_behind_slot(segment_fp_t *segment) {
  memset(reinterpret_cast<char *>(segment) + sizeof segment->slot, 0, sizeof *segment - sizeof segment->slot);
}

static void zero_all_but_buffers(segment_fp_t *segment) {
  const segment_fp_t old = *segment;
  zero_behind_slot(segment);
  segment->begin_seq_num = old.begin_seq_num;
  for (const segment_text_row &row : segment_texts)
    segment->*row.text = old.*row.text;
  segment->sqb_malloced_len = old.sqb_malloced_len;
  segment->signstr_malloced_len = old.signstr_malloced_len;
  segment->method_call_stack = old.method_call_stack;
  segment->ctarray = old.ctarray;
  segment->mtarray = old.mtarray;
  segment->mta_index = old.mta_index;
  segment->sqlarray = old.sqlarray;
  segment->sqla_index = old.sqla_index;
}

static void reset_segment(segment_fp_t *segment) {
  const bool free_all = tqp_free_fp_mem_on_completion != 0;
  reset_texts(segment, free_all);
  reset_arrays(segment, free_all);
  zero_all_but_buffers(segment);
  segment->bci_urlid = -1;
}

void tqp_free_segment_memory(segment_fp_t *segment) {
  reset_texts(segment, true);
  reset_arrays(segment, true);
  wllb_text_free(segment->begin_seq_num, "segfp->begin_seq_num");
  zero_behind_slot(segment);
}

void remove_from_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp, int index, int64_t self_fpi) {
  if (index < 0)
    index = find_segment(fp, self_fpi);
  if (index < 0 || index >= fp->seg_arr.used) {
    wllb_trace(1, "Error", "Could not find segment for self_fpi = %ld, seg_arr_sz = %d, seg_arr_alloc_sz = %d",
               static_cast<long>(self_fpi), fp->seg_arr.used, fp->seg_arr.room);
    return;
  }
  reset_segment(fp->seg_arr.data[index]);
  tqp_remove_pool_slot(fp->seg_arr, &inst->tqp_flowpath_seg_pool, index);
}

// By whole steps, on top of what there is: a segment keeps its memory up to a told size.
void get_memory_in_req_detail_buf(segment_fp_t *segment, size_t size) {
  constexpr size_t step = 1024;
  wllb_text &detail = segment->req_detail_buf;
  const size_t needed = size + 1; // with the NUL
  if (detail.size - detail.len >= needed)
    return;
  const size_t grown = detail.size + (needed + step - 1) / step * step;
  detail.data = static_cast<char *>(wllb_grow_block(detail.data, detail.size, grown, "curr_fp->req_detail_buf"));
  detail.size = grown;
}
