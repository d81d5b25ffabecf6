// Puts one flowpath together; see the header.
//   In      its row; the sequence blob files; the other row files of its instance
//   Out     the whole record
//   Thread  one
//   Failure faults in the record
// Rows of other files are found by an index of their places, one for each instance in a partition, sorted by flowpath: a whole
// test run is put together in one pass over each of these files. An event may be in the partition of the row, in the one
// before (it happened there) or in the one after (the row came late).
#include "tqread_flowpath.h"

#include "tqread_text.h"

#include <algorithm>
#include <cstring>

namespace tqread {

// --- rows of other files ------------------------------------------------------------------------------------------

struct side_place {
  int64_t fpi, at; // byte in the file
  uint32_t length;
  table_id table;

  bool operator<(const side_place &other) const { return fpi != other.fpi ? fpi < other.fpi : at < other.at; }
};

struct side_index {
  std::string partition, instance;
  uint64_t used = 0; // when, in calls
  std::vector<side_place> places;
};

static constexpr table_id side_tables[] = {table_id::exception,   table_id::sql_timing,      table_id::sql_execution,
                                           table_id::custom_data, table_id::method_argument, table_id::message};

// The flowpath in a row of a side table.
static int64_t fpi_of(const table &of, const any_record &record) {
  for (const column &c : of.columns)
    if (strcmp(c.name, "fpi") == 0)
      return record.integer(c);
  return 0;
}

static std::unique_ptr<side_index> make_index(const test_run &run, std::string_view partition,
                                              std::string_view instance) {
  auto index = std::make_unique<side_index>();
  index->partition = partition;
  index->instance = instance;
  for (const table_id id : side_tables) {
    const table &of = table_of(id);
    row_file rows(run, row_path(partition, instance, of.file), of);
    while (rows.next())
      if (!rows.reason())
        index->places.push_back(
            {fpi_of(of, rows.record), rows.lines.at_byte(), static_cast<uint32_t>(rows.bytes().size()), id});
  }
  std::sort(index->places.begin(), index->places.end());
  return index;
}

const side_index *flowpath_reader::index_of(std::string_view partition, std::string_view instance) {
  constexpr size_t most = 6;
  for (const auto &index : indexes_)
    if (index->partition == partition && index->instance == instance) {
      index->used = ++calls_;
      return index.get();
    }
  if (indexes_.size() >= most)
    indexes_.erase(std::min_element(indexes_.begin(), indexes_.end(),
                                    [](const auto &a, const auto &b) { return a->used < b->used; }));
  indexes_.push_back(make_index(run_, partition, instance));
  indexes_.back()->used = ++calls_;
  return indexes_.back().get();
}

static void add_record(table_id id, const any_record &record, flowpath *whole) {
  switch (id) {
  case table_id::exception:
    return whole->exceptions.push_back(record.as<exception_record>());
  case table_id::sql_timing:
    return whole->sql_timings.push_back(record.as<sql_timing_record>());
  case table_id::sql_execution:
    return whole->sql_executions.push_back(record.as<sql_execution_record>());
  case table_id::custom_data:
    return whole->custom_data.push_back(record.as<custom_data_record>());
  case table_id::method_argument:
    return whole->arguments.push_back(record.as<method_argument_record>());
  case table_id::message:
    return whole->messages.push_back(record.as<message_record>());
  default:
    return;
  }
}

// The flowpath's own numbers, each once.
static std::vector<int64_t> numbers_of(const flowpath &whole) {
  std::vector<int64_t> numbers = {whole.row.fpi};
  for (const segment_record &segment : whole.list.segments)
    numbers.push_back(segment.fpi);
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

void flowpath_reader::read_side_rows(const flowpath_place &place, flowpath *whole) {
  struct found_row {
    table_id id;
    size_t at, length; // in side_bytes
  };

  std::vector<found_row> found;
  if (partitions_.empty() || !std::binary_search(partitions_.begin(), partitions_.end(), place.partition))
    partitions_ = partitions(run_);
  const auto own = std::find(partitions_.begin(), partitions_.end(), place.partition);
  const auto first = own == partitions_.begin() ? own : own - 1;
  const auto last = own == partitions_.end() ? own : own + 1 == partitions_.end() ? own + 1 : own + 2;
  const std::vector<int64_t> numbers = numbers_of(*whole);
  for (auto partition = first; partition != last; ++partition) {
    const side_index *const index = index_of(*partition, place.instance);
    for (const int64_t number : numbers)
      for (auto row = std::lower_bound(index->places.begin(), index->places.end(), side_place{number, 0, 0, {}});
           row != index->places.end() && row->fpi == number; ++row) {
        const std::string path = full_path(run_, row_path(*partition, place.instance, table_of(row->table).file));
        line_file lines(path, row->at, row->at + row->length + 1);
        std::string_view line;
        if (!lines.next(&line))
          continue;
        found.push_back({row->table, whole->side_bytes.size(), line.size()});
        whole->side_bytes.append(line);
      }
  }
  any_record record;
  for (const found_row &row : found)
    if (!read_row(table_of(row.id), std::string_view(whole->side_bytes).substr(row.at, row.length), run_.epoch_diff_s,
                  &record))
      add_record(row.id, record, whole);
}

// --- segments -------------------------------------------------------------------------------------------------------

// The main segment of a flowpath that was given up carries its begin in thousandths: no time at all then.
static int64_t begin_of(const flowpath_record &row, const segment_record &line) {
  constexpr int64_t day_ms = 86'400'000;
  if (line.exact_begin_utc_ms > 0)
    return line.exact_begin_utc_ms;
  const bool no_time = line.begin_utc_ms < row.begin_utc_ms && row.begin_utc_ms - line.begin_utc_ms > day_ms;
  return no_time ? row.begin_utc_ms : line.begin_utc_ms;
}

void flowpath_reader::read_captured(std::string_view references, const char *what, flowpath *whole,
                                    std::vector<std::string> *texts) {
  for (text_reference at; take_reference(&references, &at);) {
    std::string text;
    const char *const words = at.length < 0
                                  ? "has a reference that is not a reference"
                                  : store_.read_member(at.partition, whole->row.app, at.offset, at.length, &text);
    if (words)
      whole->faults.push_back({"", place_unit::whole_file, 0, std::string("a ") + what + " " + words});
    texts->push_back(std::move(text));
  }
}

void flowpath_reader::read_segment(const flowpath_place &place, const segment_record &line, uint32_t parts,
                                   flowpath *whole, flowpath_segment *segment) {
  segment->line = line;
  segment->begin_utc_ms = begin_of(whole->row, line);
  if (__builtin_add_overflow(segment->begin_utc_ms, std::max<int64_t>(0, line.response_ms), &segment->end_utc_ms))
    segment->end_utc_ms = segment->begin_utc_ms;
  segment->no_blob = left_no_blob(line);
  segment->unreadable.clear();
  segment->tree.nodes.clear();
  segment->tree.callouts.clear();
  segment->tree.first_root = no_node;
  segment->logged.clear();
  segment->request_bodies.clear();
  segment->response_bodies.clear();
  if (parts & WITH_CAPTURED) {
    read_captured(line.dynamic_texts, "text of logged values", whole, &segment->logged);
    read_captured(line.request_bodies, "request body", whole, &segment->request_bodies);
    read_captured(line.response_bodies, "response body", whole, &segment->response_bodies);
  }
  if (!(parts & WITH_TREES))
    return;
  segment->unreadable = read_segment_texts(&store_, place, whole->row, line, &segment->texts);
  if (segment->unreadable.empty())
    builder_.build(segment->texts.blob, segment->texts.callouts, run_.epoch_diff_s, &segment->tree);
  else
    whole->faults.push_back(
        {"", place_unit::whole_file, 0, "segment " + std::to_string(line.fpi) + ": " + segment->unreadable});
}

// --- the whole ------------------------------------------------------------------------------------------------------

flowpath_reader::flowpath_reader(const test_run &of) : run_(of), store_(of) {}

flowpath_reader::~flowpath_reader() = default;

bool flowpath_reader::read(const flowpath_place &place, std::string_view row_bytes, uint32_t parts, flowpath *whole) {
  whole->partition = place.partition;
  whole->instance = place.instance;
  whole->row_bytes = row_bytes;
  whole->faults.clear();
  whole->exceptions.clear();
  whole->sql_timings.clear();
  whole->sql_executions.clear();
  whole->custom_data.clear();
  whole->arguments.clear();
  whole->messages.clear();
  whole->side_bytes.clear();
  whole->main_segment = -1;
  any_record record;
  if (const char *words = read_row(table_of(table_id::flowpath), whole->row_bytes, run_.epoch_diff_s, &record)) {
    whole->faults.push_back({row_path(place.partition, place.instance, "TQFlowPath.csv"), {}, 0, words});
    whole->segments.clear();
    whole->list.segments.clear();
    return false;
  }
  whole->row = record.as<flowpath_record>();
  whole->begin_utc_ms = whole->row.begin_utc_ms;
  if (const char *words = read_segment_list(&store_, whole->row, &whole->list))
    whole->faults.push_back({"", place_unit::whole_file, 0, std::string("the list of its segments: ") + words});
  whole->segments.resize(whole->list.segments.size());
  for (size_t i = 0; i < whole->segments.size(); ++i) {
    read_segment(place, whole->list.segments[i], parts, whole, &whole->segments[i]);
    if (whole->main_segment < 0 && whole->list.segments[i].fpi == whole->row.fpi) {
      whole->main_segment = static_cast<int32_t>(i);
      whole->begin_utc_ms = whole->segments[i].begin_utc_ms;
    }
  }
  if (parts & WITH_SIDE_ROWS)
    read_side_rows(place, whole);
  return true;
}

} // namespace tqread
