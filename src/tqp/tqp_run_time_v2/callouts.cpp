// Callouts: calls to other tiers and threads, databases, queues; asynchronous calls and their responses; errors.
//   In      one callout token of a blob, its parts joined by ':'; local ids, a start relative to the segment's begin
//   Out     the rewritten token behind the blob, or in the exit form behind the row on top; a row in the segment's callout
//           text; counts, the segment's clock, the integration point's worst response time in the slot
//   Thread  the instance's
//   Failure a token without the parts it must have is told and gives -1; what it has counted by then stays counted
// Samples:  T12:7:3.5:1:-:100:::::   E7:7:4:2:40:1500:500:9:77   a3:12:1:900:7:4:1:-:50:200:9:5   t5   e
// The first of them is kept as "T1.2.12:N:3.5:1:0:100:0:::" when it is the first one of segment 1.2.1.

#include "callout_text.h"

#include "flowpath_files.h"
#include "record_errors.h"
#include "tqp_sql_timing.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>

// --- kinds ------------------------------------------------------------------------------------------------------

// What a token without ':' is.
enum bare_rule : int8_t { BARE_BAD, BARE_MARK, BARE_COPIED };

struct callout_kind {
  char letter;
  bool counts;     // in call_out_count
  bool has_async;  // has the head of an asynchronous call
  bool has_status; // its status stands before the resource
  bare_rule bare;
};

static constexpr callout_kind callout_kinds[] = {
    // clang-format off
  {'T', true,  false, false, BARE_BAD},    // another tier
  {'t', false, false, false, BARE_MARK},   // another thread
  {'x', false, false, false, BARE_MARK},   // a segment begins on a thread
  {'c', false, false, false, BARE_BAD},
  {'g', false, false, false, BARE_BAD},
  {'e', false, false, false, BARE_COPIED}, // error mark
  {'E', true,  false, true,  BARE_BAD},    // error
  {'a', true,  true,  true,  BARE_BAD},    // asynchronous call
  {'A', false, true,  true,  BARE_BAD},    // its response
}; // clang-format on

static const callout_kind &kind_of(char letter) {
  for (const callout_kind &kind : callout_kinds)
    if (kind.letter == letter)
      return kind;
  return callout_kinds[0];
}

// Groups of backend_type, one bit a type.
constexpr uint32_t type_bits(std::initializer_list<int> types) {
  uint32_t bits = 0;
  for (const int type : types)
    bits |= 1U << type;
  return bits;
}

static constexpr uint32_t database_types = type_bits({2, 5, 9, 10, 15, 16, 18, 19, 20, 21, 22, 25});
static constexpr uint32_t http_types = type_bits({1, 26});
static constexpr uint32_t messaging_types = type_bits({11, 12, 13});

static bool is_one_of(uint32_t types, int32_t type) {
  return type >= 0 && type < 32 && (types >> type & 1U) != 0;
}

// --- a token, cut up ----------------------------------------------------------------------------------------------

// Texts are parts of the token or literals, and end with a NUL.
struct callout {
  const callout_kind *kind = nullptr;
  const char *token = nullptr;
  char *rest = nullptr;        // unread parts; null: none
  std::string_view first = ""; // kind and id text
  int32_t parent_seq_num = -1;
  int32_t async_flag = 0;
  int64_t flowpath = 0;
  int32_t backend_id = 0; // local
  int32_t backend_type = 0;
  bool has_resource = false;           // a field that says something, be it 0
  int64_t resource_id = 0;             // local
  char *sql_id = nullptr;              // local, as text
  bool has_start = false;              // false: start_text is the one that is shown instead
  std::string_view start_text = "0";   // ms since begin_ts
  std::string_view duration_text = ""; // ms
  std::string_view backend_type_text = "";
  std::string_view status = "";
  std::string_view query_parameter = "";
  std::string_view net_delay = ""; // ":req:rsp", "::" or nothing
  char net_delay_digits[48];
  double start = 0, duration = 0;
  int32_t norm_backend_id = 0, norm_sql_id = 0, norm_resource_id = 0;
};

// The part at *rest, which is cut there; *rest then stands behind the ':' or is null.
static std::string_view take_part(char **rest) {
  char *const text = *rest;
  char *const end = strchrnul(text, ':');
  *rest = *end != 0 ? end + 1 : nullptr;
  *end = 0;
  return {text, static_cast<size_t>(end - text)};
}

