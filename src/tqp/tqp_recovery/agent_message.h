// The header of an agent's message: one line of "Key:value" items with ';' between them, a banner before them.
//   In      a header line    Out  tq_msg_DS
//   Thread  any; nothing is kept between calls
//   Failure an item without ':' is told and gives -2; values are cut at 511 bytes, custom headers end at 1024
// Sample:  TraceQuarryMessage 2.0;Version:2.0;TxnId:1073742;Status:Success;Ack:0;ContentLength:14;SeqNo:0;
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t tq_msg_text_room = 512; // with the NUL
constexpr size_t tq_msg_most_custom_headers = 1024;

// A parsed header. Texts end with a NUL; empty: not told.
struct tq_msg_DS {
  char version[tq_msg_text_room] = "";
  int32_t txnID = -1;
  uint8_t seqNo = 0, priority = 0;
  char enCoding[tq_msg_text_room] = "";
  char srcComp[tq_msg_text_room] = "";
  char destComp[tq_msg_text_room] = "";
  char tier[tq_msg_text_room] = "";
  char server[tq_msg_text_room] = "";
  char pod[tq_msg_text_room] = "";
  char instance[tq_msg_text_room] = "";
  char msgName[tq_msg_text_room] = "";
  uint8_t msgType = 255;
  char status[tq_msg_text_room] = "";
  char message[tq_msg_text_room] = "";
  char operation[tq_msg_text_room] = "";
  char subOperation[tq_msg_text_room] = "";
  int32_t contentLength = -1; // bytes of body behind the header
  char connection[tq_msg_text_room] = "";
  std::vector<std::string> customHeaderList; // items of no known key, whole
  uint8_t ack = 0;                           // 1: the answer itself is still to come
  char ruckus_request = 0;
  char tqc_forwarded_request = 0;
};

// Makes a message one of which nothing has been told.
void tqMesDSSetDefault(tq_msg_DS *message);

// Adds what a header line tells. 0, or -2 at the first item without ':'; what stood before it is kept.
int tqMesFillDS(tq_msg_DS *message, std::string_view line);
