// Compares a test run's files with what a database has of them.
//   In      the files, mapped again; a connection
//   Out     the first difference in words
//   Thread  one
//   Failure words
// Rows are counted, and each numeric column is summed up modulo 2147483647 (a flowpath number alone would overflow a sum), by
// instance where the table knows it. Names are compared by key: the last row of a key counts.
#pragma once

#include "tqdb_driver.h"
#include "tqdb_query.h"

#include "tqread_run.h"

#include <cstdint>
#include <string>

namespace tqdb {

struct verify_result {
  std::string difference; // "": none
  int64_t rows = 0;       // compared
  int tables = 0;
};

verify_result verify(const tqread::test_run &run, const load_scope &scope, bool with_blobs, connection *c);

} // namespace tqdb
