// Cuts rows, reads their columns by the tables, and walks over the rows of files; see the header.
//   In      bytes of row files
//   Out     records
//   Thread  one for each reader
//   Failure a bad row is passed over with its reason
// Rows are cut from both ends around the one column that may hold commas, so such a text never moves the others.
#include "tqread_rows.h"

#include "tqread_run.h"
#include "tqread_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqread {

constexpr size_t most_places = 48;

static constexpr const char *not_a_number = "a column that should be a number is not a number of 64 bits";

// --- one column -------------------------------------------------------------------------------------------------

template <class T> static T &member(any_record *record, const column &c) {
  return *reinterpret_cast<T *>(record->bytes + c.offset);
}

// Up to 18 digits cannot overflow; all else goes the slow way.
static bool read_integer(std::string_view text, bool wraps, int64_t *value) {
  if (text.empty() || text.size() > 18 || text[0] == '-')
    return wraps ? read_wrapping_number(text, value) : read_number(text, value);
  int64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9')
      return false;
    number = number * 10 + (c - '0');
  }
  *value = number;
  return true;
}

static int64_t utc_of(time_form form, int64_t epoch_diff_s, int64_t value) {
  switch (form) {
  case time_form::as_it_is:
    return value;
  case time_form::test_s:
    return utc_ms_of_s(epoch_diff_s, value);
  case time_form::test_ms_or_0:
    if (value == 0)
      return 0;
    [[fallthrough]];
  case time_form::test_ms:
    return utc_ms_of_ms(epoch_diff_s, value);
  }
  return value;
}

static bool read_cell(const column &c, std::string_view cell, int64_t epoch_diff_s, any_record *record) {
  switch (c.type) {
  case column_type::text:
    member<std::string_view>(record, c) = cell;
    return true;
  case column_type::real:
    return read_real(cell, &member<double>(record, c));
  case column_type::integer:
    break;
  }
  int64_t value = 0;
  if (!read_integer(cell, c.unsigned_wraps, &value))
    return false;
  member<int64_t>(record, c) = c.form == time_form::as_it_is ? value : utc_of(c.form, epoch_diff_s, value);
  return true;
}

// --- cutting a row ----------------------------------------------------------------------------------------------

// The next comma, or the end. Columns are short: a plain loop finds it sooner than a call does.
static const char *find_comma(const char *at, const char *end) {
  while (at != end && *at != ',')
    ++at;
  return at;
}

// Takes `count` columns and the commas after them off the front.
static bool take_columns(std::string_view *line, std::string_view *cells, size_t count) {
  const char *at = line->data();
  const char *const end = at + line->size();
  for (size_t i = 0; i < count; ++i) {
    const char *const comma = find_comma(at, end);
    if (comma == end)
      return false;
    cells[i] = {at, static_cast<size_t>(comma - at)};
    at = comma + 1;
  }
  *line = {at, static_cast<size_t>(end - at)};
  return true;
}

// Cuts a row into `places` columns; the one at place `wide` (0: none) takes the commas that are too many.
static bool cut(std::string_view line, size_t places, size_t wide, std::string_view *cells) {
  const size_t front = (wide == 0 ? places : wide) - 1;
  if (!take_columns(&line, cells, front))
    return false;
  for (size_t place = places; wide != 0 && place > wide; --place) {
    const size_t comma = line.rfind(',');
    if (comma == line.npos)
      return false;
    cells[place - 1] = line.substr(comma + 1);
    line = line.substr(0, comma);
  }
  cells[front] = line;
  return wide != 0 || line.find(',') == line.npos;
}

// Takes a list such as "{1,2}", its quotes included, off the front of a row, with the comma after it.
static bool take_quoted_list(std::string_view *line, std::string_view *list) {
  if (!line->starts_with("\"{"))
    return false;
  const size_t end = line->find("}\",");
  if (end == line->npos)
    return false;
  *list = line->substr(2, end - 2);
  line->remove_prefix(end + 3);
  return true;
}

static bool cut_flowpath(std::string_view line, std::string_view *cells) {
  return take_columns(&line, cells, 42) && take_quoted_list(&line, cells + 42) && take_quoted_list(&line, cells + 43) &&
         cut(line, 4, 0, cells + 44);
}

// Rows that are more than columns with commas: a URL has a constant end, a tag set stands between quotes.
static bool trim_wide(const table &of, std::string_view *cells) {
  if (of.id == table_id::url)
    return cells[7] == "0" && cells[8] == "'-'";
  if (of.id != table_id::tag_set)
    return true;
  std::string_view &text = cells[1];
  if (text.size() < 2 || text.front() != '\'' || text.back() != '\'')
    return false;
  text = text.substr(1, text.size() - 2);
  return true;
}

