// Reads agents' replies and runs their lines; see the header. A reply comes while a record is being read: only what adds
// to the local maps runs at once, the rest when that record is done.

#include "metadata_reply.h"

#include "agent_message.h"
#include "data_files.h"
#include "metadata_request.h"
#include "output_wait.h"
#include "process_sockets.h"
#include "record_dispatch.h"

#include <cstring>
#include <strings.h>

static constexpr char partial_label[] = "Partial Buffer in read_meta_data_from_bci()";

// Bytes of a reply's text that a message quotes.
static constexpr size_t most_quoted = 1024;

static std::string quoted(std::string_view text) {
  return std::string(text.substr(0, most_quoted));
}

// --- the recovery log ------------------------------------------------------------------------------------------------

// Opens the log and notes where the raw file stands, once for each request.
static void begin_log(tqp_exchange *x) {
  const tqp_instance_t *inst = x->inst;
  x->log_begun = true;
  const std::string dir = wllb_format("%s/logs/TR%d/%s/tq/raw_data/recovery", wl_wdir, testidx, inst->partition_name);
  if (!wllb_is_directory(dir.c_str())) {
    mkdir_ex((dir + "/").c_str());
    tqp_own_directory(dir.c_str());
  }
  const std::string path = wllb_format("%s/%s_metadata_recovery.txt", dir.c_str(), inst->tier_server_app_name);
  const tqp_waits_for_output spared(nullptr); // the agent waits
  x->log.reset(tqp_make_data_file_as(path.c_str(), "a", true));
  if (x->log)
    tqp_append_rows(
        x->log.get(),
        wllb_format("Offset:%ld\n", static_cast<long>(inst->raw_data_file_offset.load(std::memory_order_relaxed))));
}

static void meta_data_dump(tqp_exchange *x, int event_id, std::string_view text) {
  if (!x->log_begun)
    begin_log(x);
  if (x->log)
    tqp_append_rows(x->log.get(), std::to_string(event_id) + "," + std::string(text) + "\n");
}

// --- records of a reply ------------------------------------------------------------------------------------------------

// Lines that wait for the end of the record that asked. They outlive the exchange.
struct kept_lines_t {
  const tqp_instance_t *inst = nullptr;
  std::string text; // "%d,%s\n" each
};

static thread_local kept_lines_t kept_lines;

constinit thread_local bool tqp_reply_lines_kept = false;

// A reply may not fill the memory with lines that wait.
static constexpr size_t most_kept = size_t{64} << 20U;

enum reply_rule {
  AT_ONCE, // adds to the maps, and touches nothing else that the record which asks may hold
  LATER,   // may free or move it
  NEVER    // tells what the raw file is and how it goes on, which an agent's word does not change
};

static reply_rule rule_of(int event_id) {
  switch (event_id) {
  case TQ_EV_METHOD_DISCOVERY:
  case TQ_EV_HTTP_HEADER_DISCOVERY:
  case TQ_EV_URL_DISCOVERY:
  case TQ_EV_SQL_PREPARED_DISCOVERY:
  case TQ_EV_SQL_NON_PREPARED_DISCOVERY:
  case TQ_EV_RESOURCE_DISCOVERY:
  case TQ_EV_EXCP_CLS_DISCOVERY:
  case TQ_EV_EXCP_THR_CLS_DISCOVERY:
  case TQ_EV_EXCP_THR_MTD_DISCOVERY:
  case TQ_EV_EXCP_MSG_DISCOVERY:
  case TQ_EV_EXCP_CAUSE_DISCOVERY:
  case TQ_EV_EXCP_ST_DISCOVERY:
  case TQ_EV_BCI_ARG_META_DATA_EVENT:
    return AT_ONCE;
  case TQ_EV_TSA_ID_HEADER:
  case TQ_EV_REQ_BODY:
  case TQ_EV_RESP_BODY:
    return NEVER;
  default:
    return LATER;
  }
}

static void keep_line(tqp_instance_t *inst, int event_id, std::string_view fields) {
  if (kept_lines.inst != inst)
    kept_lines.text.clear(); // of an instance that this thread had before
  kept_lines.inst = inst;
  if (kept_lines.text.size() + fields.size() > most_kept)
    return;
  kept_lines.text += wllb_format("%d,", event_id);
  kept_lines.text.append(fields).push_back('\n');
  tqp_reply_lines_kept = true;
}

// A line of a reply, cut behind its event id.
struct reply_line {
  std::string_view id; // what stands before the first comma
  char *fields;        // null: there is no comma
  char *end;           // its newline
  int event_id;        // -1: the id is no number of one or two digits
};

static reply_line cut_reply_line(char *line, char *end) {
  auto *comma = static_cast<char *>(memchr(line, ',', static_cast<size_t>(end - line)));
  reply_line cut = {{line, static_cast<size_t>((comma ? comma : end) - line)}, comma ? comma + 1 : nullptr, end, -1};
  if (cut.id.size() <= 2 && wllb_is_numeric(cut.id))
    cut.event_id = atoi(std::string(cut.id).c_str());
  return cut;
}

