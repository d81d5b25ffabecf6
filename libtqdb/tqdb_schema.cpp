// The tables; see the header. Where a column has the name of a member of the reading library's record for the same file, the
// loader copies it from there; the loader's own columns say in their text what they are.
#include "tqdb_schema.h"

#include "wllb_util.h"

#include <algorithm>
#include <iterator>

namespace tqdb {

// --- columns that many tables have ------------------------------------------------------------------------------

#define WHOSE                                                                                                          \
  {"tier", TQDB_I32, TQDB_DATA, "of the instance"}, {"server", TQDB_I32, TQDB_DATA, "of the instance"}, {              \
    "app", TQDB_I32, TQDB_DATA, "the instance, see `instance`"                                                         \
  }
#define URL_ID                                                                                                         \
  { "url_id", TQDB_I32, TQDB_DATA, "`url`; 0 or 1073741824: unknown" }
#define MAIN_FPI                                                                                                       \
  { "main_fpi", TQDB_I64, TQDB_DATA, "`fpi` of the row in `flowpath`" }
#define BY_MAIN_FPI(name)                                                                                              \
  { name "_by_main_fpi", "main_fpi" }
#define BY_FPI(name)                                                                                                   \
  { name "_by_fpi", "fpi" }

// Columns that a flowpath and a segment share.
#define OF_A_THREAD                                                                                                    \
  {"own_session", TQDB_I64, TQDB_DATA, ""}, {"browser_session", TQDB_I64, TQDB_DATA, ""},                              \
      {"browser_page", TQDB_I32, TQDB_DATA, ""}, {"thread", TQDB_TEXT, TQDB_DATA, "name of the thread"},               \
      {"type", TQDB_I32, TQDB_DATA, "bits; 512: methods were open when the segment was cut off"},                      \
      {"wait_ms", TQDB_I64, TQDB_DATA, ""}, {"sync_ms", TQDB_I64, TQDB_DATA, ""}, {"io_ms", TQDB_I64, TQDB_DATA, ""},  \
      {"suspension_ms", TQDB_I64, TQDB_DATA, ""}, {                                                                    \
    "queue_ms", TQDB_I64, TQDB_DATA, ""                                                                                \
  }

// --- facts --------------------------------------------------------------------------------------------------------

static constexpr column flowpath_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, "flowpath number"},
    {"begin_utc_ms", TQDB_I64, TQDB_TIME, "begin; exact where the main segment has the milliseconds"},
    {"end_utc_ms", TQDB_I64, TQDB_DATA, "end, whole seconds"},
    {"duration_ms", TQDB_I64, TQDB_DATA, "of all its segments"},
    WHOSE,
    {"url_id", TQDB_I32, TQDB_DATA, "`url`: the transaction; 1073741824: unknown"},
    {"status", TQDB_I32, TQDB_DATA, "status code; -4: asynchronous response"},
    {"errors", TQDB_I32, TQDB_DATA, "sum over the segments"},
    {"tag_set_id", TQDB_I32, TQDB_DATA, "`tag_set`; 0: none"},
    {"correlation_id", TQDB_TEXT, TQDB_DATA, ""},
    {"parent_fpi", TQDB_I64, TQDB_DATA, "the flowpath that called it; 0: none"},
    {"root_fpi", TQDB_I64, TQDB_DATA, "the first one of the chain"},
    {"begin_seq", TQDB_TEXT, TQDB_DATA, "begin sequence number: which callout of the parent called it"},
    {"segment_tier", TQDB_I32, TQDB_DATA, "tier of the main segment"},
    {"category", TQDB_I32, TQDB_DATA, "of the business transaction"},
    {"signature_id", TQDB_I32, TQDB_DATA, "`signature`; 0 off, -1 empty"},
    {"response_ms", TQDB_I64, TQDB_DATA, "of the main segment"},
    {"method_cpu_ms", TQDB_I64, TQDB_DATA, "CPU time of its methods, sum"},
    {"cpu_ms", TQDB_I64, TQDB_DATA, "CPU time, sum"},
    {"query_parameters", TQDB_TEXT, TQDB_DATA, "of the URL"},
    {"methods", TQDB_I32, TQDB_DATA, "methods entered, sum"},
    {"callouts", TQDB_I32, TQDB_DATA, "sum"},
    {"db_calls", TQDB_I32, TQDB_DATA, "sum"},
    {"http_callouts", TQDB_I32, TQDB_DATA, "sum"},
    {"messaging_calls", TQDB_I32, TQDB_DATA, "sum"},
    {"cache_calls", TQDB_I32, TQDB_DATA, "sum"},
    {"entry_point", TQDB_I32, TQDB_DATA, "`method` of kind 0; in the classic form the agent's own id"},
    OF_A_THREAD,
    {"point_ids", TQDB_TEXT, TQDB_DATA, "backends (`method`, kind 0), joined by commas"},
    {"point_ms", TQDB_TEXT, TQDB_DATA, "their worst response times, in the same order"},
    {"gc_flag", TQDB_I32, TQDB_DATA, ""},
    {"dynamic_logging", TQDB_I32, TQDB_DATA, "1: it has logged values"},
    {"trace_request", TQDB_I32, TQDB_DATA, ""},
    {"segments", TQDB_I32, TQDB_DATA, "rows in `segment`; -1: the list could not be read, see `load_reject`"},
    {"partition", TQDB_I64, TQDB_DATA, "of the row's file, 14 digits"},
    {"list_partition", TQDB_I64, TQDB_DATA, "of the sequence blob file with its list of segments"},
    {"list_offset", TQDB_I64, TQDB_DATA, "bytes"},
    {"list_bytes", TQDB_I64, TQDB_DATA, "packed"},
};