// --- one row ----------------------------------------------------------------------------------------------------

const char *read_row(const table &of, std::string_view line, int64_t epoch_diff_s, any_record *record) {
  std::string_view cells[most_places];
  const bool whole = of.id == table_id::flowpath
                         ? cut_flowpath(line, cells)
                         : cut(line, of.places, of.wide, cells) && (of.wide == 0 || trim_wide(of, cells));
  if (!whole)
    return "the row has not the columns of this file";
  for (const column &c : of.columns)
    if (!read_cell(c, cells[c.place - 1], epoch_diff_s, record))
      return not_a_number;
  return nullptr;
}

// Takes a segment's line off the front of a list: its 47th column is a number and ends at the next '|'.
const char *take_segment_row(std::string_view *list, int64_t epoch_diff_s, any_record *record) {
  const table &of = table_of(table_id::segment);
  std::string_view cells[most_places], rest = *list;
  if (!take_columns(&rest, cells, of.places - 1U))
    return "a segment's line has not 47 columns";
  std::string_view &last = cells[of.places - 1U];
  last = rest.substr(0, rest.find('|'));
  for (const column &c : of.columns)
    if (!read_cell(c, cells[c.place - 1], epoch_diff_s, record))
      return "a column of a segment's line that should be a number is not a number of 64 bits";
  rest.remove_prefix(last.size());
  *list = rest;
  return nullptr;
}

// A callout row's columns as far as there are any: numbers that are not there, or are no numbers, become 0.
void read_callout_cells(const std::string_view *cells, int64_t epoch_diff_s, any_record *record) {
  for (const column &c : table_of(table_id::callout).columns) {
    if (c.type == column_type::integer)
      member<int64_t>(record, c) = 0;
    if (c.type == column_type::real)
      member<double>(record, c) = 0;
    read_cell(c, cells[c.place - 1], epoch_diff_s, record);
  }
}

// --- binary rows ------------------------------------------------------------------------------------------------

template <class T> static int64_t from_binary(const char *bytes, size_t at) {
  T value;
  memcpy(&value, bytes + at, sizeof value);
  return static_cast<int64_t>(value);
}

const char *read_binary_timing(const char *bytes, int64_t epoch_diff_s, method_timing_record *record) {
  constexpr auto i64 = from_binary<int64_t>;
  constexpr auto u32 = from_binary<uint32_t>;
  constexpr auto i32 = from_binary<int32_t>;
  static constexpr char zeros[4] = {};
  *record = {
      .method_id = i64(bytes, 0),
      .tier = from_binary<int16_t>(bytes, 64),
      .server = i32(bytes, 68),
      .app = i32(bytes, 72),
      .self_ms = u32(bytes, 20),
      .cpu_ms = i64(bytes, 24),
      .calls = u32(bytes, 32),
      .shortest_self_ms = u32(bytes, 36),
      .longest_self_ms = u32(bytes, 40),
      .first_begin_utc_ms = utc_ms_of_s(epoch_diff_s, u32(bytes, 44)),
      .last_end_utc_ms = utc_ms_of_s(epoch_diff_s, u32(bytes, 48)),
      .wall_ms = u32(bytes, 52),
      .self_cpu_ms = i64(bytes, 56),
      .fpi = i64(bytes, 8),
      .url_id = u32(bytes, 16),
      .wait_ms = i64(bytes, 80),
      .sync_ms = i64(bytes, 88),
      .io_ms = i64(bytes, 96),
      .suspension_ms = i64(bytes, 104),
      .self_wait_ms = i64(bytes, 112),
      .self_sync_ms = i64(bytes, 120),
      .self_io_ms = i64(bytes, 128),
      .self_suspension_ms = i64(bytes, 136),
  };
  const bool padded = memcmp(bytes + 66, zeros, 2) == 0 && memcmp(bytes + 76, zeros, 4) == 0;
  return padded ? nullptr : "the padding of a binary row is not zero";
}

static const char *read_either(const table &of, bool binary, std::string_view row, int64_t epoch_diff_s,
                               any_record *record) {
  if (!binary)
    return read_row(of, row, epoch_diff_s, record);
  return read_binary_timing(row.data(), epoch_diff_s, reinterpret_cast<method_timing_record *>(record->bytes));
}

