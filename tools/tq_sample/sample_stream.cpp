// One generated agent: its local ids, its clock, the flowpaths in flight, the order of its records.
//   In      the load; calls from the tier before
//   Out     stream.out
//   Thread  one
//   Failure none
#include "sample_stream.h"

#include "sample_flowpath.h"
#include "sample_records.h"

sample_stream_t sample_make_stream(const sample_model_t &model, size_t instance, const sample_load_t &load,
                                   uint64_t seed) {
  sample_stream_t stream = {};
  stream.inst = &model.instances[instance];
  stream.tier = &model.tiers[static_cast<size_t>(stream.inst->tier_index)];
  stream.load = &load;
  stream.random.state = seed * 1000003U + instance;
  for (size_t kind = 0; kind < SAMPLE_KINDS; ++kind)
    stream.local_ids[kind].resize(stream.tier->texts[kind].size());
  return stream;
}

void sample_connect_tiers(std::vector<sample_stream_t> &streams) {
  for (sample_stream_t &stream : streams)
    for (sample_stream_t &other : streams)
      if (other.inst->tier_index == stream.inst->tier_index + 1)
        stream.next_tier.push_back(&other);
}

// --- ids ------------------------------------------------------------------------------------------------------

int32_t sample_local_id(sample_stream_t &stream, sample_kind kind, uint32_t text_index) {
  int32_t &id = stream.local_ids[kind][text_index];
  if (id == 0) {
    // SQL texts of both kinds share one row of ids.
    id = ++stream.last_local_id[kind == SAMPLE_SQL_PLAIN ? SAMPLE_SQL : kind];
    const size_t before = stream.out.size();
    sample_put_discovery(stream.out, stream.random, kind, stream.tier->texts[kind][text_index], id);
    // Nobody can ask for a stack trace, so that none is forgotten.
    if (stream.load->forget > 0 && kind != SAMPLE_EXCP_ST && ++stream.announced % stream.load->forget == 0)
      stream.out.resize(before);
  }
  return id;
}

int32_t sample_any_id(sample_stream_t &stream, sample_kind kind, sample_range among) {
  return sample_local_id(stream, kind, among.first + stream.random.below(among.count));
}

int32_t sample_any_id(sample_stream_t &stream, sample_kind kind) {
  return sample_any_id(stream, kind, {0, static_cast<uint32_t>(stream.tier->texts[kind].size())});
}

// Bits, from the lowest: 8 running number, 38 milliseconds, 10 application, 4 edition, 62: not from the load generator.
int64_t sample_new_fpi(sample_stream_t &stream, int64_t ms) {
  if (ms > stream.last_fpi_ms) {
    stream.last_fpi_ms = ms;
    stream.last_fpi_seq = 0;
  } else if (++stream.last_fpi_seq > 255) {
    ++stream.last_fpi_ms;
    stream.last_fpi_seq = 0;
  }
  const auto time_bits = static_cast<uint64_t>(stream.last_fpi_ms) & 0x3fffffffffU;
  const auto app_bits = static_cast<uint64_t>(stream.inst->app_id) & 0x3ffU;
  const uint64_t from_users = stream.inst->tier_index == 0 && time_bits % 4 == 0 ? 0 : 1;
  return static_cast<int64_t>(from_users << 62U | 1ULL << 56U | app_bits << 46U | time_bits << 8U |
                              static_cast<uint64_t>(stream.last_fpi_seq));
}

// --- the file's head ------------------------------------------------------------------------------------------

// An agent announces at its start what it has instrumented so far; the rest follows when it is first met.
static void announce_start(sample_stream_t &stream) {
  std::string next_tier;
  if (!stream.next_tier.empty())
    next_tier = stream.next_tier[0]->tier->name;
  sample_put_start_of_agent(stream.out, *stream.inst, next_tier);
  for (size_t kind = 0; kind < SAMPLE_KINDS; ++kind)
    for (uint32_t i = 0; i < stream.local_ids[kind].size() * 6 / 10; ++i)
      sample_local_id(stream, static_cast<sample_kind>(kind), i);
}

void sample_begin_file(sample_stream_t &stream, bool first_partition) {
  sample_put_identity(stream.out, *stream.inst);
  sample_put_connection(stream.out, stream.load->old_agents);
  if (first_partition && stream.load->mix == SAMPLE_MIX_ALL)
    announce_start(stream);
}

