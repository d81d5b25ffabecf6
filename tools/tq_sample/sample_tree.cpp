// Writes one segment: header, call tree in pieces of either form, result. Time runs forward, ids are announced.
//   In      a segment to write; the stream for ids and chance
//   Out     records of the segment's strand, and strands of the segments that it starts
//   Thread  one
//   Failure none
// Classic form: an entry and an exit token per method, each field ended by "_".
// Exit form: one token per finished method, fields parted by "_", the token ended by "|".
#include <optional>
#include <vector>

#include "sample_flowpath.h"
#include "sample_records.h"
#include "sample_tags.h"

struct open_method {
  int32_t id;
  int32_t page;
  int64_t entered; // ms since the segment's start
  int64_t cpu;     // ms, with the methods below it; what callouts took is not in it
  int64_t waited;  // the walk's, when it was entered
  int start_seq;
  bool async; // entered on behalf of another thread's call
};

struct sample_walk {
  sample_segment *segment;
  sample_stream_t *stream;
  sample_random *random;
  int thread;
  std::string piece; // tokens that no record holds yet
  size_t piece_limit;
  std::vector<open_method> open;
  std::vector<size_t> new_strands; // started by tokens of the piece
  int64_t t;                       // ms since the segment's start
  int64_t cpu;                     // of the segment's first method, when it has ended
  int64_t waited;                  // ms that callouts took so far
  int seq;                         // numbers entries, exits and callouts
  uint32_t left;
  bool with_seq; // this agent tells the numbers of entries and exits
};

static sample_strand &strand_of(const sample_walk &walk) {
  return walk.segment->flowpath->strands[static_cast<size_t>(walk.segment->strand)];
}

static char token_end(const sample_walk &walk) {
  return walk.segment->exit_form ? '|' : '_';
}

// --- pieces ---------------------------------------------------------------------------------------------------

// Appends the piece to the record that was begun and ends it; strands that the piece announced may begin behind it.
static void end_piece(sample_walk &walk) {
  sample_strand &strand = strand_of(walk);
  sample_put(strand.bytes, walk.piece, '\n');
  sample_end_record(strand);
  walk.piece.clear();
  for (const size_t s : walk.new_strands)
    walk.segment->flowpath->strands[s].after = strand.ends.size();
  walk.new_strands.clear();
}

static void cut_piece(sample_walk &walk) {
  const int event = walk.segment->exit_form ? 43 : walk.segment->header_event == 82 ? 83 : 3;
  sample_put_piece_front(strand_of(walk).bytes, event, walk.segment->fpi);
  end_piece(walk);
}

static void cut_long_piece(sample_walk &walk) {
  if (walk.piece.size() < walk.piece_limit)
    return;
  cut_piece(walk);
  walk.piece_limit = walk.random->between(1500, 6000);
}

// --- callouts -------------------------------------------------------------------------------------------------

static void wait_for(sample_walk &walk, uint32_t ms) {
  walk.t += ms;
  walk.waited += ms;
}

static int32_t method_of(const sample_walk &walk, sample_layer layer) {
  return sample_any_id(*walk.stream, SAMPLE_METHOD, walk.stream->tier->layers[layer]);
}

struct callout_words {
  char kind;
  int number; // the callout's own, out of the segment's row
  sample_layer backend;
  uint32_t low, high; // how long it takes, in tenths of a millisecond
  int type;
  int32_t sql_id; // 0: none
};

// <kind><number>:backend:time:type:sql:start, and the time runs on to the callout's end.
static void put_callout_front(sample_walk &walk, const callout_words &words) {
  const uint32_t tenths = walk.random->between(words.low, words.high);
  sample_put(walk.piece, words.kind, words.number, ':', method_of(walk, words.backend), ':', tenths / 10, '.',
             tenths % 10, ':', words.type, ':');
  if (words.sql_id != 0)
    sample_put_one(walk.piece, words.sql_id);
  else
    sample_put(walk.piece, '-');
  sample_put(walk.piece, ':', walk.t);
  wait_for(walk, (tenths + 9) / 10);
}

