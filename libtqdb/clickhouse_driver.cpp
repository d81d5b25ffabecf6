// The driver for ClickHouse, which has no transactions: rows by column blocks, positions last.
//   In      units of the loader
//   Out     rows; after all of them one block of positions, which is stored whole or not at all
//   Thread  one
//   Failure by return value; open() removes what a unit without its positions has left
// Each row carries the number of the unit that brought it. A unit counts when its positions are there, under its number. A
// loader that begins to work waits until the server has ended every statement of the one before, and removes the rows of
// units that do not count; then it goes on with numbers that were never used. Should a block of a former loader arrive even
// later, its unit's number lies in a gap, and the rows go at the next opening or at the end of the run. Rows of names need
// none of this: the same row comes again.
// In a cluster, facts are spread over the shards by flowpath number; all else is on one shard, the home of the test run's
// node. A lock on a file of the test run keeps a second loader out.
#include "clickhouse_blocks.h"
#include "clickhouse_http.h"
#include "clickhouse_schema.h"
#include "tqdb_driver.h"
#include "tqdb_lock.h"
#include "tqdb_statements.h"

#include "wllb_util.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <ctime>
#include <poll.h>

namespace tqdb {

namespace {

constexpr size_t block_bytes = 8 << 20;     // of a block that is sent before its unit ends
constexpr uint64_t session_units = 1 << 20; // between the numbers of two loaders
constexpr int roll_up_units = 500;
constexpr int settle_seconds = 60; // for statements of a former loader, and for deletions

struct clickhouse_driver final : load_driver {
  load_target target;
  clickhouse_login login;
  load_scope scope;
  wllb_fd lock;
  std::vector<std::unique_ptr<clickhouse_server>> servers; // shards in their order; one without a cluster
  std::vector<std::vector<clickhouse_block>> blocks;       // by server and table
  uint64_t unit = 0;                                       // the next one's number
  uint64_t committed = 0;
  std::vector<std::pair<uint64_t, uint64_t>> gaps; // numbers between these two were never committed
  int units_until_roll_up = roll_up_units;
  bool dirty = false; // rows of the open unit are in the database

  explicit clickhouse_driver(const load_target &to) : target(to) {}

  open_result open(const load_scope &for_whom, load_state *state) override;
  take_result begin_loading(bool bulk) override;
  take_result add(const row_batch &rows) override;
  take_result commit(const load_positions &changed) override;
  void roll_back() override;
  take_result finish() override;
  take_result drop_testrun(int32_t testrun, int32_t node) override;
  take_result drop_before(int64_t time_ms) override;

  int64_t unit_bytes(bool bulk) const override { return bulk ? 32 << 20 : 8 << 20; }

private:
  clickhouse_server &home();

  bool clustered() const { return !target.cluster.empty(); }

  std::string storage(const table &t) const { return clickhouse_storage(t, clustered()); }

  std::string of_scope() const;
  std::string query_id() const;
  take_result failed(const clickhouse_server &server);
  open_result not_opened(const clickhouse_server &server);
  open_result find_shards();
  open_result migrate(clickhouse_server *server);
  bool settle_units(clickhouse_server *server);
  bool read_positions(clickhouse_server *server, std::map<std::string, std::pair<uint64_t, load_position>> *newest);
  bool read_gaps(clickhouse_server *server);
  std::string never_committed() const;
  bool remove_uncommitted(clickhouse_server *server);
  bool remove_rows(clickhouse_server *server, const std::vector<std::pair<std::string, std::string>> &tables_and_rows);
  bool send(size_t server, size_t id);
  bool roll_up(clickhouse_server *server, const table &t);
  take_result roll_up_all();
  bool drop_partitions(clickhouse_server *server, int32_t testrun, int32_t node);
};

} // namespace

// --- outcomes ---------------------------------------------------------------------------------------------------------

take_result clickhouse_driver::failed(const clickhouse_server &server) {
  error_text = server.error;
  return server.trouble == CLICKHOUSE_LASTING ? TQDB_BROKEN : TQDB_AWAY;
}

open_result clickhouse_driver::not_opened(const clickhouse_server &server) {
  return failed(server) == TQDB_BROKEN ? TQDB_REFUSED : TQDB_NOT_THERE;
}

static std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty())
    lines.push_back(wllb_take_piece(&text, '\n'));
  return lines;
}

