// The driver for PostgreSQL: tables partitioned by test run, rows by binary COPY, one transaction a unit.
//   In      units of the loader
//   Out     rows; positions in the same transaction
//   Thread  one
//   Failure by return value; a lost connection gives up the transaction, and open() reads back what was committed
// Facts go into their table by COPY. Names and sums go into a temporary table first, and from there into theirs at the
// unit's end, once a table: a name replaces the one with its key, a sum is merged. A session-level advisory lock on test run
// and node keeps a second loader out, and goes with the connection.
#include "postgresql_copy.h"
#include "postgresql_link.h"
#include "tqdb_driver.h"
#include "tqdb_statements.h"
#include "tqdb_views.h"

#include "wllb_util.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdlib>

namespace tqdb {

namespace {

constexpr sql_types type_names = {{"smallint", "smallint", "integer", "bigint", "double precision", "text", "bytea"}};
constexpr int schema_lock = 0x7471; // of advisory locks: whoever makes tables
constexpr size_t copy_bytes = 1 << 18;

struct postgresql_driver : load_driver {
  std::string url;
  load_scope scope;
  postgresql_link link;
  bool in_unit = false;
  std::array<bool, TQDB_TABLES> staged = {}; // tables with rows in their temporary table, in this unit
  std::array<bool, TQDB_TABLES> has_stage = {};
  std::string buffer;

  explicit postgresql_driver(const load_target &target) : url(target.url) {}

  open_result open(const load_scope &for_whom, load_state *state) override;
  take_result begin_loading(bool bulk) override;
  take_result add(const row_batch &rows) override;
  take_result commit(const load_positions &changed) override;
  void roll_back() override;
  take_result finish() override;
  take_result drop_testrun(int32_t testrun, int32_t node) override;
  take_result drop_before(int64_t time_ms) override;

