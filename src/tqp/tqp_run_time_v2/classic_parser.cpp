// Reads a piece of a blob in the classic form: entries and exits in time order, callouts between them.
//   In      whole tokens, each field ended by '_'; local ids, times relative to the segment or to the method's entry
//   Out     the segment's call stack, rewritten blob, signature source, counts and clock; timing, SQL and argument rows
//   Thread  the instance's
//   Failure a token that cannot be read ends the piece (-1), an exit on an empty stack the flowpath (-2); what was written
//           before stays
// Sample:  17:99_0_120_0_17:99_1_35_4:0:0:0:0___  an entry at 120 ms, its exit 35 ms later

#include "blob_memory.h"
#include "classic_form.h"

#include "flowpath_files.h"
#include "record_errors.h"
#include "tqp_async_handling.h"
#include "tqp_method_timing.h"
#include "tqp_sql_timing.h"

#include <algorithm>

// Beside the results of a parser: the piece goes on.
static constexpr int GO_ON = 2;

static constexpr char signature_label[] = "FP Signature Realloc";

// One call of the parser.
struct classic_run {
  blob_reader *r;
  int32_t rel_time; // of the method token read last that has a time, ms
};

static bool at_end(const blob_reader *r) {
  return tqp_at_text_end(r->pos, r->end);
}

static int give_up(const blob_reader *r, const char *token, const char *words) {
  tqp_blob_error(r, token, "method data", words);
  return -1;
}

// The message for a stack that is empty when it should not be.
static void tell_empty_stack(const blob_reader *r, const char *token, const char *words) {
  const blob_quote q = tqp_blob_quote(r, token);
  tqp_rawdata_error(r->inst,
                    "FPI = %lldFound invalid method data at character number %d in sequence blob. (%*.*s ...) %s",
                    static_cast<long long>(r->segment->self_fpi), q.character_number, q.width, q.len, q.text, words);
}

// --- tokens that are no methods ----------------------------------------------------------------------------------

// An "x" tells of a segment that another thread will send: its number is this segment's with the last part replaced.
static void announce_segment(blob_reader *r, int64_t number) {
  const wllb_text &own = r->segment->begin_seq_num;
  if (!own.data)
    return;
  const std::string_view text = wllb_text_view(own);
  const int front = static_cast<int>(text.rfind('.') + 1); // without a dot: 0
  const std::string announced = wllb_format("%.*s%lld.1", front, text.data(), static_cast<long long>(number));
  concurrent_flowpath_t &fp = blob_flowpath(r);
  if (!tqp_announce_segment(r->inst, &fp, announced.c_str()))
    return;
  wllb_trace(3, "Info", "Inserting in Pending Segment Array; main_fpi=%ld; begin seq#=%s",
             static_cast<long>(fp.main_fpi), announced.c_str());
  wllb_trace(3, "Info", " event_id = '%d' self_fpi = '%lld' Pending Segments Count = '%d'", r->event_id,
             static_cast<long long>(r->segment->self_fpi), fp.pending_segments_count);
}

enum other_token { TOKEN_DONE, TOKEN_IGNORED, TOKEN_BAD, TOKEN_IS_METHOD };

// The response count moves even when the token is then ignored.
static other_token run_callout(blob_reader *r, char *token) {
  const char kind = *token;
  if (kind == 'a')
    ++blob_flowpath(r).pending_callouts_count;
  else if (kind == 'A')
    --blob_flowpath(r).pending_callouts_count;
  if (!r->segment->seq_blob_start && kind != 'A') {
    wllb_trace(2, "Error",
               "Error: Got '%c' before any method entry in seq blob for FPI : %lld in raw file, ignoring this. ", kind,
               static_cast<long long>(r->segment->self_fpi));
    return TOKEN_IGNORED;
  }
  tqp_count_memory_of(
      r->segment->sqb_malloced_len,
      static_cast<int64_t>(r->segment->begin_seq_num.len + r->segment->seq_blob.len + 100 + strlen(token)));
  const int64_t announced = kind == 'x' ? tqp_blob_number(token + 1) : 0;
  if (handle_callout(r, token) < 0)
    return TOKEN_BAD;
  if (kind == 'x')
    announce_segment(r, announced);
  return TOKEN_DONE;
}

static other_token run_other_token(blob_reader *r, char *token) {
  switch (*token) {
  case 'T':
  case 't':
  case 'c':
  case 'E':
  case 'g':
  case 'e':
  case 'a':
  case 'A':
  case 'x':
    return run_callout(r, token);
  case 'G':
    return handle_grouped_queries(r, token) < 0 ? TOKEN_BAD : TOKEN_DONE;
  case 'C':
    handle_coherence(r, token);
    return TOKEN_DONE;
  default:
    return TOKEN_IS_METHOD;
  }
}