// --- rows of a piece ----------------------------------------------------------------------------------------------

bool row_cursor::next() {
  const size_t newline = binary_ ? method_timing_record_bytes : rest_.find('\n');
  if (binary_ ? rest_.size() < newline : newline == rest_.npos)
    return false;
  at_ = static_cast<int64_t>(begin_.size() - rest_.size());
  line_ = rest_.substr(0, newline);
  rest_.remove_prefix(newline + (binary_ ? 0 : 1));
  ++number_;
  reason_ = read_either(table_, binary_, line_, epoch_diff_s_, &record);
  return true;
}

// --- lines of a file ----------------------------------------------------------------------------------------------

line_file::line_file(const std::string &path, int64_t from, int64_t to, size_t record_bytes)
    : record_bytes_(record_bytes), end_of_bytes_(from), to_(to), at_(from), line_at_(from) {
  struct stat facts = {};
  file_.reset(wllb_open_plain(path.c_str(), O_RDONLY, &facts));
  if (file_.fd >= 0)
    inode_ = facts.st_ino;
  else
    open_error_ = wllb_strerror(errno);
}

// Reads more behind the unread bytes. False at the end of the file, and when a line is longer than the limit.
bool line_file::fill() {
  constexpr size_t step = size_t{256} * 1024;
  if (!is_open())
    return false;
  if (begin_ > 0 && begin_ < end_)
    memmove(block_.data(), block_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  if (end_ == block_.size())
    block_.resize(std::min(std::max(2 * end_, step), longest_row));
  const auto room = std::min<int64_t>(static_cast<int64_t>(block_.size() - end_), to_ - end_of_bytes_);
  const int64_t count = room > 0 ? wllb_read_at(file_.fd, block_.data() + end_, room, end_of_bytes_) : 0;
  if (count <= 0)
    return false;
  end_ += static_cast<size_t>(count);
  end_of_bytes_ += count;
  return true;
}

// Drops the bytes of a line that is longer than the limit, up to its newline. False: the file ends before it.
bool line_file::skip_line() {
  for (;;) {
    const void *const newline = memchr(block_.data() + begin_, '\n', end_ - begin_);
    const size_t dropped =
        newline ? static_cast<size_t>(static_cast<const char *>(newline) - block_.data()) - begin_ + 1 : end_ - begin_;
    begin_ += dropped;
    at_ += static_cast<int64_t>(dropped);
    if (newline)
      return true;
    if (!fill())
      return false;
  }
}

bool line_file::next_record(std::string_view *record) {
  while (end_ - begin_ < record_bytes_)
    if (!fill())
      return false;
  *record = {block_.data() + begin_, record_bytes_};
  line_at_ = at_;
  begin_ += record_bytes_;
  at_ += static_cast<int64_t>(record_bytes_);
  ++number_;
  return true;
}

bool line_file::next(std::string_view *line) {
  if (record_bytes_ != 0)
    return next_record(line);
  too_long_ = false;
  size_t searched = 0;
  const void *newline = nullptr;
  while (!(newline = end_ > begin_ + searched
                         ? memchr(block_.data() + begin_ + searched, '\n', end_ - begin_ - searched)
                         : nullptr)) {
    searched = end_ - begin_;
    if (fill())
      continue;
    if (searched < longest_row)
      return false;
    line_at_ = at_;
    too_long_ = true;
    *line = {};
    ++number_;
    return skip_line();
  }
  const size_t length = static_cast<size_t>(static_cast<const char *>(newline) - block_.data()) - begin_;
  *line = {block_.data() + begin_, length};
  line_at_ = at_;
  begin_ += length + 1;
  at_ += static_cast<int64_t>(length) + 1;
  ++number_;
  return true;
}

// --- the rows of a whole file ---------------------------------------------------------------------------------------

row_file::row_file(const test_run &run, std::string below, const table &of, int64_t from, int64_t to)
    : lines(full_path(run, below), from, to, below.ends_with(".dat") ? method_timing_record_bytes : 0),
      below_(std::move(below)), table_(of), epoch_diff_s_(run.epoch_diff_s), binary_(below_.ends_with(".dat")) {}

bool row_file::next() {
  if (!lines.next(&line_))
    return false;
  reason_ =
      lines.too_long() ? "the row has more than 64 MiB" : read_either(table_, binary_, line_, epoch_diff_s_, &record);
  return true;
}

error row_file::fault() const {
  return {below_, place_unit::row, lines.number(), reason_ ? reason_ : ""};
}

} // namespace tqread