// True: it was a record. All others are told, an empty line in the old form alone.
static bool run_reply_line(tqp_exchange *x, char *line, char *end, bool tell_empty) {
  const reply_line cut = cut_reply_line(line, end);
  if (!cut.fields) {
    if (line != end || tell_empty)
      wllb_trace(1, "Error", "Event id is not found in read message '%s'", quoted(cut.id).c_str());
    return false;
  }
  if (cut.event_id < 0) {
    wllb_trace(1, "Error", "non numeric event id '%s'  found, seems bad data.", quoted(cut.id).c_str());
    return false;
  }
  const std::string_view fields(cut.fields, static_cast<size_t>(end - cut.fields));
  meta_data_dump(x, cut.event_id, fields);
  const reply_rule rule = rule_of(cut.event_id);
  char *cursor = cut.fields;
  if (rule == AT_ONCE)
    tq_process_data_line(x->inst, cut.event_id, &cursor, end, 1);
  else if (rule == LATER)
    keep_line(x->inst, cut.event_id, fields);
  return true;
}

void tqp_run_kept_reply_lines(tqp_instance_t *inst) {
  std::string text;
  text.swap(kept_lines.text);
  tqp_reply_lines_kept = false;
  if (kept_lines.inst != inst)
    return;
  const tqp_reply_guard reading; // the reply is not over before its last line has run
  char *line = text.data(), *const behind = line + text.size();
  while (auto *end = static_cast<char *>(memchr(line, '\n', static_cast<size_t>(behind - line)))) {
    const reply_line cut = cut_reply_line(line, end);
    line = end + 1;
    char *cursor = cut.fields;
    tq_process_data_line(inst, cut.event_id, &cursor, end, 1);
  }
}

// Joins a piece to what came before and hands each whole line to `take`, its newline as end, until that says false.
template <class Take> static void take_lines(wllb_text *partial, std::string_view piece, Take take) {
  size_t looked = partial->len, begin = 0;
  wllb_text_put(*partial, piece, partial_label);
  while (auto *end = static_cast<char *>(memchr(partial->data + looked, '\n', partial->len - looked))) {
    char *line = partial->data + begin;
    begin = looked = static_cast<size_t>(end + 1 - partial->data);
    if (!take(line, end))
      break;
  }
  if (begin == 0) // a line that grows for long is not moved with each piece
    return;
  partial->len -= begin;
  memmove(partial->data, partial->data + begin, partial->len + 1);
}

void tqp_end_reply(tqp_exchange *x) {
  wllb_text_free(x->partial, partial_label);
  x->log.reset();
}

// --- the old form ------------------------------------------------------------------------------------------------------

// False: the deadline has passed, which is told, or the process stops.
static bool wait_or_tell(tqp_exchange *x) {
  const tqp_wait_result result = tqp_wait_for_agent(x);
  if (result == WAIT_EXPIRED)
    wllb_trace(1, "Error", "Timer expired for metadata message.");
  return result == WAIT_READY;
}

enum old_reply_state { REPLY_GOES_ON, REPLY_OVER, REPLY_BAD };

static old_reply_state run_old_line(tqp_exchange *x, char *line, char *end) {
  static constexpr std::string_view complete = "tq_meta_data_rep:status=complete;";
  std::string_view text(line, static_cast<size_t>(end - line));
  if (text.find("=Error") != text.npos) {
    wllb_trace(1, "Error", "Error in read message '%s'", quoted(text).c_str());
    const bool busy = text.find("TQCollector is busy in processing another request.") != text.npos;
    return busy ? REPLY_OVER : REPLY_BAD;
  }
  while (text.starts_with(complete)) {
    if (text.size() == complete.size()) {
      wllb_trace(1, "Info", "Complete message received. '%s'", quoted(text).c_str());
      return REPLY_OVER;
    }
    text.remove_prefix(complete.size());
  }
  return run_reply_line(x, end - text.size(), end, true) ? REPLY_GOES_ON : REPLY_OVER;
}

bool tqp_read_old_reply(tqp_exchange *x) {
  std::vector<char> buf(tqp_line_room + 1);
  old_reply_state state = REPLY_GOES_ON;
  while (state == REPLY_GOES_ON) {
    if (!wait_or_tell(x))
      return false;
    const int len = tqp_read_line(x->fd, buf.data(), &x->held);
    if (len == -2 && x->held.empty())
      continue; // woken for nothing
    if (len == -2)
      wllb_trace(1, "Error", "Error in read message is partial.");
    if (len <= 0)
      return false;
    take_lines(&x->partial, {buf.data(), static_cast<size_t>(len)}, [x, &state](char *line, char *end) {
      state = run_old_line(x, line, end);
      return state == REPLY_GOES_ON;
    });
  }
  return state == REPLY_OVER;
}