// Milliseconds, kept within what 64 bits hold; not a number is 0.
static double read_ms(const char *text) {
  const double value = tqp_blob_decimal(text);
  return std::isnan(value) ? 0 : std::clamp(value, -0x1p63, 0x1p63);
}

// The whole part of a number, or the nearest that there is.
template <class T> static T whole(double value) {
  using limits = std::numeric_limits<T>;
  if (value >= static_cast<double>(limits::max()))
    return limits::max();
  return value <= static_cast<double>(limits::min()) ? limits::min() : static_cast<T>(value);
}

// What stands behind the head of an asynchronous call. A head that is cut short is read again, as the common part.
static char *read_async_head(char *text, callout *c) {
  char *at = text;
  c->parent_seq_num = static_cast<int32_t>(tqp_next_part(&at));
  if (!at)
    return text;
  c->async_flag = static_cast<int8_t>(tqp_next_part(&at)); // NOLINT(bugprone-signed-char-misuse): a small number
  if (!at)
    return text;
  c->flowpath = tqp_next_part(&at);
  return at;
}

// Backend, duration, type, query, start. Only the last may be missing.
static bool read_common_part(const blob_reader *r, callout *c) {
  c->backend_id = static_cast<int32_t>(tqp_next_part(&c->rest));
  if (c->rest)
    c->duration_text = take_part(&c->rest);
  char *const type = c->rest;
  if (c->rest)
    c->backend_type_text = take_part(&c->rest);
  if (!c->rest) {
    tqp_blob_error(r, c->token, "tier/thread calout data", "method id not found.");
    return false;
  }
  c->backend_type = static_cast<int32_t>(tqp_blob_number(type));
  c->duration = read_ms(c->duration_text.data());
  c->sql_id = c->rest;
  take_part(&c->rest);
  c->has_start = c->rest != nullptr;
  if (c->has_start)
    c->start_text = take_part(&c->rest);
  else
    tqp_blob_error(r, c->token, "Error data", "Start time not found.");
  c->start = read_ms(c->start_text.data());
  return true;
}

// The end of a call moves the clock of the time check, but never back.
static void raise_clock(segment_fp_t *segment, const callout &c) {
  if (c.has_start)
    segment->last_record_timestamp =
        std::max(segment->last_record_timestamp, whole<int64_t>(std::ceil(c.duration + c.start)));
}

// An empty status ends the reading: nothing behind it counts.
static bool read_status(const blob_reader *r, callout *c) {
  if (c->kind->letter == 'E')
    tqp_add_number(r->segment->totalError, 1);
  if (!c->rest) {
    tqp_blob_error(r, c->token, "Error data", "Status code not found.");
    return false;
  }
  c->status = take_part(&c->rest);
  if (c->status.empty())
    c->rest = nullptr;
  return true;
}

// Gives the text of net_delay_rsp: `none` when it was not reached, null when the token ended before it.
static char *read_net_delay(char *req, callout *c, char *none) {
  if (*req == 0 || *req == ':') {
    if (c->kind->letter != 'T')
      return none;
    c->net_delay = "::";
    return *req == ':' ? req + 1 : nullptr;
  }
  char *rsp = req;
  const int64_t req_ms = tqp_next_part(&rsp);
  if (rsp) {
    char *const begin = c->net_delay_digits, *const end = begin + sizeof c->net_delay_digits;
    char *at = begin;
    for (const int64_t ms : {req_ms, tqp_blob_number(rsp)}) {
      *at++ = ':';
      at = std::to_chars(at, end, ms).ptr;
    }
    c->net_delay = {begin, static_cast<size_t>(at - begin)};
  }
  return rsp;
}

// Resource, delays, status, query parameter, as far as they go. The status that was read before stays only when the
// token ends with net_delay_req: readers of the rows know it so.
static void read_tail(callout *c) {
  char none[] = "";
  char *rsp = none;
  if (c->rest) {
    char *const resource = c->rest;
    c->has_resource = !take_part(&c->rest).empty();
    c->resource_id = tqp_blob_number(resource);
    if (c->rest)
      rsp = read_net_delay(c->rest, c, none);
  }
  if (!rsp)
    return;
  c->status = "";
  char *rest = strchr(rsp, ':');
  if (!rest)
    return;
  ++rest;
  c->status = take_part(&rest);
  if (rest)
    c->query_parameter = rest;
}

