// Reads both forms of the request and makes answers to them.
//   In      see the header
//   Out     see the header
//   Thread  one
//   Failure see the header
#include "online_metadata.h"

#include <charconv>

#include "sample_records.h"
#include "wllb_util.h"

using namespace std::string_view_literals;

// --- requests -------------------------------------------------------------------------------------------------

struct metadata_request {
  std::string_view tier, server, app, txn_id;
  bool all;
  int kind;
  int64_t id;
};

// The value behind `key` in a line of items that semicolons part; empty when there is none.
static std::string_view item(std::string_view line, std::string_view key) {
  while (!line.empty()) {
    const std::string_view one = wllb_take_piece(&line, ';');
    if (one.starts_with(key))
      return one.substr(key.size());
  }
  return {};
}

// "5_17", and whatever stands behind it. Left at 0 when it is no such text.
static void read_kind_and_id(metadata_request &request, std::string_view text) {
  const char *const end = text.data() + text.size();
  const auto kind = std::from_chars(text.data(), end, request.kind);
  if (kind.ec != std::errc() || kind.ptr == end || *kind.ptr != '_')
    request.kind = 0;
  else if (std::from_chars(kind.ptr + 1, end, request.id).ec != std::errc())
    request.id = 0;
}

static metadata_request read_old(std::string_view line) {
  metadata_request request = {};
  request.app = item(line, "appName=");
  request.server = item(line, "tqAppServerHost=");
  request.tier = item(line, "tierName=");
  if (const size_t at = line.find("tierName="); at != std::string_view::npos)
    if (const size_t end = line.find(';', at); end != std::string_view::npos)
      read_kind_and_id(request, line.substr(end + 1));
  return request;
}

static metadata_request read_new(std::string_view line) {
  metadata_request request = {};
  request.tier = item(line, "Tier:");
  request.server = item(line, "Server:");
  request.app = item(line, "Instance:");
  request.txn_id = item(line, "TxnId:");
  const std::string_view message = item(line, "Message:");
  request.all = message == "All";
  if (!request.all)
    read_kind_and_id(request, message);
  return request;
}

// --- what the agent knows -------------------------------------------------------------------------------------

struct kind_row {
  int kind;
  sample_kind texts;
};

static constexpr kind_row kind_rows[] = {
    // clang-format off
  {5,  SAMPLE_METHOD},       {6,  SAMPLE_HEADER},       {7,  SAMPLE_URL},      {21, SAMPLE_SQL},
  {21, SAMPLE_SQL_PLAIN},    {26, SAMPLE_RESOURCE},     {32, SAMPLE_EXCP_CLS}, {33, SAMPLE_EXCP_THR_CLS},
  {34, SAMPLE_EXCP_THR_MTD}, {35, SAMPLE_EXCP_MSG},     {36, SAMPLE_EXCP_CAUSE},
  {37, SAMPLE_EXCP_ST},      {41, SAMPLE_ARG},
}; // clang-format on

static const sample_stream_t *find_agent(const online_agents &agents, const metadata_request &request) {
  for (const sample_raw_file &file : *agents.files) {
    const sample_instance_t &inst = *file.stream->inst;
    if (inst.tier == request.tier && inst.server == request.server && inst.app == request.app)
      return file.stream;
  }
  return nullptr;
}

// The announcements that were asked for, one line each; none when the agent never gave out such an id.
static std::string announcements(online_agents &agents, const sample_stream_t &agent, const metadata_request &request) {
  std::string lines;
  for (const kind_row &row : kind_rows) {
    const std::vector<int32_t> &ids = agent.local_ids[row.texts];
    if (request.all || row.kind == request.kind)
      for (size_t i = 0; i < ids.size(); ++i)
        if (ids[i] != 0 && (request.all || ids[i] == request.id))
          sample_put_discovery(lines, agents.random, row.texts, agent.tier->texts[row.texts][i], ids[i]);
  }
  return lines;
}

static std::string words(const metadata_request &request, std::string_view outcome) {
  std::string text;
  sample_put(text, "metadata: ", request.tier, '_', request.server, '_', request.app, " is asked for ");
  if (request.all)
    sample_put(text, "everything");
  else
    sample_put(text, "id ", request.id, " of kind ", request.kind);
  sample_put(text, ": ", outcome);
  return text;
}

// --- answers --------------------------------------------------------------------------------------------------

static constexpr std::string_view complete_line = "tq_meta_data_rep:status=complete;\n";

// Lines that no reader of announcements should fall over; 11, 99 and the flowpath would change what the asking one holds.
static constexpr std::string_view wrong_lines[] = {"no comma in this line\n"sv,
                                                   "abc,text,7\n"sv,
                                                   "112,4,{\"a\":1}\n"sv,
                                                   ",,,\n"sv,
                                                   "5,name without id\n"sv,
                                                   "\0\0\0,\0\n"sv,
                                                   "-5,text,1\n"sv,
                                                   "5,text,-1\n"sv,
                                                   "5,text,2000000000\n"sv,
                                                   "11,0,0\n"sv,
                                                   "99,x,FPGVersion:9.0,\n"sv,
                                                   "10,\n"sv,
                                                   "4,1:1:0:1,200\n"sv,
                                                   "22,1,2,\n"sv,
                                                   "7,x\n"sv};

