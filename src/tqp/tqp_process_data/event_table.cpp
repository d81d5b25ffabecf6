// The event table and the dispatcher: from event id to handler.
//   In      framed records of the line cutter, of recovery files and of agents' replies
//   Out     what the handlers do; a count per kind of record, taken before the record is read
//   Thread  the instance's
//   Failure an id without a row is skipped

#include "event_table.h"

#include "metadata_request.h"
#include "record_dispatch.h"

#include <array>

static void run_data_over(tq_event &ev) {
  ev.inst->tq_data_over = 1;
}

// clang-format off
static constexpr tq_event_row tq_event_rows[] = {
  {TQ_EV_TSA_ID_HEADER,              NO_COUNTER,                                   tq_run_identity},
  {TQ_EV_SEQ_BLOB_HEADER,            SUM_REP_CNT_TQ_EV_HEADER_FPG2,                tq_run_header},
  {TQ_EV_SEQ_BLOB_INCOMPLETE,        SUM_REP_CNT_TQ_EV_SEQ_BLOB_FPG2,              tq_run_blob},
  {TQ_EV_SEQ_BLOB_COMPLETE,          SUM_REP_CNT_TQ_EV_COMPLETE_FPG2,              tq_run_blob},
  {TQ_EV_METHOD_DISCOVERY,           SUM_REP_CNT_TQ_EV_METHOD_DISCOVERY,           tq_run_method_discovery},
  {TQ_EV_HTTP_HEADER_DISCOVERY,      SUM_REP_CNT_TQ_EV_HTTP_HEADER_DISCOVERY,      tq_run_header_discovery},
  {TQ_EV_URL_DISCOVERY,              SUM_REP_CNT_TQ_EV_URL_DISCOVERY,              tq_run_url_discovery},
  {TQ_DATA_OVER,                     SUM_REP_CNT_TQ_DATA_OVER,                     run_data_over},
  {TQ_EV_HTTP_HEADER_REQ,            SUM_REP_CNT_TQ_EV_HTTP_HEADER_REQ,            tq_run_request_detail},
  {TQ_EV_HTTP_HEADER_REP,            SUM_REP_CNT_TQ_EV_HTTP_HEADER_REP,            tq_run_request_detail},
  {TQ_EV_REQ_BODY,                   SUM_REP_CNT_TQ_EV_REQ_BODY,                   tq_run_captured_body},
  {TQ_EV_RESP_BODY,                  SUM_REP_CNT_TQ_EV_RESP_BODY,                  tq_run_captured_body},
  {TQ_EV_JMS,                        SUM_REP_CNT_TQ_JMS,                           tq_run_jms},
  {TQ_EV_CUSTOM_DATA,                SUM_REP_CNT_TQ_SESSION_ATTR_SPECIFIC,         tq_run_request_detail},
  {TQ_EV_SESSION_ATTR,               SUM_REP_CNT_TQ_SESSION_ATTR_ALL,              tq_run_request_detail},
  {TQ_EV_CUSTOM_METHOD_ARGS_DATA,    SUM_REP_CNT_TQ_SESSION_ATTR_SPECIFIC_METHOD_ARGS, tq_run_method_args},
  {TQ_EV_DYNAMIC_LOGGING,            SUM_REP_CNT_TQ_EV_DYNAMIC_LOGGING,            tq_run_dynamic_logging},
  {TQ_EV_SQL_PREPARED_DISCOVERY,     SUM_REP_CNT_TQ_EV_SQL_PREPARED_DISCOVERY,     tq_run_sql_discovery},
  {TQ_EV_SQL_NON_PREPARED_DISCOVERY, SUM_REP_CNT_TQ_EV_SQL_NON_PREPARED_DISCOVERY, tq_run_sql_discovery},
  {TQ_EV_RESOURCE_DISCOVERY,         SUM_REP_CNT_TQ_EV_RESOURCE_DISCOVERY,         tq_run_plain_discovery},
  {TQ_EV_EXCP_DATA,                  SUM_REP_CNT_TQ_EV_EXCP_DATA,                  tq_run_exception},
  {TQ_EV_EXCP_CLS_DISCOVERY,         SUM_REP_CNT_TQ_EV_EXCP_CLS_DISCOVERY,         tq_run_plain_discovery},
  {TQ_EV_EXCP_THR_CLS_DISCOVERY,     SUM_REP_CNT_TQ_EV_EXCP_THR_CLS_DISCOVERY,     tq_run_plain_discovery},
  {TQ_EV_EXCP_THR_MTD_DISCOVERY,     SUM_REP_CNT_TQ_EV_EXCP_THR_MTD_DISCOVERY,     tq_run_plain_discovery},
  {TQ_EV_EXCP_MSG_DISCOVERY,         SUM_REP_CNT_TQ_EV_EXCP_MSG_DISCOVERY,         tq_run_plain_discovery},
  {TQ_EV_EXCP_CAUSE_DISCOVERY,       SUM_REP_CNT_TQ_EV_EXCP_CAUSE_DISCOVERY,       tq_run_plain_discovery},
  {TQ_EV_EXCP_ST_DISCOVERY,          SUM_REP_CNT_TQ_EV_EXCP_ST_DISCOVERY,          tq_run_plain_discovery},
  {TQ_EV_EXCP_DATA_EX,               SUM_REP_CNT_TQ_EV_EXCP_DATA_EX,               tq_run_exception},
  {TQ_EV_BCI_ARG_META_DATA_EVENT,    SUM_REP_CNT_TQ_EV_PAGE_DISCOVERY_FPG2,        tq_run_plain_discovery},
  {TQ_EV_SEQ_BLOB_INCOMPLETE_EXIT,   SUM_REP_CNT_TQ_EV_SEQ_BLOB_INC_EXIT,          tq_run_exit_blob},
  {TQ_EV_SEQ_BLOB_COMPLETE_EXIT,     SUM_REP_CNT_TQ_EV_SEQ_BLOB_COM_EXIT,          tq_run_exit_blob},
  {TQ_EV_SEGMENT_SEQ_BLOB_ASYNC_RESP, SUM_REP_CNT_TQ_EV_HEADER_FPG2,               tq_run_async_response},
  {TQ_EV_SEGMENT_SEQ_BLOB_HEADER,    SUM_REP_CNT_TQ_EV_HEADER_FPG2,                tq_run_header},
  {TQ_EV_SEGMENT_SEQ_BLOB_INCOMPLETE, NO_COUNTER,                                  tq_run_blob},
  {TQ_EV_SEGMENT_SEQ_BLOB_COMPLETE,  NO_COUNTER,                                   tq_run_blob},
  {TQ_EV_NEW_CONNECTION,             NO_COUNTER,                                   tq_run_new_connection},
  {TQ_SENDING_META_DATA,             NO_COUNTER,                                   tq_run_resend},
  {TQ_EV_BODY_OF_REQUEST,            NO_COUNTER,                                   tq_run_body_response},
  {TQ_EV_BODY_OF_RESPONSE,           NO_COUNTER,                                   tq_run_body_response},
  {TQ_EV_AUTO_TOPOLOGY_DISCOVEY,     NO_COUNTER,                                   tq_run_topology},
  {TQ_EV_GLOBAL_ATTRIBUTES,          NO_COUNTER,                                   tq_run_global_text},
  {TQ_EV_GLOBAL_TAGS,                NO_COUNTER,                                   tq_run_global_text},
  {TQ_EV_TAGS,                       NO_COUNTER,                                   tq_run_tags},
};
// clang-format on

