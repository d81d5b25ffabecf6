// Limits how often a component that keeps dying is started again.
//   In      the limits, the clock
//   Out     yes or no for each death; the record of one burst of restarts
//   Thread  the record's owner
//   Failure a null record, or one without sensible limits, is told by -1
#pragma once

struct component_recovery {
  int retry_count;                    // restarts in the current burst; one more than max_retry_count: refused
  int max_retry_count;                // restarts allowed in a burst
  long last_retry_time_in_sec;        // wall clock of the last restart allowed; 0: none yet
  int retry_time_threshold_in_sec;    // a component that lived longer begins a new burst
  long last_recovery_time_in_sec;     // kept, unused
  int recovery_time_threshold_in_sec; // a refused component gets its next chance after so long
};

// Stores the limits and clears the rest. 0, or -1 for a null record.
int wllb_init_component_recovery_data(component_recovery *rec, int max_retry, int retry_threshold,
                                      int recovery_threshold);

// Asks whether the component may be started now: 0 yes, and that counts; 1 not now; -1 bad record.
int wllb_recover_component_or_not(component_recovery *rec);
