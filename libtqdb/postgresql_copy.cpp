// Rows as binary COPY; see the header. Numbers are big-endian; each field is its length (int32) and its bytes.
#include "postgresql_copy.h"

#include <bit>
#include <cstring>

namespace tqdb {

static_assert(std::endian::native == std::endian::little);

static char *put_16(char *at, uint16_t value) {
  value = __builtin_bswap16(value);
  memcpy(at, &value, sizeof value);
  return at + sizeof value;
}

static char *put_32(char *at, uint32_t value) {
  value = __builtin_bswap32(value);
  memcpy(at, &value, sizeof value);
  return at + sizeof value;
}

static char *put_64(char *at, uint64_t value) {
  value = __builtin_bswap64(value);
  memcpy(at, &value, sizeof value);
  return at + sizeof value;
}

static char *put_cell(char *at, column_type type, int64_t cell, const row_batch &rows) {
  switch (type) {
  case TQDB_I8:
  case TQDB_I16:
    return put_16(put_32(at, 2), static_cast<uint16_t>(cell));
  case TQDB_I32:
    return put_32(put_32(at, 4), static_cast<uint32_t>(cell));
  case TQDB_I64:
  case TQDB_F64:
    return put_64(put_32(at, 8), static_cast<uint64_t>(cell));
  case TQDB_TEXT:
  case TQDB_BYTES:
    break;
  }
  const std::string_view text = rows.text_of(cell);
  at = put_32(at, static_cast<uint32_t>(text.size()));
  memcpy(at, text.data(), text.size());
  return at + text.size();
}

void begin_binary_copy(std::string *out) {
  out->append("PGCOPY\n\377\r\n\0", 11).append(8, '\0'); // no flags, no further head
}

void append_binary_rows(const row_batch &rows, size_t from, size_t to, int32_t testrun, int32_t node,
                        std::string *out) {
  const auto columns = table_of(rows.table).columns;
  for (size_t row = from; row < to; ++row) {
    const int64_t *cells = rows.cells_of(row);
    size_t most = 2 + 2 * 8 + columns.size() * 12;
    for (size_t i = 0; i < columns.size(); ++i)
      most += is_text(columns[i].type) ? rows.text_of(cells[i]).size() : 0;
    const size_t before = out->size();
    out->resize(before + most);
    char *at = put_16(out->data() + before, static_cast<uint16_t>(columns.size() + 2));
    at = put_32(put_32(at, 4), static_cast<uint32_t>(testrun));
    at = put_32(put_32(at, 4), static_cast<uint32_t>(node));
    for (size_t i = 0; i < columns.size(); ++i)
      at = put_cell(at, columns[i].type, cells[i], rows);
    out->resize(static_cast<size_t>(at - out->data()));
  }
}

void end_binary_copy(std::string *out) {
  out->append("\377\377", 2);
}

} // namespace tqdb