// One wide index answers every filter of a list in the order of time without a look at the rows.
static constexpr table_index flowpath_indexes[] = {
    {"flowpath_by_time", "begin_utc_ms, fpi, duration_ms, status, errors, url_id, tier, app, tag_set_id"},
    {"flowpath_by_duration", "duration_ms, begin_utc_ms, fpi, url_id, tier, app, status, errors"},
    {"flowpath_by_url", "url_id, begin_utc_ms, fpi, duration_ms, status, errors, tier, app"},
    BY_FPI("flowpath"),
    {"flowpath_by_parent", "parent_fpi"},
    {"flowpath_by_correlation", "correlation_id"},
};

static constexpr column segment_columns[] = {
    MAIN_FPI,
    {"segment", TQDB_I32, TQDB_DATA, "place in the flowpath's list, from 1"},
    {"app", TQDB_I32, TQDB_DATA, "the instance, see `instance`"},
    {"fpi", TQDB_I64, TQDB_DATA, "of the segment; the main one's is `main_fpi`"},
    {"parent_fpi", TQDB_I64, TQDB_DATA, ""},
    {"begin_seq", TQDB_TEXT, TQDB_DATA, "begin sequence number: who started it"},
    {"begin_utc_ms", TQDB_I64, TQDB_TIME, "begin; exact where `exact_begin_utc_ms` is given"},
    {"end_utc_ms", TQDB_I64, TQDB_DATA, "end, whole seconds"},
    {"exact_begin_utc_ms", TQDB_I64, TQDB_DATA, "0: not given"},
    {"exact_end_utc_ms", TQDB_I64, TQDB_DATA, "0: not given"},
    {"response_ms", TQDB_I64, TQDB_DATA, ""},
    {"tier", TQDB_I32, TQDB_DATA, "of the segment"},
    {"url_id", TQDB_I32, TQDB_DATA, "`url`; 1073741824: unknown"},
    {"status", TQDB_I32, TQDB_DATA, ""},
    {"errors", TQDB_I32, TQDB_DATA, ""},
    {"category", TQDB_I32, TQDB_DATA, "of the business transaction"},
    {"correlation_id", TQDB_TEXT, TQDB_DATA, ""},
    {"query_parameters", TQDB_TEXT, TQDB_DATA, ""},
    {"method_cpu_ms", TQDB_I64, TQDB_DATA, "CPU time of its methods"},
    {"cpu_ms", TQDB_I64, TQDB_DATA, "CPU time"},
    {"methods", TQDB_I32, TQDB_DATA, "methods entered"},
    {"callouts", TQDB_I32, TQDB_DATA, "cache calls count as many as they stand for"},
    {"db_calls", TQDB_I32, TQDB_DATA, ""},
    {"http_callouts", TQDB_I32, TQDB_DATA, ""},
    {"messaging_calls", TQDB_I32, TQDB_DATA, ""},
    {"cache_calls", TQDB_I32, TQDB_DATA, ""},
    {"entry_point", TQDB_I32, TQDB_DATA, "as in `flowpath`"},
    OF_A_THREAD,
    {"gc_flag", TQDB_I32, TQDB_DATA, ""},
    {"partition", TQDB_I64, TQDB_DATA, "in whose sequence blob file its texts are; 0: not a partition's name"},
    {"text_offset", TQDB_I64, TQDB_DATA, "where its texts begin, bytes"},
    {"callout_rows", TQDB_I32, TQDB_DATA, "rows of its callout text"},
    {"callout_bytes", TQDB_I32, TQDB_DATA, "of its callout text, not packed"},
    {"blob_bytes", TQDB_I32, TQDB_DATA, "of its call tree, not packed"},
    {"detail_bytes", TQDB_I32, TQDB_DATA, "of its request detail, not packed"},
    {"callout_packed", TQDB_I64, TQDB_DATA, "bytes in the file; 0: plain text"},
    {"blob_packed", TQDB_I64, TQDB_DATA, "bytes in the file; 0: plain text"},
    {"detail_packed", TQDB_I64, TQDB_DATA, "bytes in the file; 0: plain text"},
    {"dynamic_texts", TQDB_TEXT, TQDB_DATA, "where its logged values are: `partition:offset:length`, joined by `@`"},
    {"request_bodies", TQDB_TEXT, TQDB_DATA, "the same"},
    {"response_bodies", TQDB_TEXT, TQDB_DATA, "the same"},
};
static constexpr table_index segment_indexes[] = {BY_MAIN_FPI("segment")};