static uint64_t unsigned_of(const std::string &text) {
  return strtoull(text.c_str(), nullptr, 10);
}

static int64_t signed_of(const std::string &text) {
  return strtoll(text.c_str(), nullptr, 10);
}

// --- servers ----------------------------------------------------------------------------------------------------------

// Positions are read from all servers, so that a cluster can grow.
clickhouse_server &clickhouse_driver::home() {
  const uint32_t number = static_cast<uint32_t>(scope.testrun) * 31 + static_cast<uint32_t>(scope.node);
  return *servers[number % servers.size()];
}

std::string clickhouse_driver::of_scope() const {
  return wllb_format("testrun = %" PRId32 " AND node = %" PRId32, scope.testrun, scope.node);
}

std::string clickhouse_driver::query_id() const {
  return wllb_format("tqu-%" PRId32 "-%" PRId32 "-", scope.testrun, scope.node);
}

// The server of the URL knows the cluster's shards; each one's HTTP interface has the URL's port.
open_result clickhouse_driver::find_shards() {
  servers.clear();
  servers.push_back(std::make_unique<clickhouse_server>(target.host, target.port, login));
  if (!clustered())
    return TQDB_READY;
  std::string answer;
  if (!servers[0]->run("SELECT host_name FROM system.clusters WHERE cluster = " + clickhouse_literal(target.cluster) +
                           " AND replica_num = 1 ORDER BY shard_num",
                       &answer))
    return not_opened(*servers[0]);
  servers.clear();
  for (const std::string_view host : lines_of(answer))
    servers.push_back(std::make_unique<clickhouse_server>(clickhouse_cell(host), target.port, login));
  if (!servers.empty())
    return TQDB_READY;
  error_text = target.host + ": the server knows no cluster '" + target.cluster + "'";
  return TQDB_REFUSED;
}

open_result clickhouse_driver::migrate(clickhouse_server *server) {
  std::string answer;
  if (!server->run("SELECT count() FROM system.databases WHERE name = " + clickhouse_literal(target.database),
                   &answer) ||
      (signed_of(answer) == 0 && !server->run("CREATE DATABASE IF NOT EXISTS `" + target.database + "`")))
    return not_opened(*server);
  server->database = target.database;
  // Two loaders may make the same tables at once: each statement does nothing where its table is there.
  if (!server->run(
          "CREATE TABLE IF NOT EXISTS schema_version (version Int32) ENGINE = ReplacingMergeTree() ORDER BY version") ||
      !server->run("SELECT max(version) FROM schema_version", &answer))
    return not_opened(*server);
  const int64_t found = signed_of(answer);
  if (found > schema_version) {
    error_text = server->host + wllb_format(": the database has schema %" PRId64 ", newer than this program's (%d)",
                                            found, schema_version);
    return TQDB_REFUSED;
  }
  for (int version = static_cast<int>(found) + 1; version <= schema_version; ++version) {
    for (const std::string &sql : clickhouse_migration(version, target.database, target.cluster))
      if (!server->run(sql))
        return not_opened(*server);
    if (!server->run("INSERT INTO schema_version VALUES (" + std::to_string(version) + ")"))
      return not_opened(*server);
  }
  return TQDB_READY;
}

// Waits until the server does nothing more for a loader that was here before. What it had received whole it may still store.
bool clickhouse_driver::settle_units(clickhouse_server *server) {
  const std::string ours = "startsWith(query_id, " + clickhouse_literal(query_id()) + ")";
  const time_t limit = time(nullptr) + settle_seconds;
  std::string answer;
  while (server->run("SELECT count() FROM system.processes WHERE " + ours, &answer)) {
    if (signed_of(answer) == 0)
      return true;
    if (!server->run("KILL QUERY WHERE " + ours))
      return false;
    if (time(nullptr) > limit) {
      server->error = server->host + ": a statement of a former loader does not end";
      server->trouble = CLICKHOUSE_PASSING;
      return false;
    }
    poll(nullptr, 0, 20);
  }
  return false;
}

// --- opening ----------------------------------------------------------------------------------------------------------

