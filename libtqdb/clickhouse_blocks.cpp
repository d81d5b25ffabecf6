// Column blocks; see the header. Native: number of columns, number of rows, then each column's name, type and values,
// little-endian; texts are their length and bytes. Numbers of things are variable-length.
#include "clickhouse_blocks.h"

#include <bit>
#include <cstring>

namespace tqdb {

static_assert(std::endian::native == std::endian::little);

const char clickhouse_mark_columns[] = "load_file Int32, load_byte Int64, load_part Int32, load_unit UInt64";

const char *clickhouse_type(column_type type) {
  static constexpr const char *names[] = {"Int8", "Int16", "Int32", "Int64", "Float64", "String", "String"};
  return names[type];
}

static void put_number(std::string *out, uint64_t number) {
  for (; number > 127; number >>= 7U)
    *out += static_cast<char>(number | 128U);
  *out += static_cast<char>(number);
}

static void put_text(std::string *out, std::string_view text) {
  put_number(out, text.size());
  out->append(text);
}

template <class T> static void put_plain(std::string *out, T value) {
  out->append(reinterpret_cast<const char *>(&value), sizeof value);
}

clickhouse_block::clickhouse_block(table_id id) : table(id), columns(table_of(id).columns.size()) {}

void clickhouse_block::add(const row_batch &batch, size_t row) {
  const auto types = table_of(table).columns;
  const int64_t *cell = batch.cells_of(row);
  for (size_t i = 0; i < columns.size(); ++i, ++cell)
    switch (types[i].type) {
    case TQDB_I8:
      put_plain(&columns[i], static_cast<int8_t>(*cell));
      break;
    case TQDB_I16:
      put_plain(&columns[i], static_cast<int16_t>(*cell));
      break;
    case TQDB_I32:
      put_plain(&columns[i], static_cast<int32_t>(*cell));
      break;
    case TQDB_I64:
    case TQDB_F64:
      put_plain(&columns[i], *cell);
      break;
    case TQDB_TEXT:
    case TQDB_BYTES:
      put_text(&columns[i], batch.text_of(*cell));
      break;
    }
  put_plain(&files, batch.places[row].file);
  put_plain(&bytes_of_rows, batch.places[row].byte);
  put_plain(&parts, batch.places[row].part);
  ++count;
}

void clickhouse_block::clear() {
  for (std::string *column : {&files, &parts, &bytes_of_rows})
    column->clear();
  for (std::string &column : columns)
    column.clear();
  count = 0;
}

size_t clickhouse_block::bytes() const {
  size_t sum = files.size() + parts.size() + bytes_of_rows.size();
  for (const std::string &column : columns)
    sum += column.size();
  return sum;
}

static void put_head(std::string *out, std::string_view name, std::string_view type) {
  put_text(out, name);
  put_text(out, type);
}

template <class T> static void put_constant(std::string *out, T value, size_t times) {
  for (size_t i = 0; i < times; ++i)
    put_plain(out, value);
}

std::string clickhouse_block::native(const clickhouse_marks &marks) const {
  std::string out;
  out.reserve(bytes() + count * 16 + columns.size() * 32 + 256);
  put_number(&out, columns.size() + 6);
  put_number(&out, count);
  put_head(&out, "testrun", "Int32");
  put_constant(&out, marks.testrun, count);
  put_head(&out, "node", "Int32");
  put_constant(&out, marks.node, count);
  for (size_t i = 0; i < columns.size(); ++i) {
    const column &c = table_of(table).columns[i];
    put_head(&out, c.name, clickhouse_type(c.type));
    out += columns[i];
  }
  put_head(&out, "load_file", "Int32");
  out += files;
  put_head(&out, "load_byte", "Int64");
  out += bytes_of_rows;
  put_head(&out, "load_part", "Int32");
  out += parts;
  put_head(&out, "load_unit", "UInt64");
  put_constant(&out, marks.unit, count);
  return out;
}

} // namespace tqdb