static constexpr column callout_columns[] = {
    MAIN_FPI,
    {"segment", TQDB_I32, TQDB_DATA, "`segment` of `segment`"},
    {"app", TQDB_I32, TQDB_DATA, "the instance, see `instance`"},
    {"begin_utc_ms", TQDB_I64, TQDB_TIME, "begin, whole seconds"},
    {"kind", TQDB_TEXT, TQDB_DATA,
     "`T` call to another tier, `E` error, `a` and `A` asynchronous, `G` grouped queries, "
     "`C` cache, `t` another thread, ..."},
    {"number", TQDB_TEXT, TQDB_DATA, "begin sequence number and the agent's number"},
    {"parent_number", TQDB_I64, TQDB_DATA, "of `a` and `A`; -1 on marks"},
    {"fpi", TQDB_I64, TQDB_DATA, "of an `A`: the called flowpath; else the segment's parent"},
    {"backend_id", TQDB_I32, TQDB_DATA, "`method` of kind 0; -1 on marks"},
    {"backend_type", TQDB_TEXT, TQDB_DATA, "1 and 26 HTTP, 11 to 13 messaging, 2 and others with queries a database"},
    {"query_id", TQDB_I32, TQDB_DATA, "`query`; 0: none, -1 on marks"},
    {"duration_ms", TQDB_F64, TQDB_DATA, ""},
    {"status", TQDB_TEXT, TQDB_DATA, ""},
    {"async_flag", TQDB_I32, TQDB_DATA, ""},
    {"resource_id", TQDB_I32, TQDB_DATA, "`resource`"},
    {"net_request_ms", TQDB_TEXT, TQDB_DATA, "network delay; `-` or empty: not given"},
    {"net_response_ms", TQDB_TEXT, TQDB_DATA, "the same"},
    {"shortest_ms", TQDB_F64, TQDB_DATA, "of a group"},
    {"longest_ms", TQDB_F64, TQDB_DATA, "of a group"},
    {"total_ms", TQDB_F64, TQDB_DATA, "of a group"},
    {"count", TQDB_I64, TQDB_DATA, "of a group"},
    {"errors", TQDB_I64, TQDB_DATA, ""},
};
static constexpr table_index callout_indexes[] = {BY_MAIN_FPI("callout")};

static constexpr column method_timing_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, "of the main segment"},
    {"first_begin_utc_ms", TQDB_I64, TQDB_TIME, "first begin, whole seconds"},
    {"last_end_utc_ms", TQDB_I64, TQDB_DATA, "last end, whole seconds"},
    WHOSE,
    URL_ID,
    {"method_id", TQDB_I32, TQDB_DATA, "`method` of kind 0"},
    {"calls", TQDB_I64, TQDB_DATA, ""},
    {"self_ms", TQDB_I64, TQDB_DATA, ""},
    {"wall_ms", TQDB_I64, TQDB_DATA, ""},
    {"cpu_ms", TQDB_I64, TQDB_DATA, ""},
    {"self_cpu_ms", TQDB_I64, TQDB_DATA, "signed"},
    {"shortest_self_ms", TQDB_I64, TQDB_DATA, "0: not set"},
    {"longest_self_ms", TQDB_I64, TQDB_DATA, "0: not set"},
    {"wait_ms", TQDB_I64, TQDB_DATA, ""},
    {"sync_ms", TQDB_I64, TQDB_DATA, ""},
    {"io_ms", TQDB_I64, TQDB_DATA, ""},
    {"suspension_ms", TQDB_I64, TQDB_DATA, ""},
    {"self_wait_ms", TQDB_I64, TQDB_DATA, ""},
    {"self_sync_ms", TQDB_I64, TQDB_DATA, ""},
    {"self_io_ms", TQDB_I64, TQDB_DATA, ""},
    {"self_suspension_ms", TQDB_I64, TQDB_DATA, ""},
};
static constexpr table_index method_timing_indexes[] = {BY_FPI("method_timing")};

static constexpr column sql_timing_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, "of the main segment"},
    {"first_begin_utc_ms", TQDB_I64, TQDB_TIME, "first begin, whole seconds"},
    {"last_begin_utc_ms", TQDB_I64, TQDB_DATA, "last begin, whole seconds"},
    WHOSE,
    URL_ID,
    {"query_id", TQDB_I32, TQDB_DATA, "`query`"},
    {"backend_id", TQDB_I32, TQDB_DATA, "`method` of kind 0; 0: none"},
    {"executions", TQDB_I64, TQDB_DATA, ""},
    {"failed", TQDB_I64, TQDB_DATA, "executions"},
    {"total_ms", TQDB_F64, TQDB_DATA, "of all executions"},
    {"shortest_ms", TQDB_F64, TQDB_DATA, ""},
    {"longest_ms", TQDB_F64, TQDB_DATA, ""},
};
static constexpr table_index sql_timing_indexes[] = {BY_FPI("sql_timing")};

static constexpr column sql_record_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, ""},
    {"begin_utc_ms", TQDB_I64, TQDB_TIME, "whole seconds"},
    WHOSE,
    URL_ID,
    {"query_id", TQDB_I32, TQDB_DATA, "`query`"},
    {"duration_ms", TQDB_I64, TQDB_DATA, ""},
    {"callout_kind", TQDB_TEXT, TQDB_DATA, "empty for a query of a method's exit"},
};
static constexpr table_index sql_record_indexes[] = {BY_FPI("sql_record")};

