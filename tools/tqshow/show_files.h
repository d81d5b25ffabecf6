// Reads what a test run's instances have left, as a loader would: where files lie, their lines and columns, the texts that
// rows point at, the names behind numbers.
//   In      files that may be damaged, cut, or still growing
//   Out     views into texts of the caller; texts by value
//   Thread  one
//   Failure words that say what is wrong. Nothing is trusted: a line has at most 64 MiB, a text at most 1 GiB when inflated
#pragma once

#include "wllb_util.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

constexpr size_t show_line_limit = size_t{64} << 20U;
constexpr size_t show_text_limit = size_t{1} << 30U;

// --- faults -----------------------------------------------------------------------------------------------------

// What is wrong with a test run: all are counted, the first ones told.
struct show_faults {
  static constexpr size_t most_told = 100;
  int64_t count = 0;
  std::vector<std::string> told;
};

void show_fault(show_faults *faults, const char *fmt, ...) WLLB_PRINTF(2, 3);

// A text from a file, fit for a terminal: control bytes become '?', and what is longer than `most` ends in "...".
std::string show_printable(std::string_view text, size_t most);

// --- the test run -----------------------------------------------------------------------------------------------

struct show_run {
  std::string work_dir;
  int testidx = 0;
  std::string base;       // "<work_dir>/logs/TR<testidx>"
  int64_t epoch_diff = 0; // s between the test's epoch and 1970
};

// False when there is no such test run.
bool show_find_run(const std::string &work_dir, int testidx, show_run *run);

// Sorted names: partitions oldest first, the instances that have files in one.
std::vector<std::string> show_partitions(const show_run &run);
std::vector<std::string> show_instances(const show_run &run, const std::string &partition);

// "<base>/<partition>/tq/csv/<instance>/<name>"
std::string show_data_path(const show_run &run, const std::string &partition, const std::string &instance,
                           const char *name);

// A time of the test's epoch (s) as "2026-11-22 10:00:05", in UTC.
std::string show_time_text(const show_run &run, int64_t time_sec);

// --- lines and columns --------------------------------------------------------------------------------------------

// Reads a file line by line.
struct show_lines {
  explicit show_lines(const std::string &path);

  bool is_open() const { return file.fd >= 0; }

  // The next line without its newline, good until the next call. False at the end of the file.
  bool next(std::string_view *line);

  int64_t number = 0; // of the line read last, from 1
  bool whole = true;  // it had a newline and was no longer than the limit
  int64_t bytes = 0;  // of the file, as far as it has been read

private:
  bool fill();
  wllb_fd file;
  std::string block;
  size_t begin = 0, end = 0; // unread bytes of `block`
};

// Optional '-' and decimal digits, nothing else. The second reads it as well; false also for what 64 bits do not hold.
bool show_is_number(std::string_view text);
bool show_number(std::string_view text, int64_t *value);
int64_t show_number_or(std::string_view text, int64_t otherwise);

// How many columns a line has; the first `most` are stored.
size_t show_split(std::string_view line, char separator, std::string_view *columns, size_t most);

// --- flowpath rows and segment lines --------------------------------------------------------------------------------

// Columns count from 1, as in the file's description.
template <size_t N> struct show_columns {
  std::string_view text[N];

  std::string_view operator[](size_t column) const { return text[column - 1]; }

  int64_t number(size_t column) const { return show_number_or(text[column - 1], 0); }
};

using show_row = show_columns<48>;          // of TQFlowPath.csv
using show_segment_line = show_columns<47>; // of a segment list

enum show_row_column { // those that have uses here
  ROW_FPI = 1,
  ROW_APP = 4,
  ROW_SIGNATURE = 8,
  ROW_DURATION = 9,
  ROW_REFERENCE = 11,
  ROW_BEGIN = 12,
  ROW_METHODS = 16,
  ROW_STATUS = 17,
  ROW_CALLOUTS = 19,
  ROW_URL = 20,
  ROW_CORRELATION = 21,
  ROW_ERRORS = 23,
  ROW_POINT_IDS = 43,
  ROW_POINT_TIMES = 44,
  ROW_TAGS = 48
};

