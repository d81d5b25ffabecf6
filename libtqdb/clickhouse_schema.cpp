// Tables and views as ClickHouse has them; see the header. Nothing here needs more than version 18 of the server knows, nor
// uses what newer ones have dropped.
#include "clickhouse_schema.h"

#include "clickhouse_blocks.h"
#include "tqdb_statements.h"
#include "tqdb_views.h"

namespace tqdb {

static bool is_name(const table &t) {
  return t.kind == TQDB_NAME || t.kind == TQDB_BOOK;
}

std::string clickhouse_storage(const table &t, bool clustered) {
  return std::string(t.name) + (clustered || is_name(t) ? "_local" : "");
}

std::string clickhouse_columns(const table &t) {
  return all_columns(t) + ", load_file, load_byte, load_part, load_unit";
}

// Rows of a test run lie together in the order of their time. A row that comes a second time from the same place has the
// same key, and takes the place of the first one when parts are merged; a name takes the place of the one with its key.
// Sums stand one row for each key and unit.
static std::string order_of(const table &t) {
  if (t.kind == TQDB_SUM)
    return key_columns(t) + ", load_unit";
  if (is_name(t))
    return key_columns(t);
  std::string order = "testrun, node";
  for (const column &c : t.columns)
    if (c.role == TQDB_TIME)
      order.append(", ").append(c.name);
  return order + ", load_file, load_byte, load_part";
}

std::string clickhouse_storage_sql(const table &t, const std::string &name) {
  std::string sql = "CREATE TABLE IF NOT EXISTS " + name + " (testrun Int32, node Int32";
  for (const column &c : t.columns)
    sql.append(", ").append(c.name).append(" ").append(clickhouse_type(c.type));
  return sql + ", " + clickhouse_mark_columns +
         ") ENGINE = " + (t.kind == TQDB_SUM ? "MergeTree()" : "ReplacingMergeTree(load_unit)") +
         " PARTITION BY (testrun, node) ORDER BY (" + order_of(t) + ")";
}

std::string clickhouse_rolled_up(const table &t, const std::string &from, const std::string &where) {
  std::string columns = key_columns(t);
  for (const column &c : t.columns)
    if (c.role != TQDB_KEY)
      columns += std::string(c.role == TQDB_ADD ? ", sum(" : c.role == TQDB_MIN ? ", min(" : ", max(") + c.name + ")";
  return "SELECT " + columns + ", 0, 0, 0, max(load_unit) FROM " + from + " WHERE " + where + " GROUP BY " +
         key_columns(t);
}

// What reads all shards, and what shows the newest row of each name.
static void add_readers(const table &t, const std::string &database, const std::string &cluster,
                        std::vector<std::string> *all) {
  const std::string local = clickhouse_storage(t, !cluster.empty());
  const std::string whole = std::string(t.name) + (is_name(t) ? "_all" : "");
  if (!cluster.empty())
    all->push_back("CREATE TABLE IF NOT EXISTS " + whole + " AS " + local + " ENGINE = Distributed(" + cluster + ", " +
                   database + ", " + local + ")");
  if (is_name(t))
    all->push_back(std::string("CREATE VIEW IF NOT EXISTS ") + t.name + " AS SELECT " + all_columns(t) + " FROM " +
                   (cluster.empty() ? local : whole) + " FINAL" + (t.kind == TQDB_BOOK ? " WHERE taken >= 0" : ""));
}

std::vector<std::string> clickhouse_migration(int version, const std::string &database, const std::string &cluster) {
  std::vector<std::string> all;
  if (version != 1)
    return all;
  for (const table &t : tables()) {
    all.push_back(clickhouse_storage_sql(t, clickhouse_storage(t, !cluster.empty())));
    add_readers(t, database, cluster, &all);
  }
  all.emplace_back("CREATE TABLE IF NOT EXISTS load_session (testrun Int32, node Int32, first_unit UInt64, after_unit "
                   "UInt64) ENGINE = MergeTree() PARTITION BY (testrun, node) ORDER BY (testrun, node, first_unit)");
  for (const view &v : views()) {
    std::string sql = view_sql(v, TQDB_CLICKHOUSE);
    constexpr std::string_view join = " ANY LEFT JOIN ";
    // The names are collected once and sent to the shards, which each have a part of them.
    for (size_t at = 0; !cluster.empty() && (at = sql.find(join, at)) != sql.npos; at += join.size() + 7)
      sql.insert(at, " GLOBAL");
    all.push_back(std::string("CREATE VIEW IF NOT EXISTS ") + v.name + " AS " + sql);
  }
  return all;
}

} // namespace tqdb
