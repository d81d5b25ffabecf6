// Makes the records of one whole flowpath: headers, call trees in pieces, side segments, side records, results.
//   In      the stream of its instance, the call that starts it
//   Out     a plan: records in an order that an agent's threads would produce; announcements go to stream.out at once,
//           so that every id is known before the plan's first record
//   Thread  one
//   Failure none
// Sample, classic form:  2,71:71:0:71,...   3,71:71:0:71,17:99_0_0__x5_   82,1,72:71:71:71,...,5.1,...
// Sample, exit form:     43,1,71:71:0:71,18:99_1:2:3_2_4:10_0_1:0:0:0:0_0|T4:9:3.5:2:1:8:2:::::|
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "sample_stream.h"

// Records of one thread of execution; they keep their order among each other.
struct sample_strand {
  std::string bytes;
  std::vector<size_t> ends;
  int parent;     // strand that announces this one; -1: the first
  size_t after;   // may begin when so many records of the parent have gone out
  bool announced; // the flowpath waits for it by itself; else the parent's last record waits for its first
};

// A flowpath being made.
struct sample_flowpath {
  sample_stream_t *stream;
  sample_call call;
  int64_t session;
  std::vector<sample_strand> strands;
  int side_segments_left; // the tree of segments has an end
};

// One segment that is being made.
struct sample_segment {
  sample_flowpath *flowpath;
  sample_tuple fpi;
  std::string begin_seq, thread_name;
  int64_t start_ms; // since the test's epoch
  int header_event; // 2: first of the flowpath; 82: a further one
  int strand;
  bool exit_form;
  uint32_t methods; // to be entered
  int32_t url_id;
};

sample_plan sample_make_flowpath(sample_stream_t &stream, const sample_call &call);

// The number of the segment that one numbered `begin_seq` starts with its callout `n`: 1.2.1 and 7 give 1.2.7.1
std::string sample_child_number(std::string_view begin_seq, int n);

// Ends the record at the end of the strand's bytes.
void sample_end_record(sample_strand &strand);

// --- sample_tree.cpp ------------------------------------------------------------------------------------------

// Writes a segment's header, its call tree in pieces and its result; further segments that it starts go to strands
// of their own.
void sample_write_segment(sample_segment &segment);

// --- sample_side_records.cpp ----------------------------------------------------------------------------------

// Request headers (12), which an agent may send ahead of the segment's header.
void sample_put_request_headers(std::string &out, sample_stream_t &stream, const sample_tuple &fpi);

// Some of the records that stand beside a call tree: 13, 16 to 20, 45, 46. Each ends a record of the strand.
void sample_put_side_records(sample_strand &strand, sample_stream_t &stream, const sample_segment &segment);

// "12,71:71:0:71,": what most side records begin with.
void sample_put_side_front(std::string &out, int event, const sample_tuple &fpi);

// The local id of a header's text drawn from those of one use.
int32_t sample_any_header_id(sample_stream_t &stream, sample_header_use use);

// The local id of the header's text in one place among those of one use.
int32_t sample_header_id(sample_stream_t &stream, sample_header_use use, uint32_t place);

// 31 or 38, with what was thrown where.
void sample_put_exception(std::string &out, sample_stream_t &stream, const sample_tuple &fpi, int64_t at_ms,
                          int32_t method_id);

// --- sample_detail.cpp ------------------------------------------------------------------------------------------

// One flowpath in three has more of its request captured. Tells whether this one does.
bool sample_is_detailed(sample_stream_t &stream, const sample_segment &segment);

// What an agent may send ahead of the segment's header: 18, 20, 46. Each ends a record of the strand.
void sample_put_detail_ahead(sample_strand &strand, sample_stream_t &stream, const sample_tuple &fpi);

// What follows the header: bodies with their announcements (14, 15), all kinds of items of 12, 17, 19, 20, 45.
void sample_put_detail(sample_strand &strand, sample_stream_t &stream, const sample_tuple &fpi);
