// Records into rows: plans, names, events; see the header. Flowpaths and their lists are in tqdb_map_flowpath.cpp.
//   In      rows of one piece at a time
//   Out     batches
//   Thread  one
//   Failure rows to load_reject
#include "tqdb_map_plan.h"

#include "tqread_rows.h"
#include "tqread_text.h"

#include "wllb_json_parser.h"
#include "wllb_partition.h"
#include "wllb_util.h"

#include <cstring>

namespace tqdb {

using tqread::any_record;
using source_id = tqread::table_id;

// --- plans ------------------------------------------------------------------------------------------------------

namespace {

// A source and its table. `kind` goes to the table's column "kind"; -1: there is none, or it is in the record.
struct plan_row {
  source_id source;
  table_id target;
  int kind;
};

// Columns that have another name in the record.
struct renamed {
  table_id target;
  const char *column;
  const char *member;
};

} // namespace

static constexpr plan_row plan_rows[] = {
    {source_id::flowpath, TQDB_FLOWPATH, -1},
    {source_id::segment, TQDB_SEGMENT, -1},
    {source_id::callout, TQDB_CALLOUT, -1},
    {source_id::method_timing, TQDB_METHOD_TIMING, -1},
    {source_id::sql_timing, TQDB_SQL_TIMING, -1},
    {source_id::sql_execution, TQDB_SQL_RECORD, -1},
    {source_id::exception, TQDB_EXCEPTION, -1},
    {source_id::custom_data, TQDB_CUSTOM_DATA, -1},
    {source_id::method_argument, TQDB_METHOD_ARGUMENT, -1},
    {source_id::message, TQDB_MESSAGE, -1},
    {source_id::url_call, TQDB_URL_RECORD, -1},
    {source_id::metadata, TQDB_METHOD, -1},
    {source_id::url, TQDB_URL, -1},
    {source_id::query_prepared, TQDB_QUERY, -1},
    {source_id::query_nonprepared_before, TQDB_QUERY, -1},
    {source_id::query_nonprepared, TQDB_QUERY, -1},
    {source_id::resource, TQDB_RESOURCE, -1},
    {source_id::header, TQDB_HEADER, -1},
    {source_id::signature, TQDB_SIGNATURE, -1},
    {source_id::exception_class, TQDB_EXCEPTION_TEXT, 11},
    {source_id::throwing_class, TQDB_EXCEPTION_TEXT, 12},
    {source_id::throwing_method, TQDB_EXCEPTION_TEXT, 13},
    {source_id::stack_trace, TQDB_EXCEPTION_TEXT, 14},
    {source_id::exception_message, TQDB_EXCEPTION_TEXT, 15},
    {source_id::cause, TQDB_EXCEPTION_TEXT, 16},
    {source_id::tag_set, TQDB_TAG_SET, -1},
    {source_id::first_seen, TQDB_FIRST_SEEN, -1},
    {source_id::function_group, TQDB_FUNCTION_GROUP, -1},
};

static constexpr renamed renamed_columns[] = {
    {TQDB_METHOD, "kind", "type"},
    {TQDB_SEGMENT, "text_offset", "offset"},
    {TQDB_MESSAGE, "key_number", "index"},
    {TQDB_MESSAGE, "key_text", "key"},
};

static const char *member_of(table_id target, const char *name) {
  for (const renamed &r : renamed_columns)
    if (r.target == target && std::string_view(r.column) == name)
      return r.member;
  return name;
}

static std::pair<int64_t, int64_t> range_of(column_type type) {
  switch (type) {
  case TQDB_I8:
    return {INT8_MIN, INT8_MAX};
  case TQDB_I16:
    return {INT16_MIN, INT16_MAX};
  case TQDB_I32:
    return {INT32_MIN, INT32_MAX};
  default:
    return {INT64_MIN, INT64_MAX};
  }
}

row_mapper::row_mapper(const tqread::test_run &run, bool with_blobs)
    : run_(run), with_blobs_(with_blobs), store_(run), texts_(std::make_unique<texts>()) {
  for (size_t id = 0; id < TQDB_TABLES; ++id)
    batches[id] = row_batch(static_cast<table_id>(id));
  for (int id = TQDB_TIER_MINUTE; id <= TQDB_EXCEPTION_SUM; ++id)
    sums_.emplace_back(static_cast<table_id>(id));
  plans_.resize(static_cast<size_t>(source_id::tables));
  for (const plan_row &row : plan_rows) {
    auto p = std::make_unique<plan>();
    const tqread::table &source = tqread::table_of(row.source);
    p->source = &source;
    p->target = row.target;
    for (const column &c : table_of(row.target).columns) {
      const auto [least, most] = range_of(c.type);
      field f = {source_none, c.type, 0, least, most, row.kind, c.name};
      const std::string_view member = member_of(row.target, c.name);
      for (const tqread::column &from : source.columns)
        if (member == from.name) {
          f.from = from.type == tqread::column_type::integer ? source_integer
                   : from.type == tqread::column_type::real  ? source_real
                                                             : source_text;
          f.offset = from.offset;
        }
      if (f.from == source_none && member == "kind")
        f.from = source_constant;
      p->fields.push_back(f);
    }
    plans_[static_cast<size_t>(row.source)] = std::move(p);
  }
}

row_mapper::~row_mapper() = default;

const row_mapper::plan *row_mapper::plan_of(source_id source) const {
  return plans_[static_cast<size_t>(source)].get();
}

// --- cells --------------------------------------------------------------------------------------------------------

// Bytes that are not UTF-8, and NULs, which not every engine can keep.
static bool is_clean(std::string_view text) {
  size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    uint64_t word;
    memcpy(&word, text.data() + i, 8);
    const uint64_t zeros = (word - 0x0101010101010101U) & ~word;
    if (((word | zeros) & 0x8080808080808080U) != 0)
      return false;
  }
  for (; i < text.size(); ++i)
    if (text[i] <= 0) // bytes from 0x80 on are negative
      return false;
  return true;
}