static constexpr column exception_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, ""},
    {"utc_ms", TQDB_I64, TQDB_TIME, "whole seconds"},
    WHOSE,
    {"class_id", TQDB_I32, TQDB_DATA, "`exception_text` of kind 11"},
    {"throwing_class_id", TQDB_I32, TQDB_DATA, "`exception_text` of kind 12"},
    {"throwing_method_id", TQDB_I32, TQDB_DATA, "`exception_text` of kind 13"},
    {"stack_id", TQDB_I32, TQDB_DATA, "`exception_text` of kind 14"},
    {"message_id", TQDB_I32, TQDB_DATA, "`exception_text` of kind 15"},
    {"cause_id", TQDB_I32, TQDB_DATA, "`exception_text` of kind 16"},
    {"line", TQDB_I32, TQDB_DATA, "where it was thrown"},
    {"method_id", TQDB_I32, TQDB_DATA, "`method` of kind 0; -1: none"},
    {"method_line", TQDB_I32, TQDB_DATA, ""},
    {"backend_type", TQDB_I32, TQDB_DATA, ""},
    {"sub_type", TQDB_I32, TQDB_DATA, "`query` for backend type 2; -1: none"},
};
static constexpr table_index exception_indexes[] = {BY_FPI("exception"),
                                                    {"exception_by_time", "utc_ms, class_id, tier"}};

static constexpr column custom_data_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, ""},
    {"utc_ms", TQDB_I64, TQDB_TIME, "from the flowpath number, whole seconds"},
    WHOSE,
    {"header_id", TQDB_I32, TQDB_DATA, "`header`: the name"},
    {"name", TQDB_TEXT, TQDB_DATA, "the same name"},
    {"value_kind", TQDB_I32, TQDB_DATA, "1 whole number, 2 real number"},
    {"number", TQDB_I64, TQDB_DATA, "a real number in thousandths"},
    {"value", TQDB_TEXT, TQDB_DATA, "as a text"},
};
static constexpr table_index custom_data_indexes[] = {BY_FPI("custom_data")};

static constexpr column method_argument_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, ""},
    {"utc_ms", TQDB_I64, TQDB_TIME, "whole seconds"},
    WHOSE,
    {"method_number", TQDB_TEXT, TQDB_DATA, "tier and number of the method in the segment"},
    {"argument_id", TQDB_I32, TQDB_DATA, "`method` of kind 6"},
    {"method_id", TQDB_I32, TQDB_DATA, "`method` of kind 0"},
    {"net_wall_ms", TQDB_I64, TQDB_DATA, ""},
    {"cpu_ms", TQDB_I64, TQDB_DATA, ""},
    {"wait_ms", TQDB_I64, TQDB_DATA, ""},
    {"sync_ms", TQDB_I64, TQDB_DATA, ""},
    {"io_ms", TQDB_I64, TQDB_DATA, ""},
    {"suspension_ms", TQDB_I64, TQDB_DATA, ""},
};
static constexpr table_index method_argument_indexes[] = {BY_FPI("method_argument")};

static constexpr column message_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, ""},
    {"utc_ms", TQDB_I64, TQDB_TIME, ""},
    {"section", TQDB_I32, TQDB_DATA, "0 header, 1 properties, 2 text"},
    {"key_number", TQDB_I32, TQDB_DATA, "of the key in its message, from 1"},
    {"key_text", TQDB_TEXT, TQDB_DATA, ""},
    {"value", TQDB_TEXT, TQDB_DATA, ""},
};
static constexpr table_index message_indexes[] = {BY_FPI("message")};

static constexpr column url_record_columns[] = {
    {"fpi", TQDB_I64, TQDB_DATA, ""},
    {"begin_utc_ms", TQDB_I64, TQDB_TIME, "whole seconds"},
    {"end_utc_ms", TQDB_I64, TQDB_DATA, "whole seconds"},
    {"url_id", TQDB_I32, TQDB_DATA, "`url`"},
    {"instance_number", TQDB_I32, TQDB_DATA, ""},
    {"status", TQDB_I32, TQDB_DATA, ""},
    {"duration_ms", TQDB_I64, TQDB_DATA, ""},
    {"test_run", TQDB_I32, TQDB_DATA, "as the row has it"},
    {"load_test_run", TQDB_I64, TQDB_DATA, "test run of the load generator"},
};
static constexpr table_index url_record_indexes[] = {BY_FPI("url_record")};

static constexpr column request_detail_columns[] = {
    MAIN_FPI,
    {"segment", TQDB_I32, TQDB_DATA, "`segment` of `segment`"},
    {"app", TQDB_I32, TQDB_DATA, "the instance, see `instance`"},
    {"utc_ms", TQDB_I64, TQDB_TIME, "begin of the segment"},
    {"section", TQDB_I32, TQDB_DATA,
     "0 request headers, 1 response headers, 2 custom values, 3 session attributes, 4 method "
     "arguments, 5 logged values, 6 others"},
    {"method_id", TQDB_I32, TQDB_DATA, "`method` of kind 0; 0: none"},
    {"name", TQDB_TEXT, TQDB_DATA, "empty: a value alone"},
    {"value", TQDB_TEXT, TQDB_DATA, ""},
};
static constexpr table_index request_detail_indexes[] = {BY_MAIN_FPI("request_detail")};

