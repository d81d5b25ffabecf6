// What one generated agent sends: the records of its raw data file in their order.
//   In      the model, what the command line asked for, one seeded row of numbers per instance
//   Out     whole records at the end of `out`; the caller writes and empties it
//   Thread  one
//   Failure none
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "sample_model.h"
#include "sample_tools.h"

enum sample_mix : uint8_t { SAMPLE_MIX_DISCOVERY, SAMPLE_MIX_SKIPPED, SAMPLE_MIX_ALL };

// What every instance is asked to send.
struct sample_load_t {
  sample_mix mix;
  uint32_t flowpath_methods; // about so many methods in a flowpath's first segment
  uint32_t in_flight;        // flowpaths whose records interleave
  uint32_t forget;           // every so many-th announcement of an id stays away; 0: none
  bool old_agents;           // of the first version, which is asked for metadata in a form of its own
  uint32_t late;             // every so many-th flowpath began two seconds earlier than it is reported; 0: none
};

// Names a segment: itself, the whole transaction's first one, the one that started it, the one that owns the flowpath.
struct sample_tuple {
  int64_t self, root, parent, main;
};

// A flowpath that is to begin: by itself, or because a flowpath of another tier called.
struct sample_call {
  sample_tuple fpi;
  std::string begin_seq; // "1", or the caller's number with the callout's own: "12.1"
  std::string correlation;
  int64_t start_ms; // since the test's epoch
};

// The records of one flowpath, in the order in which they go out among those of others.
struct sample_plan {
  std::string bytes;
  std::vector<size_t> ends; // where each record ends
  size_t next;              // the record that goes out next
};

struct sample_stream_t {
  const sample_instance_t *inst;
  const sample_tier_t *tier;
  const sample_load_t *load;
  const std::vector<std::string> *vocabulary; // SAMPLE_MIX_DISCOVERY only
  std::vector<sample_stream_t *> next_tier;   // whom its flowpaths call
  sample_random random;
  std::string out; // records that were not written yet

  // --- ids ---
  std::vector<int32_t> local_ids[SAMPLE_KINDS]; // by text; 0: not announced yet
  int32_t last_local_id[SAMPLE_KINDS];          // ids are handed out densely from 1
  uint32_t announced;                           // of the kinds that may be forgotten
  int64_t last_fpi_ms;                          // time and running number in the newest fpi
  int32_t last_fpi_seq;

  // --- clock, in ms since the test's epoch ---
  int64_t now_ms;
  int64_t end_ms; // of the partition; the clock slows down in front of it
  bool paced;     // the clock is set from outside

  // --- flowpaths ---
  std::vector<sample_plan> in_flight;
  std::deque<sample_call> waiting; // calls from other tiers
  int64_t begun, begin_limit;      // flowpaths, waiting ones among them
  int64_t written, write_limit;    // bytes of records; the limit ends new work
  int64_t planned;                 // bytes that the flowpaths in flight still have to send
  int64_t flowpaths;               // ended ones
};

sample_stream_t sample_make_stream(const sample_model_t &model, size_t instance, const sample_load_t &load,
                                   uint64_t seed);

// Lets the streams' flowpaths call those of the next tier. The streams stay where they are from now on.
void sample_connect_tiers(std::vector<sample_stream_t> &streams);

// Opens a raw data file: identity and connection; in the first partition the announcements of the agent's start.
void sample_begin_file(sample_stream_t &stream, bool first_partition);

// Appends the next record to stream.out. False: the limits are reached and nothing is in flight.
bool sample_next_record(sample_stream_t &stream);

// The local id of a text; the first time it is asked for, its discovery record goes to stream.out,
// unless the load wants it forgotten.
int32_t sample_local_id(sample_stream_t &stream, sample_kind kind, uint32_t text_index);

// The local id of a text drawn from a part of a kind, or from all of it.
int32_t sample_any_id(sample_stream_t &stream, sample_kind kind, sample_range among);
int32_t sample_any_id(sample_stream_t &stream, sample_kind kind);

int64_t sample_new_fpi(sample_stream_t &stream, int64_t ms);

// True while the stream may begin one more flowpath for a caller; counts it.
bool sample_take_call(sample_stream_t &stream);
