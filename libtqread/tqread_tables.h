// The row files as data: which files there are, and for each column its name, type, unit and what its ids name.
//   In      nothing; constant tables
//   Out     one table for each kind of row, which the row readers, the loader, --check and the name tables share
//   Thread  any
//   Failure none
#pragma once

#include "tqread_records.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tqread {

// The kinds of names behind norm ids.
enum class name_kind : uint8_t {
  method, // methods and backends
  method_class,
  package,
  argument,
  other, // further types of TQMetaData.csv: the id carries its type above bit 40
  url,
  query, // prepared and not: the ids of the latter carry nonprepared_flag
  resource,
  header,
  signature,
  exception_class,
  throwing_class,
  throwing_method,
  stack_trace,
  message,
  cause,
  tag_set,
  kinds, // how many there are
  none = 255
};

constexpr int64_t any_id = INT64_MIN;
constexpr int64_t nonprepared_flag = 0x40000000; // on ids of URLs, and of queries that were not prepared

enum class table_id : uint8_t {
  // facts: one file for each instance in a partition
  flowpath,
  method_timing,
  sql_timing,
  sql_execution,
  exception,
  custom_data,
  method_argument,
  message,
  url_call,
  // names: one file for the whole test run
  metadata,
  url,
  query_prepared,
  query_nonprepared_before, // the former file of the next one
  query_nonprepared,
  resource,
  header,
  signature,
  exception_class,
  throwing_class,
  throwing_method,
  stack_trace,
  exception_message,
  cause,
  tag_set,
  first_seen,
  function_group,
  // inside sequence blob files
  segment,
  callout,
  tables // how many there are
};

enum class column_type : uint8_t { integer, real, text }; // int64_t, double, std::string_view

enum class column_unit : uint8_t {
  none, // a text, a code, a flag
  id,   // a norm id of `names`, or a number of the daemon's such as a flowpath's
  count,
  ms,     // a duration
  utc_ms, // a time, ms since 1970
  bytes,
  line // of source code
};

// How the file gives a time; records have it in ms since 1970.
enum class time_form : uint8_t { as_it_is, test_s, test_ms, test_ms_or_0 };

struct column {
  const char *name; // as the record's member
  column_type type;
  column_unit unit;
  name_kind names;     // what its ids name; none: they name nothing
  int64_t no_name;     // the id that stands for none where `names` is set; any_id: every id has a name
  bool unsigned_wraps; // the 64 bits are an unsigned number
  uint16_t offset;     // of the member in the record, bytes
  uint8_t place;       // in the row, from 1
  time_form form;      // of a time
};

struct table {
  table_id id;
  const char *name;                // "flowpath": fit for a database
  const char *file;                // "TQFlowPath.csv"; "" inside sequence blob files
  bool common;                     // in "tq/csv" of the test run, else in the instance's directory of a partition
  size_t record_size;              // bytes of the record
  name_kind names;                 // of a name table: what it names (metadata: method); else none
  std::span<const column> columns; // in the record's order
  uint8_t places;                  // columns of a row in the file; some are constants and have no column here
  uint8_t wide;                    // the place of the one column that may hold commas; 0: none may
};

const table &table_of(table_id id);
std::span<const table> all_tables(); // in the order of table_id

// The table of a file by its name, without directories: "TQFlowPath.csv", "Shop_web1_app_MethodTiming.dat". Null: none.
const table *table_of_file(std::string_view file_name);

// Any table's record, and its columns by their place in the table. `column` must be of the table that filled the record.
struct any_record {
  alignas(8) char bytes[sizeof(segment_record)];

  template <class R> const R &as() const { return *reinterpret_cast<const R *>(bytes); } // R: that table's record

  int64_t integer(const column &c) const { return *reinterpret_cast<const int64_t *>(bytes + c.offset); }

  double real(const column &c) const { return *reinterpret_cast<const double *>(bytes + c.offset); }

  std::string_view text(const column &c) const { return *reinterpret_cast<const std::string_view *>(bytes + c.offset); }
};

static_assert(sizeof(flowpath_record) <= sizeof(segment_record));

} // namespace tqread