  int64_t unit_bytes(bool bulk) const override { return bulk ? 16 << 20 : 2 << 20; }

private:
  take_result failed();
  open_result not_opened();
  bool run(const std::string &sql);
  bool migrate();
  bool make_partitions();
  bool make_indexes();
  bool read_positions(load_state *state);
  bool begin_unit();
  bool copy_into(const std::string &name, const row_batch &rows);
  bool merge_stage(const table &t);
};

} // namespace

// Where rows are checked on their way into a table: only facts need no look at what is there.
static bool goes_straight_in(const table &t) {
  return t.kind == TQDB_FACT;
}

static std::string partition_of(const table &t, int32_t testrun) {
  return std::string(t.name) + "_" + std::to_string(testrun);
}

// --- outcomes ---------------------------------------------------------------------------------------------------------

take_result postgresql_driver::failed() {
  error_text = link.error;
  in_unit = false;
  const bool lasting = link.trouble == POSTGRESQL_LASTING;
  link.close(); // with it goes the transaction, and the lock
  return lasting ? TQDB_BROKEN : TQDB_AWAY;
}

open_result postgresql_driver::not_opened() {
  return failed() == TQDB_BROKEN ? TQDB_REFUSED : TQDB_NOT_THERE;
}

bool postgresql_driver::run(const std::string &sql) {
  return link.run(sql) != nullptr;
}

// --- schema -----------------------------------------------------------------------------------------------------------

// Number 1: every table, partitioned by test run, and the views.
static std::string first_migration() {
  std::string sql = "CREATE TABLE schema_version (version integer PRIMARY KEY);";
  for (const table &t : tables())
    sql += create_table_sql(t, type_names, " PARTITION BY LIST (testrun);");
  for (const view &v : views())
    sql += std::string("CREATE VIEW ") + v.name + " AS " + view_sql(v, TQDB_POSTGRESQL) + ";";
  return sql + "INSERT INTO schema_version VALUES (1);";
}

bool postgresql_driver::migrate() {
  int64_t version = 0, exists = 0;
  if (!run("BEGIN; SELECT pg_advisory_xact_lock(" + std::to_string(schema_lock) + ", 0)") ||
      !link.number("SELECT (to_regclass('schema_version') IS NOT NULL)::integer", &exists) ||
      (exists && !link.number("SELECT max(version) FROM schema_version", &version)))
    return false;
  if (version > schema_version) {
    link.error = "the database has schema " + std::to_string(version) + ", newer than this program's (" +
                 std::to_string(schema_version) + ")";
    link.trouble = POSTGRESQL_LASTING;
    return false;
  }
  return (version >= 1 || run(first_migration())) && make_partitions() && run("COMMIT");
}

// Those that are there are left alone: making one waits for whoever reads the table.
bool postgresql_driver::make_partitions() {
  for (const table &t : tables()) {
    const std::string name = partition_of(t, scope.testrun);
    int64_t exists = 0;
    if (!link.number("SELECT (to_regclass(" + postgresql_literal(name) + ") IS NOT NULL)::integer", &exists) ||
        (!exists && !run("CREATE TABLE " + name + " PARTITION OF " + t.name + " FOR VALUES IN (" +
                         std::to_string(scope.testrun) + ")")))
      return false;
  }
  return true;
}

// Indexes belong to the partition, so that one test run can be loaded without them beside others that have them.
bool postgresql_driver::make_indexes() {
  for (const table &t : tables())
    for (const table_index &index : t.indexes)
      if (!run(std::string("CREATE INDEX IF NOT EXISTS ") + index.name + "_" + std::to_string(scope.testrun) + " ON " +
               partition_of(t, scope.testrun) + " (testrun, " + index.columns + ")"))
        return false;
  return true;
}

// --- opening ----------------------------------------------------------------------------------------------------------

bool postgresql_driver::read_positions(load_state *state) {
  const postgresql_result rows = link.run("SELECT path, file, inode, taken, row_count, rejected, mended FROM " +
                                          partition_of(table_of(TQDB_LOAD_POSITION), scope.testrun) +
                                          " WHERE node = " + std::to_string(scope.node));
  if (!rows)
    return false;
  for (int i = 0; i < PQntuples(rows.get()); ++i) {
    const auto number = [&](int column) { return strtoll(PQgetvalue(rows.get(), i, column), nullptr, 10); };
    state->positions[PQgetvalue(rows.get(), i, 0)] = {
        static_cast<int32_t>(number(1)), static_cast<uint64_t>(number(2)), number(3), number(4), number(5), number(6)};
  }
  return true;
}

open_result postgresql_driver::open(const load_scope &for_whom, load_state *state) {
  *state = {};
  scope = for_whom;
  in_unit = false;
  has_stage = {};
  if (!link.open(url, "tqu_db_upload") || !run("SET maintenance_work_mem = '128MB'"))
    return not_opened();
  int64_t locked = 0;
  if (!link.number(
          wllb_format("SELECT pg_try_advisory_lock(%" PRId32 ", %" PRId32 ")::integer", scope.testrun, scope.node),
          &locked))
    return not_opened();
  if (!locked) {
    link.close();
    error_text = "another loader works on this test run";
    return TQDB_IN_USE;
  }
  return migrate() && read_positions(state) ? TQDB_READY : not_opened();
}

take_result postgresql_driver::begin_loading(bool bulk) {
  return bulk || make_indexes() ? TQDB_TAKEN : failed();
}

// --- a unit -----------------------------------------------------------------------------------------------------------

bool postgresql_driver::begin_unit() {
  if (in_unit)
    return true;
  staged = {};
  in_unit = run("BEGIN");
  return in_unit;
}

bool postgresql_driver::copy_into(const std::string &name, const row_batch &rows) {
  const postgresql_result begun(
      PQexec(link.conn, ("COPY " + name + " (" + all_columns(table_of(rows.table)) + ") FROM STDIN BINARY").c_str()));
  if (!link.judge(begun.get()))
    return false;
  buffer.clear();
  begin_binary_copy(&buffer);
  bool sent = true;
  for (size_t row = 0; row < rows.rows() && sent;) {
    const size_t from = row;
    for (size_t bytes = buffer.size(); row < rows.rows() && bytes < copy_bytes; ++row)
      bytes += rows.width * 8;
    append_binary_rows(rows, from, row, scope.testrun, scope.node, &buffer);
    sent = PQputCopyData(link.conn, buffer.data(), static_cast<int>(buffer.size())) == 1;
    buffer.clear();
  }
  end_binary_copy(&buffer);
  sent = sent && PQputCopyData(link.conn, buffer.data(), static_cast<int>(buffer.size())) == 1 &&
         PQputCopyEnd(link.conn, nullptr) == 1;
  const postgresql_result ended(sent ? PQgetResult(link.conn) : nullptr);
  if (!link.judge(ended.get()))
    return false;
  const postgresql_result no_more(PQgetResult(link.conn));
  return true;
}

take_result postgresql_driver::add(const row_batch &rows) {
  const table &t = table_of(rows.table);
  if (rows.rows() == 0)
    return TQDB_TAKEN;
  if (!begin_unit())
    return failed();
  if (goes_straight_in(t))
    return copy_into(partition_of(t, scope.testrun), rows) ? TQDB_TAKEN : failed();
  const std::string stage = std::string("stage_") + t.name;
  if (!has_stage[rows.table] &&
      !run("CREATE TEMPORARY TABLE IF NOT EXISTS " + stage + " (LIKE " + t.name + ") ON COMMIT DELETE ROWS"))
    return failed();
  has_stage[rows.table] = staged[rows.table] = true;
  return copy_into(stage, rows) ? TQDB_TAKEN : failed();
}

// A sum stays at the end of its range rather than stopping the loader: agents' numbers are not checked.
static std::string added(const std::string &sum, column_type type) {
  return type == TQDB_I64 ? "least(greatest(" + sum + ", -9223372036854775808), 9223372036854775807)" : sum;
}

static std::string merged_column(const column &c) {
  const std::string here = std::string("here.") + c.name;
  std::string there = std::string("excluded.") + c.name;
  switch (c.role) {
  case TQDB_ADD:
    return added(here + (c.type == TQDB_I64 ? "::numeric + " : " + ") + there, c.type);
  case TQDB_MIN:
    return "least(" + here + ", " + there + ")";
  case TQDB_MAX:
    return "greatest(" + here + ", " + there + ")";
  default:
    return there;
  }
}

// The rows of a stage with one row for each key: the last one of a name, the sum of sums.
static std::string staged_rows(const table &t) {
  const std::string from = std::string(" FROM stage_") + t.name + " ";
  if (t.kind != TQDB_SUM)
    return "SELECT DISTINCT ON (" + key_columns(t) + ") " + all_columns(t) + from + "ORDER BY " + key_columns(t) +
           ", ctid DESC";
  std::string columns = key_columns(t);
  for (const column &c : t.columns) {
    if (c.role == TQDB_ADD)
      columns += ", " + added(std::string("sum(") + c.name + ")", c.type);
    else if (c.role != TQDB_KEY)
      columns += std::string(c.role == TQDB_MIN ? ", min(" : ", max(") + c.name + ")";
  }
  return "SELECT " + columns + from + "GROUP BY " + key_columns(t);
}

bool postgresql_driver::merge_stage(const table &t) {
  std::string changes;
  for (const column &c : t.columns)
    if (c.role != TQDB_KEY)
      changes += (changes.empty() ? "" : ", ") + std::string(c.name) + " = " + merged_column(c);
  return run("INSERT INTO " + partition_of(t, scope.testrun) + " AS here (" + all_columns(t) + ") " + staged_rows(t) +
             " ON CONFLICT (" + key_columns(t) + ") DO " + (changes.empty() ? "NOTHING" : "UPDATE SET " + changes));
}

take_result postgresql_driver::commit(const load_positions &changed) {
  if (!begin_unit())
    return failed();
  row_batch positions(TQDB_LOAD_POSITION);
  for (const auto &[path, position] : changed) {
    if (position.taken < 0 && !link.run("DELETE FROM load_position WHERE testrun = $1 AND node = $2 AND path = $3",
                                        std::array{std::to_string(scope.testrun), std::to_string(scope.node), path}))
      return failed();
    if (position.taken < 0)
      continue;
    positions.row({});
    positions.text(path);
    positions.integer(position.file);
    positions.integer(static_cast<int64_t>(position.inode));
    for (const int64_t number : {position.taken, position.rows, position.rejected, position.mended})
      positions.integer(number);
  }
  if (add(positions) != TQDB_TAKEN) // its words and state stand
    return link.trouble == POSTGRESQL_LASTING ? TQDB_BROKEN : TQDB_AWAY;
  for (size_t id = 0; id < TQDB_TABLES; ++id)
    if (staged[id] && !merge_stage(tables()[id]))
      return failed();
  if (!run("COMMIT"))
    return failed();
  in_unit = false;
  return TQDB_TAKEN;
}

void postgresql_driver::roll_back() {
  if (in_unit)
    run("ROLLBACK");
  in_unit = false;
}

take_result postgresql_driver::finish() {
  if (!make_indexes())
    return failed();
  for (const table &t : tables()) // the planner knows nothing of new rows until then
    if (!run("ANALYZE " + partition_of(t, scope.testrun)))
      return failed();
  return TQDB_TAKEN;
}

// --- removing ---------------------------------------------------------------------------------------------------------

take_result postgresql_driver::drop_testrun(int32_t testrun, int32_t node) {
  roll_back();
  if (!run("BEGIN"))
    return failed();
  for (const table &t : tables()) {
    const std::string name = partition_of(t, testrun);
    int64_t exists = 0;
    if (!link.number("SELECT (to_regclass(" + postgresql_literal(name) + ") IS NOT NULL)::integer", &exists))
      return failed();
    if (exists &&
        !run(node < 0 ? "DROP TABLE " + name : "DELETE FROM " + name + " WHERE node = " + std::to_string(node)))
      return failed();
  }
  return run("COMMIT") ? TQDB_TAKEN : failed();
}

take_result postgresql_driver::drop_before(int64_t time_ms) {
  roll_back();
  std::string left; // whether a test run has rows with a time
  for (const table &t : tables()) {
    const column *time = time_column(t);
    if (!time)
      continue;
    if (!run(wllb_format("DELETE FROM %s WHERE %s < %" PRId64, t.name, time->name, time_ms)))
      return failed();
    left +=
        wllb_format("%s EXISTS (SELECT 1 FROM %s t WHERE t.testrun = n.testrun)", left.empty() ? "" : " OR", t.name);
  }
  const postgresql_result empty = link.run("SELECT DISTINCT testrun FROM node n WHERE NOT (" + left + ")");
  if (!empty)
    return failed();
  for (int i = 0; i < PQntuples(empty.get()); ++i)
    if (const take_result one = drop_testrun(atoi(PQgetvalue(empty.get(), i, 0)), -1); one != TQDB_TAKEN)
      return one;
  return TQDB_TAKEN;
}

std::unique_ptr<load_driver> make_postgresql_driver(const load_target &target) {
  return std::make_unique<postgresql_driver>(target);
}

} // namespace tqdb
