// Typed records of the reading library into rows of tables, and the sums over them.
//   In      pieces of row files; the sequence blob files that they point into
//   Out     batches of rows, one for each table; sums
//   Thread  the loader's
//   Failure a bad row goes to load_reject with its place and the reason; the next one follows
// Columns of the same name are copied by a plan that is made once from both tables of columns; what has no counterpart is put by
// the function of its table.
#pragma once

#include "tqdb_rows.h"
#include "tqdb_sums.h"

#include "tqread_run.h"
#include "tqread_segments.h"
#include "tqread_tables.h"

#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tqdb {

// Where the rows being mapped come from.
struct mapped_piece {
  std::string_view path;     // below the test run's directory
  std::string_view instance; // "": a common file
  int64_t partition = 0;     // 0: a common file
  int32_t file = 0;          // load_position's number
  int64_t from = 0;          // bytes
  int64_t rows_before = 0;   // of the file
};

struct mapped_counts {
  int64_t rows = 0, rejected = 0, mended = 0;
};

struct row_mapper {
  row_mapper(const tqread::test_run &run, bool with_blobs);
  ~row_mapper();

  // Maps whole rows. Files that are not known count nothing.
  mapped_counts take(const mapped_piece &piece, std::string_view rows);

  // Backends and the tiers that answer them, from the topology file.
  mapped_counts take_topology(const mapped_piece &piece, const std::string &path);

  // Puts the row of the test run, or of the node.
  void put_testrun(int64_t first_partition);
  void put_node(std::string_view host, std::string_view run_dir);

  // The rows so far; the caller clears batches that it has taken.
  std::array<row_batch, TQDB_TABLES> batches;
  size_t weight() const; // bytes of memory of batches and sums

  // Puts the sums' rows into their batches and begins them anew. `file` and `byte`: the place of the unit.
  void move_sums(int32_t file, int64_t byte);

  // Forgets everything that has not been taken: the unit is given up.
  void forget();

private:
  struct field;
  struct plan;
  struct texts;

  bool put_field(const field &f, const tqread::any_record &record, row_batch *rows);
  bool put(const plan &p, const tqread::any_record &record, row_place place, std::string *reason);
  void reject(int64_t byte, int64_t number, std::string_view reason);
  void put_text(row_batch *rows, std::string_view text);
  void put_flowpath(const tqread::any_record &record, int64_t byte, int64_t number);
  void put_segments(const tqread::flowpath_record &row, int64_t byte, int64_t number);
  void put_segment_texts(const tqread::flowpath_record &row, const tqread::segment_record &segment,
                         int64_t begin_utc_ms, int32_t place_in_list, int64_t byte, int64_t number);
  void put_callouts(const tqread::flowpath_record &row, std::string_view text, int32_t place_in_list, int64_t byte,
                    int64_t number);
  void put_details(const tqread::flowpath_record &row, std::string_view text, int64_t begin_utc_ms,
                   int32_t place_in_list, int64_t byte);

  struct blob_head {
    int64_t main_fpi, app, utc_ms;
    int32_t segment;
    int64_t byte;
    int kind, part;
  };

  void put_blob(const blob_head &head, std::string_view data);
  void put_instance(int64_t app, int64_t tier, int64_t server);
  void sum_callout(const tqread::flowpath_record &row, const tqread::callout_record &c);
  void sum_flowpath(const tqread::flowpath_record &row, int64_t begin_utc_ms);
  void sum_row(const tqread::table &of, const tqread::any_record &record);
  row_place next_place(table_id table, int64_t byte);
  const plan *plan_of(tqread::table_id source) const;

  const tqread::test_run &run_;
  const bool with_blobs_;
  tqread::blob_store store_;
  std::vector<std::unique_ptr<plan>> plans_;
  std::vector<sum_table> sums_; // from TQDB_TIER_MINUTE on

  struct {
    int64_t db_calls, db_us, backend_calls, backend_us;
  } flowpath_sums_ = {}; // over the callouts of the flowpath at hand

  mapped_piece piece_;
  mapped_counts counts_;
  bool mended_row_ = false;
  std::set<int64_t> instances_; // whose rows have been put
  std::unique_ptr<texts> texts_;
};

} // namespace tqdb
