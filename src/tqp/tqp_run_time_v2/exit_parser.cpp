// Reads the exit form of a sequence blob: methods in the order of their ends, callouts and grouped calls between them.
//   In      a piece of a blob; a token ends with '|', a method's fields with '_', the parts of a field with ':'
//   Out     rows of the call stack with their side texts, counts of the segment; the blob itself waits for the end
//   Thread  the instance's
//   Failure a bad method token is told and counts as two records, a bad "G" token drops the rest of the piece, too many
//           records truncate the blob
// Samples:  17_0|   23_2|   17:99_1:3:6_2_120:35_0_4:0:0:0:0_1|   T17:0.5:2:::|

#include "blob_fields.h"
#include "classic_form.h"
#include "tqp_method_timing.h"

#include <type_traits>

// Values of entry_exit in a method token; all others are finished methods.
static constexpr int8_t EXIT_FORM_ENTRY = 0;
static constexpr int8_t EXIT_FORM_UNINSTRUMENTED = 2;

// --- messages -----------------------------------------------------------------------------------------------------

static int tell_bad_method(const blob_reader *r, const char *token, const char *words) {
  const blob_quote q = tqp_blob_quote(r, token);
  wllb_trace(
      1, "Error",
      "Error in Raw Data, App Instance: %s,Raw data file line # %lld Found invalid method data atcharacter number %d in sequence blob. (%*.*s ...) %s",
      r->inst->tier_server_app_name, static_cast<long long>(r->inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
      q.character_number, q.width, q.len, q.text, words);
  return -1;
}

static int tell_bad_flag(const blob_reader *r, const char *token) {
  const blob_quote q = tqp_blob_quote(r, token);
  wllb_trace(
      1, "Error",
      "Error in Raw Data, App Instance: %s,Raw data file line # %lld Found invalid entry_exit data atcharacter number %d in sequence blob. (%*.*s ...) entry_exit flag is not found.",
      r->inst->tier_server_app_name, static_cast<long long>(r->inst->sum_rep_counters[SUM_REP_CNT_RAW_DATA_LINES]),
      q.character_number, q.width, q.len, q.text);
  return -1;
}

// --- method tokens --------------------------------------------------------------------------------------------------

// A method token being read; its '|' is a NUL by now.
struct exit_form_token {
  char *pos; // unread bytes are [pos, end)
  char *end;
};

static blob_field next_field(exit_form_token *t) {
  return tqp_next_blob_field(t->pos, t->end);
}

// The parts of a field in order, as far as they go.
template <class... Number> static void read_parts(char *text, Number *...targets) {
  const auto read = [&text](auto *target) {
    if (text)
      *target = static_cast<std::remove_pointer_t<decltype(target)>>(tqp_next_part(&text));
  };
  (read(targets), ...);
}

// The method's local id.
static int32_t read_method_field(char *text, finished_method *m) {
  const auto local_id = static_cast<int32_t>(tqp_next_part(&text));
  if (text)
    m->thread_id = tqp_next_part(&text);
  m->async_call = text != nullptr; // that it is there is all it says
  return local_id;
}

// The fields of a finished method behind its numbers. What is wrong with them, or null.
static const char *read_finished_method(const blob_reader *r, exit_form_token *t, finished_method *m) {
  const blob_field depth = next_field(t);
  if (depth.last)
    return "depth is not found.";
  m->depth = static_cast<int32_t>(tqp_blob_number(depth.text));
  if (m->depth < 1)
    return "depth should not be less then 1.";
  const blob_field time = next_field(t);
  if (time.last)
    return "start_time and duration not found.";
  read_parts(time.text, &m->start_time, &m->times.wall);
  if (int64_t &newest = blob_flowpath(r).last_record_timestamp; m->start_time >= newest)
    newest = m->start_time;
  const blob_field page = next_field(t);
  if (page.last)
    return "page_name_id not found.";
  if (const auto page_name_id = static_cast<int32_t>(tqp_blob_number(page.text)); page_name_id != 0)
    m->page_id = tqp_norm_page_id(r->inst, page_name_id, nullptr);
  const blob_field times = next_field(t);
  if (times.last)
    return "cpu_time not found.";
  read_parts(times.text, &m->times.cpu, &m->times.wait, &m->times.sync, &m->times.io, &m->times.suspension);
  m->custom_data_flag = static_cast<int8_t>(tqp_blob_number(t->pos));
  return nullptr;
}

// 0 when the token's method has gone to the call stack, else -1.
static int handle_method_info(const blob_reader *r, exit_form_token t) {
  const char *const token = t.pos;
  finished_method m = {};
  const blob_field method = next_field(&t);
  if (method.last)
    return tell_bad_method(r, token, "method id not found.");
  m.method_id = tqp_norm_method_id(r->inst, read_method_field(method.text, &m), nullptr);
  const blob_field flag = next_field(&t);
  if (flag.last && *flag.text == 0)
    return tell_bad_flag(r, token);
  int8_t entry_exit = 0;
  m.start_seq_num = m.end_seq_num = -1;
  read_parts(flag.text, &entry_exit, &m.start_seq_num, &m.end_seq_num);
  if (entry_exit == EXIT_FORM_ENTRY) {
    ++r->segment->entry_methods_count;
    return -1;
  }
  if (entry_exit == EXIT_FORM_UNINSTRUMENTED) {
    tqp_hang_uninstrumented(r->segment, m.method_id);
    return -1;
  }
  if (const char *const words = read_finished_method(r, &t, &m))
    return tell_bad_method(r, token, words);
  r->segment->seq_blob_start = 1;
  tqp_manage_ctarray(r->inst, r->segment, m);
  return 0;
}

// --- tokens -------------------------------------------------------------------------------------------------------

// A callout needs a finished method to hang on; asynchronous ones are awaited or settled in any case.
static void run_callout(blob_reader *r, char *token) {
  if (*token == 'a')
    ++blob_flowpath(r).pending_callouts_count;
  else if (*token == 'A')
    --blob_flowpath(r).pending_callouts_count;
  if (r->segment->seq_blob_start)
    handle_callout(r, token);
  else
    wllb_trace(2, "Error",
               "Error: Got '%c' before any method entry in seq blob for FPI: %lld in raw file, ignoring this.", *token,
               static_cast<long long>(r->segment->self_fpi));
}

// -1: the rest of the piece is dropped.
static int run_token(blob_reader *r, char *token, char *end) {
  switch (*token) {
  case 'T':
  case 't':
  case 'c':
  case 'E':
  case 'g':
  case 'e':
  case 'a':
  case 'A':
    run_callout(r, token);
    return 0;
  case 'G':
    return handle_grouped_queries(r, token);
  case 'C':
    handle_coherence(r, token);
    return 0;
  default:
    // Finished methods count nothing: it is the other method tokens, good and bad, that fill the limit.
    if (handle_method_info(r, {token, end}) < 0)
      r->segment->entry_exit_methods_count += 2;
    return 0;
  }
}

static char *find_byte(char *from, const char *end, char c) {
  return from < end ? static_cast<char *>(memchr(from, c, static_cast<size_t>(end - from))) : nullptr;
}

static int run_piece(blob_reader *r) {
  const char *const zero = find_byte(r->pos, r->end, 0);
  const char *const text_end = zero ? zero : r->end;
  while (char *const bar = find_byte(r->pos, text_end, '|')) {
    if (tqp_blob_truncated(r))
      return 1;
    *bar = 0;
    if (run_token(r, r->pos, bar) < 0) {
      r->pos = r->end + 1;
      return -1;
    }
    r->pos = bar + 1;
  }
  return 0;
}

int process_seq_blob_from_bci_ex(blob_reader *r) {
  const int result = run_piece(r);
  tqp_settle_method_calls();
  return result;
}
