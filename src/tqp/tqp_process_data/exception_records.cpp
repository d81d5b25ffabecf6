// Exception records: one exception of a flowpath, its texts by the agent's local ids; the extended form (38) also names
// the method that called and the backend that failed.
//   In      31,81:80,1000,1,2,3,42,4,5,6    38,81,1000,17,12,2,7,1,2,3,42,4,5,6   (the last field: stack trace)
//   Out     a row of the exceptions' writer
//   Thread  the instance's
//   Failure a record that is short is told and counted; one with a field too many, or with an id that nobody has told,
//           is told; all of them are dropped

#include "event_table.h"
#include "flowpath_files.h"
#include "local_maps.h"
#include "metadata_request.h"
#include "record_errors.h"

#include <cstring>

// The numbers of a record, in its order.
enum excp_number {
  METHOD,
  METHOD_LINE,
  BACKEND_TYPE,
  BACKEND_SUB_TYPE,
  CLS,
  THR_CLS,
  THR_MTD,
  LINE,
  MSG,
  CAUSE,
  N_NUMBERS
};

constexpr int BACKEND_SQL = 2; // the backend type whose subtype is a local SQL id

struct excp_number_row {
  bool extended;                         // in event 38 only
  int64_t empty;                         // what an empty field is
  wllb_zarray<int> tqp_instance_t::*map; // null: no id, or one of sql_query_map
  int kind;                              // of the metadata that tells the id; 0: no id
  const char *unknown;                   // told when the id lies beyond the map
};

// clang-format off
static constexpr excp_number_row number_rows[N_NUMBERS] = {
  {true,  -1, &tqp_instance_t::method_map,       TQ_EV_METHOD_DISCOVERY,       "Method Id found for which meta data record 5 not found."},
  {true,   0, nullptr,                           0,                            nullptr},
  {true,   0, nullptr,                           0,                            nullptr},
  {true,  -1, nullptr,                           TQ_EV_SQL_DISCOVERY,          "Backend subtype found for which meta data record 22 not found."},
  {false,  0, &tqp_instance_t::excp_cls_map,     TQ_EV_EXCP_CLS_DISCOVERY,     "Class Id found for which meta data record 32 not found."},
  {false,  0, &tqp_instance_t::excp_thr_cls_map, TQ_EV_EXCP_THR_CLS_DISCOVERY, "Throwing Class Id found for which meta data record 33 not found."},
  {false,  0, &tqp_instance_t::excp_thr_mtd_map, TQ_EV_EXCP_THR_MTD_DISCOVERY, "Throwing method Id found for which meta data record 34 not found."},
  {false,  0, nullptr,                           0,                            nullptr},
  {false,  0, &tqp_instance_t::excp_msg_map,     TQ_EV_EXCP_MSG_DISCOVERY,     "Message Id found for which meta data record 35 not found."},
  {false,  0, &tqp_instance_t::excp_cause_map,   TQ_EV_EXCP_CAUSE_DISCOVERY,   "Cause Id found for which meta data record 37 not found."},
};

// clang-format on

// Method and query ask for nothing when they are negative, message and cause when they are 0.
static bool may_be_asked_for(const int64_t (&numbers)[N_NUMBERS], int i) {
  switch (i) {
  case METHOD:
    return numbers[i] >= 0;
  case BACKEND_SUB_TYPE:
    return numbers[i] >= 0 && numbers[BACKEND_TYPE] == BACKEND_SQL;
  case MSG:
  case CAUSE:
    return numbers[i] != 0;
  default:
    return number_rows[i].kind != 0;
  }
}

// Lets the agent tell an id that nobody has told.
static void ask_for_unknown(tqp_instance_t *inst, const int64_t (&numbers)[N_NUMBERS], int i, int64_t timestamp) {
  const excp_number_row &row = number_rows[i];
  const bool known = row.map && numbers[i] > 0 && (inst->*row.map).at_or_zero(numbers[i]) != 0;
  if (!known && may_be_asked_for(numbers, i))
    get_meta_data_for_events_from_bci(inst, row.kind, numbers[i], timestamp);
}

// An id equal to the map's size still passes.
static bool lies_beyond_map(const tqp_instance_t *inst, const int64_t (&numbers)[N_NUMBERS], int i) {
  if (number_rows[i].map)
    return numbers[i] > (inst->*number_rows[i].map).size;
  return i == BACKEND_SUB_TYPE && numbers[BACKEND_TYPE] == BACKEND_SQL && numbers[i] > inst->sql_query_map_size;
}

static int32_t backend_sub_type_of(const tqp_instance_t *inst, const int64_t (&numbers)[N_NUMBERS]) {
  const auto sub_type = static_cast<int32_t>(numbers[BACKEND_SUB_TYPE]);
  if (numbers[BACKEND_TYPE] != BACKEND_SQL || sub_type < 0)
    return sub_type;
  return sql_query_map_read_loc2norm(inst->sql_query_map.data, sub_type, inst->sql_query_map_size, nullptr);
}

// False, after it has been told why: the record is dropped.
static bool read_numbers(tq_event &ev, int64_t timestamp, int64_t (&numbers)[N_NUMBERS], excp_row *row_out) {
  for (int i = 0; i < N_NUMBERS; ++i) {
    const excp_number_row &row = number_rows[i];
    numbers[i] = row.empty;
    if (row.extended && ev.id != TQ_EV_EXCP_DATA_EX)
      continue;
    const char *text = ev.f.next();
    if (ev.f.ended) {
      tqp_incomplete_record(ev.inst);
      return false;
    }
    if (*text)
      numbers[i] = strtoll(text, nullptr, 10);
    ask_for_unknown(ev.inst, numbers, i, timestamp);
    if (lies_beyond_map(ev.inst, numbers, i)) {
      tqp_rawdata_error(ev.inst, "%s", row.unknown);
      return false;
    }
    // What an id means is asked as soon as it is read: an agent that is asked for a later one may tell this one anew.
    if (i == METHOD)
      row_out->method_norm_id = ev.inst->method_map.at_or_zero(numbers[METHOD]);
    if (i == BACKEND_SUB_TYPE)
      row_out->backend_sub_type = backend_sub_type_of(ev.inst, numbers);
  }
  return true;
}

// A number, or the last part of a colon list unless that is empty.
static int64_t flowpath_id_of(const char *text) {
  const char *colon = strrchr(text, ':');
  return strtoll(colon && colon[1] ? colon + 1 : text, nullptr, 10);
}

void tq_run_exception(tq_event &ev) {
  excp_row row = {};
  row.backend_sub_type = static_cast<int32_t>(number_rows[BACKEND_SUB_TYPE].empty);
  row.flowpath_id = flowpath_id_of(ev.f.next());
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  row.timestamp = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  int64_t numbers[N_NUMBERS];
  if (!read_numbers(ev, strtoll(row.timestamp, nullptr, 10), numbers, &row))
    return;
  row.stack_trace = ev.f.next();
  if (!ev.f.ended)
    return tqp_surplus_fields(ev.inst);
  const auto whole = [&numbers](excp_number i) { return static_cast<int32_t>(numbers[i]); };
  row.excp_cls = whole(CLS);
  row.thr_cls = whole(THR_CLS);
  row.thr_mtd = whole(THR_MTD);
  row.line = whole(LINE);
  row.msg = whole(MSG);
  row.cause = whole(CAUSE);
  row.method_line = whole(METHOD_LINE);
  row.backend_type = whole(BACKEND_TYPE);
  csv_dump_excp_data(ev.inst, &row, 0);
}
