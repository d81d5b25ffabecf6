// What callouts, grouped queries and cache calls share: where a rewritten token goes, and the sums they add to. Private to
// this group.
//   Thread  the instance's
#pragma once

#include "blob_fields.h"
#include "side_texts.h"
#include "tqp_run_time_v2.h"

inline bool tqp_is_exit_form(const blob_reader *r) {
  return r->event_id == TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT || r->event_id == TQ_EV_SEQ_BLOB_COMPLETE_EXIT;
}

inline const char *tqp_callout_label(const blob_reader *r) {
  return tqp_is_exit_form(r) ? "callout_info" : "Segement SQB realloc";
}

// Whether rewritten tokens have a place. In the exit form it takes a row; that there is none is told.
bool tqp_has_callout_target(const blob_reader *r);

// Begins a rewritten token of at most `most` bytes behind the blob, or in the exit form behind the row on top.
inline wllb_putter tqp_begin_bare_callout(const blob_reader *r, size_t most) {
  if (tqp_is_exit_form(r))
    return tqp_begin_side_text(r->segment, most, tqp_callout_label(r));
  return {r->segment->seq_blob, most, tqp_callout_label(r)};
}

// The same with the '_' that stands before it in the exit form.
inline wllb_putter tqp_begin_callout(const blob_reader *r, size_t most) {
  wllb_putter out = tqp_begin_bare_callout(r, most + 1);
  if (tqp_is_exit_form(r))
    out.put('_');
  return out;
}

// Ends either.
inline void tqp_end_callout(const blob_reader *r, const wllb_putter &out) {
  const record_array<method_call_stack_t> &stack = r->segment->method_call_stack;
  if (tqp_is_exit_form(r))
    tqp_end_side_text(r->segment, &stack.data[stack.used - 1].callout_info, out);
  else
    out.done(r->segment->seq_blob);
}

// Adds an agent's number to a sum; both wrap around.
inline void tqp_add_number(int32_t &sum, int64_t more) {
  sum = static_cast<int32_t>(tqp_wrap_sum(sum, more));
}
