// The views; see the header.
#include "tqdb_views.h"

#include <iterator>

namespace tqdb {

// --- names beside ids -------------------------------------------------------------------------------------------

#define NAME(table, key, as) "(SELECT testrun, node, id AS " key ", text AS " as " FROM " table ")", key
#define NAME_OF_KIND(table, kind, key, as)                                                                             \
  "(SELECT testrun, node, id AS " key ", text AS " as " FROM " table " WHERE kind = " kind ")", key

static constexpr name_of url_name = {NAME("url", "url_id", "url_text")};
static constexpr name_of query_name = {NAME("query", "query_id", "query_text")};
static constexpr name_of tags_name = {NAME("tag_set", "tag_set_id", "tags_text")};
static constexpr name_of resource_name = {NAME("resource", "resource_id", "resource_text")};
static constexpr name_of method_name = {NAME_OF_KIND("method", "0", "method_id", "method_text")};
static constexpr name_of backend_name = {NAME_OF_KIND("method", "0", "backend_id", "backend_text")};
static constexpr name_of class_name = {NAME_OF_KIND("exception_text", "11", "class_id", "class_text")};
static constexpr name_of thrower_name = {NAME_OF_KIND("exception_text", "12", "throwing_class_id", "thrower_text")};
static constexpr name_of throwing_name = {NAME_OF_KIND("exception_text", "13", "throwing_method_id", "throwing_text")};
static constexpr name_of stack_name = {NAME_OF_KIND("exception_text", "14", "stack_id", "stack_text")};
static constexpr name_of message_name = {NAME_OF_KIND("exception_text", "15", "message_id", "message_text")};
static constexpr name_of cause_name = {NAME_OF_KIND("exception_text", "16", "cause_id", "cause_text")};
static constexpr name_of instance_name = {
    "(SELECT testrun, node, app, name AS instance_name, tier_name AS tier_text FROM instance)", "app"};
static constexpr name_of tier_name = {
    "(SELECT testrun, node, tier, min(tier_name) AS tier_text FROM instance GROUP BY testrun, node, tier)", "tier"};
static constexpr name_of called_tier_name = {
    "(SELECT testrun, node, tier_name AS tier_text, backend AS backend_text, called_tier FROM topology)",
    "tier_text, backend_text"};

static constexpr name_of flowpath_names[] = {url_name, instance_name, tags_name};
static constexpr name_of by_url[] = {url_name, tier_name};
static constexpr name_of by_tier[] = {tier_name};
static constexpr name_of by_method[] = {method_name, tier_name};
static constexpr name_of by_method_and_url[] = {method_name, url_name, tier_name};
static constexpr name_of by_query[] = {query_name, backend_name, tier_name};
static constexpr name_of by_query_and_url[] = {query_name, url_name, tier_name};
static constexpr name_of by_backend[] = {backend_name, tier_name, called_tier_name};
static constexpr name_of exception_sum_names[] = {class_name, thrower_name, throwing_name, message_name, tier_name};
static constexpr name_of exception_names[] = {class_name,   thrower_name, throwing_name, stack_name,
                                              message_name, cause_name,   instance_name};
static constexpr name_of callout_names[] = {backend_name, query_name, resource_name, instance_name};
static constexpr name_of method_timing_names[] = {method_name, url_name, instance_name};
static constexpr name_of sql_timing_names[] = {query_name, backend_name, url_name, instance_name};

// --- sums, grouped by their keys again ------------------------------------------------------------------------------

#define FLOWPATH_SUMS                                                                                                  \
  "sum(flowpaths) AS flowpaths, sum(failed) AS failed, sum(errors) AS errors, sum(duration_ms) AS duration_ms, "       \
  "max(longest_ms) AS longest_ms, sum(cpu_ms) AS cpu_ms, sum(db_calls) AS db_calls, sum(db_us) AS db_us, "             \
  "sum(backend_calls) AS backend_calls, sum(backend_us) AS backend_us, @HISTOGRAM"
#define FLOWPATH_FIGURES                                                                                                  \
  "flowpaths, failed, errors, duration_ms, duration_ms * 1.0 / flowpaths AS average_ms, @P50 AS p50_ms, @P95 AS p95_ms, " \
  "@P99 AS p99_ms, longest_ms, cpu_ms, db_calls, db_us / 1000.0 AS db_ms, backend_calls, backend_us / 1000.0 AS backend_ms"
#define METHOD_SUMS                                                                                                    \
  "sum(timings) AS timings, sum(calls) AS calls, sum(self_ms) AS self_ms, sum(wall_ms) AS wall_ms, "                   \
  "sum(cpu_ms) AS cpu_ms, sum(self_cpu_ms) AS self_cpu_ms, max(longest_self_ms) AS longest_self_ms"
#define METHOD_FIGURES "timings, calls, self_ms, wall_ms, cpu_ms, self_cpu_ms, longest_self_ms"
#define QUERY_SUMS                                                                                                     \
  "sum(executions) AS executions, sum(failed) AS failed, sum(total_us) AS total_us, max(longest_us) AS longest_us"
#define QUERY_FIGURES                                                                                                  \
  "executions, failed, total_us / 1000.0 AS total_ms, total_us / 1000.0 / executions AS average_ms, "                  \
  "longest_us / 1000.0 AS longest_ms"
#define TEXT(column, as) "coalesce(" column ", '') AS " as

static constexpr view all_views[] = {
    // clang-format off
  {"flowpath_view", "flowpath", flowpath_names,
   "testrun, node, fpi, begin_utc_ms, end_utc_ms, duration_ms, " TEXT("url_text", "url") ", status, errors, "
   TEXT("tier_text", "tier_name") ", " TEXT("instance_name", "instance") ", " TEXT("tags_text", "tags") ", correlation_id, "
   "parent_fpi, root_fpi, cpu_ms, methods, callouts, db_calls, http_callouts, messaging_calls, cache_calls, wait_ms, sync_ms, "
   "io_ms, suspension_ms, queue_ms, response_ms, thread, query_parameters, segments, url_id, tier, server, app, tag_set_id",
   "Flowpaths with their names."},
  {"slow_flowpaths", "(SELECT * FROM flowpath WHERE duration_ms >= 1000)", flowpath_names,
   "testrun, node, fpi, begin_utc_ms, duration_ms, " TEXT("url_text", "url") ", status, errors, "
   TEXT("tier_text", "tier_name") ", " TEXT("instance_name", "instance") ", methods, callouts, db_calls, correlation_id",
   "Flowpaths of a second or more."},
  {"transactions",
   "(SELECT testrun, node, tier, url_id, " FLOWPATH_SUMS " FROM transaction_minute GROUP BY testrun, node, tier, url_id)", by_url,
   "testrun, node, tier, url_id, " TEXT("url_text", "url") ", " TEXT("tier_text", "tier_name") ", " FLOWPATH_FIGURES,
   "Flowpaths by transaction and tier: counts, errors, percentiles, time in databases and other backends."},
  {"transactions_by_minute",
   "(SELECT testrun, node, minute_utc_ms, tier, url_id, " FLOWPATH_SUMS
   " FROM transaction_minute GROUP BY testrun, node, minute_utc_ms, tier, url_id)", by_url,
   "testrun, node, minute_utc_ms, tier, url_id, " TEXT("url_text", "url") ", " TEXT("tier_text", "tier_name") ", " FLOWPATH_FIGURES,
   "The same for each minute."},
  {"tiers", "(SELECT testrun, node, tier, " FLOWPATH_SUMS " FROM tier_minute GROUP BY testrun, node, tier)", by_tier,
   "testrun, node, tier, " TEXT("tier_text", "tier_name") ", " FLOWPATH_FIGURES, "Flowpaths by tier."},
  {"tiers_by_minute",
   "(SELECT testrun, node, minute_utc_ms, tier, " FLOWPATH_SUMS " FROM tier_minute GROUP BY testrun, node, minute_utc_ms, tier)", by_tier,
   "testrun, node, minute_utc_ms, tier, " TEXT("tier_text", "tier_name") ", " FLOWPATH_FIGURES, "The same for each minute."},
  {"hot_methods", "(SELECT testrun, node, tier, method_id, " METHOD_SUMS ", sum(wait_ms) AS wait_ms, sum(sync_ms) AS sync_ms, "
   "sum(io_ms) AS io_ms, sum(suspension_ms) AS suspension_ms FROM method_sum GROUP BY testrun, node, tier, method_id)", by_method,
   "testrun, node, tier, method_id, " TEXT("method_text", "method") ", " TEXT("tier_text", "tier_name") ", " METHOD_FIGURES
   ", wait_ms, sync_ms, io_ms, suspension_ms", "Methods by tier."},
  {"hot_methods_by_transaction", "(SELECT testrun, node, tier, url_id, method_id, " METHOD_SUMS
   " FROM transaction_method GROUP BY testrun, node, tier, url_id, method_id)", by_method_and_url,
   "testrun, node, tier, url_id, method_id, " TEXT("method_text", "method") ", " TEXT("url_text", "url") ", "
   TEXT("tier_text", "tier_name") ", " METHOD_FIGURES, "Methods by transaction and tier."},
  {"queries", "(SELECT testrun, node, tier, query_id, backend_id, " QUERY_SUMS
   " FROM query_sum GROUP BY testrun, node, tier, query_id, backend_id)", by_query,
   "testrun, node, tier, query_id, backend_id, " TEXT("query_text", "query") ", " TEXT("backend_text", "backend") ", "
   TEXT("tier_text", "tier_name") ", " QUERY_FIGURES, "Queries by tier and backend."},
  {"queries_by_transaction", "(SELECT testrun, node, tier, url_id, query_id, " QUERY_SUMS
   " FROM transaction_query GROUP BY testrun, node, tier, url_id, query_id)", by_query_and_url,
   "testrun, node, tier, url_id, query_id, " TEXT("query_text", "query") ", " TEXT("url_text", "url") ", "
   TEXT("tier_text", "tier_name") ", " QUERY_FIGURES, "Queries by transaction and tier."},
  {"backends", "(SELECT testrun, node, tier, backend_id, backend_type, sum(calls) AS calls, sum(errors) AS errors, "
   "sum(total_us) AS total_us, max(longest_us) AS longest_us FROM backend_sum GROUP BY testrun, node, tier, backend_id, backend_type)",
   by_backend,
   "testrun, node, tier, backend_id, backend_type, " TEXT("tier_text", "tier_name") ", " TEXT("backend_text", "backend") ", "
   TEXT("called_tier", "called_tier_name") ", calls, errors, total_us / 1000.0 AS total_ms, "
   "CASE WHEN calls = 0 THEN 0.0 ELSE total_us / 1000.0 / calls END AS average_ms, longest_us / 1000.0 AS longest_ms",
   "Calls from tiers to backends, and which tier answers: the edges of the tier map."},
  {"errors", "(SELECT testrun, node, tier, class_id, throwing_class_id, throwing_method_id, message_id, "
   "sum(exceptions) AS exceptions, min(first_utc_ms) AS first_utc_ms, max(last_utc_ms) AS last_utc_ms FROM exception_sum "
   "GROUP BY testrun, node, tier, class_id, throwing_class_id, throwing_method_id, message_id)", exception_sum_names,
   "testrun, node, tier, " TEXT("tier_text", "tier_name") ", " TEXT("class_text", "exception_class") ", "
   TEXT("thrower_text", "throwing_class") ", " TEXT("throwing_text", "throwing_method") ", "
   TEXT("message_text", "message") ", exceptions, first_utc_ms, last_utc_ms", "Exceptions by tier, class, place and message."},
  {"exception_view", "exception", exception_names,
   "testrun, node, fpi, utc_ms, " TEXT("tier_text", "tier_name") ", " TEXT("instance_name", "instance") ", "
   TEXT("class_text", "exception_class") ", " TEXT("thrower_text", "throwing_class") ", "
   TEXT("throwing_text", "throwing_method") ", line, " TEXT("message_text", "message") ", " TEXT("cause_text", "cause") ", "
   TEXT("stack_text", "stack_trace"), "Exceptions with their texts."},
  {"callout_view", "callout", callout_names,
   "testrun, node, main_fpi, segment, begin_utc_ms, kind, number, " TEXT("tier_text", "tier_name") ", "
   TEXT("instance_name", "instance") ", " TEXT("backend_text", "backend") ", backend_type, " TEXT("query_text", "query") ", "
   "duration_ms, status, " TEXT("resource_text", "resource") ", total_ms, count, errors", "Callouts with their names."},
  {"method_timing_view", "method_timing", method_timing_names,
   "testrun, node, fpi, first_begin_utc_ms, " TEXT("tier_text", "tier_name") ", " TEXT("instance_name", "instance") ", "
   TEXT("url_text", "url") ", " TEXT("method_text", "method") ", calls, self_ms, wall_ms, cpu_ms, self_cpu_ms, wait_ms, sync_ms, "
   "io_ms, suspension_ms", "Method timings with their names."},
  {"sql_timing_view", "sql_timing", sql_timing_names,
   "testrun, node, fpi, first_begin_utc_ms, " TEXT("tier_text", "tier_name") ", " TEXT("instance_name", "instance") ", "
   TEXT("url_text", "url") ", " TEXT("query_text", "query") ", " TEXT("backend_text", "backend") ", executions, failed, total_ms, "
   "shortest_ms, longest_ms", "Query timings with their names."},
}; // clang-format on

std::span<const view> views() {
  return all_views;
}

// --- SQL ------------------------------------------------------------------------------------------------------------

static void replace(std::string *text, std::string_view word, const std::string &by) {
  for (size_t at = 0; (at = text->find(word, at)) != text->npos; at += by.size())
    text->replace(at, word.size(), by);
}

std::string view_sql(const view &v, engine kind) {
  const bool nested = kind == TQDB_CLICKHOUSE;
  std::string source = v.from;
  int number = 0;
  for (const name_of &name : v.names) {
    const std::string as = "n" + std::to_string(++number);
    if (number == 1 || nested)
      source.append(" AS f").append(std::to_string(number));
    source.append(nested ? " ANY LEFT JOIN " : " LEFT JOIN ").append(name.from).append(" AS ").append(as);
    source.append(" USING (testrun, node, ").append(name.key).append(")");
    if (nested && number < static_cast<int>(v.names.size()))
      source.insert(0, "(SELECT * FROM ").append(")");
  }
  if (v.names.empty())
    source += " AS f1";
  std::string text = std::string("SELECT ") + v.select + " FROM " + source;
  replace(&text, "@HISTOGRAM", sum_of_histogram());
  replace(&text, "@P50", percentile_sql(0.5, "flowpaths", "longest_ms", nested));
  replace(&text, "@P95", percentile_sql(0.95, "flowpaths", "longest_ms", nested));
  replace(&text, "@P99", percentile_sql(0.99, "flowpaths", "longest_ms", nested));
  return text;
}

} // namespace tqdb