static void put_resource(sample_walk &walk, sample_range among) {
  sample_put(walk.piece, ':', sample_any_id(*walk.stream, SAMPLE_RESOURCE, among));
}

static void put_db_callout(sample_walk &walk) {
  const sample_kind kind = walk.random->chance(80) ? SAMPLE_SQL : SAMPLE_SQL_PLAIN;
  const int32_t sql_id = sample_any_id(*walk.stream, kind);
  if (walk.random->chance(12)) { // several calls of one kind, told as a sum
    sample_put(walk.piece, 'G', method_of(walk, SAMPLE_BACKEND_DB), ":2:", sql_id, ':');
    const uint32_t count = walk.random->between(2, 40), each = walk.random->between(1, 4);
    const uint32_t total = count * each + count / 2; // half of them take a millisecond more
    sample_put(walk.piece, count, ':', each, ':', each + 1, ':', total, ":3:0", token_end(walk));
    wait_for(walk, total);
    return;
  }
  put_callout_front(walk, {'T', ++walk.seq, SAMPLE_BACKEND_DB, 2, 400, 2, sql_id});
  put_resource(walk, {0, 3});
  sample_put(walk.piece, "::::", token_end(walk));
}

static void put_http_callout(sample_walk &walk, bool failed) {
  put_callout_front(walk, {failed ? 'E' : 'T', ++walk.seq, SAMPLE_BACKEND_HTTP, 20, 1500, 1, 0});
  if (failed)
    sample_put(walk.piece, ":500");
  put_resource(walk, {3, 3});
  sample_put(walk.piece, failed ? ":1:2:500:step=" : ":1:2:200:step=", walk.random->below(9), token_end(walk));
}

static void put_queue_callout(sample_walk &walk) {
  put_callout_front(walk, {'T', ++walk.seq, SAMPLE_BACKEND_QUEUE, 5, 60, 11, 0});
  put_resource(walk, {6, 2});
  sample_put(walk.piece, "::::", token_end(walk));
}

static void put_cache_calls(sample_walk &walk) {
  sample_put(walk.piece, 'C', method_of(walk, SAMPLE_CACHE), ":1:2:");
  const uint32_t count = walk.random->between(1, 20);
  sample_put(walk.piece, count, ":1:1:", count, ":0", token_end(walk));
  wait_for(walk, count);
}

// A call of an instance of the next tier, whose flowpath begins while this one waits. False: nobody there takes it.
static bool put_tier_callout(sample_walk &walk) {
  if (walk.stream->next_tier.empty())
    return false;
  sample_stream_t &callee = *walk.random->one_of(walk.stream->next_tier);
  if (!sample_take_call(callee))
    return false;
  const sample_segment &segment = *walk.segment;
  const int number = ++walk.seq;
  const int64_t start_ms = segment.start_ms + walk.t + 2;
  const int64_t self = sample_new_fpi(callee, start_ms);
  callee.waiting.push_back({{self, segment.fpi.root, segment.fpi.self, self},
                            sample_child_number(segment.begin_seq, number),
                            segment.flowpath->call.correlation,
                            start_ms});
  put_callout_front(walk, {'T', number, SAMPLE_BACKEND_HTTP, 200, 2500, 1, 0});
  sample_put(walk.piece, "::2:3:200:", token_end(walk));
  return true;
}

// --- further segments -----------------------------------------------------------------------------------------

static size_t add_strand(sample_walk &walk, bool announced) {
  std::vector<sample_strand> &strands = walk.segment->flowpath->strands;
  strands.push_back({{}, {}, walk.segment->strand, 0, announced});
  walk.new_strands.push_back(strands.size() - 1);
  return strands.size() - 1;
}

