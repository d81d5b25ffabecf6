// Writes JMS messages: a row for each key and value of the message's header, properties and text.
//   In      "Header={...}", "Properties={...}" and "Text={...}" in any order, each with "key={value}" pairs or with
//           plain text; braces inside a value belong to it
//   Out     "TQJMS.csv"
//   Thread  the instance's
//   Failure a pair or section whose closing brace is missing has no row; sections that are missing are told on
//           standard error
// Sample:  Header={id={7}}Text={hello}  gives  <fpi>,<ms>,0,1,id,7  and  <fpi>,<ms>,2,2,,hello

#include "side_row_writer.h"

#include <algorithm>
#include <iterator>

// --- the writer's words ---------------------------------------------------------------------------------------------

static void tell_full() {
  wllb_trace(1, "Info", "JMS Data buffer is 80%% full, forcing all table to be uploaded");
}

static void tell_closed(const side_row &row) {
  wllb_trace(
      1, "Error",
      "Raw data received for previous partition, whereas the jms record csv file pointer is closed, flowpathinstnace = %lld",
      static_cast<long long>(row.fpi));
}

static void tell_older(const side_row &row) {
  wllb_trace(
      1, "Error",
      "Raw data received for previous to previous partition, ignoring this jms data record, flowpathinstnace = %lld",
      static_cast<long long>(row.fpi));
}

static constexpr side_row_writer jms_rows = {.slot = JMS_CSV_FP,
                                             .buffer = &tqp_instance_t::jms_data_buf,
                                             .label = "jms_data_buf",
                                             .buffer_size = &max_buffered_jms_bufsize,
                                             .row_first = false,
                                             .saves_state = false,
                                             .tell_full = tell_full,
                                             .tell_closed = tell_closed,
                                             .tell_older = tell_older,
                                             .tell_unwritten = tqp_tell_unwritten_side_rows};

// --- one section ----------------------------------------------------------------------------------------------------

// A message on its way into the buffer.
struct jms_message {
  tqp_instance_t *inst;
  int64_t flowpath_id;
  int64_t timestamp; // ms
  int32_t running_index;
};

static void put_row(jms_message &message, int section, std::string_view key, std::string_view value) {
  wllb_putter out = tqp_begin_side_row(message.inst, jms_rows, 4 * tqp_column_room + key.size() + value.size() + 2);
  out.num(message.flowpath_id).put(',').num(message.timestamp).put(',').num(section).put(',');
  out.num(message.running_index++).put(',').put(key).put(',').put(value).put('\n');
  out.done(message.inst->jms_data_buf);
}

// Where the brace closes that is open before `at`; with `or_equals` a "=" outside inner braces ends the search, too.
// npos: the text ends first.
static size_t closing_brace(std::string_view text, size_t at, bool or_equals) {
  int64_t depth = 1;
  for (; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '{')
      ++depth;
    else if ((c == '}' && --depth == 0) || (c == '=' && or_equals && depth == 1))
      return at;
  }
  return text.npos;
}

static void tq_jms_get_key_val_and_fill_buf(jms_message &message, std::string_view text, int section) {
  bool has_key = false;
  for (size_t at = 0;;) {
    at = std::min(text.find_first_not_of(" \t", at), text.size());
    const size_t key_end = closing_brace(text, at, true);
    if (key_end == text.npos)
      return;
    if (text[key_end] == '}') { // the section's own
      if (!has_key)
        put_row(message, section, "", text.substr(0, key_end));
      return;
    }
    has_key = true;
    const size_t open = text.find_first_of("{}", key_end);
    if (open == text.npos || text[open] == '}')
      return;
    const size_t close = closing_brace(text, open + 1, false);
    if (close == text.npos)
      return;
    put_row(message, section, text.substr(at, key_end - at), text.substr(open + 1, close - open - 1));
    at = close + 1;
  }
}

// --- a message ------------------------------------------------------------------------------------------------------

struct jms_section_kind {
  std::string_view begin;
  const char *missing;
};

// By number, as it stands in the rows.
static constexpr jms_section_kind section_kinds[] = {
    {"Header={", "Header string not found\n"},
    {"Properties={", "Properties string not found\n"},
    {"Text={", "Text string not found\n"},
};

struct jms_section {
  size_t at; // of its name; npos: missing
  int number;
};

// Puts the message's rows into the buffer. A section reaches to the next one's name at most.
static void tq_process_jms_data(jms_message &message, std::string_view payload) {
  jms_section sections[std::size(section_kinds)];
  for (int i = 0; i < static_cast<int>(std::size(sections)); ++i)
    sections[i] = {payload.find(section_kinds[i].begin), i};
  const auto by_place = [](const jms_section &a, const jms_section &b) { return a.at < b.at; };
  if (std::min_element(std::begin(sections), std::end(sections), by_place)->at == payload.npos) {
    fputs("Data not found\n", stderr);
    return;
  }
  for (const jms_section &section : sections)
    if (section.at == payload.npos)
      fputs(section_kinds[section.number].missing, stderr);
  std::sort(std::begin(sections), std::end(sections), by_place);
  for (size_t i = 0; i < std::size(sections) && sections[i].at != payload.npos; ++i) {
    const size_t from = sections[i].at + section_kinds[sections[i].number].begin.size();
    const size_t end = i + 1 < std::size(sections) ? sections[i + 1].at : payload.npos;
    tq_jms_get_key_val_and_fill_buf(message, payload.substr(from, end == payload.npos ? end : end - from),
                                    sections[i].number);
  }
}

void csv_dump_jms_data(tqp_instance_t *inst, int64_t flowpath_id, int64_t timestamp, const char *payload, size_t len,
                       int force) {
  if (force)
    return tqp_flush_side_rows(inst, jms_rows);
  if (!payload)
    return;
  if (len + inst->jms_data_buf.len >= static_cast<size_t>(max_buffered_jms_bufsize))
    csv_dump_jms_data(inst, 0, 0, nullptr, 0, 1);
  const side_row placed = {inst->jms_data_buf.len, timestamp / 1000, flowpath_id};
  jms_message message = {inst, flowpath_id, timestamp, 1};
  tq_process_jms_data(message, {payload, len});
  tqp_place_side_row(inst, jms_rows, placed);
}
