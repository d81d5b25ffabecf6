// The tables of columns; see the header.
//   In      the records' members
//   Out     constant tables
//   Thread  any
//   Failure two tables out of order do not compile
// A column's line: its place in the file's row, the record's member, its unit or what its ids name.
#include "tqread_tables.h"

#include <iterator>

namespace tqread {

// --- a column's line ----------------------------------------------------------------------------------------------

static constexpr bool wraps = true;

static constexpr column number(uint8_t place, const char *name, size_t offset, column_unit unit,
                               bool wrapping = false) {
  return {name, column_type::integer, unit, name_kind::none, any_id, wrapping, static_cast<uint16_t>(offset), place,
          {}};
}

static constexpr column time(uint8_t place, const char *name, size_t offset, time_form form) {
  column c = number(place, name, offset, column_unit::utc_ms);
  c.form = form;
  return c;
}

static constexpr column id_of(uint8_t place, const char *name, size_t offset, name_kind names, int64_t none = any_id) {
  column c = number(place, name, offset, column_unit::id);
  c.names = names;
  c.no_name = none;
  return c;
}

static constexpr column real(uint8_t place, const char *name, size_t offset) {
  column c = number(place, name, offset, column_unit::ms);
  c.type = column_type::real;
  return c;
}

static constexpr column text(uint8_t place, const char *name, size_t offset) {
  column c = number(place, name, offset, column_unit::none);
  c.type = column_type::text;
  return c;
}

#define COLUMN(record, member) #member, offsetof(record, member)

// --- columns --------------------------------------------------------------------------------------------------------

static constexpr column flowpath_columns[] = {
    // clang-format off
    number(1, COLUMN(flowpath_record, fpi), column_unit::id),
    number(2, COLUMN(flowpath_record, tier), column_unit::id),
    number(3, COLUMN(flowpath_record, server), column_unit::id),
    number(4, COLUMN(flowpath_record, app), column_unit::id),
    number(5, COLUMN(flowpath_record, segment_tier), column_unit::id),
    text(6, COLUMN(flowpath_record, begin_seq)),
    number(7, COLUMN(flowpath_record, category), column_unit::none),
    id_of(8, COLUMN(flowpath_record, signature_id), name_kind::signature, 0),
    number(9, COLUMN(flowpath_record, duration_ms), column_unit::ms),
    number(10, COLUMN(flowpath_record, column_10), column_unit::none),
    text(11, COLUMN(flowpath_record, reference)),
    time(12, COLUMN(flowpath_record, begin_utc_ms), time_form::test_s),
    time(13, COLUMN(flowpath_record, end_utc_ms), time_form::test_s),
    number(14, COLUMN(flowpath_record, method_cpu_ms), column_unit::ms),
    text(15, COLUMN(flowpath_record, query_parameters)),
    number(16, COLUMN(flowpath_record, methods), column_unit::count),
    number(17, COLUMN(flowpath_record, status), column_unit::none),
    number(18, COLUMN(flowpath_record, root_fpi), column_unit::id),
    number(19, COLUMN(flowpath_record, callouts), column_unit::count),
    id_of(20, COLUMN(flowpath_record, url_id), name_kind::url),
    text(21, COLUMN(flowpath_record, correlation_id)),
    number(22, COLUMN(flowpath_record, cpu_ms), column_unit::ms),
    number(23, COLUMN(flowpath_record, errors), column_unit::count),
    number(24, COLUMN(flowpath_record, column_24), column_unit::none),
    number(25, COLUMN(flowpath_record, entry_point), column_unit::id),
    number(26, COLUMN(flowpath_record, db_calls), column_unit::count),
    number(27, COLUMN(flowpath_record, http_callouts), column_unit::count),
    number(28, COLUMN(flowpath_record, messaging_calls), column_unit::count),
    number(29, COLUMN(flowpath_record, column_29), column_unit::none),
    number(30, COLUMN(flowpath_record, cache_calls), column_unit::count),
    number(31, COLUMN(flowpath_record, own_session), column_unit::id),
    number(32, COLUMN(flowpath_record, browser_session), column_unit::id),
    number(33, COLUMN(flowpath_record, browser_page), column_unit::id),
    text(34, COLUMN(flowpath_record, thread)),
    number(35, COLUMN(flowpath_record, type), column_unit::none),
    number(36, COLUMN(flowpath_record, wait_ms), column_unit::ms),
    number(37, COLUMN(flowpath_record, sync_ms), column_unit::ms),
    number(38, COLUMN(flowpath_record, io_ms), column_unit::ms),
    number(39, COLUMN(flowpath_record, suspension_ms), column_unit::ms),
    number(40, COLUMN(flowpath_record, queue_ms), column_unit::ms),
    number(41, COLUMN(flowpath_record, response_ms), column_unit::ms, wraps),
    number(42, COLUMN(flowpath_record, parent_fpi), column_unit::id),
    text(43, COLUMN(flowpath_record, point_ids)),
    text(44, COLUMN(flowpath_record, point_ms)),
    number(45, COLUMN(flowpath_record, gc_flag), column_unit::none),
    number(46, COLUMN(flowpath_record, dynamic_logging), column_unit::none),
    number(47, COLUMN(flowpath_record, trace_request), column_unit::id),
    id_of(48, COLUMN(flowpath_record, tag_set_id), name_kind::tag_set, 0),
}; // clang-format on

static constexpr column method_timing_columns[] = {
    // clang-format off
    id_of(1, COLUMN(method_timing_record, method_id), name_kind::method),
    number(2, COLUMN(method_timing_record, tier), column_unit::id),
    number(3, COLUMN(method_timing_record, server), column_unit::id),
    number(4, COLUMN(method_timing_record, app), column_unit::id),
    number(5, COLUMN(method_timing_record, self_ms), column_unit::ms),
    number(6, COLUMN(method_timing_record, cpu_ms), column_unit::ms, wraps),
    number(7, COLUMN(method_timing_record, calls), column_unit::count),
    number(8, COLUMN(method_timing_record, shortest_self_ms), column_unit::ms),
    number(9, COLUMN(method_timing_record, longest_self_ms), column_unit::ms),
    time(10, COLUMN(method_timing_record, first_begin_utc_ms), time_form::test_s),
    time(11, COLUMN(method_timing_record, last_end_utc_ms), time_form::test_s),
    number(12, COLUMN(method_timing_record, wall_ms), column_unit::ms),
    number(13, COLUMN(method_timing_record, self_cpu_ms), column_unit::ms, wraps),
    number(14, COLUMN(method_timing_record, fpi), column_unit::id),
    id_of(15, COLUMN(method_timing_record, url_id), name_kind::url, 0),
    number(16, COLUMN(method_timing_record, wait_ms), column_unit::ms, wraps),
    number(17, COLUMN(method_timing_record, sync_ms), column_unit::ms, wraps),
    number(18, COLUMN(method_timing_record, io_ms), column_unit::ms, wraps),
    number(19, COLUMN(method_timing_record, suspension_ms), column_unit::ms, wraps),
    number(20, COLUMN(method_timing_record, self_wait_ms), column_unit::ms, wraps),
    number(21, COLUMN(method_timing_record, self_sync_ms), column_unit::ms, wraps),
    number(22, COLUMN(method_timing_record, self_io_ms), column_unit::ms, wraps),
    number(23, COLUMN(method_timing_record, self_suspension_ms), column_unit::ms, wraps),
}; // clang-format on

static constexpr column sql_timing_columns[] = {
    // clang-format off
    id_of(1, COLUMN(sql_timing_record, query_id), name_kind::query),
    number(2, COLUMN(sql_timing_record, tier), column_unit::id),
    number(3, COLUMN(sql_timing_record, server), column_unit::id),
    number(4, COLUMN(sql_timing_record, app), column_unit::id),
    id_of(5, COLUMN(sql_timing_record, url_id), name_kind::url, 0),
    number(6, COLUMN(sql_timing_record, fpi), column_unit::id),
    real(7, COLUMN(sql_timing_record, total_ms)),
    number(8, COLUMN(sql_timing_record, executions), column_unit::count),
    real(9, COLUMN(sql_timing_record, shortest_ms)),
    real(10, COLUMN(sql_timing_record, longest_ms)),
    time(11, COLUMN(sql_timing_record, first_begin_utc_ms), time_form::test_s),
    time(12, COLUMN(sql_timing_record, last_begin_utc_ms), time_form::test_s),
    number(13, COLUMN(sql_timing_record, failed), column_unit::count),
    id_of(14, COLUMN(sql_timing_record, backend_id), name_kind::method, 0),
}; // clang-format on

static constexpr column sql_execution_columns[] = {
    // clang-format off
    number(1, COLUMN(sql_execution_record, fpi), column_unit::id),
    number(2, COLUMN(sql_execution_record, tier), column_unit::id),
    number(3, COLUMN(sql_execution_record, server), column_unit::id),
    number(4, COLUMN(sql_execution_record, app), column_unit::id),
    time(5, COLUMN(sql_execution_record, begin_utc_ms), time_form::test_s),
    number(6, COLUMN(sql_execution_record, duration_ms), column_unit::ms),
    id_of(7, COLUMN(sql_execution_record, query_id), name_kind::query),
    text(8, COLUMN(sql_execution_record, callout_kind)),
    id_of(9, COLUMN(sql_execution_record, url_id), name_kind::url, 0),
}; // clang-format on

static constexpr column exception_columns[] = {
    // clang-format off
    number(1, COLUMN(exception_record, fpi), column_unit::id),
    number(2, COLUMN(exception_record, tier), column_unit::id),
    number(3, COLUMN(exception_record, server), column_unit::id),
    number(4, COLUMN(exception_record, app), column_unit::id),
    time(5, COLUMN(exception_record, utc_ms), time_form::test_s),
    id_of(6, COLUMN(exception_record, class_id), name_kind::exception_class),
    id_of(7, COLUMN(exception_record, throwing_class_id), name_kind::throwing_class),
    id_of(8, COLUMN(exception_record, throwing_method_id), name_kind::throwing_method),
    number(9, COLUMN(exception_record, line), column_unit::line),
    id_of(10, COLUMN(exception_record, message_id), name_kind::message),
    id_of(11, COLUMN(exception_record, cause_id), name_kind::cause),
    id_of(12, COLUMN(exception_record, stack_id), name_kind::stack_trace),
    id_of(13, COLUMN(exception_record, method_id), name_kind::method, -1),
    number(14, COLUMN(exception_record, method_line), column_unit::line),
    number(15, COLUMN(exception_record, backend_type), column_unit::none),
    number(16, COLUMN(exception_record, sub_type), column_unit::id),
}; // clang-format on

static constexpr column custom_data_columns[] = {
    // clang-format off
    time(1, COLUMN(custom_data_record, utc_ms), time_form::test_s),
    number(2, COLUMN(custom_data_record, fpi), column_unit::id),
    id_of(3, COLUMN(custom_data_record, header_id), name_kind::header, 0),
    text(4, COLUMN(custom_data_record, name)),
    number(5, COLUMN(custom_data_record, value_kind), column_unit::none),
    number(6, COLUMN(custom_data_record, number), column_unit::none),
    text(7, COLUMN(custom_data_record, value)),
    number(8, COLUMN(custom_data_record, tier), column_unit::id),
    number(9, COLUMN(custom_data_record, server), column_unit::id),
    number(10, COLUMN(custom_data_record, app), column_unit::id),
}; // clang-format on

static constexpr column method_argument_columns[] = {
    // clang-format off
    number(1, COLUMN(method_argument_record, fpi), column_unit::id),
    text(2, COLUMN(method_argument_record, method_number)),
    id_of(3, COLUMN(method_argument_record, argument_id), name_kind::argument),
    id_of(4, COLUMN(method_argument_record, method_id), name_kind::method),
    number(5, COLUMN(method_argument_record, tier), column_unit::id),
    number(6, COLUMN(method_argument_record, server), column_unit::id),
    number(7, COLUMN(method_argument_record, app), column_unit::id),
    number(8, COLUMN(method_argument_record, net_wall_ms), column_unit::ms, wraps),
    number(9, COLUMN(method_argument_record, cpu_ms), column_unit::ms, wraps),
    time(10, COLUMN(method_argument_record, utc_ms), time_form::test_s),
    number(11, COLUMN(method_argument_record, wait_ms), column_unit::ms, wraps),
    number(12, COLUMN(method_argument_record, sync_ms), column_unit::ms, wraps),
    number(13, COLUMN(method_argument_record, io_ms), column_unit::ms, wraps),
    number(14, COLUMN(method_argument_record, suspension_ms), column_unit::ms, wraps),
}; // clang-format on

static constexpr column message_columns[] = {
    // clang-format off
    number(1, COLUMN(message_record, fpi), column_unit::id),
    time(2, COLUMN(message_record, utc_ms), time_form::test_ms),
    number(3, COLUMN(message_record, section), column_unit::none),
    number(4, COLUMN(message_record, index), column_unit::count),
    text(5, COLUMN(message_record, key)),
    text(6, COLUMN(message_record, value)),
}; // clang-format on

static constexpr column url_call_columns[] = {
    // clang-format off
    number(1, COLUMN(url_call_record, test_run), column_unit::id),
    id_of(2, COLUMN(url_call_record, url_id), name_kind::url),
    number(7, COLUMN(url_call_record, instance_number), column_unit::id),
    time(14, COLUMN(url_call_record, begin_utc_ms), time_form::test_s),
    time(22, COLUMN(url_call_record, end_utc_ms), time_form::test_s),
    number(23, COLUMN(url_call_record, status), column_unit::none),
    number(35, COLUMN(url_call_record, fpi), column_unit::id),
    number(36, COLUMN(url_call_record, duration_ms), column_unit::ms),
    number(38, COLUMN(url_call_record, load_test_run), column_unit::id),
}; // clang-format on

static constexpr column metadata_columns[] = {
    // clang-format off
    number(1, COLUMN(metadata_record, id), column_unit::id),
    number(2, COLUMN(metadata_record, type), column_unit::none),
    text(3, COLUMN(metadata_record, text)),
}; // clang-format on

static constexpr column url_columns[] = {
    // clang-format off
    number(1, COLUMN(url_record, test_run), column_unit::id),
    number(2, COLUMN(url_record, id), column_unit::id),
    text(7, COLUMN(url_record, text)),
}; // clang-format on

static constexpr column query_columns[] = {
    // clang-format off
    number(1, COLUMN(query_record, number), column_unit::id),
    number(2, COLUMN(query_record, id), column_unit::id),
    number(3, COLUMN(query_record, query_class), column_unit::none),
    text(4, COLUMN(query_record, text)),
}; // clang-format on

static constexpr column id_text_columns[] = {
    // clang-format off
    number(1, COLUMN(name_record, id), column_unit::id),
    text(2, COLUMN(name_record, text)),
}; // clang-format on

static constexpr column text_id_columns[] = {
    // clang-format off
    number(2, COLUMN(name_record, id), column_unit::id),
    text(1, COLUMN(name_record, text)),
}; // clang-format on

static constexpr column first_seen_columns[] = {
    // clang-format off
    number(1, COLUMN(first_seen_record, id), column_unit::id),
    number(2, COLUMN(first_seen_record, type), column_unit::none),
    number(3, COLUMN(first_seen_record, utc_ms), column_unit::utc_ms),
    text(4, COLUMN(first_seen_record, instance)),
}; // clang-format on

static constexpr column function_group_columns[] = {
    // clang-format off
    text(1, COLUMN(function_group_record, name)),
    text(2, COLUMN(function_group_record, package)),
}; // clang-format on

static constexpr column segment_columns[] = {
    // clang-format off
    number(1, COLUMN(segment_record, fpi), column_unit::id),
    number(2, COLUMN(segment_record, parent_fpi), column_unit::id),
    text(3, COLUMN(segment_record, partition)),
    number(4, COLUMN(segment_record, callout_rows), column_unit::count),
    number(5, COLUMN(segment_record, offset), column_unit::bytes),
    number(6, COLUMN(segment_record, callout_bytes), column_unit::bytes),
    number(7, COLUMN(segment_record, blob_bytes), column_unit::bytes),
    number(8, COLUMN(segment_record, detail_bytes), column_unit::bytes),
    number(9, COLUMN(segment_record, callout_packed), column_unit::bytes),
    number(10, COLUMN(segment_record, blob_packed), column_unit::bytes),
    number(11, COLUMN(segment_record, detail_packed), column_unit::bytes),
    number(12, COLUMN(segment_record, tier), column_unit::id),
    text(13, COLUMN(segment_record, begin_seq)),
    number(14, COLUMN(segment_record, category), column_unit::none),
    number(15, COLUMN(segment_record, response_ms), column_unit::ms),
    time(16, COLUMN(segment_record, begin_utc_ms), time_form::test_s),
    time(17, COLUMN(segment_record, end_utc_ms), time_form::test_s),
    number(18, COLUMN(segment_record, method_cpu_ms), column_unit::ms),
    text(19, COLUMN(segment_record, query_parameters)),
    number(20, COLUMN(segment_record, methods), column_unit::count),
    number(21, COLUMN(segment_record, status), column_unit::none),
    number(22, COLUMN(segment_record, callouts), column_unit::count),
    id_of(23, COLUMN(segment_record, url_id), name_kind::url),
    text(24, COLUMN(segment_record, correlation_id)),
    number(25, COLUMN(segment_record, cpu_ms), column_unit::ms),
    number(26, COLUMN(segment_record, errors), column_unit::count),
    number(27, COLUMN(segment_record, entry_point), column_unit::id),
    number(28, COLUMN(segment_record, db_calls), column_unit::count),
    number(29, COLUMN(segment_record, http_callouts), column_unit::count),
    number(30, COLUMN(segment_record, messaging_calls), column_unit::count),
    number(31, COLUMN(segment_record, cache_calls), column_unit::count),
    number(32, COLUMN(segment_record, own_session), column_unit::id),
    number(33, COLUMN(segment_record, browser_session), column_unit::id),
    number(34, COLUMN(segment_record, browser_page), column_unit::id),
    text(35, COLUMN(segment_record, thread)),
    number(36, COLUMN(segment_record, type), column_unit::none),
    number(37, COLUMN(segment_record, wait_ms), column_unit::ms),
    number(38, COLUMN(segment_record, sync_ms), column_unit::ms),
    number(39, COLUMN(segment_record, io_ms), column_unit::ms),
    number(40, COLUMN(segment_record, suspension_ms), column_unit::ms),
    number(41, COLUMN(segment_record, queue_ms), column_unit::ms),
    number(42, COLUMN(segment_record, gc_flag), column_unit::none),
    text(43, COLUMN(segment_record, dynamic_texts)),
    text(44, COLUMN(segment_record, request_bodies)),
    text(45, COLUMN(segment_record, response_bodies)),
    time(46, COLUMN(segment_record, exact_begin_utc_ms), time_form::test_ms_or_0),
    time(47, COLUMN(segment_record, exact_end_utc_ms), time_form::test_ms_or_0),
}; // clang-format on

static constexpr column callout_columns[] = {
    // clang-format off
    number(1, COLUMN(callout_record, fpi), column_unit::id),
    text(2, COLUMN(callout_record, kind)),
    text(3, COLUMN(callout_record, number)),
    number(4, COLUMN(callout_record, parent_number), column_unit::none),
    id_of(5, COLUMN(callout_record, backend_id), name_kind::method, -1),
    text(6, COLUMN(callout_record, backend_type)),
    id_of(7, COLUMN(callout_record, query_id), name_kind::query, -1),
    time(8, COLUMN(callout_record, begin_utc_ms), time_form::test_s),
    real(9, COLUMN(callout_record, duration_ms)),
    text(10, COLUMN(callout_record, status)),
    number(11, COLUMN(callout_record, async_flag), column_unit::none),
    id_of(12, COLUMN(callout_record, resource_id), name_kind::resource),
    text(13, COLUMN(callout_record, net_request_ms)),
    text(14, COLUMN(callout_record, net_response_ms)),
    real(15, COLUMN(callout_record, shortest_ms)),
    real(16, COLUMN(callout_record, longest_ms)),
    real(17, COLUMN(callout_record, total_ms)),
    number(18, COLUMN(callout_record, count), column_unit::count),
    number(19, COLUMN(callout_record, errors), column_unit::count),
}; // clang-format on

// --- tables -----------------------------------------------------------------------------------------------------------

static constexpr table tables[] = {
    // clang-format off
    {table_id::flowpath, "flowpath", "TQFlowPath.csv", false, sizeof(flowpath_record), name_kind::none, flowpath_columns, 48, 0},
    {table_id::method_timing, "method_timing", "TQMethodTiming.csv", false, sizeof(method_timing_record), name_kind::none, method_timing_columns, 23, 0},
    {table_id::sql_timing, "sql_timing", "TQSQLTiming.csv", false, sizeof(sql_timing_record), name_kind::none, sql_timing_columns, 14, 0},
    {table_id::sql_execution, "sql_record", "TQSQLRecord.csv", false, sizeof(sql_execution_record), name_kind::none, sql_execution_columns, 9, 0},
    {table_id::exception, "exception", "TQExceptions.csv", false, sizeof(exception_record), name_kind::none, exception_columns, 16, 0},
    {table_id::custom_data, "custom_data", "TQCustomData.csv", false, sizeof(custom_data_record), name_kind::none, custom_data_columns, 10, 7},
    {table_id::method_argument, "method_argument", "TQBCIArg.csv", false, sizeof(method_argument_record), name_kind::none, method_argument_columns, 14, 0},
    {table_id::message, "message", "TQJMS.csv", false, sizeof(message_record), name_kind::none, message_columns, 6, 6},
    {table_id::url_call, "url_record", "TQURLRecord.csv", false, sizeof(url_call_record), name_kind::none, url_call_columns, 38, 0},
    {table_id::metadata, "metadata", "TQMetaData.csv", true, sizeof(metadata_record), name_kind::method, metadata_columns, 3, 3},
    {table_id::url, "url", "TQURLTable.csv", true, sizeof(url_record), name_kind::url, url_columns, 9, 7},
    {table_id::query_prepared, "query", "TQSQL.csv", true, sizeof(query_record), name_kind::query, query_columns, 4, 4},
    {table_id::query_nonprepared_before, "query_nonprepared_before", "TQSQL_nonprepared.csv.prev", true, sizeof(query_record), name_kind::query, query_columns, 4, 4},
    {table_id::query_nonprepared, "query_nonprepared", "TQSQL_nonprepared.csv", true, sizeof(query_record), name_kind::query, query_columns, 4, 4},
    {table_id::resource, "resource", "TQIPResourceMetaData.csv", true, sizeof(name_record), name_kind::resource, id_text_columns, 2, 2},
    {table_id::header, "header", "TQHTTPHeaderMetaData.csv", true, sizeof(name_record), name_kind::header, text_id_columns, 2, 1},
    {table_id::signature, "signature", "TQFPSignature.csv", true, sizeof(name_record), name_kind::signature, text_id_columns, 2, 1},
    {table_id::exception_class, "exception_class", "TQExceptionClass.csv", true, sizeof(name_record), name_kind::exception_class, id_text_columns, 2, 2},
    {table_id::throwing_class, "throwing_class", "TQExceptionThrowingClass.csv", true, sizeof(name_record), name_kind::throwing_class, id_text_columns, 2, 2},
    {table_id::throwing_method, "throwing_method", "TQExceptionThrowingMethod.csv", true, sizeof(name_record), name_kind::throwing_method, id_text_columns, 2, 2},
    {table_id::stack_trace, "stack_trace", "TQExceptionStackTrace.csv", true, sizeof(name_record), name_kind::stack_trace, id_text_columns, 2, 2},
    {table_id::exception_message, "exception_message", "TQExceptionMessage.csv", true, sizeof(name_record), name_kind::message, id_text_columns, 2, 2},
    {table_id::cause, "cause", "TQExceptionCause.csv", true, sizeof(name_record), name_kind::cause, id_text_columns, 2, 2},
    {table_id::tag_set, "tag_set", "TQTags.csv", true, sizeof(name_record), name_kind::tag_set, id_text_columns, 2, 2},
    {table_id::first_seen, "first_seen", "TQMetaDataEx.csv", true, sizeof(first_seen_record), name_kind::none, first_seen_columns, 4, 4},
    {table_id::function_group, "function_group", "TQFunctionalGroup.csv", true, sizeof(function_group_record), name_kind::none, function_group_columns, 2, 2},
    {table_id::segment, "segment", "", false, sizeof(segment_record), name_kind::none, segment_columns, 47, 0},
    {table_id::callout, "callout", "", false, sizeof(callout_record), name_kind::none, callout_columns, 19, 0},
}; // clang-format on

static constexpr bool in_order() {
  for (size_t i = 0; i < std::size(tables); ++i)
    if (tables[i].id != static_cast<table_id>(i))
      return false;
  return std::size(tables) == static_cast<size_t>(table_id::tables);
}

static_assert(in_order());

const table &table_of(table_id id) {
  return tables[static_cast<size_t>(id)];
}

std::span<const table> all_tables() {
  return tables;
}

const table *table_of_file(std::string_view file_name) {
  if (file_name.ends_with("_MethodTiming.dat"))
    return &table_of(table_id::method_timing);
  for (const table &t : tables)
    if (*t.file && file_name == t.file)
      return &t;
  return nullptr;
}

} // namespace tqread