// The collector's own errors in the old form; the last one is no reason to give up asking.
static constexpr std::string_view old_errors[] = {
    "tq_meta_data_rep:result=Error;agent is not connected\n",
    "tq_meta_data_rep:result=Error;TQCollector is busy in processing another request.\n"};

// Headers of the new form that tell no usable length, and what follows them.
static constexpr std::string_view wrong_headers[] = {
    "TraceQuarryMessage 2.0;ContentLength:-5;Ack:0;\n5,text,1\n\n\n",
    "TraceQuarryMessage 2.0;ContentLength:0;Ack:0;\n",
    "TraceQuarryMessage 2.0;ContentLength:99999999999;Ack:0;\n5,text,1\n",
    "TraceQuarryMessage 2.0;ContentLength:2147483647;Ack:0;\n5,text,1\n",
    "TraceQuarryMessage 2.0;Status:failed;Message:agent is not connected;ContentLength:0;Ack:0;\n",
    "TraceQuarryMessage 2.0;item without value;ContentLength:9;Ack:0;\n5,text,1\n\n\n",
    "TraceQuarryMessage 2.0\n",
    "\n",
    "5,text,1\n"};

// One header line; the collector's acknowledgement, which comes first, has no body.
static std::string header(const metadata_request &request, bool good, bool ack, size_t length) {
  std::string line;
  sample_put(line, "TraceQuarryMessage 2.0;Version:2.0;TxnId:", request.txn_id,
             ";Connection:New;Priority:0;Encoding:none;SrcComp:Agent;DestComp:TQP;Tier:", request.tier);
  sample_put(line, ";Server:", request.server, ";Instance:", request.app,
             ";MsgName:send_meta_data;MsgType:1;Status:", good ? "Success" : "Failed");
  sample_put(line, ";Message:", good ? "send_meta_data" : "agent is not connected or has no such id",
             ";Operation:Forward;ContentLength:", length, ";Ack:", ack ? 1 : 0, ";SeqNo:0;\n");
  return line;
}

// The body's length counts neither of the two newlines that end it.
static std::string new_form(const metadata_request &request, const std::string &body) {
  return header(request, true, true, 0) + header(request, !body.empty(), false, body.size()) +
         (body.empty() ? "" : body + "\n\n");
}

static void send_split(online_agents &agents, online_connection &connection, std::string_view answer) {
  const auto longest = static_cast<uint32_t>(std::max<size_t>(8, answer.size() / 20));
  for (int64_t in_ms = 0; !answer.empty(); in_ms += 10) {
    const std::string_view piece = answer.substr(0, agents.random.between(1, longest));
    online_send(connection, std::string(piece), in_ms);
    answer.remove_prefix(piece.size());
  }
}

static std::string send_answer(online_agents &agents, online_connection &connection, const metadata_request &request,
                               const std::string &answer, const std::string &wrong) {
  switch (agents.replies) {
  case ONLINE_GOOD:
    online_send(connection, answer);
    return words(request, "answered");
  case ONLINE_LATE:
    online_send(connection, answer, 2000);
    return words(request, "answered late");
  case ONLINE_SPLIT:
    send_split(agents, connection, answer);
    return words(request, "answered in pieces");
  case ONLINE_WRONG:
    online_send(connection, wrong);
    return words(request, "answered wrongly");
  case ONLINE_SILENT:
    return words(request, "no answer");
  case ONLINE_CLOSED:
    online_send(connection, answer.substr(0, answer.size() / 2));
    connection.closing = true;
    return words(request, "half an answer");
  }
  return {};
}

std::string online_answer_old(online_agents &agents, online_connection &connection, std::string_view line) {
  const metadata_request request = read_old(line);
  const sample_stream_t *const agent = find_agent(agents, request);
  std::string answer(old_errors[0]);
  if (agent)
    answer = announcements(agents, *agent, request).append(complete_line);
  const size_t fault = agents.asked++ % (std::size(old_errors) + std::size(wrong_lines));
  std::string wrong(fault < std::size(old_errors) ? old_errors[fault] : wrong_lines[fault - std::size(old_errors)]);
  if (fault >= std::size(old_errors))
    wrong.append(complete_line);
  return send_answer(agents, connection, request, answer, wrong);
}

std::string online_answer_new(online_agents &agents, online_connection &connection, std::string_view line) {
  const metadata_request request = read_new(line);
  const sample_stream_t *const agent = find_agent(agents, request);
  const std::string answer = new_form(request, agent ? announcements(agents, *agent, request) : "");
  const size_t fault = agents.asked++ % (std::size(wrong_headers) + std::size(wrong_lines));
  const std::string wrong = fault < std::size(wrong_headers)
                                ? std::string(wrong_headers[fault])
                                : new_form(request, std::string(wrong_lines[fault - std::size(wrong_headers)]));
  return send_answer(agents, connection, request, answer, wrong);
}