constexpr int last_event_id = 112; // ids above have no effect

// Rows by event id; an id without a row has neither counter nor handler. Two rows for one id do not compile.
static consteval std::array<tq_event_row, last_event_id + 1> index_rows() {
  std::array<tq_event_row, last_event_id + 1> rows{};
  for (int id = 0; id <= last_event_id; ++id)
    rows[static_cast<size_t>(id)] = {-1, NO_COUNTER, nullptr};
  for (const tq_event_row &row : tq_event_rows) {
    tq_event_row &place = rows[static_cast<size_t>(row.id)];
    if (place.id != -1)
      __builtin_unreachable();
    place = row;
  }
  return rows;
}

static constexpr auto rows_by_id = index_rows();

void tq_process_data_line(tqp_instance_t *inst, int event_id, char **p_cursor, char *end_of_record, int from_recovery) {
  if (event_id >= 0 && event_id <= last_event_id) {
    const tq_event_row &row = rows_by_id[static_cast<size_t>(event_id)];
    if (row.counter != NO_COUNTER)
      ++inst->sum_rep_counters[row.counter];
    if (row.run) {
      tq_event ev = {inst, event_id, from_recovery, {*p_cursor, end_of_record}};
      row.run(ev);
    }
  }
  *p_cursor = end_of_record + 1;
  if (from_recovery == 0 && tqp_reply_lines_kept)
    tqp_run_kept_reply_lines(inst);
}