void row_mapper::put_text(row_batch *rows, std::string_view text) {
  if (is_clean(text)) {
    rows->text(text);
    return;
  }
  std::string &good = texts_->utf8;
  good.clear();
  tqread::append_utf8(text, &good);
  for (size_t at = 0; (at = good.find('\0', at)) != good.npos;)
    good.replace(at, 1, "\xEF\xBF\xBD");
  mended_row_ = mended_row_ || good != text;
  rows->text(good);
}

row_place row_mapper::next_place(table_id table, int64_t byte) {
  const std::vector<row_place> &places = batches[table].places;
  const bool same = !places.empty() && places.back().byte == byte && places.back().file == piece_.file;
  return {piece_.file, same ? places.back().part + 1 : 0, byte};
}

template <class Value> static Value member(const any_record &record, size_t offset) {
  Value value;
  memcpy(&value, record.bytes + offset, sizeof(Value));
  return value;
}

// False: a number that does not fit into its column.
bool row_mapper::put_field(const field &f, const any_record &record, row_batch *rows) {
  switch (f.from) {
  case source_integer: {
    const auto number = member<int64_t>(record, f.offset);
    rows->integer(number);
    return f.least <= number && number <= f.most;
  }
  case source_real:
    rows->real(member<double>(record, f.offset));
    break;
  case source_text:
    put_text(rows, member<std::string_view>(record, f.offset));
    break;
  case source_constant:
    rows->integer(f.constant);
    break;
  case source_none:
    if (is_text(f.type))
      rows->text("");
    else
      rows->integer(0);
    break;
  }
  return true;
}

