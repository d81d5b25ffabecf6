// Checks that all which a test run's files say of each other is so: references, lengths, offsets, sums, names.
//   In      all output files of the chosen partitions and instances
//   Out     a line of totals, or the first hundred faults, on standard output
//   Thread  one
//   Failure a fault is told with its place and the check goes on; what cannot be read is a fault
// A flowpath that ended after its partition was over has its row in the previous partition's file, its list in the current
// one's. A segment that ended so has its texts in the previous file, but an offset of the current one: nobody finds them.
#include "show_check.h"

#include "show_blob.h"
#include "show_detail.h"
#include "show_side_files.h"

#include <algorithm>

// --- the check and its places -------------------------------------------------------------------------------------

struct check_counts {
  int64_t flowpaths = 0, segments = 0, tokens = 0, callouts = 0, side_rows = 0;
  int64_t late_segments = 0; // whose offsets cannot be trusted
};

struct check_run {
  const show_run &run;
  show_names names;
  show_faults faults;
  check_counts counts;
};

// The row being checked.
struct check_row {
  check_run &check;
  const std::string &partition, &instance;
  int64_t line_number;
  show_row row;
  show_reference reference;
};

static void row_fault(check_row &at, const std::string &words) {
  show_fault(&at.check.faults, "%s/%s/TQFlowPath.csv line %lld, flowpath %s: %s", at.partition.c_str(),
             at.instance.c_str(), static_cast<long long>(at.line_number), show_printable(at.row[ROW_FPI], 20).c_str(),
             words.c_str());
}

static void segment_fault(check_row &at, const show_segment_line &line, const std::string &words) {
  row_fault(at, wllb_format("segment %s: %s", show_printable(line[LINE_FPI], 20).c_str(), words.c_str()));
}

struct kind_name {
  show_kind kind;
  const char *name;
};

static const char *name_of(show_kind kind) {
  static constexpr kind_name rows[] = {{KIND_METHOD, "method"},       {KIND_SQL, "query"},
                                       {KIND_RESOURCE, "resource"},   {KIND_URL, "URL"},
                                       {KIND_SIGNATURE, "signature"}, {KIND_TAG, "tag"}};
  for (const kind_name &row : rows)
    if (row.kind == kind)
      return row.name;
  return "id";
}

// Empty, or what is wrong with an id.
static std::string missing_name(const check_run &check, show_kind kind, int64_t id) {
  if (show_is_known(check.names, kind, id))
    return "";
  return wllb_format("the %s %lld has no row among the names", name_of(kind), static_cast<long long>(id));
}

// --- blobs --------------------------------------------------------------------------------------------------------

static std::string check_callout_token(const check_run &check, const show_token &token) {
  if (token.is_bare)
    return "";
  std::string words = missing_name(check, KIND_METHOD, token.backend_id);
  if (words.empty() && (token.letter == 'G' || show_is_database_type(token.backend_type)))
    words = missing_name(check, KIND_SQL, token.sql_id);
  if (words.empty())
    words = missing_name(check, KIND_RESOURCE, token.resource_id);
  return words;
}

static std::string check_token(const check_run &check, const show_token &token) {
  if (token.kind == TOKEN_BAD)
    return "it is none";
  return token.kind == TOKEN_CALLOUT ? check_callout_token(check, token)
                                     : missing_name(check, KIND_METHOD, token.method_id);
}

static void check_blob(check_row &at, const show_segment_line &line, std::string_view text) {
  if (text.find_first_of(",\n") != text.npos)
    segment_fault(at, line, "its blob holds a comma or a newline");
  show_blob blob = show_begin_blob(text);
  for (show_token token; show_next_token(&blob, &token);) {
    ++at.check.counts.tokens;
    const std::string words = check_token(at.check, token);
    if (!words.empty())
      segment_fault(at, line,
                    wllb_format("token '%s' of its blob: %s", show_printable(token.text, 80).c_str(), words.c_str()));
  }
}

// --- callout texts ------------------------------------------------------------------------------------------------

// A column of a callout row that must name something.
static void check_callout_id(check_row &at, const show_segment_line &line, show_kind kind, std::string_view column) {
  int64_t id = 0;
  const std::string words = show_number(column, &id) ? missing_name(at.check, kind, id) : "an id is no number";
  if (!words.empty())
    segment_fault(at, line, "a row of its callout text: " + words);
}

static void check_callout_row(check_row &at, const show_segment_line &line, const show_callout_row &row) {
  constexpr std::string_view none = "-1"; // of callouts that are nothing but a mark
  if (row[CALLOUT_BACKEND] == none && row[CALLOUT_SUB_TYPE] == none)
    return;
  check_callout_id(at, line, KIND_METHOD, row[CALLOUT_BACKEND]);
  check_callout_id(at, line, KIND_RESOURCE, row[CALLOUT_RESOURCE]);
  if (row[CALLOUT_KIND] == "G" || show_is_database_type(row[CALLOUT_TYPE]))
    check_callout_id(at, line, KIND_SQL, row[CALLOUT_SUB_TYPE]);
}