static constexpr column blob_columns[] = {
    MAIN_FPI,
    {"segment", TQDB_I32, TQDB_DATA, "`segment` of `segment`"},
    {"app", TQDB_I32, TQDB_DATA, "the instance, see `instance`"},
    {"utc_ms", TQDB_I64, TQDB_TIME, "begin of the segment"},
    {"kind", TQDB_I8, TQDB_DATA, "1 call tree, 2 request detail, 3 logged values, 4 request body, 5 response body"},
    {"part", TQDB_I32, TQDB_DATA, "from 1; kinds 3 to 5 can have several"},
    {"data", TQDB_BYTES, TQDB_DATA, "not packed"},
};
static constexpr table_index blob_indexes[] = {BY_MAIN_FPI("blob")};

// --- names --------------------------------------------------------------------------------------------------------

static constexpr column kind_name_columns[] = {
    {"kind", TQDB_I32, TQDB_KEY, "0 method or backend, 1 class, 2 package, 6 argument"},
    {"id", TQDB_I32, TQDB_KEY, "norm id"},
    {"text", TQDB_TEXT, TQDB_DATA, ""},
};

static constexpr column name_columns[] = {
    {"id", TQDB_I32, TQDB_KEY, "norm id"},
    {"text", TQDB_TEXT, TQDB_DATA, ""},
};

static constexpr column query_columns[] = {
    {"id", TQDB_I32, TQDB_KEY, "norm id; from 1073741824 on: not prepared"},
    {"text", TQDB_TEXT, TQDB_DATA, "as the agent sent it"},
    {"query_class", TQDB_I32, TQDB_DATA,
     "0 other, 1 select, 2 insert, 3 update, 4 delete, 5 create, 6 drop, 7 call, 8 xa, 9 connection"},
    {"number", TQDB_I64, TQDB_DATA, "flowpath or hash that came with it; 0: none"},
};

static constexpr column exception_text_columns[] = {
    {"kind", TQDB_I32, TQDB_KEY,
     "11 class, 12 throwing class, 13 throwing method, 14 stack trace, 15 message, 16 cause"},
    {"id", TQDB_I32, TQDB_KEY, "norm id"},
    {"text", TQDB_TEXT, TQDB_DATA, ""},
};

static constexpr column function_group_columns[] = {
    {"name", TQDB_TEXT, TQDB_KEY, ""},
    {"package", TQDB_TEXT, TQDB_KEY, ""},
};

static constexpr column first_seen_columns[] = {
    {"id", TQDB_I32, TQDB_DATA, "norm id"},
    {"type", TQDB_I32, TQDB_DATA,
     "0 to 6 as in `method`, 7 resource, 8 query, 10 header, 11 to 16 as in `exception_text`, "
     "17 signature"},
    {"utc_ms", TQDB_I64, TQDB_DATA, ""},
    {"instance", TQDB_TEXT, TQDB_DATA, "its name"},
};

static constexpr column topology_columns[] = {
    {"tier_name", TQDB_TEXT, TQDB_KEY, "who calls"},
    {"backend", TQDB_TEXT, TQDB_KEY, "the backend's name"},
    {"called_tier", TQDB_TEXT, TQDB_DATA, "the tier that answers it"},
};

static constexpr column instance_columns[] = {
    {"app", TQDB_I32, TQDB_KEY, "number of the instance"},
    {"name", TQDB_TEXT, TQDB_DATA, "`Tier_Server_App`"},
    {"tier", TQDB_I32, TQDB_DATA, ""},
    {"server", TQDB_I32, TQDB_DATA, ""},
    {"tier_name", TQDB_TEXT, TQDB_DATA, "the name up to its first `_`"},
};

static constexpr column testrun_columns[] = {
    {"first_partition", TQDB_I64, TQDB_DATA, "14 digits"},
    {"first_utc_ms", TQDB_I64, TQDB_DATA, "begin of that partition"},
};

static constexpr column node_columns[] = {
    {"host", TQDB_TEXT, TQDB_DATA, "name of the machine whose daemon wrote the files"},
    {"run_dir", TQDB_TEXT, TQDB_DATA, "the test run's directory there"},
};

// --- sums ---------------------------------------------------------------------------------------------------------

// The steps of the histogram: one table for the columns' names, and for whoever counts.
// clang-format off
#define DURATION_STEPS(X) \
  X(1) X(2) X(3) X(4) X(5) X(6) X(8) X(10) X(12) X(16) X(20) X(25) X(32) X(40) X(50) X(63) X(80) \
  X(100) X(125) X(160) X(200) X(250) X(320) X(400) X(500) X(630) X(800) X(1000) X(1250) X(1600) \
  X(2000) X(2500) X(3200) X(4000) X(5000) X(6300) X(8000) X(10000) X(12500) X(16000) X(20000) \
  X(25000) X(32000) X(40000) X(50000) X(63000) X(80000) X(100000)
