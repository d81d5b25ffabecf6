// Checks that all which a test run's files say of each other is so: references, lengths, offsets, sums, names.
//   In      all output files of the chosen partitions and instances
//   Out     a line of totals, or the first hundred faults, on standard output
//   Thread  one
//   Failure a fault is reported with its place and the check goes on; what cannot be read is a fault
#include "show_check.h"

#include "show_list.h"

#include "tqread_detail.h"
#include "tqread_text.h"

#include "wllb_util.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

using namespace tqread;

// --- the check and its places -------------------------------------------------------------------------------------

constexpr int64_t most_reported = 100;

struct checker {
  const test_run &run;
  show_out *out;
  name_table names = {};
  flowpath_reader reader{run};
  int64_t flowpaths = 0, segments = 0, tokens = 0, callouts = 0, side_rows = 0, name_rows = 0;
  int64_t faults = 0;

  void fault(const error &what);
  void check_names();
  void check_rows(const std::string &path, const table &of);
  void check_ids(const row_file &rows, const table &of);
  void check_flowpaths(const flowpath_place &place);
  int report() const;
};

void checker::fault(const error &what) {
  if (++faults <= most_reported)
    out->put(error_text(what)).end_line();
}

static const char *name_of(name_kind kind) {
  switch (kind) {
  case name_kind::method:
    return "method";
  case name_kind::query:
    return "query";
  case name_kind::resource:
    return "resource";
  case name_kind::url:
    return "URL";
  case name_kind::signature:
    return "signature";
  case name_kind::tag_set:
    return "tag set";
  case name_kind::header:
    return "header";
  default:
    return "id";
  }
}

// Empty, or what is wrong with an id.
static std::string missing_name(const checker &check, name_kind kind, int64_t id) {
  if (check.names.is_known(kind, id))
    return "";
  return wllb_format("the %s %lld has no row among the names", name_of(kind), static_cast<long long>(id));
}

// --- one row ------------------------------------------------------------------------------------------------------

// The row being checked.
struct checked_row {
  checker &check;
  const flowpath &whole;
  const row_file &rows;

  void fault(const std::string &words) const {
    error what = rows.fault();
    what.reason = "flowpath " + std::to_string(whole.row.fpi) + ": " + words;
    check.fault(what);
  }

  void fault_of(const segment_record &line, const std::string &words) const {
    fault("segment " + std::to_string(line.fpi) + ": " + words);
  }

  void check_id(const segment_record &line, const char *what, name_kind kind, int64_t id) const {
    if (const std::string words = missing_name(check, kind, id); !words.empty())
      fault_of(line, what + words);
  }

  void check_blob(const flowpath_segment &segment) const;
  void check_callouts(const flowpath_segment &segment) const;
  void check_captured(const flowpath_segment &segment) const;
  void check_logged(const segment_record &line, const std::string &text) const;
  void check_segment(const flowpath_segment &segment) const;
  void check_list() const;
  void check_points() const;
  void check_ids() const;
};

// --- blobs and callout texts ------------------------------------------------------------------------------------------

static std::string check_token(const checker &check, const blob_token &token) {
  if (token.kind == token_kind::bad)
    return "it is not a valid token";
  if (token.kind != token_kind::callout)
    return missing_name(check, name_kind::method, token.method_id);
  const callout_token &callout = token.callout;
  if (callout.is_bare)
    return "";
  std::string words = missing_name(check, name_kind::method, callout.backend_id);
  if (words.empty() && (callout.letter == 'G' || is_database(callout.backend_type)))
    words = missing_name(check, name_kind::query, callout.query_id);
  return words.empty() ? missing_name(check, name_kind::resource, callout.resource_id) : words;
}

void checked_row::check_blob(const flowpath_segment &segment) const {
  const std::string &text = segment.texts.blob;
  if (text.find_first_of(",\n") != text.npos)
    fault_of(segment.line, "its blob holds a comma or a newline");
  blob_cursor cursor(text);
  for (blob_token token = {}; cursor.next(&token);) {
    ++check.tokens;
    if (const std::string words = check_token(check, token); !words.empty())
      fault_of(segment.line, "token '" + printable(token.text, 80) + "' of its blob: " + words);
  }
}

void checked_row::check_callouts(const flowpath_segment &segment) const {
  const segment_record &line = segment.line;
  int64_t count = 0;
  callout_rows calls(segment.texts.callouts, check.run.epoch_diff_s);
  for (callout_record row; !calls.left_over().empty() && calls.next(&row); ++count) {
    const bool is_mark = row.backend_id == -1 && row.query_id == -1;
    if (is_mark || calls.was_cut())
      continue;
    constexpr const char *what = "a row of its callout text: ";
    check_id(line, what, name_kind::method, row.backend_id);
    check_id(line, what, name_kind::resource, row.resource_id);
    if (row.kind == "G" || is_database(row.backend_type))
      check_id(line, what, name_kind::query, row.query_id);
  }
  check.callouts += count;
  if (!calls.left_over().empty())
    fault_of(line, "a row of its callout text has not 19 columns");
  else if (count != line.callout_rows)
    fault_of(line, wllb_format("its callout text has %lld rows, its line says %lld", static_cast<long long>(count),
                               static_cast<long long>(line.callout_rows)));
}

