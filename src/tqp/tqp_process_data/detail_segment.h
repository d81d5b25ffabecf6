// The segment that a captured detail belongs to: found by the record's tuple, or opened ahead of its header record.
//   In      "self:root:parent:main" of records 12, 13, 17 to 20, 45, 46
//   Out     the segment's names; a slot and a segment that wait for their header
//   Thread  the instance's
//   Failure a record without a segment is told and dropped
#pragma once

#include "tqp_run_time_v2.h"

// Names a segment. It is looked up anew after each question to the agent: what the agent answers may end flowpaths.
struct detail_place {
  int64_t main_fpi, self_fpi;
};

// Finds the segment of a tuple. One of an unknown flowpath is opened, with
// tqp_allow_req_detail_before_sqb_begin_rec. False, after it has been told why: the record is dropped.
bool tqp_place_detail(tqp_instance_t *inst, char *tuple_text, detail_place *place);

// The segment in its slot; a null segment when it is gone.
segment_place tqp_segment_of_detail(tqp_instance_t *inst, const detail_place &place);

// Traces words about the record at hand, with the instance and the line's number before them.
void tqp_detail_error(const tqp_instance_t *inst, const char *fmt, ...) WLLB_PRINTF(2, 3);