bool clickhouse_driver::read_positions(clickhouse_server *server,
                                       std::map<std::string, std::pair<uint64_t, load_position>> *newest) {
  std::string answer;
  if (!server->run(
          "SELECT load_unit, file, inode, taken, row_count, rejected, mended, path FROM load_position_local WHERE " +
              of_scope(),
          &answer))
    return false;
  for (const std::string_view line : lines_of(answer)) {
    const std::vector<std::string> cells = clickhouse_cells(line);
    if (cells.size() != 8)
      continue;
    const uint64_t number = unsigned_of(cells[0]);
    auto &[known, position] = (*newest)[cells[7]];
    committed = std::max(committed, number);
    if (number < known)
      continue;
    known = number;
    position = {static_cast<int32_t>(signed_of(cells[1])),
                static_cast<uint64_t>(signed_of(cells[2])),
                signed_of(cells[3]),
                signed_of(cells[4]),
                signed_of(cells[5]),
                signed_of(cells[6])};
  }
  return true;
}

bool clickhouse_driver::read_gaps(clickhouse_server *server) {
  std::string answer;
  if (!server->run("SELECT first_unit, after_unit FROM load_session WHERE " + of_scope() +
                       " ORDER BY first_unit DESC LIMIT 20",
                   &answer))
    return false;
  for (const std::string_view line : lines_of(answer)) {
    const std::vector<std::string> cells = clickhouse_cells(line);
    if (cells.size() != 2)
      continue;
    unit = std::max(unit, unsigned_of(cells[0]));
    gaps.emplace_back(unsigned_of(cells[1]), unsigned_of(cells[0]));
  }
  return true;
}

// Deletes rows and waits until they are gone: (table, condition) each.
bool clickhouse_driver::remove_rows(clickhouse_server *server,
                                    const std::vector<std::pair<std::string, std::string>> &tables_and_rows) {
  std::string count, answer;
  for (const auto &[name, rows] : tables_and_rows)
    count += wllb_format("%sSELECT '%s' AS name, count() AS n FROM %s WHERE %s", count.empty() ? "" : " UNION ALL ",
                         name.c_str(), name.c_str(), rows.c_str());
  if (count.empty() || !server->run("SELECT name FROM (" + count + ") WHERE n > 0", &answer))
    return count.empty();
  if (answer.empty())
    return true;
  for (const std::string_view name : lines_of(answer)) {
    const auto at =
        std::find_if(tables_and_rows.begin(), tables_and_rows.end(), [&](const auto &t) { return t.first == name; });
    if (at != tables_and_rows.end() && !server->run("ALTER TABLE " + at->first + " DELETE WHERE " + at->second))
      return false;
  }
  const time_t limit = time(nullptr) + settle_seconds;
  while (server->run("SELECT count() FROM system.mutations WHERE database = " + clickhouse_literal(target.database) +
                         " AND is_done = 0",
                     &answer)) {
    if (signed_of(answer) == 0)
      return true;
    if (time(nullptr) > limit) {
      server->error = server->host + ": the server does not end the removal of rows";
      server->trouble = CLICKHOUSE_PASSING;
      return false;
    }
    poll(nullptr, 0, 20);
  }
  return false;
}

// Units that do not count, as a condition.
std::string clickhouse_driver::never_committed() const {
  std::string units = "load_unit > " + std::to_string(committed);
  for (const auto &[after, before] : gaps)
    units += " OR (load_unit > " + std::to_string(after) + " AND load_unit < " + std::to_string(before) + ")";
  return units;
}

bool clickhouse_driver::remove_uncommitted(clickhouse_server *server) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (const table &t : tables())
    if (t.kind == TQDB_FACT || t.kind == TQDB_SUM)
      rows.emplace_back(storage(t), of_scope() + " AND (" + never_committed() + ")");
  return remove_rows(server, rows);
}