// --- what a callout adds to -------------------------------------------------------------------------------------

// Few points take part in one flowpath, and each callout looks for one: hence a walk, not an index.
static void update_backend_id_array(concurrent_flowpath_t *fp, int32_t backend_id, int32_t backend_duration) {
  record_array<ip_max_resp_time_t> &ipmrt = fp->ipmrt;
  for (int32_t i = 0; i < ipmrt.used; ++i)
    if (ipmrt.data[i].id == backend_id) {
      ipmrt.data[i].max_resp_time = std::max(ipmrt.data[i].max_resp_time, backend_duration);
      return;
    }
  record_array_room(ipmrt, ipmrt.used + 1, 8, "ipmrt");
  ipmrt.data[ipmrt.used++] = {backend_id, backend_duration};
}

static void run_database_call(blob_reader *r, callout *c) {
  segment_fp_t *const segment = r->segment;
  const auto begin_ts = static_cast<int64_t>(segment->begin_ts);
  const auto sql_index = static_cast<int32_t>(*c->sql_id == '-' ? 0 : tqp_blob_number(c->sql_id));
  if (sql_index != 0)
    c->norm_sql_id = tqp_norm_sql_id(r->inst, sql_index, begin_ts);
  if (!c->has_start)
    return;
  sql_call call = {};
  call.sql_id = c->sql_id;
  call.parameters = "";
  call.flowpath_id = segment->self_fpi;
  call.begin_ts = segment->begin_ts;
  call.time = tqp_wrap_sum(whole<int64_t>(c->start), static_cast<int64_t>(segment->begin_ts * 1000));
  call.duration = c->duration;
  call.found_norm_id = c->norm_sql_id;
  call.status = c->kind->letter;
  call.backend_norm_id = c->norm_backend_id;
  call.backend_type = c->backend_type;
  process_sql_record_data(r->inst, segment, call);
  if (sql_index != 0 && c->norm_sql_id < 1) // that may have just added it
    c->norm_sql_id = tqp_norm_sql_id(r->inst, sql_index, begin_ts);
}

static void run_by_backend_type(blob_reader *r, callout *c) {
  segment_fp_t *const segment = r->segment;
  if (is_one_of(database_types, c->backend_type))
    run_database_call(r, c);
  else if (is_one_of(http_types, c->backend_type) && c->kind->letter != 'a')
    tqp_add_number(segment->httpCalloutCount, 1);
  else if (is_one_of(messaging_types, c->backend_type))
    tqp_add_number(segment->jmsCallCount, 1);
}

// --- what a callout leaves ---------------------------------------------------------------------------------------

bool tqp_has_callout_target(const blob_reader *r) {
  if (!tqp_is_exit_form(r) || r->segment->method_call_stack.used > 0)
    return true;
  wllb_trace(
      1, "Error",
      "Error: Memory allocation failed for fp->method_call_stack[i].callout_infofp->method_call_stack[i].callout_info_len = %d and fp->method_call_stack[i].callout_info_malloced_len = %d",
      0, 0);
  return false;
}

static void put_values(wllb_putter *out, const callout &c, bool with_query) {
  out->put(':').num(c.norm_backend_id).put(':').put(c.duration_text).put(':').put(c.backend_type_text);
  out->put(':').num(c.norm_sql_id).put(':').put(c.start_text);
  if (c.kind->letter == 'E')
    out->put(':').put(c.status);
  out->put(':').num(c.norm_resource_id).put(c.net_delay);
  if (c.kind->has_async)
    out->put(':').num(c.parent_seq_num).put(':').num(c.flowpath);
  else if (c.kind->letter != 'E')
    out->put(':').put(c.status);
  if (with_query)
    out->put(':').put(c.query_parameter);
}

