// Limits how often a component that keeps dying is started again; see the header.
//   In      one record per component; the replaceable clock
//   Out     the record's counter and time
//   Thread  the record's owner
//   Failure -1 for a record that is not there or has no sensible limits
// Limits 5, 10, 20: a component that dies at once is started five times; then it waits until 20 s after the last start.
#include "wllb_component_recovery.h"

#include "wllb_util.h"

int wllb_init_component_recovery_data(component_recovery *rec, int max_retry, int retry_threshold,
                                      int recovery_threshold) {
  if (!rec)
    return -1;
  *rec = {};
  rec->max_retry_count = max_retry;
  rec->retry_time_threshold_in_sec = retry_threshold;
  rec->recovery_time_threshold_in_sec = recovery_threshold;
  return 0;
}

static bool has_limits(const component_recovery *rec) {
  return rec && rec->max_retry_count >= 1 && rec->recovery_time_threshold_in_sec >= 1 &&
         rec->retry_time_threshold_in_sec > 0;
}

// A refusal counts, too: it ends the burst, and from then on only the longer threshold opens the way again.
static bool allowed_in_burst(component_recovery *rec, long now) {
  if (now - rec->last_retry_time_in_sec > rec->retry_time_threshold_in_sec)
    rec->retry_count = 0;
  const bool allowed = rec->retry_count != rec->max_retry_count;
  ++rec->retry_count;
  return allowed;
}

static bool allowed_after_burst(component_recovery *rec, long now) {
  if (now - rec->last_retry_time_in_sec <= rec->recovery_time_threshold_in_sec)
    return false;
  rec->retry_count = 0;
  return true;
}

int wllb_recover_component_or_not(component_recovery *rec) {
  if (!has_limits(rec))
    return -1;
  const long now = wllb_monotonic_s();
  const bool in_burst = rec->retry_count <= rec->max_retry_count;
  if (!(in_burst ? allowed_in_burst(rec, now) : allowed_after_burst(rec, now)))
    return 1;
  rec->last_retry_time_in_sec = now;
  return 0;
}
