// Reads the header line of an agent's message; see the header.

#include "agent_message.h"

#include "tqp_main.h"

#include <cstdlib>

// Most items of a line, the banner among them; what stands behind them is not read.
static constexpr int most_items = 1024;

static constexpr std::string_view ruckus_name = "application_ruckus_inject";

// At most one of the three fields is told; a key without one sets tqc_forwarded_request.
struct header_row {
  std::string_view key; // compared over its own length
  char (tq_msg_DS::*text)[tq_msg_text_room] = nullptr;
  int32_t tq_msg_DS::*number = nullptr;
  uint8_t tq_msg_DS::*byte = nullptr;
};

// clang-format off
static constexpr header_row header_rows[] = {
  {.key = "Version:",       .text = &tq_msg_DS::version},
  {.key = "TxnId:",         .number = &tq_msg_DS::txnID},
  {.key = "SeqNo:",         .byte = &tq_msg_DS::seqNo},
  {.key = "Priority",       .byte = &tq_msg_DS::priority}, // without its ':'
  {.key = "Encoding:",      .text = &tq_msg_DS::enCoding},
  {.key = "SrcComp:",       .text = &tq_msg_DS::srcComp},
  {.key = "DestComp:",      .text = &tq_msg_DS::destComp},
  {.key = "Tier:",          .text = &tq_msg_DS::tier},
  {.key = "Server:",        .text = &tq_msg_DS::server},
  {.key = "Instance:",      .text = &tq_msg_DS::instance},
  {.key = "MsgName:",       .text = &tq_msg_DS::msgName},
  {.key = "TQCForward:"},
  {.key = "MsgType:",       .byte = &tq_msg_DS::msgType},
  {.key = "Status:",        .text = &tq_msg_DS::status},
  {.key = "Message:",       .text = &tq_msg_DS::message},
  {.key = "Operation:",     .text = &tq_msg_DS::operation},
  {.key = "SubOperation:",  .text = &tq_msg_DS::subOperation},
  {.key = "ContentLength:", .number = &tq_msg_DS::contentLength},
  {.key = "Connection:",    .text = &tq_msg_DS::connection},
  {.key = "Ack:",           .byte = &tq_msg_DS::ack},
  {.key = "PODName:",       .text = &tq_msg_DS::pod},
};

// clang-format on

// As the C library reads a number that is too large: the nearest there is.
static int32_t number_of(const std::string &value) {
  const long long number = strtoll(value.c_str(), nullptr, 10);
  return number > INT32_MAX ? INT32_MAX : number < INT32_MIN ? INT32_MIN : static_cast<int32_t>(number);
}

static void store(tq_msg_DS *message, const header_row &row, std::string_view value) {
  if (row.text) {
    wllb_copy_text(message->*row.text, tq_msg_text_room, value);
    message->ruckus_request |= row.text == &tq_msg_DS::msgName && value == ruckus_name;
  } else if (row.number) {
    message->*row.number = number_of(std::string(value));
  } else if (row.byte) {
    message->*row.byte = static_cast<uint8_t>(number_of(std::string(value)));
  } else {
    message->tqc_forwarded_request = 1;
  }
}

static void take_item(tq_msg_DS *message, std::string_view item, size_t colon) {
  for (const header_row &row : header_rows)
    if (item.starts_with(row.key))
      return store(message, row, item.substr(colon + 1));
  if (message->customHeaderList.size() < tq_msg_most_custom_headers)
    message->customHeaderList.emplace_back(item.substr(0, tq_msg_text_room - 1));
}

void tqMesDSSetDefault(tq_msg_DS *message) {
  *message = {};
}

int tqMesFillDS(tq_msg_DS *message, std::string_view line) {
  int items = 0;
  while (!line.empty() && items < most_items) {
    const size_t end = std::min(line.find_first_of(";\n"), line.size());
    const std::string_view item = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    if (item.empty() || ++items == 1) // the first one is the banner
      continue;
    const size_t colon = item.find(':');
    if (colon == item.npos) {
      printf("Argument is Missing\n");
      return -2;
    }
    take_item(message, item, colon);
  }
  return 0;
}