// Writes the token. A segment's first one ties the text to the tree: the number of the thread, without its last part,
// stands before the id.
static void put_token(const blob_reader *r, const callout &c, bool bare) {
  constexpr size_t numbers_and_marks = 128;
  if (!tqp_has_callout_target(r))
    return;
  segment_fp_t *const segment = r->segment;
  const std::string_view number = wllb_text_view(segment->begin_seq_num);
  const size_t dot = number.rfind('.');
  const std::string_view front = number.substr(0, dot == number.npos ? 0 : dot);
  const bool with_query = c.kind->letter == 'T' && !c.query_parameter.empty() && !tqp_is_exit_form(r);
  wllb_putter out = tqp_begin_callout(r, number.size() + c.first.size() + c.duration_text.size() +
                                             c.backend_type_text.size() + c.start_text.size() + c.status.size() +
                                             c.net_delay.size() + c.query_parameter.size() + numbers_and_marks);
  if (segment->f_skip_adding_seq_num_for_call_out)
    out.put(c.first);
  else
    out.put(c.first[0]).put(front).put('.').put(c.first.substr(1));
  if (!bare)
    put_values(&out, c, with_query);
  tqp_end_callout(r, out);
  segment->f_skip_adding_seq_num_for_call_out = 1;
}

static void dump_row(blob_reader *r, const callout &c) {
  callout_row row = {};
  row.get_val = c.first;
  row.backend_id = c.norm_backend_id;
  row.backend_type = c.backend_type_text;
  row.backend_sub_type = c.norm_sql_id;
  row.start_time = c.start_text.data();
  row.duration = c.duration_text;
  row.status_code = c.status;
  row.resource_id = c.norm_resource_id;
  row.net_delay = c.net_delay;
  row.callout_seqnum = c.kind->has_async ? c.parent_seq_num : 0;
  row.flowpath = c.kind->letter == 'A' ? c.flowpath : 0; // an "a" has it in its text only
  row.err_count = c.kind->letter == 'E' ? "1" : "0";
  row.async_flag = c.async_flag;
  csv_dump_callout(r->inst, r->segment, row);
}

static void dump_bare_row(blob_reader *r, const callout &c) {
  callout_row row = {};
  row.get_val = c.first;
  row.backend_id = -1;
  row.backend_type = "-1";
  row.backend_sub_type = -1;
  row.start_time = "";
  row.duration = row.status_code = row.net_delay = "";
  row.callout_seqnum = c.parent_seq_num;
  csv_dump_callout(r->inst, r->segment, row);
}

// --- both roads ---------------------------------------------------------------------------------------------------

// A token without ':', or an asynchronous one with nothing behind its head.
static bool run_bare_callout(blob_reader *r, const callout &c) {
  if (c.kind->bare == BARE_BAD) {
    tqp_blob_error(r, c.token, "error calout data", "");
    tqp_count_invalid_record(r->inst);
    return false;
  }
  if (c.kind->bare == BARE_MARK) {
    put_token(r, c, true);
    dump_bare_row(r, c);
    return true;
  }
  if (!tqp_has_callout_target(r))
    return false;
  tqp_end_callout(r, tqp_begin_bare_callout(r, c.first.size()).put(c.first)); // no '_' in front, in neither form
  return true;
}

static bool run_callout(blob_reader *r, callout *c) {
  if (!read_common_part(r, c))
    return false;
  if (!c->kind->has_status)
    raise_clock(r->segment, *c);
  else if (!read_status(r, c))
    return false;
  read_tail(c);
  c->norm_backend_id = tqp_norm_method_id(r->inst, c->backend_id, r->segment);
  update_backend_id_array(&blob_flowpath(r), c->norm_backend_id, whole<int32_t>(c->duration));
  run_by_backend_type(r, c);
  if (c->has_resource)
    c->norm_resource_id = tqp_norm_resource_id(r->inst, c->resource_id, r->segment);
  put_token(r, *c, false);
  dump_row(r, *c);
  return true;
}

int handle_callout(blob_reader *r, char *token) {
  callout c;
  c.kind = &kind_of(*token);
  c.token = token;
  if (c.kind->counts)
    tqp_add_number(r->segment->call_out_count, 1);
  c.rest = token;
  c.first = take_part(&c.rest);
  if (c.rest && c.kind->has_async)
    c.rest = read_async_head(c.rest, &c);
  if (!(c.rest ? run_callout(r, &c) : run_bare_callout(r, c)))
    return -1;
  tqp_add_number(r->segment->seq_num, 1);
  return 0;
}