// --- the head of a method token -------------------------------------------------------------------------------------

static void read_task_id(const char *text, classic_method *m) {
  const size_t len = strnlen(text, sizeof m->task_id - 2);
  m->task_id[0] = ':';
  memcpy(m->task_id + 1, text, len);
  m->task_id_len = static_cast<uint8_t>(len + 1);
}

// The usual method field: an id, or an id and a thread. False for any other, which is still to be read.
static bool read_plain_method_field(blob_reader *r, classic_method *m) {
  blob_numbers numbers;
  numbers.second = r->pos + 1;
  const int count = tqp_next_blob_numbers(r->pos, r->end, 2, &numbers);
  if (count == 0)
    return false;
  m->method_id = static_cast<int32_t>(numbers.value[0]);
  if (count == 2) {
    numbers.second[-1] = 0;
    r->segment->async_flag = 1;
    m->thread_id = numbers.value[1];
  }
  return true;
}

// "method_id", then thread, asynchronous mark and task id as far as they go.
static void read_method_field(segment_fp_t *segment, char *text, classic_method *m) {
  m->method_id = static_cast<int32_t>(tqp_next_part(&text));
  if (text) {
    text[-1] = 0;
    segment->async_flag = 1;
    m->thread_id = tqp_next_part(&text);
    m->async_call = text != nullptr;
    char *const task_id = text ? strchr(text, ':') : nullptr;
    if (task_id)
      read_task_id(task_id + 1, m);
  }
}

// Reads the first field of a token, which is no plain method field, and runs the token unless it is a method's after all.
static other_token run_token(blob_reader *r, classic_method *m) {
  const blob_field field = tqp_next_blob_field(r->pos, r->end);
  const bool behind_line = m->start > r->end;
  if (field.last && (behind_line || tqp_is_digit(*field.text))) {
    give_up(r, m->start, "method id not found.");
    return TOKEN_BAD;
  }
  const other_token done = run_other_token(r, field.text);
  if (done == TOKEN_IS_METHOD)
    read_method_field(r->segment, field.text, m);
  return done;
}

// Runs tokens up to the next method field and reads that. GO_ON also when the text ended before there was one.
static int find_method(blob_reader *r, classic_method *m) {
  while (!at_end(r)) {
    m->start = r->pos;
    tqp_count_memory_step(r->segment->sqb_malloced_len, r->segment->seq_blob, 99);
    const other_token done = read_plain_method_field(r, m) ? TOKEN_IS_METHOD : run_token(r, m);
    if (done == TOKEN_BAD) {
      r->pos = r->end + 1;
      return -1;
    }
    if (done == TOKEN_IS_METHOD) {
      if (r->segment->entry_methods_count == 0)
        r->segment->entryPointId = m->method_id;
      return GO_ON;
    }
    if (done == TOKEN_DONE && !at_end(r))
      tqp_put_token_separator(r->segment);
  }
  return GO_ON;
}

// False when the line ends with it.
static bool read_event_field(blob_reader *r, classic_method *m) {
  blob_numbers numbers;
  if (tqp_next_blob_numbers(r->pos, r->end, 1, &numbers) != 0) {
    m->event_id = static_cast<int32_t>(numbers.value[0]);
    return true;
  }
  const blob_field field = tqp_next_blob_field(r->pos, r->end);
  char *text = field.text;
  m->event_id = static_cast<int32_t>(tqp_next_part(&text));
  if (text)
    m->seq_num = static_cast<int32_t>(tqp_next_part(&text));
  if (text)
    m->dynamic_logging_flag = static_cast<int32_t>(tqp_blob_number(text));
  return !field.last;
}

// A field that is one number. False when the line ends with it.
static bool read_number_field(blob_reader *r, int32_t *value) {
  blob_numbers numbers;
  if (tqp_next_blob_numbers(r->pos, r->end, 1, &numbers) != 0) {
    *value = static_cast<int32_t>(numbers.value[0]);
    return true;
  }
  const blob_field field = tqp_next_blob_field(r->pos, r->end);
  *value = static_cast<int32_t>(tqp_blob_number(field.text));
  return !field.last;
}

