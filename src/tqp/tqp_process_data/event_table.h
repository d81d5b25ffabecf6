// One row for each record id that has an effect: its counter, its handler. Private to record intake.
#pragma once

#include "field_cursor.h"
#include "tqp_main.h"

// A record on its way through its handler.
struct tq_event {
  tqp_instance_t *inst;
  int id;
  int from_recovery; // 0: from the raw file
  tqp_fields f;      // what stands behind the event id
};

using tq_event_handler = void (*)(tq_event &ev);

constexpr int NO_COUNTER = -1;

struct tq_event_row {
  int id;
  int counter;          // sum_rep_cnt bumped before the record is read, or NO_COUNTER
  tq_event_handler run; // null: the record is only counted
};

// --- handlers ------------------------------------------------------------------------------------------------
void tq_run_identity(tq_event &ev);         // 0   identity.cpp
void tq_run_new_connection(tq_event &ev);   // 99  identity.cpp
void tq_run_method_discovery(tq_event &ev); // 5   discovery_records.cpp
void tq_run_header_discovery(tq_event &ev); // 6
void tq_run_url_discovery(tq_event &ev);    // 7
void tq_run_plain_discovery(tq_event &ev);  // 26, 32 to 37, 41
void tq_run_sql_discovery(tq_event &ev);    // 22, 23  sql_discovery.cpp
void tq_run_header(tq_event &ev);           // 2, 82   flowpath_events.cpp
void tq_run_blob(tq_event &ev);             // 3, 4, 83, 84
void tq_run_exit_blob(tq_event &ev);        // 43, 44
void tq_run_async_response(tq_event &ev);   // 80
void tq_run_exception(tq_event &ev);        // 31, 38  exception_records.cpp
void tq_run_jms(tq_event &ev);              // 16      jms_record.cpp
void tq_run_request_detail(tq_event &ev);   // 12, 13, 17, 18  request_detail.cpp
void tq_run_method_args(tq_event &ev);      // 19      method_args_detail.cpp
void tq_run_captured_body(tq_event &ev);    // 14, 15  captured_body.cpp
void tq_run_dynamic_logging(tq_event &ev);  // 20      dynamic_logging.cpp
void tq_run_body_response(tq_event &ev);    // 45, 46
void tq_run_resend(tq_event &ev);           // 11      resend.cpp
void tq_run_global_text(tq_event &ev);      // 110, 111  tag_records.cpp
void tq_run_tags(tq_event &ev);             // 112
void tq_run_topology(tq_event &ev);         // 91
