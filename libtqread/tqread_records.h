// One record for each kind of row, with its columns typed and its times and durations in the units of this side.
//   In      filled by the row readers (tqread_rows.h) by way of the column tables (tqread_tables.h)
//   Out     plain records; no functions
//   Thread  any
//   Failure none
// Units, unless a comment says otherwise: times are milliseconds since 1970 in UTC, durations are milliseconds, ids are norm
// ids of the kind that the member's name tells, and counts are counts. Where 64 unsigned bits wrapped around, the bit
// pattern is kept (unsigned_wraps in the column's table). Texts are views into the bytes that the row was read from: they
// live as long as those, may hold any byte, and are not valid UTF-8 for certain.
#pragma once

#include <cstdint>
#include <string_view>

namespace tqread {

// --- flowpaths and what belongs to them -------------------------------------------------------------------------

// A finished flowpath, of TQFlowPath.csv. "Sum" members add up its segments; the others are of its main segment.
struct flowpath_record {
  int64_t fpi;               // flowpath number; the same on every tier only by chance
  int64_t tier, server, app; // of the instance; the app names the sequence blob file
  int64_t segment_tier;
  std::string_view begin_seq; // "1", "40.1": callout 40 of the parent's segment "" called it; "NA" when empty
  int64_t category;           // of the business transaction
  int64_t signature_id;       // 0 off, -1 empty
  int64_t duration_ms;
  int64_t column_10;                // always -1, as columns 24 and 29
  std::string_view reference;       // of its list of segments, see read_reference()
  int64_t begin_utc_ms, end_utc_ms; // whole seconds; the main segment's line has the milliseconds
  int64_t method_cpu_ms;            // sum
  std::string_view query_parameters;
  int64_t methods; // sum
  int64_t status;  // -4: asynchronous response
  int64_t root_fpi;
  int64_t callouts; // sum
  int64_t url_id;
  std::string_view correlation_id; // with a keyword followed by ':' and the parent flowpath
  int64_t cpu_ms, errors;          // sums
  int64_t column_24;
  int64_t entry_point;                              // method; in the classic form the agent's own id
  int64_t db_calls, http_callouts, messaging_calls; // sums
  int64_t column_29;
  int64_t cache_calls; // sum
  int64_t own_session, browser_session, browser_page;
  std::string_view thread;
  int64_t type; // bits; 0x200: methods were open when the segment was cut off
  int64_t wait_ms, sync_ms, io_ms, suspension_ms, queue_ms; // sums
  int64_t response_ms;
  int64_t parent_fpi;         // 0: none
  std::string_view point_ids; // methods (backends), joined by commas; "" for none
  std::string_view point_ms;  // their worst response times, in the same order
  int64_t gc_flag, dynamic_logging, trace_request;
  int64_t tag_set_id; // 0: none
};

// One segment, from a flowpath's list of segments.
struct segment_record {
  int64_t fpi, parent_fpi;
  std::string_view partition; // in whose sequence blob file its texts are
  int64_t callout_rows;
  int64_t offset;                                  // where its texts begin, bytes; of another file for a late segment
  int64_t callout_bytes, blob_bytes, detail_bytes; // uncompressed
  int64_t callout_packed, blob_packed, detail_packed; // bytes of gzip members; 0: plain text
  int64_t tier;
  std::string_view begin_seq; // "NA" when empty
  int64_t category, response_ms;
  int64_t begin_utc_ms, end_utc_ms; // whole seconds
  int64_t method_cpu_ms;
  std::string_view query_parameters;
  int64_t methods, status, callouts;
  int64_t url_id;
  std::string_view correlation_id;
  int64_t cpu_ms, errors, entry_point;
  int64_t db_calls, http_callouts, messaging_calls, cache_calls;
  int64_t own_session, browser_session, browser_page;
  std::string_view thread;
  int64_t type;
  int64_t wait_ms, sync_ms, io_ms, suspension_ms, queue_ms;
  int64_t gc_flag;
  std::string_view dynamic_texts, request_bodies, response_bodies; // "partition:offset:length", joined by '@'
  int64_t exact_begin_utc_ms, exact_end_utc_ms;                    // 0: not given
};

// A row of a segment's callout text.
struct callout_record {
  int64_t fpi;                   // of an 'A': the called flowpath; else the segment's parent
  std::string_view kind;         // one letter, as in the blob
  std::string_view number;       // begin sequence number without its last part, a dot, the agent's number
  int64_t parent_number;         // of 'a' and 'A'; -1 on marks
  int64_t backend_id;            // method; -1 on marks
  std::string_view backend_type; // a number; of a 'G' "type:query as the agent counts:count:four values:errors"
  int64_t query_id;              // -1 on marks; 0: none
  int64_t begin_utc_ms;          // whole seconds
  double duration_ms;
  std::string_view status;
  int64_t async_flag, resource_id;
  std::string_view net_request_ms, net_response_ms; // "" or "-": not given
  double shortest_ms, longest_ms, total_ms;         // of groups
  int64_t count, errors;
};

// --- sums -------------------------------------------------------------------------------------------------------

// One method in one segment, of TQMethodTiming.csv or its binary twin, which cuts some durations to 32 bits.
struct method_timing_record {
  int64_t method_id;
  int64_t tier, server, app;
  int64_t self_ms, cpu_ms, calls;
  int64_t shortest_self_ms, longest_self_ms; // 0: not set
  int64_t first_begin_utc_ms, last_end_utc_ms;
  int64_t wall_ms, self_cpu_ms;
  int64_t fpi;    // of the main segment
  int64_t url_id; // 0: unknown
  int64_t wait_ms, sync_ms, io_ms, suspension_ms;
  int64_t self_wait_ms, self_sync_ms, self_io_ms, self_suspension_ms;
};

// One query in one segment, or what came of it since the last such row.
struct sql_timing_record {
  int64_t query_id;
  int64_t tier, server, app;
  int64_t url_id; // 0: unknown
  int64_t fpi;    // of the main segment
  double total_ms;
  int64_t executions;
  double shortest_ms, longest_ms;
  int64_t first_begin_utc_ms, last_begin_utc_ms;
  int64_t failed;
  int64_t backend_id; // method; 0: none
};

// --- single events ----------------------------------------------------------------------------------------------

struct sql_execution_record { // of TQSQLRecord.csv
  int64_t fpi, tier, server, app;
  int64_t begin_utc_ms, duration_ms;
  int64_t query_id;
  std::string_view callout_kind; // "" for a query of a method's exit
  int64_t url_id;                // 0: unknown
};

struct exception_record {
  int64_t fpi, tier, server, app;
  int64_t utc_ms;
  int64_t class_id, throwing_class_id, throwing_method_id; // in the tables of exception texts
  int64_t line;
  int64_t message_id, cause_id, stack_id; // the same
  int64_t method_id;                      // a method; -1: none
  int64_t method_line;
  int64_t backend_type;
  int64_t sub_type; // a query for backend type 2; -1: none
};

struct custom_data_record {
  int64_t utc_ms, fpi;
  int64_t header_id;
  std::string_view name;
  int64_t value_kind; // 1 whole number, 2 real number
  int64_t number;     // a real number in thousandths
  std::string_view value;
  int64_t tier, server, app;
};

struct method_argument_record {
  int64_t fpi;
  std::string_view method_number; // "tier.number" of the method in the segment
  int64_t argument_id, method_id;
  int64_t tier, server, app;
  int64_t net_wall_ms, cpu_ms;
  int64_t utc_ms;
  int64_t wait_ms, sync_ms, io_ms, suspension_ms;
};

struct message_record { // one key of a message
  int64_t fpi, utc_ms;
  int64_t section; // 0 header, 1 properties, 2 text
  int64_t index;   // of the key in its message, from 1
  std::string_view key, value;
};

struct url_call_record { // of TQURLRecord.csv; its other columns are constants
  int64_t test_run, url_id, instance_number;
  int64_t begin_utc_ms, end_utc_ms;
  int64_t status, fpi, duration_ms;
  int64_t load_test_run;
};

// --- names ------------------------------------------------------------------------------------------------------

struct metadata_record { // of TQMetaData.csv
  int64_t id;
  int64_t type; // 0 method or backend, 1 class, 2 package, 6 argument
  std::string_view text;
};

struct url_record {
  int64_t test_run, id;
  std::string_view text;
};

struct query_record { // of both files of queries
  int64_t number;     // flowpath or hash that came with it; 0: none
  int64_t id;
  int64_t query_class; // 0 other, 1 select, 2 insert, 3 update, 4 delete, 5 create, 6 drop, 7 call, 8 xa, 9 connection
  std::string_view text;
};

struct name_record { // resources, headers, signatures, exception texts, tag sets (JSON)
  int64_t id;
  std::string_view text;
};

struct first_seen_record { // of TQMetaDataEx.csv
  int64_t id;
  int64_t type; // as in metadata_record, then 7 resource, 8 query, 10 header, 11 to 16 exception texts, 17 signature
  int64_t utc_ms;
  std::string_view instance;
};

struct function_group_record {
  std::string_view name, package;
};

} // namespace tqread
