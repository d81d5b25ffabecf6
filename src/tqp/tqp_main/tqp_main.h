// The chief header: every record and enumeration that source groups share. It declares no behaviour; each group
// declares its own functions in its own header, which includes this one and no other group's.
#pragma once

#include "event_ids.h"
#include "file_slots.h"
#include "keyword_values.h"
#include "map_records.h"
#include "process_state.h"
#include "tqp_instance.h"

#include "wllb_alloc.h"
#include "wllb_multi_thread_trace_log.h"
#include "wllb_util.h"
