// Method argument records (19): custom data and arguments of methods, captured while they ran.
//   In      19,81:81:0:81,0:5:1,<250>|1:17:arg0:6:String:<A-17>      kind 0: name, kind of value, value; kinds 1 and 2:
//           method, text, name, text, value
//   Out     the segment's request detail: "amount=250|9:arg0:String:order=A-17", 9 the method's norm id; rows of kind 0
//   Thread  the instance's
//   Failure a record without items, or of no segment, is told and dropped; a bad item costs itself alone

#include "detail_segment.h"
#include "detail_text.h"
#include "event_table.h"

#include <charconv>
#include <cstring>

constexpr int most_items = 1024;

static void tell_field_count(const tqp_instance_t *inst, int count) {
  tqp_detail_error(
      inst,
      "Current custom data or method args record Does not have expected number of fields. It has %d fields, expected 2 fields.",
      count);
}

static void tell_malformed(const tqp_instance_t *inst) {
  tqp_detail_error(inst, "Current custom data or method args record is malformed.");
}

static void tell_malformed_args(const tqp_instance_t *inst) {
  tqp_detail_error(inst, "Current mthod args capture record is malformed.");
}

static void tell_malformed_arg(const tqp_instance_t *inst) {
  tqp_detail_error(inst, "Current mthod arg capture record is malformed.");
}

// A record whose items are being taken.
struct args_record {
  tqp_instance_t *inst;
  detail_place place;
  const char *tuple;
};

static bool is_negative_id(const char *text) {
  return *text != '<' && atoi(text) < 0;
}

// 0:name_id:T,value
static void take_custom_value(const args_record &r, char *text) {
  char *value = strchr(text, ':');
  if (!value)
    return tell_malformed(r.inst);
  *value++ = 0;
  int kind;
  if (!tqp_take_value_kind(&value, &kind) || is_negative_id(text) || is_negative_id(value))
    return tell_malformed(r.inst);
  detail_names names;
  bool open_end;
  const bool known = tqp_read_detail_names(r.inst, atoi(text), value, &names, &open_end);
  if (open_end)
    tell_malformed(r.inst);
  if (!known)
    return;
  tqp_put_custom_value(r.inst, r.tuple, names, kind);
  if (segment_fp_t *segment = tqp_segment_of_detail(r.inst, r.place).segment)
    memory_dump_custom_method_args_info(segment, TQ_EV_CUSTOM_METHOD_ARGS_DATA, "", "", names.name, names.value);
}

// 1:method_id:text:name_id:text:value
static void take_argument(const args_record &r, char *text) {
  enum { METHOD, FIRST_TEXT, NAME, SECOND_TEXT, VALUE, N_FIELDS };

  char *fields[N_FIELDS];
  if (get_tokens_with_multi_delimiter(text, fields, ":", N_FIELDS) != N_FIELDS)
    return tell_malformed_args(r.inst);
  if (is_negative_id(fields[METHOD]) || is_negative_id(fields[NAME]) || is_negative_id(fields[VALUE]))
    return tell_malformed_arg(r.inst);
  const int method_id = atoi(fields[METHOD]);
  tqp_ask_for_method(r.inst, method_id);
  detail_names names;
  bool open_end;
  const bool known = tqp_read_detail_names(r.inst, atoi(fields[NAME]), fields[VALUE], &names, &open_end);
  if (open_end)
    tell_malformed_arg(r.inst);
  segment_fp_t *segment = tqp_segment_of_detail(r.inst, r.place).segment;
  if (!known || !segment)
    return;
  char method_text[16];
  const char *end = std::to_chars(method_text, std::end(method_text), r.inst->method_map.at_or_zero(method_id)).ptr;
  const std::string extra_text = std::string(fields[FIRST_TEXT]) + ":" + fields[SECOND_TEXT];
  memory_dump_custom_method_args_info(segment, TQ_EV_CUSTOM_METHOD_ARGS_DATA,
                                      {method_text, static_cast<size_t>(end - method_text)}, extra_text, names.name,
                                      names.value);
}

static void take_item(const args_record &r, char *item) {
  const char kind = *item;
  if (kind < '0' || kind > '2' || item[1] != ':')
    return tell_malformed(r.inst);
  if (kind == '0')
    take_custom_value(r, item + 2);
  else
    take_argument(r, item + 2);
}

// A value may hold a comma, so the record is cut at the first one only.
void tq_run_method_args(tq_event &ev) {
  char *fields[2];
  new_type = 0;
  *ev.f.end = 0;
  const int field_count = get_tokens_with_multi_delimiter(ev.f.pos, fields, ",", 2);
  if (field_count != 2)
    return tell_field_count(ev.inst, field_count);
  args_record r = {ev.inst, {}, fields[0]};
  if (!tqp_place_detail(ev.inst, fields[0], &r.place))
    return;
  char *items[most_items];
  const int count = get_tokens_with_multi_delimiter(fields[1], items, "|", most_items);
  for (int i = 0; i < count; ++i)
    take_item(r, items[i]);
}
