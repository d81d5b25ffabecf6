// What callouts, grouped queries and cache calls share: where a rewritten token goes, and the sums they add to. Private to
// this group.
//   Thread  the instance's
#pragma once

#include "blob_fields.h"
#include "tqp_run_time_v2.h"

inline bool tqp_is_exit_form(const blob_reader *r) {
  return r->event_id == TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT || r->event_id == TQ_EV_SEQ_BLOB_COMPLETE_EXIT;
}

inline const char *tqp_callout_label(const blob_reader *r) {
  return tqp_is_exit_form(r) ? "callout_info" : "Segement SQB realloc";
}

// The blob, or in the exit form the callouts of the row on top. Null, and told, when there is no row.
wllb_text *tqp_callout_target(const blob_reader *r);

// Begins a rewritten token of at most `most` bytes; in the exit form each has a '_' in front.
inline wllb_putter tqp_begin_callout(const blob_reader *r, wllb_text *target, size_t most) {
  wllb_putter out(*target, most + 1, tqp_callout_label(r));
  if (tqp_is_exit_form(r))
    out.put('_');
  return out;
}

// Adds an agent's number to a sum; both wrap around.
inline void tqp_add_number(int32_t &sum, int64_t more) {
  sum = static_cast<int32_t>(tqp_wrap_sum(sum, more));
}
