// Where a test run's files lie; their lines and columns; the sequence blob file.
//   In      a working directory and a test run number; files that may be damaged
//   Out     names, lines, columns, inflated texts
//   Thread  one
//   Failure words that say what is wrong; a file that cannot be opened reads as an empty one
#include "show_files.h"

#include "wllb_compression.h"
#include "wllb_partition.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

// --- faults -----------------------------------------------------------------------------------------------------

void show_fault(show_faults *faults, const char *fmt, ...) {
  if (!faults)
    return;
  ++faults->count;
  if (faults->told.size() >= show_faults::most_told)
    return;
  va_list args;
  va_start(args, fmt);
  faults->told.push_back(show_printable(wllb_vformat(fmt, args), 1000));
  va_end(args);
}

std::string show_printable(std::string_view text, size_t most) {
  const bool cut = text.size() > most;
  std::string shown(text.substr(0, cut && most > 3 ? most - 3 : most));
  for (char &c : shown)
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7f)
      c = '?';
  return cut ? shown + "..." : shown;
}

// --- the test run -----------------------------------------------------------------------------------------------

bool show_find_run(const std::string &work_dir, int testidx, show_run *run) {
  run->work_dir = work_dir;
  run->testidx = testidx;
  run->base = wllb_format("%s/logs/TR%d", work_dir.c_str(), testidx);
  if (!wllb_is_directory(run->base.c_str()))
    return false;
  run->epoch_diff = std::max<int64_t>(0, wllb_get_cur_epoch_diff(run->base.c_str()));
  return true;
}

