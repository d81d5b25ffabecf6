// The table of flowpaths in flight: slots, segments, expected segments, the ring of recent flowpaths, the timer for
// lost responses.
//   In      main_fpi, self_fpi and begin sequence numbers from records
//   Out     slots by index, segments and pending entries by pointer
//   Thread  the instance's; nothing here is shared
//   Failure memory that cannot be had ends the process; a pool that gives no slot is traced and reported as no entry
#pragma once

#include "tqp_main.h"

// --- slots (slots.cpp) -------------------------------------------------------------------------------------------

// Slot of a flowpath, or -1.
int tqp_find_flowpath(const tqp_instance_t *inst, int64_t main_fpi);

// A free slot: the lowest free one, else the next behind the last. con_fp_buf may move. The slot stays free until
// tqp_occupy_flowpath.
int get_concurrent_flowpath_free_idx(tqp_instance_t *inst);

// Gives a free slot to a flowpath (main_fpi not 0), or tells that it has it.
void tqp_occupy_flowpath(tqp_instance_t *inst, int slot, int64_t main_fpi);

// Zeroes every field of a slot but its arrays, frees it, and moves last_occupied_fp_idx down past free slots. Its
// segments and pending entries are gone already.
void tqp_free_flowpath_slot(tqp_instance_t *inst, int slot);

// 1 when the flowpath was written lately; else 0, and it is remembered. Not asked with max_fi_array_entries 0.
int is_flowpath_instance_duplicate(tqp_instance_t *inst, int64_t fpi);

// Frees the table with all that lives in it, and empties the two pools. For the instance's close.
void tqp_free_flowpath_store(tqp_instance_t *inst);

// --- segments (segments.cpp) -----------------------------------------------------------------------------------

// A new segment at the end of the slot's array, or null.
segment_fp_t *insert_in_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp, int64_t self_fpi);

// The segment, or null; *index_out (if given) is its index or -1. Sorts the array first when it has to.
segment_fp_t *search_segment_array_using_fpi(tqp_instance_t *inst, concurrent_flowpath_t *fp, int64_t self_fpi,
                                             int *index_out);

// Resets a segment and takes it out; index below 0: search for self_fpi.
void remove_from_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp, int index, int64_t self_fpi);

// Room for `size` more bytes of request detail.
void get_memory_in_req_detail_buf(segment_fp_t *segment, size_t size);

// --- pending segments (pending_segments.cpp) ---------------------------------------------------------------------

// Order of begin sequence numbers, component by component: below 0, 0, above 0. A null text is below any other.
int compare_begin_seq_num_str(const char *a, const char *b);

// A new entry, or null when the flowpath has tqp_max_fp_segments_count of them. The caller counts it in
// pending_segments_count.
pending_segment_fp_t *insert_in_pending_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp,
                                                      std::string_view begin_seq_number, int8_t status);

pending_segment_fp_t *search_pending_segment_array_using_begin_seq_number(tqp_instance_t *inst,
                                                                          concurrent_flowpath_t *fp,
                                                                          const char *begin_seq_number);

// Announces a segment unless it is there: an entry with status 0, counted in pending_segments_count. True when it was
// added.
bool tqp_announce_segment(tqp_instance_t *inst, concurrent_flowpath_t *fp, const char *begin_seq_number);

void remove_from_pending_segment_array(tqp_instance_t *inst, concurrent_flowpath_t *fp, int index);

// Writes the flowpath's segment list to the sequence blob file, fills *reference_out ("C:1:partition:offset:length") and
// removes all pending entries.
void dump_segments_info_in_sqb(tqp_instance_t *inst, concurrent_flowpath_t *fp, std::string *reference_out);