static sample_segment side_segment(const sample_walk &walk, int number) {
  const sample_segment &segment = *walk.segment;
  sample_segment side = segment;
  const int64_t start_ms = segment.start_ms + walk.t + 1;
  // All segments of a flowpath tell alike who started it.
  constexpr int64_t from_users = int64_t{1} << 62;
  const int64_t self = (sample_new_fpi(*walk.stream, start_ms) & ~from_users) | (segment.fpi.main & from_users);
  side.fpi = {self, segment.fpi.root, segment.fpi.self, segment.fpi.main};
  side.begin_seq = sample_child_number(segment.begin_seq, number);
  side.thread_name.clear();
  sample_put(side.thread_name, "pool-2-thread-", walk.random->between(1, 16));
  side.start_ms = start_ms;
  side.header_event = 82;
  side.methods = segment.methods / 4 + 1;
  side.url_id = 0;
  return side;
}

// Hands work to another thread: writes the token, and gives the segment that begins there.
static sample_segment announce_side_segment(sample_walk &walk) {
  const bool exit_form = walk.segment->exit_form;
  const int number = ++walk.seq;
  if (walk.random->chance(50)) {
    sample_put(walk.piece, exit_form ? 't' : 'x', number);
  } else {
    put_callout_front(walk, {exit_form ? 't' : 'x', number, SAMPLE_INNER, 0, 20, 4, 0});
    sample_put(walk.piece, ":::::");
  }
  sample_put_one(walk.piece, token_end(walk));
  --walk.segment->flowpath->side_segments_left;
  return side_segment(walk, number);
}

// The classic form announces the new segment with "x"; the exit form has no such word, so there the new segment's header
// must come before this segment's last record, which a cut makes sure of.
static void write_side_segment(sample_walk &walk, sample_segment side) {
  side.strand = static_cast<int>(add_strand(walk, !walk.segment->exit_form));
  if (walk.segment->exit_form)
    cut_piece(walk);
  sample_write_segment(side);
}

// An asynchronous call whose response comes in one line of its own, possibly after this segment's end.
static void start_async_call(sample_walk &walk) {
  const int number = ++walk.seq;
  const sample_segment side = side_segment(walk, number);
  const int32_t backend_id = method_of(walk, SAMPLE_BACKEND_HTTP);
  const int32_t resource = sample_any_id(*walk.stream, SAMPLE_RESOURCE, {3, 3});
  const uint32_t wait_ms = walk.random->between(10, 90);
  sample_put(walk.piece, 'a', number, ':', number - 1, ":0:", side.fpi.self, ':', backend_id, ":0:1:-:", walk.t,
             ":202:", resource, ":1:1", token_end(walk));
  sample_strand &answer = walk.segment->flowpath->strands[add_strand(walk, true)];
  sample_header header = {};
  header.event = 80;
  header.fpi = side.fpi;
  header.start_ms = side.start_ms + wait_ms; // the end of the call
  header.tier_id = walk.stream->inst->tier_id;
  header.begin_seq = side.begin_seq;
  header.thread_name = side.thread_name;
  sample_put_async_front(answer.bytes, header);
  sample_put(answer.bytes, 'A', number, ':', number - 1, ":0:", side.fpi.self, ':', backend_id, ':', wait_ms,
             ".5:1:-:0:200:", resource, ":1:1_\n");
  sample_end_record(answer);
}

// --- methods --------------------------------------------------------------------------------------------------

// Time that the innermost method itself takes, all or part of it on the processor.
static void work_on(sample_walk &walk, uint32_t most_ms) {
  const uint32_t ms = walk.random->below(most_ms);
  walk.t += ms;
  if (!walk.open.empty())
    walk.open.back().cpu += walk.random->between(ms / 2, ms);
}

static void enter_method(sample_walk &walk, sample_layer layer) {
  open_method method = {};
  method.id = method_of(walk, layer);
  if (layer == SAMPLE_ENTRY && walk.random->chance(70))
    method.page = sample_any_id(*walk.stream, SAMPLE_ARG);
  work_on(walk, 4);
  method.entered = walk.t;
  method.waited = walk.waited;
  method.start_seq = ++walk.seq;
  method.async = walk.random->below(60) == 0;
  walk.open.push_back(method);
  if (walk.left > 0)
    --walk.left;
  if (walk.segment->exit_form)
    return;
  sample_put(walk.piece, method.id, ':', walk.thread);
  if (method.async)
    sample_put(walk.piece, ":1:task-", method.start_seq);
  sample_put(walk.piece, "_0");
  if (walk.with_seq)
    sample_put(walk.piece, ':', method.start_seq, ":0");
  sample_put(walk.piece, '_', method.entered, '_', method.page, '_');
}