open_result clickhouse_driver::open(const load_scope &for_whom, load_state *state) {
  *state = {};
  scope = for_whom;
  committed = unit = 0;
  gaps.clear();
  dirty = false;
  if (!read_clickhouse_login(target.password_file, &login, &error_text))
    return TQDB_REFUSED;
  open_result result = take_load_lock(scope.run_dir + wllb_format("/tq/db/%s.%d.%s.%d.lock", target.host.c_str(),
                                                                  target.port, target.database.c_str(), scope.node),
                                      scope.run_dir, &lock, &error_text);
  if (result == TQDB_READY)
    result = find_shards();
  if (result != TQDB_READY)
    return result;
  std::map<std::string, std::pair<uint64_t, load_position>> newest;
  for (const auto &server : servers) {
    result = migrate(server.get());
    if (result != TQDB_READY)
      return result;
    if (!settle_units(server.get()) || !read_positions(server.get(), &newest) || !read_gaps(server.get()))
      return not_opened(*server);
  }
  for (const auto &server : servers)
    if (!remove_uncommitted(server.get()))
      return not_opened(*server);
  const uint64_t first = std::max(unit, committed) + session_units;
  unit = first;
  gaps.emplace_back(committed, first);
  if (!home().run("INSERT INTO load_session VALUES (" + std::to_string(scope.testrun) + ", " +
                  std::to_string(scope.node) + ", " + std::to_string(first) + ", " + std::to_string(committed) + ")"))
    return not_opened(home());
  for (const auto &[path, one] : newest)
    if (!path.empty() && one.second.taken >= 0)
      state->positions[path] = one.second;
  blocks.assign(servers.size(), {});
  for (auto &of_server : blocks)
    for (size_t id = 0; id < TQDB_TABLES; ++id)
      of_server.emplace_back(static_cast<table_id>(id));
  return TQDB_READY;
}

take_result clickhouse_driver::begin_loading(bool /*bulk*/) {
  return TQDB_TAKEN;
}

// --- a unit -----------------------------------------------------------------------------------------------------------

bool clickhouse_driver::send(size_t server, size_t id) {
  clickhouse_block &block = blocks[server][id];
  if (block.rows() == 0)
    return true;
  dirty = true;
  const table &t = tables()[id];
  const bool sent = servers[server]->insert(
      "INSERT INTO " + storage(t) + " (" + clickhouse_columns(t) + ") FORMAT Native",
      block.native({scope.testrun, scope.node, unit}), query_id() + std::to_string(unit) + "-" + t.name);
  block.clear();
  return sent;
}

// By whose number the rows of a table are spread over the shards; -1: they are not.
static int spread_column(const table &t) {
  return t.kind != TQDB_FACT ? -1 : std::max(column_number(t, "fpi"), column_number(t, "main_fpi"));
}

take_result clickhouse_driver::add(const row_batch &rows) {
  if (blocks.empty()) {
    error_text = "the unit was given up";
    return TQDB_AWAY;
  }
  const int by = servers.size() > 1 ? spread_column(table_of(rows.table)) : -1;
  const size_t at_home =
      (static_cast<uint32_t>(scope.testrun) * 31 + static_cast<uint32_t>(scope.node)) % servers.size();
  for (size_t row = 0; row < rows.rows(); ++row) {
    const uint64_t number = by < 0 ? 0 : static_cast<uint64_t>(rows.cells_of(row)[by]) * 0x9E3779B97F4A7C15U;
    blocks[by < 0 ? at_home : (number >> 32U) % servers.size()][rows.table].add(rows, row);
  }
  for (size_t server = 0; server < servers.size(); ++server)
    if (blocks[server][rows.table].bytes() > block_bytes && !send(server, rows.table))
      return failed(*servers[server]);
  return TQDB_TAKEN;
}

// Positions of the unit, and a row that is there for every unit.
take_result clickhouse_driver::commit(const load_positions &changed) {
  row_batch positions(TQDB_LOAD_POSITION);
  const auto put = [&](std::string_view path, const load_position &position) {
    positions.row({});
    positions.text(path);
    positions.integer(position.file);
    positions.integer(static_cast<int64_t>(position.inode));
    for (const int64_t number : {position.taken, position.rows, position.rejected, position.mended})
      positions.integer(number);
  };
  put("", {.taken = -1});
  for (const auto &[path, position] : changed)
    put(path, position);
  for (size_t server = 0; server < blocks.size(); ++server)
    for (size_t id = 0; id < TQDB_TABLES; ++id)
      if (!send(server, id))
        return failed(*servers[server]);
  if (const take_result added = add(positions); added != TQDB_TAKEN)
    return added;
  for (size_t server = 0; server < servers.size(); ++server)
    if (!send(server, TQDB_LOAD_POSITION))
      return failed(*servers[server]);
  dirty = false;
  committed = unit++;
  if (--units_until_roll_up > 0)
    return TQDB_TAKEN;
  units_until_roll_up = roll_up_units;
  return roll_up_all();
}

// What has been sent of the unit is removed by the next open(), without which there is no further unit.
void clickhouse_driver::roll_back() {
  if (dirty) {
    blocks.clear();
    return;
  }
  for (auto &of_server : blocks)
    for (clickhouse_block &block : of_server)
      block.clear();
}

