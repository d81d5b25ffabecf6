// A flowpath's row brings its segments, callouts, details and, if asked for, blobs.
//   In      the row; its list of segments and their texts in sequence blob files
//   Out     rows of flowpath, segment, callout, request_detail, blob; sums by minute and backend
//   Thread  one
//   Failure what cannot be read is named in load_reject at the place of the flowpath's row; the rest is loaded
#include "tqdb_map_plan.h"

#include "tqread_blob.h"
#include "tqread_detail.h"
#include "tqread_text.h"

#include <cstring>

namespace tqdb {

using tqread::any_record;

// --- cells that have no counterpart in a record -----------------------------------------------------------------

// The last row's cell of a column.
static int64_t &last_cell(row_batch *rows, int column) {
  return rows->cells[rows->cells.size() - rows->width + static_cast<size_t>(column)];
}

#define CELL(rows, table, name)                                                                                        \
  last_cell(rows, [] {                                                                                                 \
    static const int at = column_number(table_of(table), name);                                                        \
    return at;                                                                                                         \
  }())

// 14 digits, or 0.
static int64_t partition_number(std::string_view text) {
  int64_t number = 0;
  return text.size() == 14 && tqread::read_number(text, &number) && number > 0 ? number : 0;
}

static int64_t begin_of(const tqread::segment_record &s) {
  return s.exact_begin_utc_ms != 0 ? s.exact_begin_utc_ms : s.begin_utc_ms;
}

static int64_t minute_of(int64_t utc_ms) {
  constexpr int64_t minute = 60000;
  return (utc_ms >= 0 ? utc_ms / minute : (utc_ms - minute + 1) / minute) * minute;
}

// --- flowpath and segments ----------------------------------------------------------------------------------------

// The row's plain columns have been put.
void row_mapper::put_flowpath(const any_record &record, int64_t byte, int64_t number) {
  const auto &row = record.as<tqread::flowpath_record>();
  row_batch &rows = batches[TQDB_FLOWPATH];
  put_instance(row.app, row.tier, row.server);
  tqread::segment_list &list = texts_->list;
  const char *fault = read_segment_list(&store_, row, &list);
  CELL(&rows, TQDB_FLOWPATH, "segments") = fault ? -1 : static_cast<int64_t>(list.segments.size());
  CELL(&rows, TQDB_FLOWPATH, "partition") = piece_.partition;
  tqread::text_reference reference;
  if (tqread::read_reference(row.reference, &reference)) {
    CELL(&rows, TQDB_FLOWPATH, "list_partition") = partition_number(reference.partition);
    CELL(&rows, TQDB_FLOWPATH, "list_offset") = reference.offset;
    CELL(&rows, TQDB_FLOWPATH, "list_bytes") = reference.length;
  }
  int64_t begin = row.begin_utc_ms;
  for (const tqread::segment_record &s : list.segments)
    if (s.fpi == row.fpi)
      begin = begin_of(s);
  CELL(&rows, TQDB_FLOWPATH, "begin_utc_ms") = begin;
  if (fault)
    reject(byte, number, std::string("the list of its segments: ") + fault);
  flowpath_sums_ = {};
  put_segments(row, byte, number);
  sum_flowpath(row, begin);
}

void row_mapper::put_segments(const tqread::flowpath_record &row, int64_t byte, int64_t number) {
  const plan &p = *plan_of(tqread::table_id::segment);
  std::string reason;
  int32_t place_in_list = 0;
  any_record record;
  for (const tqread::segment_record &s : texts_->list.segments) {
    ++place_in_list;
    memcpy(record.bytes, &s, sizeof s);
    if (!put(p, record, next_place(TQDB_SEGMENT, byte), &reason)) {
      reject(byte, number, "segment " + std::to_string(place_in_list) + ": " + reason);
      continue;
    }
    row_batch &rows = batches[TQDB_SEGMENT];
    const int64_t begin = begin_of(s);
    CELL(&rows, TQDB_SEGMENT, "main_fpi") = row.fpi;
    CELL(&rows, TQDB_SEGMENT, "segment") = place_in_list;
    CELL(&rows, TQDB_SEGMENT, "app") = row.app;
    CELL(&rows, TQDB_SEGMENT, "begin_utc_ms") = begin;
    CELL(&rows, TQDB_SEGMENT, "partition") = partition_number(s.partition);
    put_segment_texts(row, s, begin, place_in_list, byte, number);
  }
}

void row_mapper::put_segment_texts(const tqread::flowpath_record &row, const tqread::segment_record &segment,
                                   int64_t begin_utc_ms, int32_t place_in_list, int64_t byte, int64_t number) {
  tqread::segment_texts &three = texts_->segment;
  const std::string partition = std::to_string(piece_.partition);
  const std::string fault =
      read_segment_texts(&store_, {partition, piece_.instance}, row, segment, &three,
                         with_blobs_ ? tqread::ALL_TEXTS : tqread::TEXT_CALLOUTS | tqread::TEXT_DETAIL);
  if (!fault.empty()) {
    reject(byte, number, "segment " + std::to_string(place_in_list) + ": " + fault);
    return;
  }
  put_callouts(row, three.callouts, place_in_list, byte, number);
  put_details(row, three.detail, begin_utc_ms, place_in_list, byte);
  if (!with_blobs_)
    return;
  blob_head head = {row.fpi, row.app, begin_utc_ms, place_in_list, byte, 1, 1};
  put_blob(head, three.blob);
  head.kind = 2;
  put_blob(head, three.detail);
  for (std::string_view references : {segment.dynamic_texts, segment.request_bodies, segment.response_bodies}) {
    ++head.kind;
    head.part = 1;
    for (tqread::text_reference r; tqread::take_reference(&references, &r); ++head.part) {
      if (const char *words = store_.read_member(r.partition, row.app, r.offset, r.length, &texts_->bytes))
        reject(byte, number, "segment " + std::to_string(place_in_list) + ": a logged value or body " + words);
      else
        put_blob(head, texts_->bytes);
    }
  }
}

void row_mapper::put_blob(const blob_head &head, std::string_view data) {
  if (data.empty())
    return;
  row_batch &rows = batches[TQDB_BLOB];
  rows.row(next_place(TQDB_BLOB, head.byte));
  for (const int64_t number : {head.main_fpi, static_cast<int64_t>(head.segment), head.app, head.utc_ms,
                               static_cast<int64_t>(head.kind), static_cast<int64_t>(head.part)})
    rows.integer(number);
  rows.text(data);
}

// --- callouts -----------------------------------------------------------------------------------------------------

void row_mapper::sum_callout(const tqread::flowpath_record &row, const tqread::callout_record &c) {
  if (c.backend_id < 0 || c.kind.size() != 1 || std::string_view("TEaGC").find(c.kind[0]) == std::string_view::npos)
    return;
  tqread::group_numbers group;
  const bool grouped = tqread::read_group(c, &group);
  int64_t type = -1;
  if (grouped)
    type = group.type;
  else
    tqread::read_number(c.backend_type, &type);
  const int64_t calls = grouped ? bounded(group.count) : 1;
  const int64_t us = microseconds(grouped ? group.total_ms : c.duration_ms);
  int64_t *n = sums_[TQDB_BACKEND_SUM - TQDB_TIER_MINUTE].at({row.tier, c.backend_id, type, minute_of(c.begin_utc_ms)});
  n[0] += calls;
  n[1] += grouped ? bounded(group.errors) : c.kind == "E" ? 1 : 0;
  n[2] += us;
  n[3] = std::max(n[3], grouped ? microseconds(group.longest_ms) : us);
  const bool database = tqread::is_database(std::to_string(type));
  (database ? flowpath_sums_.db_calls : flowpath_sums_.backend_calls) += calls;
  (database ? flowpath_sums_.db_us : flowpath_sums_.backend_us) += us;
}

void row_mapper::put_callouts(const tqread::flowpath_record &row, std::string_view text, int32_t place_in_list,
                              int64_t byte, int64_t number) {
  const plan &p = *plan_of(tqread::table_id::callout);
  std::string reason;
  any_record record;
  tqread::callout_rows rows(text, run_.epoch_diff_s);
  for (tqread::callout_record c; rows.next(&c);) {
    memcpy(record.bytes, &c, sizeof c);
    if (!put(p, record, next_place(TQDB_CALLOUT, byte), &reason)) {
      reject(byte, number, "segment " + std::to_string(place_in_list) + ": a callout: " + reason);
      continue;
    }
    row_batch &put_rows = batches[TQDB_CALLOUT];
    CELL(&put_rows, TQDB_CALLOUT, "main_fpi") = row.fpi;
    CELL(&put_rows, TQDB_CALLOUT, "segment") = place_in_list;
    CELL(&put_rows, TQDB_CALLOUT, "app") = row.app;
    sum_callout(row, c);
  }
  if (!rows.left_over().empty())
    reject(byte, number,
           "segment " + std::to_string(place_in_list) + ": its callout text has a row that cannot be read");
}

// --- details ------------------------------------------------------------------------------------------------------

void row_mapper::put_details(const tqread::flowpath_record &row, std::string_view text, int64_t begin_utc_ms,
                             int32_t place_in_list, int64_t byte) {
  char section = 0;
  row_batch &rows = batches[TQDB_REQUEST_DETAIL];
  for (tqread::detail_item item; tqread::take_detail_item(&text, &section, &item);) {
    rows.row(next_place(TQDB_REQUEST_DETAIL, byte));
    rows.integer(row.fpi);
    rows.integer(place_in_list);
    rows.integer(row.app);
    rows.integer(begin_utc_ms);
    rows.integer(item.section - '0');
    rows.integer(item.method_id > 0 && item.method_id <= INT32_MAX ? item.method_id : 0);
    put_text(&rows, item.name);
    put_text(&rows, item.value);
  }
}

// --- sums ---------------------------------------------------------------------------------------------------------

void row_mapper::sum_flowpath(const tqread::flowpath_record &row, int64_t begin_utc_ms) {
  const int64_t minute = minute_of(begin_utc_ms);
  for (int64_t *n : {sums_[0].at({minute, row.tier}),
                     sums_[TQDB_TRANSACTION_MINUTE - TQDB_TIER_MINUTE].at({minute, row.tier, row.url_id})}) {
    ++n[0];
    n[1] += row.errors > 0 ? 1 : 0;
    n[2] += bounded(row.errors);
    n[3] += bounded(row.duration_ms);
    n[4] = std::max(n[4], row.duration_ms);
    n[5] += bounded(row.cpu_ms);
    n[6] += flowpath_sums_.db_calls;
    n[7] += flowpath_sums_.db_us;
    n[8] += flowpath_sums_.backend_calls;
    n[9] += flowpath_sums_.backend_us;
    count_duration(n + 10, row.duration_ms);
  }
}

} // namespace tqdb
