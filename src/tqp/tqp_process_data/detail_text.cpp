// Items of request detail: their texts, their rows, their places in the segment's text; see the header.

#include "detail_text.h"

#include "detail_segment.h"
#include "flowpath_files.h"
#include "metadata_request.h"
#include "tqp_async_handling.h"

#include <cmath>

// --- names and values --------------------------------------------------------------------------------------------

static int64_t metadata_time() {
  return static_cast<int64_t>(static_cast<uint64_t>(wllb_now()) - static_cast<uint64_t>(g_vex_epoc_diff));
}

void tqp_ask_for_header(tqp_instance_t *inst, int local_id) {
  get_meta_data_for_events_from_bci(inst, TQ_EV_HTTP_HEADER_DISCOVERY, local_id, metadata_time());
}

void tqp_ask_for_method(tqp_instance_t *inst, int local_id) {
  get_meta_data_for_events_from_bci(inst, TQ_EV_METHOD_DISCOVERY, local_id, metadata_time());
}

// A header's text, `unnamed` when it has none; null beyond the map's end.
static const char *header_text(const tqp_instance_t *inst, int local_id, const char *unnamed) {
  if (local_id >= inst->http_header_map.size)
    return nullptr;
  const char *text = inst->http_header_map.at_or_zero(local_id).http_header_name;
  return text ? text : unnamed;
}

static bool tell_unknown_value(const tqp_instance_t *inst, int value_id) {
  tqp_detail_error(inst, "Header discovery record (6) missingfor HEADER VALUE ID %d", value_id);
  return false;
}

static bool tell_unknown_name(const tqp_instance_t *inst, int name_id) {
  tqp_detail_error(inst, "Header discovery record (6) missingfor HEADER ID %d", name_id);
  return false;
}

bool tqp_read_detail_names(tqp_instance_t *inst, int name_id, char *value, detail_names *names, bool *open_end) {
  const bool is_literal = *value == '<';
  const int value_id = is_literal ? 0 : atoi(value);
  *open_end = false;
  tqp_ask_for_header(inst, name_id);
  if (is_literal) {
    char *end = strchr(++value, '>');
    *open_end = !end;
    if (end)
      *end = 0;
  } else {
    tqp_ask_for_header(inst, value_id);
  }
  names->value = is_literal ? value : header_text(inst, value_id, "ArgumentValue");
  if (!names->value)
    return tell_unknown_value(inst, value_id);
  names->name = header_text(inst, name_id, "ArgumentName");
  if (!names->name)
    return tell_unknown_name(inst, name_id);
  names->norm_header_id = inst->http_header_map.at_or_zero(name_id).norm_http_header_id;
  return true;
}

bool tqp_take_value_kind(char **value, int *kind) {
  const char *text = *value;
  if (!text[0] || !text[1])
    return false;
  *kind = text[0] - '0';
  *value += 2;
  return true;
}

// --- rows --------------------------------------------------------------------------------------------------------

// In thousandths. What 64 bits do not hold is as large as they can.
static int64_t real_number(const char *text) {
  constexpr long double limit = 9223372036854775807.0L;
  const long double thousandths = roundl(strtold(text, nullptr) * 1000);
  if (std::isnan(thousandths))
    return 0;
  return thousandths >= limit ? INT64_MAX : thousandths <= -limit ? INT64_MIN : static_cast<int64_t>(thousandths);
}

void tqp_put_custom_value(tqp_instance_t *inst, const char *tuple_text, const detail_names &names, int kind) {
  constexpr int whole = 1, real = 2;
  const int64_t number = kind == whole ? strtol(names.value, nullptr, 10) : kind == real ? real_number(names.value) : 0;
  const custom_data_row row = {.fpi_text = tuple_text,
                               .header_id = names.norm_header_id,
                               .text = names.name,
                               .kind = kind,
                               .value64 = number,
                               .value = names.value};
  csv_dump_http_header_req_rsp_info(inst, &row, 0);
}

// --- the text ------------------------------------------------------------------------------------------------------

struct section_row {
  int event_id;
  char digit;
};

static constexpr section_row section_rows[] = {
    {TQ_EV_HTTP_HEADER_REQ, '0'}, {TQ_EV_HTTP_HEADER_REP, '1'},         {TQ_EV_CUSTOM_DATA, '2'},
    {TQ_EV_SESSION_ATTR, '3'},    {TQ_EV_CUSTOM_METHOD_ARGS_DATA, '4'}, {TQ_EV_DYNAMIC_LOGGING, '5'},
    {TQ_EV_HTTP_BODY, '6'}};

static char section_digit(int event_id) {
  for (const section_row &row : section_rows)
    if (row.event_id == event_id)
      return row.digit;
  return '0';
}

struct detail_piece {
  std::string_view text;
  char behind; // put behind a text that is not empty; 0: nothing
};

static void put_item(segment_fp_t *segment, int event_id, bool begins_section, const detail_piece (&pieces)[4]) {
  wllb_text &detail = segment->req_detail_buf;
  const bool joins_sections = begins_section && detail.len > 0;
  size_t need = joins_sections ? 1 : 0;
  need += begins_section ? 2 : 1;
  for (const detail_piece &piece : pieces)
    need += piece.text.empty() ? 0 : piece.text.size() + (piece.behind ? 1 : 0);
  get_memory_in_req_detail_buf(segment, need);
  wllb_putter put(detail, need, "curr_fp->req_detail_buf");
  if (joins_sections)
    put.put('&');
  if (begins_section)
    put.put(section_digit(event_id)).put(':');
  else
    put.put('|');
  for (const detail_piece &piece : pieces) {
    if (piece.text.empty())
      continue;
    put.put(piece.text);
    if (piece.behind)
      put.put(piece.behind);
  }
  put.done(detail);
}

void memory_dump_http_header_req_rsp_info(segment_fp_t *segment, int event_id, int item_index, std::string_view name,
                                          std::string_view value) {
  if (event_id == TQ_EV_HTTP_BODY)
    value = {};
  put_item(segment, event_id, item_index == 0, {{}, {}, {name, '='}, {value, 0}});
}

thread_local int new_type;

void memory_dump_custom_method_args_info(segment_fp_t *segment, int event_id, std::string_view method_text,
                                         std::string_view extra_text, std::string_view name, std::string_view value) {
  const bool begins_section = new_type != event_id;
  new_type = event_id;
  put_item(segment, event_id, begins_section, {{method_text, ':'}, {extra_text, ':'}, {name, '='}, {value, 0}});
}
