// The SQLite driver: one file, one transaction a unit, prepared statements made from the table of tables.
//   In      units of rows; the path of the database
//   Out     the file in WAL mode; beside it "<file>.<testrun>.<node>.lock", which keeps a second loader out
//   Thread  one
//   Failure a full disk, a locked file or an I/O error is TQDB_AWAY: the connection is closed and opened anew; the rest is for
//           good. An unfinished transaction is undone by SQLite at the next opening
#include "tqdb_sqlite.h"
#include "tqdb_driver.h"
#include "tqdb_lock.h"
#include "tqdb_statements.h"
#include "tqdb_views.h"

#include "wllb_util.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace tqdb {

// --- handles ----------------------------------------------------------------------------------------------------

void sqlite_closer::operator()(sqlite3 *db) const {
  sqlite3_close_v2(db);
}

void sqlite_closer::operator()(sqlite3_stmt *statement) const {
  sqlite3_finalize(statement);
}

bool sqlite_is_newer(sqlite3 *db, int *version) {
  *version = 0;
  sqlite_statement s = sqlite_prepare(db, "SELECT max(version) FROM schema_version");
  if (s && sqlite3_step(s.get()) == SQLITE_ROW)
    *version = sqlite3_column_int(s.get(), 0);
  return *version > schema_version;
}

sqlite_statement sqlite_prepare(sqlite3 *db, std::string_view sql) {
  sqlite3_stmt *made = nullptr;
  sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &made, nullptr);
  return sqlite_statement(made);
}

namespace {

// Types of SQLite: what is stored takes as little room as the value needs.
constexpr sql_types sqlite_types = {{"INTEGER", "INTEGER", "INTEGER", "INTEGER", "REAL", "TEXT", "BLOB"}};

struct sqlite_driver final : load_driver {
  load_target target;
  load_scope scope;
  wllb_fd lock;
  std::array<sqlite_statement, TQDB_TABLES> inserts; // closed before the database
  sqlite_handle db;
  bool in_unit = false;

  explicit sqlite_driver(const load_target &to) : target(to) {}

  ~sqlite_driver() override { close_all(); }

  open_result open(const load_scope &of, load_state *state) override;
  take_result begin_loading(bool bulk) override;
  take_result add(const row_batch &rows) override;
  take_result commit(const load_positions &changed) override;
  void roll_back() override;
  take_result finish() override;
  take_result drop_testrun(int32_t testrun, int32_t node) override;
  take_result drop_before(int64_t time_ms) override;

  int64_t unit_bytes(bool bulk) const override { return bulk ? 48 << 20 : 4 << 20; }

private:
  void close_all();
  open_result lock_scope();
  open_result connect_file();
  open_result migrate();
  bool read_positions(load_positions *positions);
  bool run(std::string_view sql);
  take_result failed(const char *doing);
  take_result make_indexes();
  take_result begin_unit();
  sqlite3_stmt *insert_of(table_id id);
  bool bind_row(sqlite3_stmt *s, const row_batch &rows, size_t row) const;
  bool put_position(const std::string &path, const load_position &p);
};

} // namespace

void sqlite_driver::close_all() {
  in_unit = false;
  for (sqlite_statement &s : inserts)
    s.reset();
  db.reset();
}

// Whether waiting may help.
static bool is_passing(int code) {
  switch (code & 0xff) {
  case SQLITE_FULL:
  case SQLITE_IOERR:
  case SQLITE_BUSY:
  case SQLITE_LOCKED:
  case SQLITE_CANTOPEN:
  case SQLITE_NOMEM:
  case SQLITE_PROTOCOL:
    return true;
  default:
    return false;
  }
}

take_result sqlite_driver::failed(const char *doing) {
  const int code = db ? sqlite3_extended_errcode(db.get()) : SQLITE_NOMEM;
  error_text = target.path + ": " + doing + ": " + (db ? sqlite3_errmsg(db.get()) : "out of memory");
  if (!is_passing(code))
    return TQDB_BROKEN;
  close_all();
  return TQDB_AWAY;
}

