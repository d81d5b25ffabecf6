// What brings rows into a database: the one interface between the loader and an engine.
//   In      units: rows of several tables, and the positions in the files after them
//   Out     both or neither in the database
//   Thread  one, the loader's
//   Failure by return value, with words for a person; nothing here ends the process
//
// The life of a driver:
//   open()                     connects, runs migrations, makes sure that no second loader works on the pair, reads positions
//   add() ... add() commit()   one unit; may be repeated. Only commit() makes rows and positions last
//   open()                     again after TQDB_AWAY from any call: connects anew and reads back what is there
//   finish()                   after the last unit of a finished run
#pragma once

#include "tqdb_rows.h"
#include "tqdb_target.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tqdb {

// For whom a loader works.
struct load_scope {
  int32_t testrun = 0;
  int32_t node = 0;
  std::string run_dir; // "<work dir>/logs/TR<n>"
};

// How far a file has been brought in.
struct load_position {
  int32_t file = 0;     // number of the path in this test run and node, from 1; given by the loader, never used again
  uint64_t inode = 0;   // tells a file that was renamed from the one that took its name
  int64_t taken = 0;    // bytes
  int64_t rows = 0;     // rows of the file so far, rejected ones included
  int64_t rejected = 0; // of them
  int64_t mended = 0;   // rows in which bytes became U+FFFD
};

using load_positions = std::map<std::string, load_position, std::less<>>; // by path below the run's directory

// A part of a file in a unit that was not brought in to its end. An engine without transactions gives these at open(), and
// the loader's next unit then holds exactly these parts, so that sums come out the same.
struct load_span {
  std::string path;
  int64_t from = 0, to = 0; // bytes
};

enum open_result : uint8_t {
  TQDB_READY,
  TQDB_IN_USE,    // another loader works on this test run and node: ask again later
  TQDB_NOT_THERE, // the server does not answer, the disk is full: ask again later
  TQDB_REFUSED    // for good: a newer schema, no such database, no right to it
};

enum take_result : uint8_t {
  TQDB_TAKEN,
  TQDB_AWAY,  // full disk, lost connection, server going down: nothing of the unit may be taken for granted. The loader
              // waits, calls open() and goes on from the positions that it gives
  TQDB_BROKEN // for good
};

struct load_state {
  load_positions positions;
  std::vector<load_span> unfinished;
};

struct load_driver {
  load_driver() = default;
  virtual ~load_driver() = default;
  load_driver(const load_driver &) = delete;
  load_driver &operator=(const load_driver &) = delete;

  // See above. `state` is overwritten. Gives up an open unit.
  virtual open_result open(const load_scope &scope, load_state *state) = 0;

  // Tells how loading is going to be: `bulk`, a finished run, into a database where the driver may delay indexes until
  // finish() if the tables are empty. Called after open(), before the first unit, and again after each further open().
  virtual take_result begin_loading(bool bulk) = 0;

  // An engine without transactions notes a unit before its rows: where announces() is true, announce() comes before the
  // first add() of each unit, with all parts of files that the unit is going to have.
  virtual bool announces() const { return false; }

  virtual take_result announce(const std::vector<load_span> & /*spans*/) { return TQDB_TAKEN; }

  // Rows of any table but load_position, as part of the unit. The batch can be cleared afterwards.
  virtual take_result add(const row_batch &rows) = 0;

  // Ends the unit: `changed` positions, all of the unit's rows, or neither. A position with `taken` -1 is removed (a file
  // that was renamed is removed under its old name and changed under its new one, in one unit).
  virtual take_result commit(const load_positions &changed) = 0;

  // Waits for what add() and commit() may have left to another thread.
  virtual take_result settle() { return TQDB_TAKEN; }

  // Gives up the unit.
  virtual void roll_back() = 0;

  // Makes what begin_loading() has delayed; brings an engine's own upkeep up to date.
  virtual take_result finish() = 0;

  // Removes all rows of the scope (all tables) or, with `node` -1, of the whole test run.
  virtual take_result drop_testrun(int32_t testrun, int32_t node) = 0;

  // Removes the FACT rows, and the SUM rows by minute, before this time (ms since 1970), of all test runs. Names and other sums
  // stay until the test run is dropped.
  virtual take_result drop_before(int64_t time_ms) = 0;

  // How many bytes of files a unit should have: large ones for few and cheap commits, small ones for low memory and little
  // to repeat.
  virtual int64_t unit_bytes(bool bulk) const = 0;

  // Why the last call did not succeed: one line that names the place, never a password.
  const std::string &error() const { return error_text; }

protected:
  std::string error_text;
};

// The driver for a target. Null, with *error, when this build has none for its engine.
std::unique_ptr<load_driver> make_driver(const load_target &target, std::string *error);

// Each engine's own; null when its library was missing at build time.
std::unique_ptr<load_driver> make_sqlite_driver(const load_target &target);
std::unique_ptr<load_driver> make_postgresql_driver(const load_target &target);
std::unique_ptr<load_driver> make_clickhouse_driver(const load_target &target);
// Writes "<run_dir>/tq/logs/tqu_db_upload.journal", a line for each part of a file, and nothing else.
std::unique_ptr<load_driver> make_journal_driver(const load_target &target);

} // namespace tqdb
