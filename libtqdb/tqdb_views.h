// The views that people ask: defined once, made into each engine's SQL.
//   In      rows of data
//   Out     SELECT texts
//   Thread  any
//   Failure none
// A view is a table, or a SELECT over one, with names put beside ids, and a list of what it shows. The SQL of its parts is
// the subset that tqdb_query.h describes.
#pragma once

#include "tqdb_schema.h"
#include "tqdb_target.h"

#include <span>
#include <string>

namespace tqdb {

// Puts names beside ids: a left join with a table or SELECT that has at most one row for each value of its key.
struct name_of {
  const char *from; // "(SELECT testrun, node, id AS url_id, text AS url FROM url)"
  const char *key;  // columns of both sides after testrun and node: "url_id"
};

struct view {
  const char *name;
  const char *from; // a table, or "(SELECT ...)"; "@HISTOGRAM" in it stands for sum_of_histogram()
  std::span<const name_of> names;
  const char *select; // what it shows; "@P50", "@P95", "@P99" stand for percentiles over `flowpaths` and `longest_ms`
  const char *about;  // for docs/database.md
};

std::span<const view> views();

// The SELECT of a view. Engines that take one join for each SELECT get them nested.
std::string view_sql(const view &v, engine kind);

} // namespace tqdb
