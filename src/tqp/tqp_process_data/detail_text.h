// Request detail as text on its segment: sections of items, and the names and values that items speak of by local id.
//   In      items of records 12, 13, 17, 18, 19
//   Out     req_detail_buf: "0:accept=*|host=a&1:server=b", a section's digit telling its record; "TQCustomData.csv"
//   Thread  the instance's
//   Failure an item whose name or value nobody has told is told and skipped
#pragma once

#include "tqp_main.h"

// --- names and values --------------------------------------------------------------------------------------------

// An item's texts, good until the agent is asked for the next ones.
struct detail_names {
  const char *name, *value;
  int32_t norm_header_id; // of the name
};

// Asks the agent for what a local id means, unless it is known: a header's text, a method.
void tqp_ask_for_header(tqp_instance_t *inst, int local_id);
void tqp_ask_for_method(tqp_instance_t *inst, int local_id);

// Turns a header's local id and a value into texts. A value that begins with '<' is cut at its '>' in place; *open_end
// tells that there was none. Any other value is a header's local id. False, after it has been told: one of them lies
// beyond what the agent has told.
bool tqp_read_detail_names(tqp_instance_t *inst, int name_id, char *value, detail_names *names, bool *open_end);

// Takes the kind off the front of a value: "1,<250>" and "1:<250>" leave "<250>". False when nothing stands behind it.
bool tqp_take_value_kind(char **value, int *kind);

// Writes a custom value's row. Kind 1 is a whole number, 2 a real one, kept in thousandths.
void tqp_put_custom_value(tqp_instance_t *inst, const char *tuple_text, const detail_names &names, int kind);

// --- the text ------------------------------------------------------------------------------------------------------

// Appends "name=value", or the value alone for an empty name. Item 0 of a record begins a section; all others go on with
// the section before them, also when item 0 was a bad one.
void memory_dump_http_header_req_rsp_info(segment_fp_t *segment, int event_id, int item_index, std::string_view name,
                                          std::string_view value);

// Event of the method argument that this thread has put last; 0: the next one begins a section.
extern thread_local int new_type;

// Appends "method_text:extra_text:name=value"; a text that is empty has no ':' either.
void memory_dump_custom_method_args_info(segment_fp_t *segment, int event_id, std::string_view method_text,
                                         std::string_view extra_text, std::string_view name, std::string_view value);