static void leave_method(sample_walk &walk, bool thrown, int32_t sql_id) {
  work_on(walk, 3);
  const open_method method = walk.open.back();
  const int64_t depth = static_cast<int64_t>(walk.open.size());
  walk.open.pop_back();
  ++walk.seq;
  (walk.open.empty() ? walk.cpu : walk.open.back().cpu) += method.cpu;
  const int64_t duration = walk.t - method.entered;
  const int64_t wait = (walk.waited - method.waited) / 2;
  if (walk.segment->exit_form) {
    sample_put(walk.piece, method.id, ':', walk.thread, method.async ? ":1_1:" : "_1:", method.start_seq, ':', walk.seq,
               '_', depth, '_', method.entered, ':', duration, '_', method.page, '_', method.cpu, ':', wait,
               ":0:0:0_0|");
    return;
  }
  sample_put(walk.piece, method.id, ':', walk.thread, thrown ? "_3" : "_1");
  if (walk.with_seq)
    sample_put(walk.piece, ':', walk.seq);
  sample_put(walk.piece, '_', duration, '_', method.cpu, ':', wait, ":0:0:0_");
  if (sql_id != 0)
    sample_put(walk.piece, sql_id, "_id=", walk.seq, '_');
  else
    sample_put(walk.piece, "__");
}

// A method that the agent saw but does not time.
static void note_method(sample_walk &walk) {
  sample_put(walk.piece, method_of(walk, SAMPLE_INNER), "_2", token_end(walk));
}

static void put_callout_of(sample_walk &walk, sample_layer layer, bool thrown) {
  if (layer == SAMPLE_STORE)
    put_db_callout(walk);
  else if (layer == SAMPLE_CACHE)
    put_cache_calls(walk);
  else if (layer == SAMPLE_CLIENT && walk.random->chance(20))
    put_queue_callout(walk);
  else if (layer == SAMPLE_CLIENT && !(walk.random->chance(50) && !thrown && put_tier_callout(walk)))
    put_http_callout(walk, thrown);
}

// A method that ends in a callout. In the exit form the callout's token follows that of its method.
static void visit_leaf(sample_walk &walk) {
  static constexpr sample_layer layers[] = {SAMPLE_INNER, SAMPLE_INNER, SAMPLE_INNER,  SAMPLE_INNER,
                                            SAMPLE_STORE, SAMPLE_STORE, SAMPLE_CLIENT, SAMPLE_CACHE};
  const sample_layer layer = walk.random->one_of(layers);
  const bool thrown = layer == SAMPLE_CLIENT && walk.random->chance(4);
  enter_method(walk, layer);
  const int32_t method_id = walk.open.back().id;
  const int32_t sql_id = layer == SAMPLE_STORE && walk.random->chance(20) ? sample_any_id(*walk.stream, SAMPLE_SQL) : 0;
  std::string callout;
  if (walk.segment->exit_form)
    callout.swap(walk.piece);
  put_callout_of(walk, layer, thrown);
  if (walk.segment->exit_form)
    callout.swap(walk.piece);
  leave_method(walk, thrown, sql_id);
  walk.piece += callout;
  if (thrown) {
    sample_strand &strand = strand_of(walk);
    sample_put_exception(strand.bytes, *walk.stream, walk.segment->fpi, walk.segment->start_ms + walk.t, method_id);
    sample_end_record(strand);
  }
}

// In the exit form a method of its own starts the work, since its token must stand before the work's.
static void start_other_work(sample_walk &walk) {
  const bool exit_form = walk.segment->exit_form;
  const bool segment = walk.segment->flowpath->side_segments_left > 0;
  if (!segment && (walk.segment->header_event != 2 || !walk.random->chance(15)))
    return;
  std::string token;
  if (exit_form) {
    enter_method(walk, SAMPLE_INNER);
    token.swap(walk.piece);
  }
  std::optional<sample_segment> side;
  if (segment)
    side = announce_side_segment(walk);
  else
    start_async_call(walk);
  if (exit_form) {
    token.swap(walk.piece);
    leave_method(walk, false, 0);
    walk.piece += token;
  }
  if (side)
    write_side_segment(walk, *side);
}