// clang-format on
#define STEP_BOUND(bound) bound,
#define STEP_COLUMN(bound) {"le_" #bound, TQDB_I32, TQDB_ADD, ""},

static constexpr int32_t bounds[] = {DURATION_STEPS(STEP_BOUND)};

#define FLOWPATH_SUMS                                                                                                  \
  {"flowpaths", TQDB_I64, TQDB_ADD, "how many have begun"}, {"failed", TQDB_I64, TQDB_ADD, "of them, with errors"},    \
      {"errors", TQDB_I64, TQDB_ADD, ""}, {"duration_ms", TQDB_I64, TQDB_ADD, ""},                                     \
      {"longest_ms", TQDB_I64, TQDB_MAX, ""}, {"cpu_ms", TQDB_I64, TQDB_ADD, ""},                                      \
      {"db_calls", TQDB_I64, TQDB_ADD, "callouts with a query"},                                                       \
      {"db_us", TQDB_I64, TQDB_ADD, "their durations, microseconds"},                                                  \
      {"backend_calls", TQDB_I64, TQDB_ADD, "other callouts to backends"}, {                                           \
    "backend_us", TQDB_I64, TQDB_ADD, "their durations, microseconds"                                                  \
  }

static constexpr column tier_minute_columns[] = {{"minute_utc_ms", TQDB_I64, TQDB_KEY, "begin of the minute"},
                                                 {"tier", TQDB_I32, TQDB_KEY, ""},
                                                 FLOWPATH_SUMS,
                                                 DURATION_STEPS(STEP_COLUMN)};

static constexpr column transaction_minute_columns[] = {{"minute_utc_ms", TQDB_I64, TQDB_KEY, "begin of the minute"},
                                                        {"tier", TQDB_I32, TQDB_KEY, ""},
                                                        {"url_id", TQDB_I32, TQDB_KEY, "`url`"},
                                                        FLOWPATH_SUMS,
                                                        DURATION_STEPS(STEP_COLUMN)};

#define METHOD_SUMS                                                                                                    \
  {"timings", TQDB_I64, TQDB_ADD, "rows of `method_timing`"}, {"calls", TQDB_I64, TQDB_ADD, ""},                       \
      {"self_ms", TQDB_I64, TQDB_ADD, ""}, {"wall_ms", TQDB_I64, TQDB_ADD, ""}, {"cpu_ms", TQDB_I64, TQDB_ADD, ""},    \
      {"self_cpu_ms", TQDB_I64, TQDB_ADD, ""}, {                                                                       \
    "longest_self_ms", TQDB_I64, TQDB_MAX, ""                                                                          \
  }

static constexpr column method_sum_columns[] = {
    {"tier", TQDB_I32, TQDB_KEY, ""},
    {"method_id", TQDB_I32, TQDB_KEY, "`method` of kind 0"},
    METHOD_SUMS,
    {"wait_ms", TQDB_I64, TQDB_ADD, ""},
    {"sync_ms", TQDB_I64, TQDB_ADD, ""},
    {"io_ms", TQDB_I64, TQDB_ADD, ""},
    {"suspension_ms", TQDB_I64, TQDB_ADD, ""},
};

static constexpr column transaction_method_columns[] = {
    {"tier", TQDB_I32, TQDB_KEY, ""},
    {"url_id", TQDB_I32, TQDB_KEY, "`url`"},
    {"method_id", TQDB_I32, TQDB_KEY, "`method` of kind 0"},
    METHOD_SUMS,
};

#define QUERY_SUMS                                                                                                     \
  {"executions", TQDB_I64, TQDB_ADD, ""}, {"failed", TQDB_I64, TQDB_ADD, "executions"},                                \
      {"total_us", TQDB_I64, TQDB_ADD, "microseconds"}, {                                                              \
    "longest_us", TQDB_I64, TQDB_MAX, "microseconds"                                                                   \
  }

static constexpr column query_sum_columns[] = {
    {"tier", TQDB_I32, TQDB_KEY, ""},
    {"query_id", TQDB_I32, TQDB_KEY, "`query`"},
    {"backend_id", TQDB_I32, TQDB_KEY, "`method` of kind 0; 0: none"},
    QUERY_SUMS,
};

static constexpr column transaction_query_columns[] = {
    {"tier", TQDB_I32, TQDB_KEY, ""},
    {"url_id", TQDB_I32, TQDB_KEY, "`url`"},
    {"query_id", TQDB_I32, TQDB_KEY, "`query`"},
    QUERY_SUMS,
};

static constexpr column backend_sum_columns[] = {
    {"tier", TQDB_I32, TQDB_KEY, "who calls"},
    {"backend_id", TQDB_I32, TQDB_KEY, "`method` of kind 0"},
    {"backend_type", TQDB_I32, TQDB_KEY, "as in `callout`; -1: not a number"},
    {"minute_utc_ms", TQDB_I64, TQDB_KEY, "begin of the minute"},
    {"calls", TQDB_I64, TQDB_ADD, "callouts; of groups and cache calls as many as they stand for"},
    {"errors", TQDB_I64, TQDB_ADD, "callouts of kind `E`, and errors of groups"},
    {"total_us", TQDB_I64, TQDB_ADD, "microseconds"},
    {"longest_us", TQDB_I64, TQDB_MAX, "microseconds"},
};

