// The flowpath engine: header records, both forms of the sequence blob, call stacks, callouts, completion.
//   In      flowpath records of one instance, cut by the dispatcher
//   Out     rows through the output writers; the rewritten blob in the segment
//   Thread  the instance's
//   Failure results have fixed meanings: 0 done, -1 rest of the blob dropped, -2 flowpath dropped, 1 blob truncated
// Samples:  2,5:5:0:5,1000,0,1,17,...   3,5:5:0:5,17:99_0_120_0_   4,5:5:0:5,200,4:0:0:0:0,35,...,17:99_1_35_4:0:0:0:0___
#pragma once

#include "field_cursor.h"
#include "tqp_main.h"

// The four numbers that name a segment.
struct fpi_tuple {
  int64_t self_fpi, root_fpi, parent_fpi, main_fpi;
};

// Reads "self:root:parent:main"; a main_fpi of 0 becomes self_fpi. False when that is 0 too.
bool tqp_read_fpi_tuple(char *text, fpi_tuple *tuple);

// A segment in its slot. con_fp_buf may move: the slot is kept as a number.
struct segment_place {
  int slot = -1;
  segment_fp_t *segment = nullptr;
};

// Sets the bit of a flowpath type n (from 1) in flowpathType.
void tqp_set_flowpath_type(segment_fp_t *segment, int64_t n);

// --- header records (header_record.cpp) --------------------------------------------------------------------------

// Events 2, 82, 80. `*place` is filled only when the whole header was read and more follows it on the line.
void process_record_bci_seqblob_header(tqp_instance_t *inst, tqp_fields *f, int event_id, segment_place *place);

// --- blob records (blob_record.cpp) -----------------------------------------------------------------------------

// Events 3, 4, 43, 44, 83, 84; f stands behind the event id (43, 44: behind the leading field).
void process_record_bci_seqblob(tqp_instance_t *inst, tqp_fields *f, int event_id);

// Occurrences of c up to a NUL, a newline or `end`; -1 for an absent or empty text.
int tq_count_delimiter(const char *cursor, const char *end, char c);

// --- parsers (classic_parser.cpp, exit_parser.cpp) --------------------------------------------------------------

// A piece of a blob being read. Text is cut in place; end is the line's newline and becomes a NUL.
struct blob_reader {
  tqp_instance_t *inst;
  segment_fp_t *segment;
  int slot;
  char *start; // of the piece, for messages
  char *pos;   // unread bytes are [pos, end)
  char *end;
  int event_id; // 43, 44: exit form
};

int process_seq_blob_from_bci(blob_reader *r);
int process_seq_blob_from_bci_ex(blob_reader *r);

// The slot of a piece. A reference is good until the next free slot is asked for, which no parser does.
inline concurrent_flowpath_t &blob_flowpath(const blob_reader *r) {
  return r->inst->con_fp_buf.data[r->slot];
}

// --- call stack (call_stack.cpp) ----------------------------------------------------------------------------------

// Amounts of one method call, ms.
struct method_times {
  int64_t wall, cpu, wait, sync, io, suspension;
};

// A method entry: pushes it.
void tqp_push_method(segment_fp_t *segment, int32_t method_id, int32_t page_id, int32_t seq_num, int64_t time_stamp,
                     int64_t thread_id);

// A method exit: pops it, or closes by force what lies above it. Index of its row, good until the next call; -1: no open
// method matches; -2: the stack is empty.
int tqp_pop_method(tqp_instance_t *inst, segment_fp_t *segment, int slot, int32_t method_id, const method_times &times,
                   int64_t thread_id);

// One finished method of the exit form.
struct finished_method {
  int32_t method_id, page_id; // norm ids
  int32_t depth;              // 1 or above
  int32_t start_seq_num, end_seq_num;
  int64_t thread_id;
  int64_t start_time; // ms since begin_ts
  method_times times; // wall: the duration
  int8_t async_call, custom_data_flag;
};

// Stores its two rows and its share of its parent's children sums. 0, or -1 when it was not stored.
int tqp_manage_ctarray(tqp_instance_t *inst, segment_fp_t *segment, const finished_method &m);

// Hangs a method without instrumentation on the exit row of the method that finishes next.
void tqp_hang_uninstrumented(segment_fp_t *segment, int32_t method_id);

// What a method keeps for itself: the total less the children's, 0 when the children have it all.
inline int64_t tqp_self_time(int64_t total, int64_t children) {
  return total > children ? static_cast<int64_t>(static_cast<uint64_t>(total) - static_cast<uint64_t>(children)) : 0;
}

// --- callouts (callouts.cpp, grouped_calls.cpp) -------------------------------------------------------------------

// One callout token (NUL-terminated, cut in place). 0, or -1 for a bad one.
int handle_callout(blob_reader *r, char *token);
int handle_grouped_queries(blob_reader *r, char *token);
int handle_coherence(blob_reader *r, char *token);

// "Error in Raw Data, ...; Found invalid <what> at character number ..." with the quoted place.
void tqp_blob_error(const blob_reader *r, const char *token, const char *what, const char *words);

// --- rewritten blob (blob_text.cpp) ------------------------------------------------------------------------------

// Puts "_" behind the blob unless it is empty or ends in one.
void tqp_join_blob(segment_fp_t *segment);

// Exit form: sorts the rows, writes the whole blob and signature source, empties the stack.
void create_sqb_and_append_fp_signature(tqp_instance_t *inst, segment_fp_t *segment);

// Norm ids of local ids; 0 when unknown. Metadata that is missing is asked for first.
int32_t tqp_norm_method_id(tqp_instance_t *inst, int64_t local_id, const segment_fp_t *segment);
int32_t tqp_norm_page_id(tqp_instance_t *inst, int64_t local_id, const segment_fp_t *segment);
int32_t tqp_norm_sql_id(tqp_instance_t *inst, int32_t local_id, int64_t timestamp);
int32_t tqp_norm_resource_id(tqp_instance_t *inst, int64_t local_id, const segment_fp_t *segment);

// --- completion (completion.cpp, incomplete_flowpaths.cpp, url_record.cpp, signature.cpp) -------------------------

// The one road that every ending of a segment takes.
void bcig_dump_flowpath(tqp_instance_t *inst, int slot, segment_fp_t *segment);

// Ends a flowpath that never got its closing record; segment_index -1: all of it, and the slot is cleaned.
void process_incomplete_flowpath(tqp_instance_t *inst, int slot, int segment_index);

// Ends everything in flight.
void dump_all_incomplete_flowpaths(tqp_instance_t *inst);

// Ends flowpaths that have been silent for too long by the wall clock, at most once an interval.
void clear_stuck_flowpaths(tqp_instance_t *inst);

// Ends flowpaths whose asynchronous responses are overdue by the clock of the data.
void clear_async_resp_missed_flowpaths(tqp_instance_t *inst);

// A row of "TQURLRecord.csv".
void write_urlrecord_entry(tqp_instance_t *inst, int64_t self_fpi, int url_norm_id, uint64_t begin_ts, uint64_t end_ts,
                           int status_code);

// Id of a signature source; 0 for none, -1 for an empty one.
int generate_signature(tqp_instance_t *inst, const wllb_text &signstr);

// Packs decimal digits, two a byte. Length of the result (in `out`, 2 * in_len + 1 bytes suffice), -1 for none.
int tq_string_compress(const char *in, char *out, int in_len);
