// Agents' answers to requests for metadata, out of the ids that the generated agents have handed out.
//   In      one request line in either form
//   Out     pieces of an answer on the connection; good ones, or what a bad agent or collector would do
//   Thread  one
//   Failure a request that cannot be read is answered with an error
// Samples: tq_meta_data_req:action=send_meta_data;appName=shop;tqAppServerHost=web01;tierName=Storefront;5_17;0
//          TraceQuarryMessage 2.0;TxnId:9;Tier:Storefront;Server:web01;Instance:shop;Message:5_17_1772442000;SeqNo:0;
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "online_server.h"
#include "sample_append.h"

enum online_replies : uint8_t {
  ONLINE_GOOD,
  ONLINE_LATE,  // after two seconds
  ONLINE_SPLIT, // in small pieces, cut anywhere
  ONLINE_WRONG, // each time another fault
  ONLINE_SILENT,
  ONLINE_CLOSED // in the middle of the answer
};

struct online_agents {
  const std::vector<sample_raw_file> *files; // whose agents are connected
  online_replies replies;
  sample_random random; // of its own, so that answers do not change the raw data
  size_t asked;
};

// Queues the answer. What was asked and what became of it, in words.
std::string online_answer_old(online_agents &agents, online_connection &connection, std::string_view line);
std::string online_answer_new(online_agents &agents, online_connection &connection, std::string_view line);