static void check_callouts(check_row &at, const show_segment_line &line, std::string_view text) {
  int64_t count = 0;
  bool cut = false;
  show_callout_row row;
  while (!text.empty() && show_next_callout_row(&text, &cut, &row)) {
    ++count;
    if (!cut)
      check_callout_row(at, line, row);
  }
  at.check.counts.callouts += count;
  if (!text.empty())
    segment_fault(at, line, "a row of its callout text has not 19 columns");
  else if (count != line.number(LINE_CALLOUT_COUNT))
    segment_fault(at, line,
                  wllb_format("its callout text has %lld rows, its line says %.*s", static_cast<long long>(count),
                              static_cast<int>(line[LINE_CALLOUT_COUNT].size()), line[LINE_CALLOUT_COUNT].data()));
}

// --- segments -----------------------------------------------------------------------------------------------------

// Whether the offset of a segment's line is sure to be one of its partition's file: its flowpath ended in time.
static bool offset_is_sure(const check_row &at, const show_segment_line &line) {
  return line[LINE_PARTITION] == at.partition && at.reference.partition == at.partition;
}

// False when the texts are not to be had, and that is no fault.
static bool read_segment_texts(check_row &at, const show_segment_line &line, show_segment_texts *texts) {
  show_blob_file file;
  std::string words = "the sequence blob file is not there";
  if (show_open_blob_file(at.check.run, line[LINE_PARTITION], at.row.number(ROW_APP), &file))
    words = show_read_segment(file, line, texts);
  const bool sure = offset_is_sure(at, line);
  const bool proven = words.empty() && line.number(LINE_BLOB_COMP) != 0; // gzip members have a sum of their own
  if (!words.empty() && sure)
    segment_fault(at, line, words);
  if (!sure && !proven)
    ++at.check.counts.late_segments;
  return words.empty() && (sure || proven);
}

static void check_segment(check_row &at, const show_segment_line &line) {
  ++at.check.counts.segments;
  const std::string words = missing_name(at.check, KIND_URL, line.number(LINE_URL));
  if (!words.empty())
    segment_fault(at, line, words);
  for (const std::string &fault : show_check_detail(at.check.run, at.check.names, at.row.number(ROW_APP), line))
    segment_fault(at, line, fault);
  show_segment_texts texts;
  if (show_has_no_blob(line) || !read_segment_texts(at, line, &texts))
    return;
  check_blob(at, line, texts.blob);
  check_callouts(at, line, texts.callouts);
}

// --- rows ---------------------------------------------------------------------------------------------------------

// A column of the row that is the sum of a column of its segments' lines.
struct summed_column {
  size_t of_row, of_line;
  bool wide; // 64 bits; else 32
};

static constexpr summed_column summed_columns[] = {
    // clang-format off
  {14, 18, true},  // CPU time of the methods
  {16, 20, false}, // entry methods
  {19, 22, false}, // callouts
  {22, 25, true},  // CPU time
  {23, 26, false}, // errors
  {26, 28, false}, // database calls
  {27, 29, false}, // HTTP callouts
  {28, 30, false}, // messaging calls
  {30, 31, false}, // cache calls
  {36, 37, true},  // wait
  {37, 38, true},  // synchronisation
  {38, 39, true},  // I/O
  {39, 40, true},  // suspension
  {40, 41, true},  // queue
}; // clang-format on

struct list_sums {
  uint64_t of[std::size(summed_columns)] = {}; // wrap around, as the row's own do
  int64_t segments = 0;
  bool has_main = false;
};

static void check_sums(check_row &at, const list_sums &sums) {
  for (size_t i = 0; i < std::size(summed_columns); ++i) {
    const summed_column &column = summed_columns[i];
    const uint64_t difference = sums.of[i] - static_cast<uint64_t>(at.row.number(column.of_row));
    if (column.wide ? difference != 0 : static_cast<uint32_t>(difference) != 0)
      row_fault(at, wllb_format("column %zu is %.*s, its segments' columns %zu sum up to %lld", column.of_row,
                                static_cast<int>(at.row[column.of_row].size()), at.row[column.of_row].data(),
                                column.of_line, static_cast<long long>(sums.of[i])));
  }
}

