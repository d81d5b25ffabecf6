// Writers of single raw data records. Each one appends one line; fields are separated by commas.
//   In      a text to append to, and the values
//   Out     the line
//   Thread  one
//   Failure none
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sample_model.h"
#include "sample_stream.h"

// 0,tier,server,app,1,1,1
void sample_put_identity(std::string &out, const sample_instance_t &inst);

// 99,x,FPGVersion:2.0,JAVA; old agents: 1.0
void sample_put_connection(std::string &out, bool old_agent);

// 11: the agent sends all its metadata anew. 110, 111, 112: labels. 91: who answers a backend.
void sample_put_start_of_agent(std::string &out, const sample_instance_t &inst, std::string_view next_tier);

// A text and its local id; where the record has two forms, either of them.
void sample_put_discovery(std::string &out, sample_random &random, sample_kind kind, std::string_view text,
                          int32_t local_id);

// self:root:parent:main
void sample_put_tuple(std::string &out, const sample_tuple &fpi);

// What opens a segment (2, 82).
struct sample_header {
  int event;
  sample_tuple fpi;
  int64_t start_ms;
  int tier_id;
  std::string_view begin_seq, query, correlation, thread_name;
  int32_t url_id; // 0: none
  int64_t session;
  int flowpath_type; // from 1
};

void sample_put_header(std::string &out, const sample_header &header);

// What closes a segment (4, 44, 84), in front of its last piece of blob.
struct sample_result {
  int event;
  sample_tuple fpi;
  int status, category;
  int64_t cpu_ms, wait_ms, response_ms;
  int32_t url_id; // 0: as the header told
  int32_t tag_id; // -1: those of the whole instance
  int flowpath_type;
  std::string_view correlation;
};

void sample_put_result(std::string &out, const sample_result &result);

// The front of a piece of blob that does not close its segment (3, 43, 83).
void sample_put_piece_front(std::string &out, int event, const sample_tuple &fpi);

// The front of an asynchronous response in one line (80).
void sample_put_async_front(std::string &out, const sample_header &header);

// A record that readers pass over: counts of monitors, application names, digests.
void sample_put_skipped(std::string &out, sample_random &random, int event, int64_t now_ms);
int sample_any_skipped_event(sample_random &random);

// 10: the agent has nothing more to say.
void sample_put_end(std::string &out);
