// Rows as PostgreSQL's binary COPY takes them.
//   In      batches
//   Out     one buffer of bytes, which begins with the format's head and ends with its tail
//   Thread  the owner's
//   Failure none
#pragma once

#include "tqdb_rows.h"

#include <string>

namespace tqdb {

// Begins a COPY: the format's head.
void begin_binary_copy(std::string *out);

// Rows [from, to) of a batch, each behind its test run and node.
void append_binary_rows(const row_batch &rows, size_t from, size_t to, int32_t testrun, int32_t node, std::string *out);

// Ends a COPY: the format's tail.
void end_binary_copy(std::string *out);

} // namespace tqdb