static void walk_tree(sample_walk &walk) {
  constexpr size_t max_depth = 24;
  enter_method(walk, walk.segment->header_event == 2 ? SAMPLE_ENTRY : SAMPLE_INNER);
  while (!walk.open.empty()) {
    cut_long_piece(walk);
    const uint32_t dice = walk.random->below(100);
    if (walk.left == 0)
      leave_method(walk, false, 0); // NOLINT(bugprone-branch-clone): the last one is for the other throws of the dice
    else if (dice < 30 && walk.open.size() < max_depth)
      enter_method(walk, SAMPLE_INNER);
    else if (dice < 70)
      visit_leaf(walk);
    else if (dice < 72)
      note_method(walk);
    else if (dice < 78)
      start_other_work(walk);
    else if (walk.open.size() > 1)
      leave_method(walk, false, 0);
  }
}

// --- the segment ----------------------------------------------------------------------------------------------

static void begin_segment(sample_walk &walk) {
  const sample_segment &segment = *walk.segment;
  sample_strand &strand = strand_of(walk);
  const bool captured = segment.header_event == 2 && walk.random->chance(50);
  const bool ahead = captured && walk.random->chance(5);
  if (ahead) {
    sample_put_request_headers(strand.bytes, *walk.stream, segment.fpi);
    sample_end_record(strand);
  }
  const bool detailed = sample_is_detailed(*walk.stream, segment);
  if (detailed && walk.random->chance(25))
    sample_put_detail_ahead(strand, *walk.stream, segment.fpi);
  std::string query;
  if (walk.random->chance(40))
    sample_put(query, "customer=", walk.random->below(5000), "&view=full");
  sample_put_header(strand.bytes, {segment.header_event, segment.fpi, segment.start_ms, walk.stream->inst->tier_id,
                                   segment.begin_seq, query, segment.flowpath->call.correlation, segment.thread_name,
                                   segment.url_id, segment.flowpath->session, segment.header_event == 82 ? 2 : 1});
  sample_end_record(strand);
  if (captured && !ahead) {
    sample_put_request_headers(strand.bytes, *walk.stream, segment.fpi);
    sample_end_record(strand);
  }
  if (detailed)
    sample_put_detail(strand, *walk.stream, segment.fpi);
  if (segment.header_event == 2)
    sample_put_side_records(strand, *walk.stream, segment);
}

static void end_segment(sample_walk &walk) {
  const sample_segment &segment = *walk.segment;
  sample_result result = {};
  result.event = segment.exit_form ? 44 : segment.header_event == 82 ? 84 : 4;
  result.fpi = segment.fpi;
  result.status = walk.random->chance(96) ? 200 : 500;
  result.category = walk.t > 2000 ? 12 : walk.t > 800 ? 11 : 10;
  result.cpu_ms = walk.cpu;
  result.wait_ms = walk.waited / 2;
  result.response_ms = walk.t;
  result.url_id = walk.random->chance(50) ? segment.url_id : 0;
  result.tag_id = walk.random->chance(80) ? -1 : sample_tag_set(segment.fpi.main);
  result.flowpath_type = segment.header_event == 82 ? 2 : 1;
  result.correlation = segment.flowpath->call.correlation;
  sample_put_result(strand_of(walk).bytes, result);
  end_piece(walk);
}

void sample_write_segment(sample_segment &segment) {
  sample_walk walk = {};
  walk.segment = &segment;
  walk.stream = segment.flowpath->stream;
  walk.random = &walk.stream->random;
  walk.thread = static_cast<int>(walk.random->between(10, 99));
  walk.piece_limit = walk.random->between(1500, 6000);
  walk.left = segment.methods;
  walk.with_seq = walk.stream->inst->server_id % 4 < 2;
  begin_segment(walk);
  walk_tree(walk);
  end_segment(walk);
}