// Method, event and time; the two last ones of a token that has no further fields.
static int read_method_head(classic_run *run, classic_method *m) {
  blob_reader *const r = run->r;
  m->norm_method_id = tqp_norm_method_id(r->inst, m->method_id, nullptr);
  if (!read_event_field(r, m))
    return give_up(r, m->start, "event id not found.");
  if (m->event_id != BLOB_UNINSTRUMENTED && !read_number_field(r, &run->rel_time))
    return give_up(r, m->start, "Time not found.");
  return GO_ON;
}

// --- the clock ----------------------------------------------------------------------------------------------------

// The first of a partition and the first of a segment are told at length.
static void tell_time_backwards(const blob_reader *r, const classic_method &m, int64_t timestamp) {
  const bool entry = m.event_id == BLOB_ENTRY;
  const bool first_of_partition = !r->inst->first_bad_fp_raw_data_marker_fpg2;
  const bool marks = first_of_partition || !r->segment->bad_fp_raw_data_marker_fpg2;
  const int level = first_of_partition ? 1 : !marks ? 3 : entry ? 2 : 1;
  if (marks) {
    r->inst->first_bad_fp_raw_data_marker_fpg2 = 1;
    r->segment->bad_fp_raw_data_marker_fpg2 = 1;
    ++r->inst->sum_rep_counters[SUM_REP_CNT_BAD_TIMESTAMP_FPG2];
  }
  if (!wllb_trace_on(level))
    return;
  const char *const hint = !marks  ? ""
                           : entry ? "There may be more error messages for this FlowPath logged at trace level 3."
                                   : "There may be more error messages for this FlowPath logged at trace level 2.";
  const blob_quote q = tqp_blob_quote(r, m.start);
  wllb_trace(
      level, "Error",
      "Error in Raw Data, App Instance: %s, Raw data file line # %lld; Found invalid method data at character number %d in sequence blob. (%*.*s ...) FPI %lld. Timestamp (%d) is less than previous method timestamp (%lld).%s",
      r->inst->tier_server_app_name, static_cast<long long>(r->inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
      q.character_number, q.width, q.len, q.text, static_cast<long long>(r->segment->self_fpi),
      static_cast<int>(timestamp), static_cast<long long>(r->segment->last_record_timestamp), hint);
}

// Moves the clock on to a method's time. False, told and counted, when the clock is past it already.
static bool move_clock(blob_reader *r, const classic_method &m, int64_t timestamp) {
  if (r->segment->last_record_timestamp <= timestamp) {
    r->segment->last_record_timestamp = timestamp;
    blob_flowpath(r).last_record_timestamp = timestamp;
    return true;
  }
  tell_time_backwards(r, m, timestamp);
  tqp_instance_mon_stat_info_t &stats = r->inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.invalid_method_timestamp_count;
  return false;
}

static void raise_response_time(segment_fp_t *segment, int64_t time) {
  if (time > 0 && segment->response_time < static_cast<uint64_t>(time))
    segment->response_time = static_cast<uint64_t>(time);
}

// The segment was alive at `time` (ms since its begin).
static void note_alive(blob_reader *r, int64_t time) {
  r->inst->fp_last_updated_ts_in_sec = tqp_wrap_sum(static_cast<int64_t>(r->segment->begin_ts), time / 1000);
}

static void add_to_signature(segment_fp_t *segment, const classic_method &m) {
  if (tqp_generate_fp_signatures)
    wllb_putter(segment->signstr, 40, signature_label).num(m.norm_method_id).num(m.event_id).done(segment->signstr);
}

static int32_t next_seq_num(segment_fp_t *segment) {
  segment->seq_num = static_cast<int32_t>(tqp_wrap_sum(segment->seq_num, 1));
  return segment->seq_num;
}

// --- entry ----------------------------------------------------------------------------------------------------------

static int run_entry(classic_run *run, classic_method *m) {
  blob_reader *const r = run->r;
  segment_fp_t *const segment = r->segment;
  segment->seq_blob_start = 1;
  ++segment->entry_methods_count;
  ++segment->entry_exit_methods_count;
  int32_t page_name_id;
  if (!read_number_field(r, &page_name_id))
    return give_up(r, m->start, "page id not found.");
  const int32_t norm_page_id = page_name_id != 0 ? tqp_norm_page_id(r->inst, page_name_id, nullptr) : 0;
  if (!move_clock(r, *m, run->rel_time))
    run->rel_time = static_cast<int32_t>(segment->last_record_timestamp);
  tqp_push_method(segment, m->norm_method_id, norm_page_id, next_seq_num(segment), run->rel_time, m->thread_id);
  tqp_put_entry_token(segment, *m, run->rel_time);
  add_to_signature(segment, *m);
  if (!segment->f_set_first_method_time_stamp) {
    segment->f_set_first_method_time_stamp = 1;
    segment->first_method_time_stamp = run->rel_time;
  }
  raise_response_time(segment, int64_t{run->rel_time} - segment->first_method_time_stamp);
  note_alive(r, run->rel_time);
  return GO_ON;
}

// --- exit -----------------------------------------------------------------------------------------------------------

// CPU time, then wait, sync, I/O and suspension as far as they go. False when the line ends with them.
static bool read_times(blob_reader *r, method_times *times) {
  blob_numbers numbers = {};
  bool last = false;
  if (tqp_next_blob_numbers(r->pos, r->end, 5, &numbers) == 0) {
    const blob_field field = tqp_next_blob_field(r->pos, r->end);
    last = field.last;
    char *text = field.text;
    for (int i = 0; i < 5 && text; ++i)
      numbers.value[i] = tqp_next_part(&text);
  }
  const int64_t *const v = numbers.value;
  *times = {0, v[0], v[1], v[2], v[3], v[4]};
  return !last;
}

static int read_exit_fields(blob_reader *r, classic_method *m) {
  if (!read_times(r, &m->times))
    return give_up(r, m->start, "CPU time not found.");
  r->segment->cumulative_cpu_time = tqp_wrap_sum(r->segment->cumulative_cpu_time, m->times.cpu);
  const blob_field sql_id = tqp_next_blob_field(r->pos, r->end);
  if (sql_id.last)
    return give_up(r, m->start, "SQL id not found.");
  m->sql_id_str = sql_id.text;
  m->sql_query_param_str = tqp_next_blob_field(r->pos, r->end).text;
  return GO_ON;
}

static int tell_exit_without_entry(const classic_run &run, const classic_method &m) {
  const blob_reader *const r = run.r;
  tqp_rawdata_error(
      r->inst,
      "Current Method Exit Record Does not match with Method Entry Record in the in memory call stack. string '%d_1_%d___' event_id = %d, self_fpi = %lld, method_id = %d, norm_method_id = %d, thread_id = %d, cpu_time = %lld, sql_index = %s, bci_urlid = %lld, ",
      m.method_id, run.rel_time, m.event_id, static_cast<long long>(r->segment->self_fpi), m.method_id,
      m.norm_method_id, static_cast<int>(m.thread_id), static_cast<long long>(m.times.cpu), m.sql_id_str,
      static_cast<long long>(r->segment->bci_urlid));
  tqp_count_invalid_record(r->inst);
  return -1;
}

static int tell_exit_on_empty_stack(const blob_reader *r, const classic_method &m) {
  tell_empty_stack(
      r, m.start,
      "Method entry record missing for exit record. Since call stack is empty, subsequent entry and exit records will be ignored for this flowpathinstance.");
  tqp_instance_mon_stat_info_t &stats = r->inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.entry_record_missing_count;
  return -2;
}

static void run_sql_of_exit(blob_reader *r, const classic_method &m, int64_t entry_time, int32_t duration) {
  if (*m.sql_id_str == 0)
    return;
  sql_call call = {};
  call.sql_id = m.sql_id_str;
  call.parameters = m.sql_query_param_str;
  call.flowpath_id = r->segment->self_fpi;
  call.begin_ts = r->segment->begin_ts;
  call.time = tqp_wrap_sum(entry_time, static_cast<int64_t>(r->segment->begin_ts * 1000));
  call.duration = duration;
  call.found_norm_id = -1;
  call.backend_type = 2;
  process_sql_record_data(r->inst, r->segment, call);
}

// The method's argument row and its part in the timing.
static void run_times_of_exit(blob_reader *r, const classic_method &m, const method_call_stack_t &row, int64_t wall) {
  const method_times &t = m.times;
  const method_times own = {
      tqp_wrap_less(wall, row.children_time),        tqp_self_time(t.cpu, row.cpu_children_time),
      tqp_self_time(t.wait, row.wait_children_time), tqp_self_time(t.sync, row.sync_children_time),
      tqp_self_time(t.io, row.io_children_time),     tqp_self_time(t.suspension, row.suspension_children_time)};
  tqp_dump_argument(r->inst, r->segment, row, own);
  const int64_t begin_ms = static_cast<int64_t>(r->segment->begin_ts * 1000);
  tqp_collect_method_call(
      r->segment, m.norm_method_id,
      {wall, own.wall, t.cpu, own.cpu, t.wait, own.wait, t.sync, own.sync, t.io, own.io, t.suspension, own.suspension},
      tqp_wrap_sum(begin_ms, tqp_wrap_sum(row.time_stamp, wall)));
}

static int run_exit(classic_run *run, classic_method *m) {
  blob_reader *const r = run->r;
  segment_fp_t *const segment = r->segment;
  ++segment->entry_exit_methods_count;
  if (const int result = read_exit_fields(r, m); result != GO_ON)
    return result;
  m->times.wall = run->rel_time;
  const int index = tqp_pop_method(r->inst, segment, r->slot, m->norm_method_id, m->times, m->thread_id);
  if (index < 0)
    return index == -1 ? tell_exit_without_entry(*run, *m) : tell_exit_on_empty_stack(r, *m);
  const method_call_stack_t &row = segment->method_call_stack.data[index];
  if (!move_clock(r, *m, tqp_wrap_sum(row.time_stamp, run->rel_time)))
    run->rel_time = static_cast<int32_t>(tqp_wrap_less(segment->last_record_timestamp, row.time_stamp));
  const int64_t end_time = tqp_wrap_sum(row.time_stamp, run->rel_time);
  tqp_join_blob(segment);
  next_seq_num(segment);
  tqp_put_exit_token(segment, *m, end_time);
  add_to_signature(segment, *m);
  run_sql_of_exit(r, *m, row.time_stamp, run->rel_time);
  run_times_of_exit(r, *m, row, run->rel_time);
  raise_response_time(segment, run->rel_time);
  note_alive(r, end_time);
  return GO_ON;
}

// --- the piece ------------------------------------------------------------------------------------------------------

static int run_method(classic_run *run, classic_method *m) {
  if (const int result = read_method_head(run, m); result != GO_ON)
    return result;
  switch (m->event_id) {
  case BLOB_ENTRY:
    return run_entry(run, m);
  case BLOB_EXIT:
  case 3:
  case 4:
    return run_exit(run, m);
  case BLOB_UNINSTRUMENTED:
    tqp_put_uninstrumented_token(run->r->segment, m->norm_method_id);
    return GO_ON;
  default:
    return -1;
  }
}

// What is due behind a method token. False at the end of the text.
static bool go_behind_method(const classic_run &run, const classic_method &m) {
  segment_fp_t *const segment = run.r->segment;
  if (at_end(run.r)) {
    segment->response_time = static_cast<uint64_t>(std::max<int64_t>(segment->last_record_timestamp, run.rel_time));
    return false;
  }
  if (segment->method_call_stack.used == 0)
    tell_empty_stack(
        run.r, m.start,
        "Since call stack is empty, subsequent entry and exit records will be ignored for this flowpathinstance.");
  tqp_join_blob(segment);
  return true;
}

// A piece gives the segment its texts even when nothing goes into them: an empty blob is a blob.
static void make_texts(const blob_reader *r) {
  segment_fp_t *const segment = r->segment;
  const int64_t length = std::max<int64_t>(0, r->end - r->pos);
  wllb_text_room(segment->seq_blob, 0, "Segment SQB realloc");
  tqp_count_memory_of(segment->sqb_malloced_len,
                      length + static_cast<int64_t>(segment->seq_blob.len) + blob_memory_step);
  if (!tqp_generate_fp_signatures || length == 0)
    return;
  wllb_text_room(segment->signstr, 0, signature_label);
  tqp_count_memory_of(segment->signstr_malloced_len, length + static_cast<int64_t>(segment->signstr.len));
}

// Before each method.
static void count_memory(segment_fp_t *segment) {
  tqp_count_memory_step(segment->sqb_malloced_len, segment->seq_blob, 1023);
  if (tqp_generate_fp_signatures)
    tqp_count_memory_step(segment->signstr_malloced_len, segment->signstr, 99);
}

static int run_piece(blob_reader *r) {
  classic_run run = {r, 0};
  make_texts(r);
  if (r->segment->seq_blob.len != 0 && !at_end(r))
    tqp_put_token_separator(r->segment);
  while (!at_end(r)) {
    count_memory(r->segment);
    if (tqp_blob_truncated(r))
      return 1;
    classic_method m;
    int result = find_method(r, &m);
    if (result == GO_ON && at_end(r)) {
      r->segment->response_time = static_cast<uint64_t>(int64_t{run.rel_time});
      return 0;
    }
    if (result == GO_ON)
      result = run_method(&run, &m);
    if (result != GO_ON)
      return result;
    if (!go_behind_method(run, m))
      return 0;
  }
  return 0;
}

int process_seq_blob_from_bci(blob_reader *r) {
  const int result = run_piece(r);
  tqp_settle_method_calls();
  return result;
}