static constexpr column exception_sum_columns[] = {
    {"tier", TQDB_I32, TQDB_KEY, ""},
    {"class_id", TQDB_I32, TQDB_KEY, "`exception_text` of kind 11"},
    {"throwing_class_id", TQDB_I32, TQDB_KEY, "`exception_text` of kind 12"},
    {"throwing_method_id", TQDB_I32, TQDB_KEY, "`exception_text` of kind 13"},
    {"message_id", TQDB_I32, TQDB_KEY, "`exception_text` of kind 15"},
    {"exceptions", TQDB_I64, TQDB_ADD, ""},
    {"first_utc_ms", TQDB_I64, TQDB_MIN, ""},
    {"last_utc_ms", TQDB_I64, TQDB_MAX, ""},
};

// --- bookkeeping --------------------------------------------------------------------------------------------------

static constexpr column load_position_columns[] = {
    {"path", TQDB_TEXT, TQDB_KEY, "below the test run's directory"},
    {"file", TQDB_I32, TQDB_DATA, "number of the path"},
    {"inode", TQDB_I64, TQDB_DATA, ""},
    {"taken", TQDB_I64, TQDB_DATA, "bytes that have been brought in"},
    {"row_count", TQDB_I64, TQDB_DATA, "rows of the file in these bytes"},
    {"rejected", TQDB_I64, TQDB_DATA, "of them, in `load_reject`"},
    {"mended", TQDB_I64, TQDB_DATA, "of them, with bytes that were not UTF-8 and became U+FFFD"},
};

static constexpr column load_reject_columns[] = {
    {"path", TQDB_TEXT, TQDB_DATA, "below the test run's directory"},
    {"byte", TQDB_I64, TQDB_DATA, "where the row begins in the file"},
    {"row_number", TQDB_I64, TQDB_DATA, "of the row in the file, from 1"},
    {"reason", TQDB_TEXT, TQDB_DATA, ""},
};

// --- the table of tables ------------------------------------------------------------------------------------------

static constexpr table all_tables[] = {
    // clang-format off
  {"flowpath", TQDB_FACT, flowpath_columns, flowpath_indexes, "TQFlowPath.csv", "One row for each finished flowpath."},
  {"segment", TQDB_FACT, segment_columns, segment_indexes, "lists of segments", "What one thread did in a flowpath."},
  {"callout", TQDB_FACT, callout_columns, callout_indexes, "callout texts", "Calls that left a segment."},
  {"method_timing", TQDB_FACT, method_timing_columns, method_timing_indexes, "TQMethodTiming.csv, *_MethodTiming.dat", "One row for each method in each segment."},
  {"sql_timing", TQDB_FACT, sql_timing_columns, sql_timing_indexes, "TQSQLTiming.csv", "One row for each query in each segment."},
  {"sql_record", TQDB_FACT, sql_record_columns, sql_record_indexes, "TQSQLRecord.csv", "One row for each execution of a query."},
  {"exception", TQDB_FACT, exception_columns, exception_indexes, "TQExceptions.csv", "One row for each exception."},
  {"custom_data", TQDB_FACT, custom_data_columns, custom_data_indexes, "TQCustomData.csv", "Custom values."},
  {"method_argument", TQDB_FACT, method_argument_columns, method_argument_indexes, "TQBCIArg.csv", "Arguments of methods."},
  {"message", TQDB_FACT, message_columns, message_indexes, "TQJMS.csv", "One row for each key of a message."},
  {"url_record", TQDB_FACT, url_record_columns, url_record_indexes, "TQURLRecord.csv", "One row for each request."},
  {"request_detail", TQDB_FACT, request_detail_columns, request_detail_indexes, "request details", "Headers and other values of a segment."},
  {"blob", TQDB_FACT, blob_columns, blob_indexes, "sequence blob files", "Call trees, details and bodies, if TQU_LOAD_BLOBS is 1."},
  {"method", TQDB_NAME, kind_name_columns, {}, "TQMetaData.csv", "Methods, backends, classes, packages, arguments."},
  {"url", TQDB_NAME, name_columns, {}, "TQURLTable.csv", "Transactions."},
  {"query", TQDB_NAME, query_columns, {}, "TQSQL.csv, TQSQL_nonprepared.csv", "Queries."},
  {"resource", TQDB_NAME, name_columns, {}, "TQIPResourceMetaData.csv", "Resources of integration points."},
  {"header", TQDB_NAME, name_columns, {}, "TQHTTPHeaderMetaData.csv", "Headers and names of custom values."},
  {"exception_text", TQDB_NAME, exception_text_columns, {}, "TQException*.csv", "Texts of exceptions."},
  {"signature", TQDB_NAME, name_columns, {}, "TQFPSignature.csv", "Signatures of flowpaths, packed."},
  {"tag_set", TQDB_NAME, name_columns, {}, "TQTags.csv", "Sets of tags, as JSON."},
  {"function_group", TQDB_NAME, function_group_columns, {}, "TQFunctionalGroup.csv", "Function groups."},
  {"first_seen", TQDB_FACT, first_seen_columns, {}, "TQMetaDataEx.csv", "When, and by which instance, an id was first met."},
  {"topology", TQDB_NAME, topology_columns, {}, "tqIntegrationPoint.conf", "Which tier answers which backend."},
  {"instance", TQDB_NAME, instance_columns, {}, "names of directories", "Application instances."},
  {"testrun", TQDB_NAME, testrun_columns, {}, "", "Test runs, as each node has them."},
  {"node", TQDB_NAME, node_columns, {}, "", "The machines of a test run."},
  {"tier_minute", TQDB_SUM, tier_minute_columns, {}, "flowpath", "Flowpaths by minute and tier."},
  {"transaction_minute", TQDB_SUM, transaction_minute_columns, {}, "flowpath", "Flowpaths by minute, tier and transaction."},
  {"method_sum", TQDB_SUM, method_sum_columns, {}, "method_timing", "Methods by tier."},
  {"transaction_method", TQDB_SUM, transaction_method_columns, {}, "method_timing", "Methods by tier and transaction."},
  {"query_sum", TQDB_SUM, query_sum_columns, {}, "sql_timing", "Queries by tier and backend."},
  {"transaction_query", TQDB_SUM, transaction_query_columns, {}, "sql_timing", "Queries by tier and transaction."},
  {"backend_sum", TQDB_SUM, backend_sum_columns, {}, "callout", "Callouts by tier, backend and minute."},
  {"exception_sum", TQDB_SUM, exception_sum_columns, {}, "exception", "Exceptions by tier, class, place and message."},
  {"load_position", TQDB_BOOK, load_position_columns, {}, "", "How far each file has been brought in."},
  {"load_reject", TQDB_FACT, load_reject_columns, {}, "", "Rows that could not be brought in, and why."},
}; // clang-format on
static_assert(std::size(all_tables) == TQDB_TABLES);

