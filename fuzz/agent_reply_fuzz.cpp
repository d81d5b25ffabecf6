// Replies of agents: the header's line, then pieces of a body, whose records run in an instance.
//   In      any bytes; the first line is the header, each 0x1E byte behind it stands for a border between two reads

#include "agent_message.h"
#include "fuzz_targets.h"
#include "metadata_reply.h"
#include "metadata_request.h"
#include "one_instance_run.h"

#include <cstdlib>

static void read_header(std::string_view line) {
  tq_msg_DS message;
  tqMesDSSetDefault(&message);
  tqMesFillDS(&message, line);
  if (message.customHeaderList.size() > tq_msg_most_custom_headers || !memchr(message.status, 0, tq_msg_text_room))
    abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqp_instance_t *inst = open_one_instance_run();
  const std::string_view all(reinterpret_cast<const char *>(data), size);
  size_t begin = std::min(all.find('\n'), size);
  read_header(all.substr(0, begin));
  tqp_exchange exchange;
  exchange.inst = inst;
  while (begin < size) {
    const size_t end = std::min(all.find('\x1E', ++begin), size);
    process_and_dump_meta_data(&exchange, all.substr(std::min(begin, size), end - std::min(begin, end)));
    begin = end;
  }
  tqp_end_reply(&exchange);
  tqp_run_kept_reply_lines(inst);
  if (inst->get_tsa_id || inst->httpbody_remaining_bytes)
    abort();
  close_one_instance_run(inst);
  return 0;
}