// --- captured texts -------------------------------------------------------------------------------------------------

void checked_row::check_logged(const segment_record &line, const std::string &text) const {
  // A record's last piece is its whole rest: what stands after a '|' there is as the agent sent it.
  constexpr int most_values = 1023;
  logged_values logged;
  if (!read_logged_values(text, &logged))
    return fault_of(line, "its logged values have not ten numbers and values");
  check_id(line, "its logged values: ", name_kind::method, logged.method_id);
  std::string_view id, value;
  for (int i = 0; i < most_values && take_logged_value(&logged.values, &id, &value); ++i)
    if (const int64_t header = number_or(id, 0); header != 0)
      check_id(line, "its logged values: ", name_kind::header, header);
}

// Texts that could not be read are among the flowpath's faults already; they are empty.
void checked_row::check_captured(const flowpath_segment &segment) const {
  for (const std::string &text : segment.logged)
    if (!text.empty())
      check_logged(segment.line, text);
  for (const auto *texts : {&segment.request_bodies, &segment.response_bodies})
    for (const std::string &text : *texts) {
      captured_body body;
      const bool is_response = texts == &segment.response_bodies;
      if (!text.empty() && (!text.starts_with(is_response ? "46," : "45,") || !read_body(text, &body)))
        fault_of(segment.line, is_response ? "its response body is not one" : "its request body is not one");
    }
}

void checked_row::check_segment(const flowpath_segment &segment) const {
  ++check.segments;
  check_id(segment.line, "", name_kind::url, segment.line.url_id);
  check_captured(segment);
  if (segment.no_blob || !segment.unreadable.empty()) // the latter is a fault of the flowpath already
    return;
  check_blob(segment);
  check_callouts(segment);
}

// --- sums ---------------------------------------------------------------------------------------------------------

// A column of the row that is the sum of a column of its segments' lines.
struct summed_column {
  const char *name;
  int64_t flowpath_record::*of_row;
  int64_t segment_record::*of_line;
  bool wide; // 64 bits; else 32
};