std::span<const table> tables() {
  return all_tables;
}

int column_number(const table &t, std::string_view name) {
  const auto at = std::find_if(t.columns.begin(), t.columns.end(), [&](const column &c) { return name == c.name; });
  return at == t.columns.end() ? -1 : static_cast<int>(at - t.columns.begin());
}

// --- durations ------------------------------------------------------------------------------------------------------

std::span<const int32_t> duration_bounds() {
  return bounds;
}

std::string sum_of_histogram() {
  std::string text;
  for (const int32_t bound : bounds)
    text += wllb_format("%ssum(le_%d) AS le_%d", text.empty() ? "" : ", ", bound, bound);
  return text;
}

// The same calculation by the place of the step in an array of the histogram, from its lower end on.
static std::string percentile_by_place(const std::string &rank, const std::string &count, const std::string &longest) {
  std::string upto, ends = "[0";
  for (const int32_t bound : bounds) {
    upto += "le_" + std::to_string(bound) + ", ";
    ends += ", " + std::to_string(bound);
  }
  const std::string from_lowest = "[0, " + upto + count + "]",
                    place = "arrayFirstIndex(x -> x >= " + rank + ", [" + upto + count + "])";
  const std::string from = ends + "][" + place + "]", below = from_lowest + "[" + place + "]";
  const std::string end = "least(" + ends + ", " + std::to_string(INT32_MAX) + "][" + place + " + 1], " + longest + ")";
  return "CASE WHEN " + count + " = 0 THEN 0.0 ELSE " + from + " + (" + end + " - " + from + ") * 1.0 * (" + rank +
         " - " + below + ") / (" + from_lowest + "[" + place + " + 1] - " + below + ") END";
}

// Inside a step, durations are taken as spread evenly; the last one that is reached ends at the longest duration.
std::string percentile_sql(double level, std::string_view count_column, std::string_view longest_column,
                           bool with_arrays) {
  const std::string count(count_column), longest(longest_column);
  const std::string rank = wllb_format("%g * %s", level, count.c_str());
  if (with_arrays)
    return percentile_by_place(rank, count, longest);
  std::string text = wllb_format("CASE WHEN %s = 0 THEN 0.0", count.c_str());
  std::string below = "0";
  int32_t from = 0;
  const auto between = [&](const std::string &end, const std::string &upto) {
    return wllb_format("%d + (%s - %d) * 1.0 * (%s - %s) / (%s - %s)", from, end.c_str(), from, rank.c_str(),
                       below.c_str(), upto.c_str(), below.c_str());
  };
  for (const int32_t to : bounds) {
    const std::string upto = wllb_format("le_%d", to);
    const std::string end =
        wllb_format("(CASE WHEN %s < %d THEN %s ELSE %d END)", longest.c_str(), to, longest.c_str(), to);
    text.append(" WHEN ").append(upto).append(" >= ").append(rank).append(" THEN ").append(between(end, upto));
    below = upto;
    from = to;
  }
  return text.append(" ELSE ").append(between(longest, count)).append(" END");
}

} // namespace tqdb