enum show_line_column {
  LINE_FPI = 1,
  LINE_PARENT = 2,
  LINE_PARTITION = 3,
  LINE_CALLOUT_COUNT = 4,
  LINE_OFFSET = 5,
  LINE_CALLOUT_LEN = 6,
  LINE_BLOB_LEN = 7,
  LINE_DETAIL_LEN = 8,
  LINE_CALLOUT_COMP = 9,
  LINE_BLOB_COMP = 10,
  LINE_DETAIL_COMP = 11,
  LINE_TIER = 12,
  LINE_SEQ_NUM = 13,
  LINE_RESPONSE_TIME = 15,
  LINE_BEGIN = 16,
  LINE_METHODS = 20,
  LINE_STATUS = 21,
  LINE_URL = 23,
  LINE_THREAD = 35,
  LINE_DYNAMIC = 43,
  LINE_RESPONSE_BODY = 45
};

// Null, or what is wrong.
const char *show_split_row(std::string_view line, show_row *row);

// "C:1:20261122100000:300:120"
struct show_reference {
  std::string partition;
  int64_t offset = 0, length = 0;
};

bool show_read_reference(std::string_view text, show_reference *reference);

// Takes the number of segments off the front of a list. False: there is none.
bool show_begin_list(std::string_view *list, int64_t *count);

// Takes the next segment's line off the list. False at the end of the list, and when what follows is no line: then the
// list is not empty. Texts in a line may hold '|': a line ends with the '|' behind its 47th column.
bool show_next_line(std::string_view *list, show_segment_line *line);

// --- sequence blob files ---------------------------------------------------------------------------------------------

struct show_blob_file {
  wllb_fd file;
  int64_t size = 0;
};

// Opens "<testrun>/<partition>/tq/sqb/<app>". False: there is none, or the partition's name is no partition's.
bool show_open_blob_file(const show_run &run, std::string_view partition, int64_t app, show_blob_file *file);

// Null, or what is wrong.
const char *show_read_bytes(const show_blob_file &file, int64_t offset, int64_t length, std::string *bytes);
const char *show_read_member(const show_blob_file &file, int64_t offset, int64_t length, std::string *text);

struct show_segment_texts {
  std::string callouts, blob, detail;
};

// True for a segment that left no blob: none of its texts went to the file, whatever lengths its line has.
bool show_has_no_blob(const show_segment_line &line);

// Reads the texts of a segment from where its line says. Empty, or what is wrong.
std::string show_read_segment(const show_blob_file &file, const show_segment_line &line, show_segment_texts *texts);

// --- names -------------------------------------------------------------------------------------------------------------

enum show_kind {
  KIND_METHOD,
  KIND_CLASS,
  KIND_PACKAGE,
  KIND_PAGE,
  KIND_OTHER, // of TQMetaData.csv
  KIND_URL,
  KIND_SQL, // prepared and not: the ids of the latter carry 0x40000000
  KIND_RESOURCE,
  KIND_HEADER,
  KIND_SIGNATURE,
  KIND_EXCP_CLS,
  KIND_EXCP_THR_CLS,
  KIND_EXCP_THR_MTD,
  KIND_EXCP_STACK,
  KIND_EXCP_MSG,
  KIND_EXCP_CAUSE,
  KIND_TAG,
  SHOW_KINDS
};

constexpr int64_t show_id_flag = 0x40000000; // URLs, and queries that are not prepared

struct show_names {
  std::unordered_map<int64_t, std::string> texts[SHOW_KINDS]; // by norm id; at most 4096 bytes of each
  int64_t rows = 0;
  int64_t oldest_nonprepared = INT64_MAX; // the file before the last two may have had older ones
  bool rolled_over = false;
};

// Reads the names of some kinds (bits 1 << kind). Without `texts` it only notes which ids there are. Faults may be null.
void show_load_names(const show_run &run, uint32_t kinds, bool texts, show_names *names, show_faults *faults);

// Whether the id has a row. A query that is not prepared may be one that has been thrown away with its file.
bool show_is_known(const show_names &names, show_kind kind, int64_t id);

// The name, or "#5".
std::string show_name(const show_names &names, show_kind kind, int64_t id, size_t most);
