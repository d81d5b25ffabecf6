// Request detail records: headers of a request (12) and of its response (13), custom data (17), session attributes (18).
//   In      12,81:81:0:81,5:<curl>|6:7    13,81:81:0:81,200,5:7    17,81:81:0:81,5:1,<250>|6:2,<2.5>    18,81:81:0:81,5:7
//   Out     the segment's request detail; rows of custom data; the response's status
//   Thread  the instance's
//   Failure a record with a wrong number of fields, or of no segment, is told and dropped; a bad item costs itself alone
// An item is "name:value", both a header's local id, or the value a literal in angle brackets.

#include "detail_segment.h"
#include "detail_text.h"
#include "event_table.h"

#include <cstring>

constexpr int most_items = 1024;

static bool tell_field_count(const tq_event &ev, int count) {
  tqp_detail_error(
      ev.inst,
      "Current http request or response capture record Does not have expected number of fields. It has %d fields, expected %d fields.",
      count, ev.id == TQ_EV_HTTP_HEADER_REQ ? 2 : 3);
  return false;
}

static void tell_malformed(const tqp_instance_t *inst) {
  tqp_detail_error(inst, "Current http request or response capture record is malformed.");
}

struct detail_fields {
  char *tuple, *status, *items; // status: event 13 alone
};

// A custom value may hold a comma, so its record is cut at the first one only.
static bool cut_fields(tq_event &ev, detail_fields *fields) {
  char *tokens[5];
  *ev.f.end = 0;
  const int expected = ev.id == TQ_EV_HTTP_HEADER_REP ? 3 : 2;
  const int count = get_tokens_with_multi_delimiter(ev.f.pos, tokens, ",", ev.id == TQ_EV_CUSTOM_DATA ? 2 : 5);
  if (count != expected)
    return tell_field_count(ev, count);
  *fields = {tokens[0], tokens[1], tokens[expected - 1]};
  return true;
}

static void take_item(const tq_event &ev, const detail_place &place, const char *tuple, char *item, int index) {
  char *value = strchr(item, ':');
  if (!value)
    return tell_malformed(ev.inst);
  *value++ = 0;
  int kind = 0;
  if (ev.id == TQ_EV_CUSTOM_DATA && !tqp_take_value_kind(&value, &kind))
    return tell_malformed(ev.inst);
  detail_names names;
  bool open_end;
  const bool known = tqp_read_detail_names(ev.inst, atoi(item), value, &names, &open_end);
  if (open_end)
    tell_malformed(ev.inst);
  if (!known)
    return;
  if (ev.id == TQ_EV_CUSTOM_DATA)
    tqp_put_custom_value(ev.inst, tuple, names, kind);
  if (segment_fp_t *segment = tqp_segment_of_detail(ev.inst, place).segment)
    memory_dump_http_header_req_rsp_info(segment, ev.id, index, names.name, names.value);
}

void tq_run_request_detail(tq_event &ev) {
  detail_fields fields;
  detail_place place;
  if (!cut_fields(ev, &fields) || !tqp_place_detail(ev.inst, fields.tuple, &place))
    return;
  if (ev.id == TQ_EV_HTTP_HEADER_REP)
    tqp_segment_of_detail(ev.inst, place).segment->status_code = static_cast<int16_t>(atoi(fields.status));
  char *items[most_items];
  const int count = get_tokens_with_multi_delimiter(fields.items, items, "|", most_items);
  for (int i = 0; i < count; ++i)
    take_item(ev, place, fields.tuple, items[i], i);
}