// --- upkeep -----------------------------------------------------------------------------------------------------------

// Adds up the sums that units have brought, one row for each key. The parts are exchanged in one step.
bool clickhouse_driver::roll_up(clickhouse_server *server, const table &t) {
  const std::string name = storage(t),
                    made = name + wllb_format("_rolled_%" PRId32 "_%" PRId32, scope.testrun, scope.node);
  std::string answer;
  if (!server->run("DROP TABLE IF EXISTS " + made) ||
      !server->run("SELECT count() FROM " + name + " WHERE " + of_scope(), &answer))
    return false;
  if (signed_of(answer) == 0)
    return true;
  return server->run(clickhouse_storage_sql(t, made)) &&
         server->run("INSERT INTO " + made + " (" + clickhouse_columns(t) + ") " +
                     clickhouse_rolled_up(t, name, of_scope() + " AND NOT (" + never_committed() + ")")) &&
         server->run("ALTER TABLE " + name +
                     wllb_format(" REPLACE PARTITION (%" PRId32 ", %" PRId32 ") FROM ", scope.testrun, scope.node) +
                     made) &&
         server->run("DROP TABLE " + made);
}

take_result clickhouse_driver::roll_up_all() {
  for (const table &t : tables())
    if (t.kind == TQDB_SUM && !roll_up(&home(), t))
      return failed(home());
  return TQDB_TAKEN;
}

take_result clickhouse_driver::finish() {
  for (const auto &server : servers)
    if (!settle_units(server.get()) || !remove_uncommitted(server.get()))
      return failed(*server);
  return roll_up_all();
}

// --- removing ---------------------------------------------------------------------------------------------------------

bool clickhouse_driver::drop_partitions(clickhouse_server *server, int32_t testrun, int32_t node) {
  std::string answer;
  const std::string of = node < 0 ? wllb_format("startsWith(partition, '(%" PRId32 ",')", testrun)
                                  : wllb_format("partition IN ('(%d,%d)', '(%d, %d)')", testrun, node, testrun, node);
  if (!server->run("SELECT DISTINCT table, partition FROM system.parts WHERE active AND database = " +
                       clickhouse_literal(target.database) + " AND " + of,
                   &answer))
    return false;
  for (const std::string_view line : lines_of(answer)) {
    const std::vector<std::string> cells = clickhouse_cells(line);
    if (cells.size() == 2 && !server->run("ALTER TABLE `" + cells[0] + "` DROP PARTITION " + cells[1]))
      return false;
  }
  return true;
}

take_result clickhouse_driver::drop_testrun(int32_t testrun, int32_t node) {
  roll_back();
  for (const auto &server : servers)
    if (!drop_partitions(server.get(), testrun, node))
      return failed(*server);
  return TQDB_TAKEN;
}

take_result clickhouse_driver::drop_before(int64_t time_ms) {
  roll_back();
  std::vector<std::pair<std::string, std::string>> rows;
  for (const table &t : tables())
    if (const column *time = time_column(t))
      rows.emplace_back(storage(t), wllb_format("%s < %" PRId64, time->name, time_ms));
  for (const auto &server : servers)
    if (!remove_rows(server.get(), rows))
      return failed(*server);
  // Test runs that have no row with a time on any server.
  std::map<int32_t, bool> has_rows;
  for (const auto &server : servers) {
    std::string sql = "SELECT DISTINCT testrun, 0 FROM node_local", answer;
    for (const table &t : tables())
      if (time_column(t))
        sql += " UNION ALL SELECT DISTINCT testrun, 1 FROM " + storage(t);
    if (!server->run(sql, &answer))
      return failed(*server);
    for (const std::string_view line : lines_of(answer))
      if (const std::vector<std::string> cells = clickhouse_cells(line); cells.size() == 2)
        has_rows[static_cast<int32_t>(signed_of(cells[0]))] |= cells[1] == "1";
  }
  for (const auto &[testrun, has] : has_rows)
    if (const take_result one = has ? TQDB_TAKEN : drop_testrun(testrun, -1); one != TQDB_TAKEN)
      return one;
  return TQDB_TAKEN;
}

std::unique_ptr<load_driver> make_clickhouse_driver(const load_target &target) {
  return std::make_unique<clickhouse_driver>(target);
}

} // namespace tqdb