static void check_list(check_row &at, std::string_view list) {
  int64_t count = 0;
  list_sums sums;
  if (!show_begin_list(&list, &count))
    return row_fault(at, "the list of its segments has no count");
  for (show_segment_line line; show_next_line(&list, &line); ++sums.segments) {
    for (size_t i = 0; i < std::size(summed_columns); ++i)
      sums.of[i] += static_cast<uint64_t>(line.number(summed_columns[i].of_line));
    sums.has_main = sums.has_main || line[LINE_FPI] == at.row[ROW_FPI];
    check_segment(at, line);
  }
  if (!list.empty())
    return row_fault(at, wllb_format("line %lld of the list of its segments has not 47 columns as they should be",
                                     static_cast<long long>(sums.segments) + 1));
  if (count != sums.segments)
    row_fault(at, wllb_format("the list of its segments says %lld, but has %lld", static_cast<long long>(count),
                              static_cast<long long>(sums.segments)));
  if (!sums.has_main)
    row_fault(at, "its main segment is not in the list");
  check_sums(at, sums);
}

// The integration points: as many times as ids, and each id has a name.
static void check_points(check_row &at) {
  const std::string_view ids = at.row[ROW_POINT_IDS], times = at.row[ROW_POINT_TIMES];
  if (std::count(ids.begin(), ids.end(), ',') != std::count(times.begin(), times.end(), ',') ||
      ids.empty() != times.empty())
    row_fault(at, "columns 43 and 44 have not as many entries");
  for (std::string_view rest = ids; !rest.empty();) {
    const std::string_view id = wllb_take_piece(&rest, ',');
    int64_t number = 0;
    const std::string words = show_number(id, &number) ? missing_name(at.check, KIND_METHOD, number)
                                                       : "column 43 has an id that is no number";
    if (!words.empty())
      row_fault(at, words);
  }
}

static void check_row_ids(check_row &at) {
  std::vector<std::string> found = {missing_name(at.check, KIND_URL, at.row.number(ROW_URL))};
  if (const int64_t signature = at.row.number(ROW_SIGNATURE); signature > 0) // 0: off; -1: an empty one
    found.push_back(missing_name(at.check, KIND_SIGNATURE, signature));
  if (const int64_t tags = at.row.number(ROW_TAGS); tags != 0)
    found.push_back(missing_name(at.check, KIND_TAG, tags));
  for (const std::string &words : found)
    if (!words.empty())
      row_fault(at, words);
}

static void check_row_of(check_row &at) {
  check_row_ids(at);
  check_points(at);
  if (!show_read_reference(at.row[ROW_REFERENCE], &at.reference))
    return row_fault(at, "the reference to its segments cannot be read");
  show_blob_file file;
  if (!show_open_blob_file(at.check.run, at.reference.partition, at.row.number(ROW_APP), &file))
    return row_fault(at, "the sequence blob file of its segments is not there");
  std::string list;
  if (const char *words = show_read_member(file, at.reference.offset, at.reference.length, &list))
    return row_fault(at, std::string("the list of its segments ") + words);
  check_list(at, list);
}

static void check_flowpaths(check_run &check, const std::string &partition, const std::string &instance) {
  show_lines lines(show_data_path(check.run, partition, instance, "TQFlowPath.csv"));
  for (std::string_view line; lines.next(&line);) {
    ++check.counts.flowpaths;
    check_row at = {check, partition, instance, lines.number, {}, {}};
    const char *words = lines.whole ? show_split_row(line, &at.row) : "it has no newline at its end";
    if (words)
      row_fault(at, words);
    else
      check_row_of(at);
  }
}

// --- all of it ----------------------------------------------------------------------------------------------------

static int tell_faults(const show_faults &faults) {
  const long long count = faults.count, told = static_cast<long long>(faults.told.size());
  for (const std::string &words : faults.told)
    printf("%s\n", words.c_str());
  if (count > told)
    printf("... and %lld more\n", count - told);
  printf("%lld faults\n", count);
  return 1;
}

static int tell_totals(const check_run &check) {
  const check_counts &counts = check.counts;
  if (counts.late_segments != 0)
    printf(
        "%lld segments were not read: their flowpaths reached over a partition's end, so their offsets may be another file's\n",
        static_cast<long long>(counts.late_segments));
  printf(
      "%lld flowpaths, %lld segments, %lld tokens, %lld callout rows, %lld side rows, %lld names checked, no faults\n",
      static_cast<long long>(counts.flowpaths), static_cast<long long>(counts.segments),
      static_cast<long long>(counts.tokens), static_cast<long long>(counts.callouts),
      static_cast<long long>(counts.side_rows), static_cast<long long>(check.names.rows));
  return 0;
}

int show_check(const show_run &run, const show_choice &choice) {
  check_run check = {run, {}, {}, {}};
  show_load_names(run, ~0U, false, &check.names, &check.faults);
  check.counts.side_rows += show_check_common_files(run, &check.faults);
  show_each_instance(run, choice, [&](const std::string &partition, const std::string &instance) {
    check_flowpaths(check, partition, instance);
    check.counts.side_rows += show_check_side_files(run, partition, instance, check.names, &check.faults);
    return true;
  });
  return check.faults.count > 0 ? tell_faults(check.faults) : tell_totals(check);
}