static std::vector<std::string> directories_in(const std::string &path) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator(); entry.increment(error))
    if (std::error_code ignored; entry->is_directory(ignored))
      names.push_back(entry->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> show_partitions(const show_run &run) {
  std::vector<std::string> names = directories_in(run.base);
  std::erase_if(names, [](const std::string &name) { return !is_partition(name.c_str()); });
  return names;
}

std::vector<std::string> show_instances(const show_run &run, const std::string &partition) {
  return directories_in(run.base + "/" + partition + "/tq/csv");
}

std::string show_data_path(const show_run &run, const std::string &partition, const std::string &instance,
                           const char *name) {
  return run.base + "/" + partition + "/tq/csv/" + instance + "/" + name;
}

std::string show_time_text(const show_run &run, int64_t time_sec) {
  int64_t since_1970 = 0;
  tm parts = {};
  if (__builtin_add_overflow(time_sec, run.epoch_diff, &since_1970) || !gmtime_r(&since_1970, &parts))
    return std::to_string(time_sec);
  char text[64];
  return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

// --- lines and columns --------------------------------------------------------------------------------------------

show_lines::show_lines(const std::string &path) : file(wllb_open_plain(path.c_str(), O_RDONLY)) {}

// Reads more behind the unread bytes. False at the end of the file, and when a line is longer than the limit.
bool show_lines::fill() {
  constexpr size_t step = size_t{256} * 1024;
  if (!is_open())
    return false;
  block.erase(0, begin);
  end -= begin;
  begin = 0;
  if (end == block.size())
    block.resize(std::min(std::max(2 * end, step), show_line_limit));
  const ssize_t count = end < block.size() ? read(file.fd, block.data() + end, block.size() - end) : 0;
  if (count <= 0)
    return false;
  end += static_cast<size_t>(count);
  bytes += count;
  return true;
}

bool show_lines::next(std::string_view *line) {
  size_t searched = 0;
  const void *newline = nullptr;
  while (!(newline = memchr(block.data() + begin + searched, '\n', end - begin - searched))) {
    searched = end - begin;
    if (!fill())
      break;
  }
  if (begin == end)
    return false;
  ++number;
  whole = newline != nullptr;
  const size_t length =
      whole ? static_cast<size_t>(static_cast<const char *>(newline) - block.data()) - begin : end - begin;
  *line = {block.data() + begin, length};
  begin += length + (whole ? 1 : 0);
  return true;
}

bool show_is_number(std::string_view text) {
  if (!text.empty() && text[0] == '-')
    text.remove_prefix(1);
  return wllb_is_numeric(text);
}

bool show_number(std::string_view text, int64_t *value) {
  const std::from_chars_result read = std::from_chars(text.data(), text.data() + text.size(), *value);
  return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

int64_t show_number_or(std::string_view text, int64_t otherwise) {
  int64_t value = 0;
  return show_number(text, &value) ? value : otherwise;
}

size_t show_split(std::string_view line, char separator, std::string_view *columns, size_t most) {
  for (size_t count = 1;; ++count) {
    const size_t cut = line.find(separator);
    if (count <= most)
      columns[count - 1] = line.substr(0, cut);
    if (cut == line.npos)
      return count;
    line.remove_prefix(cut + 1);
  }
}

// Takes `count` columns and the commas behind them off the front of a line.
static bool take_columns(std::string_view *line, std::string_view *columns, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const size_t comma = line->find(',');
    if (comma == line->npos)
      return false;
    columns[i] = line->substr(0, comma);
    line->remove_prefix(comma + 1);
  }
  return true;
}

// --- flowpath rows and segment lines --------------------------------------------------------------------------------

// Takes a list such as "{1,2}", its quotes included, off the front of a line, with the comma behind it.
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

template <size_t N> static bool all_numbers(const show_columns<N> &columns, std::initializer_list<size_t> texts) {
  for (size_t column = 1; column <= N; ++column)
    if (std::find(texts.begin(), texts.end(), column) == texts.end() && !show_is_number(columns[column]))
      return false;
  return true;
}

const char *show_split_row(std::string_view line, show_row *row) {
  if (!take_columns(&line, row->text, ROW_POINT_IDS - 1) || !take_quoted_list(&line, &row->text[ROW_POINT_IDS - 1]) ||
      !take_quoted_list(&line, &row->text[ROW_POINT_TIMES - 1]) ||
      show_split(line, ',', row->text + ROW_POINT_TIMES, 4) != 4)
    return "the row has not 48 columns";
  if (!all_numbers(*row, {6, ROW_REFERENCE, 15, ROW_CORRELATION, 34, ROW_POINT_IDS, ROW_POINT_TIMES}))
    return "a column that should be a number is none";
  return nullptr;
}

bool show_read_reference(std::string_view text, show_reference *reference) {
  std::string_view parts[5];
  if (show_split(text, ':', parts, 5) != 5 || parts[0] != "C" || parts[1] != "1")
    return false;
  reference->partition = parts[2];
  return show_number(parts[3], &reference->offset) && show_number(parts[4], &reference->length);
}

bool show_begin_list(std::string_view *list, int64_t *count) {
  constexpr size_t count_places = 8;
  std::string_view front = list->substr(0, list->find('|'));
  list->remove_prefix(front.size());
  if (front.size() < count_places)
    return false;
  front = front.substr(0, front.find(' '));
  return show_number(front, count) && *count >= 0;
}

bool show_next_line(std::string_view *list, show_segment_line *line) {
  if (!list->starts_with('|'))
    return false;
  std::string_view rest = list->substr(1);
  if (!take_columns(&rest, line->text, 46))
    return false;
  line->text[46] = rest.substr(0, rest.find('|'));
  if (!all_numbers(*line, {LINE_PARTITION, LINE_SEQ_NUM, 19, 24, LINE_THREAD, 43, 44, 45}))
    return false;
  rest.remove_prefix((*line)[47].size());
  *list = rest;
  return true;
}

// --- sequence blob files ---------------------------------------------------------------------------------------------

bool show_open_blob_file(const show_run &run, std::string_view partition, int64_t app, show_blob_file *file) {
  const std::string name(partition);
  if (!is_partition(name.c_str()))
    return false;
  for (const char *tree : {"webapps/logs", "logs"}) { // the same place, unless the two trees of the test run are apart
    const std::string path = wllb_format("%s/%s/TR%d/%s/tq/sqb/%lld", run.work_dir.c_str(), tree, run.testidx,
                                         name.c_str(), static_cast<long long>(app));
    struct stat found = {};
    file->file.reset(wllb_open_plain(path.c_str(), O_RDONLY, &found));
    file->size = found.st_size;
    if (file->file.fd >= 0)
      return true;
  }
  return false;
}

const char *show_read_bytes(const show_blob_file &file, int64_t offset, int64_t length, std::string *bytes) {
  if (offset < 0 || length < 0 || offset > file.size || length > file.size - offset)
    return "reaches behind the end of the sequence blob file";
  bytes->resize(static_cast<size_t>(length));
  const bool whole = wllb_read_at(file.file.fd, bytes->data(), length, offset) == length;
  return whole ? nullptr : "cannot be read from the sequence blob file";
}

const char *show_read_member(const show_blob_file &file, int64_t offset, int64_t length, std::string *text) {
  std::string bytes;
  if (const char *words = show_read_bytes(file, offset, length, &bytes))
    return words;
  if (wllb_decomp_do(bytes.data(), bytes.size(), show_text_limit, text) == 0)
    return nullptr;
  return text->size() >= show_text_limit ? "inflates to more than 1 GiB, which is not read"
                                         : "does not inflate, or has bytes behind its end";
}

// One of a segment's three texts.
struct text_columns {
  const char *name;
  show_line_column length, compressed;
  std::string show_segment_texts::*text;
};

static constexpr text_columns segment_texts[] = {
    {"callout text", LINE_CALLOUT_LEN, LINE_CALLOUT_COMP, &show_segment_texts::callouts},
    {"blob", LINE_BLOB_LEN, LINE_BLOB_COMP, &show_segment_texts::blob},
    {"request detail", LINE_DETAIL_LEN, LINE_DETAIL_COMP, &show_segment_texts::detail},
};

// A compressed text is one member; none for an empty one, but for the blob.
static const char *read_compressed(const show_blob_file &file, const show_segment_line &line, const text_columns &of,
                                   int64_t *offset, std::string *text) {
  const int64_t compressed = line.number(of.compressed);
  if (compressed == 0)
    return line.number(of.length) == 0 ? nullptr : "has a length, but no compressed length";
  if (const char *words = show_read_member(file, *offset, compressed, text))
    return words;
  *offset += compressed;
  return static_cast<int64_t>(text->size()) == line.number(of.length) ? nullptr
                                                                      : "has another length than its line says";
}

// A plain text has a newline behind it; an empty one has none and is not there.
static const char *read_plain(const show_blob_file &file, const show_segment_line &line, const text_columns &of,
                              int64_t *offset, std::string *text) {
  const int64_t length = line.number(of.length);
  if (length == 0)
    return nullptr;
  if (length < 0 || length >= file.size)
    return "reaches behind the end of the sequence blob file";
  if (const char *words = show_read_bytes(file, *offset, length + 1, text))
    return words;
  *offset += length + 1;
  if (text->back() != '\n')
    return "has no newline where its line says that it ends";
  text->pop_back();
  return nullptr;
}

bool show_has_no_blob(const show_segment_line &line) {
  return line.number(LINE_BLOB_LEN) == 0 && line.number(LINE_BLOB_COMP) == 0;
}

std::string show_read_segment(const show_blob_file &file, const show_segment_line &line, show_segment_texts *texts) {
  const bool compressed = line.number(LINE_BLOB_COMP) != 0;
  int64_t offset = line.number(LINE_OFFSET);
  *texts = {};
  if (show_has_no_blob(line))
    return "";
  for (const text_columns &of : segment_texts) {
    std::string &text = texts->*of.text;
    const char *words =
        compressed ? read_compressed(file, line, of, &offset, &text) : read_plain(file, line, of, &offset, &text);
    if (words)
      return wllb_format("its %s %s", of.name, words);
  }
  return "";
}