// Columns without a counterpart are 0 or empty; the caller puts them afterwards. False, with *reason: a number that does not
// fit; nothing has been put.
bool row_mapper::put(const plan &p, const any_record &record, row_place place, std::string *reason) {
  row_batch &rows = batches[p.target];
  rows.row(place);
  for (const field &f : p.fields) {
    if (put_field(f, record, &rows))
      continue;
    rows.drop_row();
    *reason = std::string("its ").append(f.name).append(" does not fit into 32 bits");
    return false;
  }
  return true;
}

void row_mapper::reject(int64_t byte, int64_t number, std::string_view reason) {
  row_batch &rows = batches[TQDB_LOAD_REJECT];
  rows.row(next_place(TQDB_LOAD_REJECT, byte));
  put_text(&rows, piece_.path);
  rows.integer(byte);
  rows.integer(number);
  put_text(&rows, reason);
}

// --- rows of a piece ------------------------------------------------------------------------------------------------

void row_mapper::put_instance(int64_t app, int64_t tier, int64_t server) {
  if (piece_.instance.empty() || app < INT32_MIN || app > INT32_MAX || !instances_.insert(app).second)
    return;
  row_batch &rows = batches[TQDB_INSTANCE];
  rows.row({piece_.file, static_cast<int32_t>(rows.rows()), piece_.from});
  rows.integer(app);
  put_text(&rows, piece_.instance);
  rows.integer(tier);
  rows.integer(server);
  put_text(&rows, piece_.instance.substr(0, piece_.instance.find('_')));
}

void row_mapper::sum_row(const tqread::table &of, const any_record &record) {
  const auto sums = [this](table_id id, const sum_table::key &key) { return sums_[id - TQDB_TIER_MINUTE].at(key); };
  switch (of.id) {
  case source_id::method_timing: {
    const auto &r = record.as<tqread::method_timing_record>();
    put_instance(r.app, r.tier, r.server);
    int64_t *const by_tier = sums(TQDB_METHOD_SUM, {r.tier, r.method_id});
    int64_t *const by_url = sums(TQDB_TRANSACTION_METHOD, {r.tier, r.url_id, r.method_id});
    for (int64_t *n : {by_tier, by_url}) {
      ++n[0];
      n[1] += bounded(r.calls);
      n[2] += bounded(r.self_ms);
      n[3] += bounded(r.wall_ms);
      n[4] += bounded(r.cpu_ms);
      n[5] += bounded(r.self_cpu_ms);
      n[6] = std::max(n[6], r.longest_self_ms);
    }
    by_tier[7] += bounded(r.wait_ms);
    by_tier[8] += bounded(r.sync_ms);
    by_tier[9] += bounded(r.io_ms);
    by_tier[10] += bounded(r.suspension_ms);
    break;
  }
  case source_id::sql_timing: {
    const auto &r = record.as<tqread::sql_timing_record>();
    put_instance(r.app, r.tier, r.server);
    for (int64_t *n : {sums(TQDB_QUERY_SUM, {r.tier, r.query_id, r.backend_id}),
                       sums(TQDB_TRANSACTION_QUERY, {r.tier, r.url_id, r.query_id})}) {
      n[0] += bounded(r.executions);
      n[1] += bounded(r.failed);
      n[2] += microseconds(r.total_ms);
      n[3] = std::max(n[3], microseconds(r.longest_ms));
    }
    break;
  }
  case source_id::exception: {
    const auto &r = record.as<tqread::exception_record>();
    put_instance(r.app, r.tier, r.server);
    int64_t *n =
        sums(TQDB_EXCEPTION_SUM, {r.tier, r.class_id, r.throwing_class_id, r.throwing_method_id, r.message_id});
    ++n[0];
    n[1] = std::min(n[1], r.utc_ms);
    n[2] = std::max(n[2], r.utc_ms);
    break;
  }
  default:
    break;
  }
}