// --- records of the mixes -------------------------------------------------------------------------------------

static bool may_begin(const sample_stream_t &stream) {
  return stream.begun < stream.begin_limit &&
         stream.written + static_cast<int64_t>(stream.out.size()) + stream.planned < stream.write_limit;
}

bool sample_take_call(sample_stream_t &stream) {
  constexpr size_t longest_queue = 8;
  if (!may_begin(stream) || stream.waiting.size() >= longest_queue)
    return false;
  ++stream.begun;
  return true;
}

// The clock of a stream that is not paced runs a little with each flowpath, and slower near the partition's end.
static void run_clock(sample_stream_t &stream) {
  if (stream.paced)
    return;
  const int64_t room = (stream.end_ms - stream.now_ms) / 64;
  const int64_t step = stream.random.between(4, 60);
  stream.now_ms += room < step ? (room > 0 ? room : 0) : step;
}

static sample_call own_call(sample_stream_t &stream) {
  const int64_t self = sample_new_fpi(stream, stream.now_ms);
  constexpr int64_t late_ms = 2000;
  const bool late = stream.load->late > 0 && stream.begun % stream.load->late == 0;
  sample_call call = {{self, self, 0, self}, "1", {}, stream.now_ms - (late ? late_ms : 0)};
  sample_put(call.correlation, "tx-", stream.random.next() >> 24U);
  return call;
}

// Begins one more flowpath, behind the others. False: as many as were asked for are in flight, or the limits are reached.
static bool begin_flowpath(sample_stream_t &stream) {
  if (stream.in_flight.size() >= stream.load->in_flight)
    return false;
  sample_call call;
  if (!stream.waiting.empty()) {
    call = std::move(stream.waiting.front());
    stream.waiting.pop_front();
  } else if (may_begin(stream)) {
    ++stream.begun;
    run_clock(stream);
    call = own_call(stream);
  } else {
    return false;
  }
  stream.in_flight.push_back(sample_make_flowpath(stream, call));
  stream.planned += static_cast<int64_t>(stream.in_flight.back().bytes.size());
  return true;
}

static void put_record_of_flowpath(sample_stream_t &stream, size_t which) {
  sample_plan &plan = stream.in_flight[which];
  const size_t begin = plan.next == 0 ? 0 : plan.ends[plan.next - 1];
  const size_t length = plan.ends[plan.next] - begin;
  stream.out.append(plan.bytes, begin, length);
  stream.planned -= static_cast<int64_t>(length);
  if (++plan.next == plan.ends.size()) {
    ++stream.flowpaths;
    std::swap(plan, stream.in_flight.back());
    stream.in_flight.pop_back();
  }
}

// A new flowpath's first record goes out at once: for a reader, too, it is in flight from now on.
static bool next_flowpath_record(sample_stream_t &stream) {
  if (begin_flowpath(stream)) {
    put_record_of_flowpath(stream, stream.in_flight.size() - 1);
    return true;
  }
  if (stream.in_flight.empty())
    return false;
  if (stream.random.chance(2)) // what monitors report in between
    sample_put_skipped(stream.out, stream.random, sample_any_skipped_event(stream.random), stream.now_ms);
  else
    put_record_of_flowpath(stream, stream.random.below(static_cast<uint32_t>(stream.in_flight.size())));
  return true;
}

static bool next_skipped_record(sample_stream_t &stream) {
  static constexpr int events[] = {8, 61, 85, 121};
  sample_put_skipped(stream.out, stream.random, stream.random.one_of(events), ++stream.now_ms);
  return true;
}

// Every method keeps its id: an agent that starts anew announces the same ones.
static bool next_discovery_record(sample_stream_t &stream) {
  if (stream.random.chance(50))
    return next_skipped_record(stream);
  const uint32_t method = stream.random.below(static_cast<uint32_t>(stream.vocabulary->size()));
  sample_put(stream.out, "5,", (*stream.vocabulary)[method], ',', method + 1, '\n');
  return true;
}

bool sample_next_record(sample_stream_t &stream) {
  if (stream.load->mix == SAMPLE_MIX_ALL)
    return next_flowpath_record(stream);
  if (!may_begin(stream))
    return false;
  return stream.load->mix == SAMPLE_MIX_DISCOVERY ? next_discovery_record(stream) : next_skipped_record(stream);
}
