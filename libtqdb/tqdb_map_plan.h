// How columns are copied; for the files of the row mapper alone.
#pragma once

#include "tqdb_map.h"

namespace tqdb {

enum field_source : uint8_t { source_none, source_constant, source_integer, source_real, source_text };

// One column of a table and where it comes from.
struct row_mapper::field {
  field_source from;
  column_type type;
  uint16_t offset;     // in the record
  int64_t least, most; // what the column holds
  int64_t constant;
  const char *name;
};

struct row_mapper::plan {
  const tqread::table *source;
  table_id target;
  std::vector<field> fields;
};

// Buffers that are kept from row to row.
struct row_mapper::texts {
  std::string utf8, bytes;
  tqread::segment_list list;
  tqread::segment_texts segment;
};

} // namespace tqdb