mapped_counts row_mapper::take(const mapped_piece &piece, std::string_view rows) {
  piece_ = piece;
  counts_ = {};
  const tqread::table *source = tqread::table_of_file(wllb_base_name(std::string(piece.path).c_str()));
  const plan *p = source ? plan_of(source->id) : nullptr;
  if (!p)
    return counts_;
  std::string reason;
  for (tqread::row_cursor cursor(*source, piece.path.ends_with(".dat"), rows, piece.from, run_.epoch_diff_s);
       cursor.next();) {
    ++counts_.rows;
    mended_row_ = false;
    const int64_t number = piece.rows_before + cursor.number();
    reason = cursor.reason() ? cursor.reason() : "";
    if (!cursor.reason() && put(*p, cursor.record, next_place(p->target, cursor.at_byte()), &reason)) {
      if (source->id == source_id::flowpath)
        put_flowpath(cursor.record, cursor.at_byte(), number);
      else
        sum_row(*source, cursor.record);
    } else {
      reject(cursor.at_byte(), number, reason);
      ++counts_.rejected;
    }
    counts_.mended += mended_row_ ? 1 : 0;
  }
  return counts_;
}

mapped_counts row_mapper::take_topology(const mapped_piece &piece, const std::string &path) {
  piece_ = piece;
  counts_ = {};
  mended_row_ = false;
  std::string error;
  const wllb_json_file file(wllb_json_init(path.c_str(), &error));
  const wllb_jsont *root = file ? wllb_json_to_jsont(file.get(), &error) : nullptr;
  if (!root) {
    ++counts_.rows;
    ++counts_.rejected;
    reject(0, 1, error);
    return counts_;
  }
  const auto text = [](const wllb_jsont *of, const char *name) {
    const wllb_jsont *member = wllb_jsont_member(of, name);
    return member ? member->text : "";
  };
  const wllb_jsont *mappings = wllb_jsont_member(root, "backendNamesMappings");
  for (const wllb_jsont *tier = mappings ? mappings->child : nullptr; tier; tier = tier->next) {
    const wllb_jsont *data = wllb_jsont_member(tier, "backendData");
    for (const wllb_jsont *pair = data ? data->child : nullptr; pair; pair = pair->next) {
      row_batch &rows = batches[TQDB_TOPOLOGY];
      rows.row({piece_.file, static_cast<int32_t>(counts_.rows++), piece_.from});
      put_text(&rows, text(tier, "srcTier"));
      put_text(&rows, text(pair, "backendName"));
      put_text(&rows, text(pair, "destTier"));
    }
  }
  counts_.mended = mended_row_ ? 1 : 0;
  return counts_;
}

// --- the unit -------------------------------------------------------------------------------------------------------

void row_mapper::put_testrun(int64_t first_partition) {
  row_batch &rows = batches[TQDB_TESTRUN];
  rows.row({});
  rows.integer(first_partition);
  int64_t begin = 0;
  tqread::read_utc_text(std::to_string(first_partition), &begin);
  rows.integer(begin);
}

void row_mapper::put_node(std::string_view host, std::string_view run_dir) {
  row_batch &rows = batches[TQDB_NODE];
  rows.row({});
  put_text(&rows, host);
  put_text(&rows, run_dir);
}

size_t row_mapper::weight() const {
  size_t bytes = 0;
  for (const row_batch &rows : batches)
    bytes += rows.weight();
  for (const sum_table &sums : sums_)
    bytes += sums.weight();
  return bytes;
}

void row_mapper::move_sums(int32_t file, int64_t byte) {
  for (int id = TQDB_TIER_MINUTE; id <= TQDB_EXCEPTION_SUM; ++id)
    sums_[static_cast<size_t>(id - TQDB_TIER_MINUTE)].move_to(&batches[static_cast<size_t>(id)], file, byte);
}

void row_mapper::forget() {
  move_sums(0, 0);
  for (row_batch &rows : batches)
    rows.clear();
  instances_.clear();
}

} // namespace tqdb