// --- the new form: body ------------------------------------------------------------------------------------------------

int process_and_dump_meta_data(tqp_exchange *x, std::string_view text) {
  int handled = 0;
  take_lines(&x->partial, text, [x, &handled](char *line, char *end) {
    handled |= run_reply_line(x, line, end, false) ? 1 : 0;
    return true;
  });
  return handled;
}

// Once enough requests were answered, one asks for everything, and the count begins anew.
static void count_answer(tqp_instance_t *inst) {
  if (++inst->meta_recovery_counter <= tqp_max_suc_meta_data_req_count_per_partition)
    return;
  wllb_trace(1, "Info", "meta_recovery_counter [%d], resetting to zero", inst->meta_recovery_counter);
  inst->meta_recovery_counter = 0;
}

static std::string_view take_held(std::string *held, std::vector<char> *buf) {
  std::copy(held->begin(), held->end(), buf->begin());
  const std::string_view text(buf->data(), held->size());
  held->clear();
  return text;
}

// Reads on until `total` bytes have come. False: they have not.
static bool receivingMsgBodyFromAgent(tqp_exchange *x, int64_t total_read, int64_t total, int *handled) {
  const tqp_instance_t *inst = x->inst;
  std::vector<char> buf(tqp_line_room + 1);
  while (total_read < total) {
    if (!wait_or_tell(x))
      return false;
    const int len = tqp_read_line(x->fd, buf.data(), &x->held);
    if (len == 0 || len == -1) {
      wllb_trace(1, "Error", "Control connection closed by %s %s %s\n", tqp_name(inst->tierName),
                 tqp_name(inst->serverName), tqp_name(inst->appName));
      return false;
    }
    std::string_view text(buf.data(), static_cast<size_t>(std::max(len, 0)));
    if (len == -2) {
      wllb_trace(2, "Info", "Received partial message by %s %s %s\n", tqp_name(inst->tierName),
                 tqp_name(inst->serverName), tqp_name(inst->appName));
      text = take_held(&x->held, &buf);
    }
    total_read += static_cast<int64_t>(text.size());
    *handled |= process_and_dump_meta_data(x, text);
  }
  return true;
}

// `come` is what stood behind the header in the same read.
static bool readBodyFromAgent(tqp_exchange *x, const tq_msg_DS &message, std::string_view come) {
  const int64_t total = int64_t{message.contentLength} + 2;
  const auto total_read = static_cast<int64_t>(come.size());
  int handled = come.empty() ? 0 : process_and_dump_meta_data(x, come);
  if (total_read > 0 && total_read < total)
    wllb_trace(1, "Info", "Status [%d] ,total_read =[%d],totalByteToBeRead [%d]", handled, static_cast<int>(total_read),
               static_cast<int>(total));
  const bool whole = receivingMsgBodyFromAgent(x, total_read, total, &handled);
  if (handled)
    count_answer(x->inst);
  return whole;
}

// --- the new form: header ----------------------------------------------------------------------------------------------

static bool run_answer(tqp_exchange *x, const tq_msg_DS &message, std::string_view behind) {
  if (message.contentLength < tqp_least_reply_body || message.contentLength > tqp_most_reply_body) {
    wllb_trace(1, "Error", "Meta data body doesn't received yet.msg[%s]", message.message);
    return false;
  }
  const bool whole = readBodyFromAgent(x, message, behind);
  wllb_trace(1, "Info", "Meta Data Body response Message [%s]", message.message);
  return whole;
}

enum header_state { HEADER_AWAITED, HEADER_FAILED, HEADER_OF_ANSWER };

// Reads header lines up to the answer's; an acknowledgement only says that there will be one.
static header_state read_headers(std::string_view *text, tq_msg_DS *message) {
  for (size_t newline; (newline = text->find('\n')) != text->npos;) {
    tqMesDSSetDefault(message);
    tqMesFillDS(message, text->substr(0, newline));
    text->remove_prefix(newline + 1);
    if (strcasecmp(message->status, "Failed") == 0) {
      wllb_trace(1, "Error", "Error in meta data recovery.Error[%s]", message->message);
      return HEADER_FAILED;
    }
    if (message->ack != 1)
      return HEADER_OF_ANSWER;
  }
  return HEADER_AWAITED;
}

bool tqp_read_new_reply(tqp_exchange *x) {
  std::vector<char> buf(tqp_line_room + 1);
  tq_msg_DS message;
  while (wait_or_tell(x)) {
    const int len = tqp_read_line(x->fd, buf.data(), &x->held);
    if (len == -2)
      continue; // the header goes on
    if (len <= 0)
      return false;
    std::string_view text(buf.data(), static_cast<size_t>(len));
    const header_state state = read_headers(&text, &message);
    if (state == HEADER_FAILED)
      return false;
    if (state == HEADER_OF_ANSWER)
      return run_answer(x, message, text);
    x->held = text;
  }
  return false;
}