bool sqlite_driver::run(std::string_view sql) {
  return sqlite3_exec(db.get(), std::string(sql).c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// --- opening ----------------------------------------------------------------------------------------------------

open_result sqlite_driver::lock_scope() {
  return take_load_lock(target.path + wllb_format(".%d.%d.lock", scope.testrun, scope.node), scope.run_dir, &lock,
                        &error_text);
}

open_result sqlite_driver::connect_file() {
  // A link in the file's place is not followed: the loader may run with more rights than whoever made it.
  wllb_fd file(wllb_open_plain(target.path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW));
  if (file.fd < 0) {
    error_text = target.path + ": " + wllb_strerror(errno);
    return errno == ENOSPC ? TQDB_NOT_THERE : TQDB_REFUSED;
  }
  own_as(file.fd, scope.run_dir);
  sqlite3 *opened = nullptr;
  const int code = sqlite3_open_v2(target.path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  db.reset(opened);
  if (code != SQLITE_OK || !db)
    return failed("opening") == TQDB_AWAY ? TQDB_NOT_THERE : TQDB_REFUSED;
  sqlite3_busy_timeout(db.get(), 5000);
  // NORMAL in WAL mode: a crash of the machine can lose the last units, with their positions; they are loaded again.
  if (!run(
          "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -16384; "
          "PRAGMA temp_store = FILE; PRAGMA threads = 2; PRAGMA wal_autocheckpoint = 4000"))
    return failed("setting up") == TQDB_AWAY ? TQDB_NOT_THERE : TQDB_REFUSED;
  return TQDB_READY;
}

open_result sqlite_driver::migrate() {
  bool good = run("BEGIN IMMEDIATE; CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL PRIMARY KEY)");
  int version = 0;
  if (good && sqlite_is_newer(db.get(), &version)) {
    run("ROLLBACK");
    error_text =
        target.path + wllb_format(": its schema has version %d, this program knows up to %d", version, schema_version);
    return TQDB_REFUSED;
  }
  if (good && version < 1) {
    for (const table &t : tables())
      good = good && run(create_table_sql(t, sqlite_types, t.kind == TQDB_FACT ? "" : " WITHOUT ROWID"));
    for (const view &v : views())
      good = good && run("CREATE VIEW " + std::string(v.name) + " AS " + view_sql(v, TQDB_SQLITE));
    good = good && run("INSERT INTO schema_version VALUES (1)");
  }
  if (good && run("COMMIT"))
    return TQDB_READY;
  return failed("making tables") == TQDB_AWAY ? TQDB_NOT_THERE : TQDB_REFUSED;
}

bool sqlite_driver::read_positions(load_positions *positions) {
  const sqlite_statement s =
      sqlite_prepare(db.get(), "SELECT path, file, inode, taken, row_count, rejected, mended FROM "
                               "load_position WHERE testrun = ?1 AND node = ?2");
  if (!s)
    return false;
  sqlite3_bind_int(s.get(), 1, scope.testrun);
  sqlite3_bind_int(s.get(), 2, scope.node);
  int code;
  while ((code = sqlite3_step(s.get())) == SQLITE_ROW) {
    load_position p;
    p.file = sqlite3_column_int(s.get(), 1);
    p.inode = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 2));
    p.taken = sqlite3_column_int64(s.get(), 3);
    p.rows = sqlite3_column_int64(s.get(), 4);
    p.rejected = sqlite3_column_int64(s.get(), 5);
    p.mended = sqlite3_column_int64(s.get(), 6);
    (*positions)[std::string(sqlite_text(s.get(), 0))] = p;
  }
  return code == SQLITE_DONE;
}

open_result sqlite_driver::open(const load_scope &of, load_state *state) {
  close_all();
  scope = of;
  *state = {};
  open_result result = lock_scope();
  if (result == TQDB_READY)
    result = connect_file();
  if (result == TQDB_READY)
    result = migrate();
  if (result == TQDB_READY && !read_positions(&state->positions))
    result = failed("reading positions") == TQDB_AWAY ? TQDB_NOT_THERE : TQDB_REFUSED;
  return result;
}

// --- indexes ----------------------------------------------------------------------------------------------------

// Sorting takes as much memory as the cache, in each of its threads.
take_result sqlite_driver::make_indexes() {
  run("PRAGMA cache_size = -6144; PRAGMA shrink_memory");
  for (const table &t : tables())
    for (const table_index &index : t.indexes)
      if (!run(create_index_sql(t, index)))
        return failed("making indexes");
  run("PRAGMA cache_size = -16384");
  return TQDB_TAKEN;
}

// An empty table gets its indexes at the end of a finished run: sorted at once, they cost half. Until then nobody reads, so
// that a rollback journal will do: new pages are written once, not to the log first. It stays in WAL mode when somebody does.
take_result sqlite_driver::begin_loading(bool bulk) {
  if (!bulk)
    return make_indexes();
  run("PRAGMA journal_mode = TRUNCATE");
  return TQDB_TAKEN;
}

take_result sqlite_driver::finish() {
  const take_result made = make_indexes();
  if (made == TQDB_TAKEN && !run("PRAGMA optimize; PRAGMA journal_mode = WAL; PRAGMA wal_checkpoint(TRUNCATE)"))
    return failed("cleaning up");
  return made;
}

// --- units ------------------------------------------------------------------------------------------------------

take_result sqlite_driver::begin_unit() {
  if (in_unit)
    return TQDB_TAKEN;
  if (!db || !run("BEGIN IMMEDIATE"))
    return failed("beginning");
  in_unit = true;
  return TQDB_TAKEN;
}

sqlite3_stmt *sqlite_driver::insert_of(table_id id) {
  if (!inserts[id]) {
    const table &t = table_of(id);
    std::string sql = std::string("INSERT INTO ") + t.name + " (" + all_columns(t) + ") VALUES (?1, ?2";
    for (size_t i = 0; i < t.columns.size(); ++i)
      sql += ", ?" + std::to_string(i + 3);
    inserts[id] = sqlite_prepare(db.get(), sql + ")" + on_conflict_sql(t, "min", "max"));
    if (inserts[id]) { // they stay bound
      sqlite3_bind_int(inserts[id].get(), 1, scope.testrun);
      sqlite3_bind_int(inserts[id].get(), 2, scope.node);
    }
  }
  return inserts[id].get();
}

// Texts are bound where they lie: the batch outlives the step.
bool sqlite_driver::bind_row(sqlite3_stmt *s, const row_batch &rows, size_t row) const {
  const std::span<const column> columns = table_of(rows.table).columns;
  const int64_t *cell = rows.cells_of(row);
  int code = SQLITE_OK;
  for (size_t i = 0; i < columns.size(); ++i, ++cell) {
    const int at = static_cast<int>(i) + 3;
    if (is_integer(columns[i].type)) {
      code |= sqlite3_bind_int64(s, at, *cell);
    } else if (columns[i].type == TQDB_F64) {
      code |= sqlite3_bind_double(s, at, row_batch::real_of(*cell));
    } else {
      const std::string_view text = rows.text_of(*cell);
      const int size = static_cast<int>(text.size());
      code |= columns[i].type == TQDB_TEXT ? sqlite3_bind_text(s, at, text.data(), size, SQLITE_STATIC)
                                           : sqlite3_bind_blob(s, at, text.data(), size, SQLITE_STATIC);
    }
  }
  return code == SQLITE_OK;
}

take_result sqlite_driver::add(const row_batch &rows) {
  take_result result = begin_unit();
  if (result != TQDB_TAKEN)
    return result;
  sqlite3_stmt *s = insert_of(rows.table);
  if (!s)
    return failed("preparing");
  for (size_t row = 0; row < rows.rows(); ++row) {
    const bool good = bind_row(s, rows, row) && sqlite3_step(s) == SQLITE_DONE;
    if (sqlite3_reset(s) != SQLITE_OK || !good)
      return failed(table_of(rows.table).name);
  }
  return TQDB_TAKEN;
}

bool sqlite_driver::put_position(const std::string &path, const load_position &p) {
  if (p.taken < 0) {
    const sqlite_statement gone =
        sqlite_prepare(db.get(), "DELETE FROM load_position WHERE testrun = ?1 AND node = ?2 AND path = ?3");
    return gone && sqlite3_bind_int(gone.get(), 1, scope.testrun) == SQLITE_OK &&
           sqlite3_bind_int(gone.get(), 2, scope.node) == SQLITE_OK &&
           sqlite3_bind_text(gone.get(), 3, path.data(), static_cast<int>(path.size()), SQLITE_STATIC) == SQLITE_OK &&
           sqlite3_step(gone.get()) == SQLITE_DONE;
  }
  row_batch one(TQDB_LOAD_POSITION);
  one.row({});
  one.text(path);
  for (const int64_t number :
       {static_cast<int64_t>(p.file), static_cast<int64_t>(p.inode), p.taken, p.rows, p.rejected, p.mended})
    one.integer(number);
  return add(one) == TQDB_TAKEN;
}

take_result sqlite_driver::commit(const load_positions &changed) {
  take_result result = begin_unit();
  for (auto at = changed.begin(); result == TQDB_TAKEN && at != changed.end(); ++at)
    if (!put_position(at->first, at->second))
      return failed("positions");
  if (result == TQDB_TAKEN && !run("COMMIT"))
    return failed("committing");
  in_unit = false;
  return result;
}

void sqlite_driver::roll_back() {
  if (in_unit)
    run("ROLLBACK");
  in_unit = false;
}

// --- removing ---------------------------------------------------------------------------------------------------

take_result sqlite_driver::drop_testrun(int32_t testrun, int32_t node) {
  take_result result = begin_unit();
  for (const table &t : tables())
    if (result == TQDB_TAKEN &&
        !run(wllb_format("DELETE FROM %s WHERE testrun = %d AND (%d = -1 OR node = %d)", t.name, testrun, node, node)))
      result = failed(t.name);
  return result == TQDB_TAKEN ? commit({}) : result;
}

take_result sqlite_driver::drop_before(int64_t time_ms) {
  take_result result = begin_unit();
  for (const table &t : tables()) {
    const column *time = time_column(t);
    if (result == TQDB_TAKEN && time &&
        !run(wllb_format("DELETE FROM %s WHERE %s < %lld", t.name, time->name, static_cast<long long>(time_ms))))
      result = failed(t.name);
  }
  return result == TQDB_TAKEN ? commit({}) : result;
}

std::unique_ptr<load_driver> make_sqlite_driver(const load_target &target) {
  return std::make_unique<sqlite_driver>(target);
}

} // namespace tqdb