#define SUMMED(member, wide)                                                                                           \
  { #member, &flowpath_record::member, &segment_record::member, wide }
static constexpr summed_column summed_columns[] = {
    SUMMED(method_cpu_ms, true), SUMMED(methods, false),  SUMMED(callouts, false),      SUMMED(cpu_ms, true),
    SUMMED(errors, false),       SUMMED(db_calls, false), SUMMED(http_callouts, false), SUMMED(messaging_calls, false),
    SUMMED(cache_calls, false),  SUMMED(wait_ms, true),   SUMMED(sync_ms, true),        SUMMED(io_ms, true),
    SUMMED(suspension_ms, true), SUMMED(queue_ms, true),
};

// Sums wrap around, as the row's own do.
void checked_row::check_list() const {
  const auto count = static_cast<int64_t>(whole.segments.size());
  if (whole.list.count != count)
    fault(wllb_format("the list of its segments says %lld, but has %lld", static_cast<long long>(whole.list.count),
                      static_cast<long long>(count)));
  if (whole.main_segment < 0)
    fault("its main segment is not in the list");
  for (const summed_column &column : summed_columns) {
    uint64_t sum = 0;
    for (const segment_record &line : whole.list.segments)
      sum += static_cast<uint64_t>(line.*column.of_line);
    const uint64_t difference = sum - static_cast<uint64_t>(whole.row.*column.of_row);
    if (column.wide ? difference != 0 : static_cast<uint32_t>(difference) != 0)
      fault(wllb_format("%s is %lld, its segments sum up to %lld", column.name,
                        static_cast<long long>(whole.row.*column.of_row), static_cast<long long>(sum)));
  }
}

// The integration points: as many times as ids, and each id has a name.
void checked_row::check_points() const {
  const std::string_view ids = whole.row.point_ids, times = whole.row.point_ms;
  if (std::count(ids.begin(), ids.end(), ',') != std::count(times.begin(), times.end(), ',') ||
      ids.empty() != times.empty())
    fault("columns 43 and 44 have not as many entries");
  for (std::string_view rest = ids; !rest.empty();) {
    int64_t id = 0;
    const std::string words = read_number(take_piece(&rest, ','), &id) ? missing_name(check, name_kind::method, id)
                                                                       : "column 43 has an id that is not a number";
    if (!words.empty())
      fault(words);
  }
}

void checked_row::check_ids() const {
  const flowpath_record &row = whole.row;
  std::vector<std::string> found = {missing_name(check, name_kind::url, row.url_id)};
  if (row.signature_id > 0) // 0: off; -1: an empty one
    found.push_back(missing_name(check, name_kind::signature, row.signature_id));
  if (row.tag_set_id != 0)
    found.push_back(missing_name(check, name_kind::tag_set, row.tag_set_id));
  for (const std::string &words : found)
    if (!words.empty())
      fault(words);
}

// --- rows ---------------------------------------------------------------------------------------------------------

void checker::check_flowpaths(const flowpath_place &place) {
  const std::string path = row_path(place.partition, place.instance, "TQFlowPath.csv");
  row_file rows(run, path, table_of(table_id::flowpath));
  flowpath whole;
  while (rows.next()) {
    ++flowpaths;
    if (rows.reason()) {
      fault(rows.fault());
      continue;
    }
    reader.read(place, rows.bytes(), WITH_TREES | WITH_CAPTURED, &whole);
    const checked_row row = {*this, whole, rows};
    for (const error &what : whole.faults)
      row.fault(what.reason);
    row.check_ids();
    row.check_points();
    for (const flowpath_segment &segment : whole.segments)
      row.check_segment(segment);
    if (!whole.segments.empty())
      row.check_list();
  }
  if (rows.lines.left_over() > 0)
    fault({path, place_unit::row, rows.lines.number() + 1, "it has no newline at its end"});
}

// --- the other files ------------------------------------------------------------------------------------------------

void checker::check_ids(const row_file &rows, const table &of) {
  const auto report = [&](const column &c, int64_t id) {
    error what = rows.fault();
    what.reason = wllb_format("%s is %lld, which has no row among the names", c.name, static_cast<long long>(id));
    fault(what);
  };
  for (const column &c : of.columns)
    if (c.names != name_kind::none && rows.record.integer(c) != c.no_name &&
        !names.is_known(c.names, rows.record.integer(c)))
      report(c, rows.record.integer(c));
  if (of.id != table_id::exception)
    return;
  const exception_record &row = rows.record.as<exception_record>();
  constexpr int64_t backend_sql = 2;
  if (row.backend_type == backend_sql && row.sub_type != -1 && !names.is_known(name_kind::query, row.sub_type))
    report(of.columns.back(), row.sub_type);
}

void checker::check_rows(const std::string &path, const table &of) {
  row_file rows(run, path, of);
  while (rows.next()) {
    ++side_rows;
    if (rows.reason())
      fault(rows.fault());
    else
      check_ids(rows, of);
  }
  if (rows.lines.left_over() > 0 && path.ends_with(".dat"))
    fault({path, place_unit::whole_file, 0, "its size is not a multiple of 144 bytes"});
  else if (rows.lines.left_over() > 0)
    fault({path, place_unit::row, rows.lines.number() + 1, "it has no newline at its end"});
}

static bool ends_with_newline(const std::string &path) {
  struct stat facts = {};
  const wllb_fd file(wllb_open_plain(path.c_str(), O_RDONLY, &facts));
  char last = '\n';
  return file.fd < 0 || facts.st_size == 0 || (wllb_read_at(file.fd, &last, 1, facts.st_size - 1), last == '\n');
}

void checker::check_names() {
  name_loader loader(run, all_kinds, name_loader::texts::none);
  loader.load(&names, [this](const error &what) { fault(what); });
  name_rows = loader.rows();
  for (const table &of : all_tables())
    if (of.common && of.names == name_kind::none)
      check_rows(common_path(of.file), of);
    else if (of.common && !ends_with_newline(full_path(run, common_path(of.file))))
      fault({common_path(of.file), place_unit::whole_file, 0, "its last row has no newline at its end"});
}

// --- all of it ----------------------------------------------------------------------------------------------------

int checker::report() const {
  if (faults > 0) {
    if (faults > most_reported)
      out->put("... and ").number(faults - most_reported).put(" more").end_line();
    out->number(faults).put(" faults").end_line();
    return 1;
  }
  out->number(flowpaths).put(" flowpaths, ").number(segments).put(" segments, ").number(tokens).put(" tokens, ");
  out->number(callouts).put(" callout rows, ").number(side_rows).put(" side rows, ").number(name_rows);
  out->put(" names checked, no faults").end_line();
  return 0;
}

int show_check(const test_run &run, const show_options &options, show_out *out) {
  show_question places;
  if (!places.make(run, options.asked, 0))
    return 1;
  checker check = {run, out};
  check.check_names();
  each_place(run, options.asked.partition, "", [&](const flowpath_place &place) {
    if (!places.which.takes_place(place))
      return true;
    check.check_flowpaths(place);
    for (const table &of : all_tables())
      if (!of.common && *of.file && of.id != table_id::flowpath)
        check.check_rows(row_path(place.partition, place.instance, of.file), of);
    check.check_rows(timing_path(place.partition, place.instance), table_of(table_id::method_timing));
    return true;
  });
  return check.report();
}
