// Tables and views as ClickHouse has them, on one server or on every shard of a cluster.
//   In      the table of tables, the views
//   Out     statements
//   Thread  any
//   Failure none
// A table of facts or sums is called as in the schema and holds the rows. A table of names is a view of that name over
// "<name>_local", where a key can have several rows until they are merged; the view shows the newest one. In a cluster the
// rows of facts are in "<name>_local", too, on every shard, and <name> reads all shards.
#pragma once

#include "tqdb_schema.h"

#include <string>
#include <vector>

namespace tqdb {

// Where the rows of a table are.
std::string clickhouse_storage(const table &t, bool clustered);

// The statements that make everything on one server, in their order. `cluster` is empty for a single server.
std::vector<std::string> clickhouse_migration(int version, const std::string &database, const std::string &cluster);

// "CREATE TABLE name ...": the table that holds rows.
std::string clickhouse_storage_sql(const table &t, const std::string &name);

// "testrun, node, a, b, load_file, ...": all columns of a table that holds rows.
std::string clickhouse_columns(const table &t);

// SELECT list and GROUP BY that add up the sums of equal keys, in the order of clickhouse_columns().
std::string clickhouse_rolled_up(const table &t, const std::string &from, const std::string &where);

} // namespace tqdb
