// The grammar of the keyword file: lines, comments, words.
//   In      a text file of any bytes
//   Out     one call of a row for each line that begins with a known keyword and has a value
//   Thread  main, before any other thread starts
//   Failure unknown keywords are passed over; no file, or a handler that refuses its value, ends the reading with -1
// Samples:  # a comment      TQP_TRACE_LEVEL 2      TQ_ENABLE_CAPTURE_DB_TIMING 1 1 0
#include "keyword_rows.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

std::string tq_conf_path;

namespace {
constexpr int line_limit = 131072; // bytes with the ending NUL; a longer line is read as several

// Only a regular file is taken; a FIFO in its place must not hold up the start.
wllb_file open_regular_file(const char *path) {
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0)
    return nullptr;
  struct stat about;
  FILE *stream = fstat(fd, &about) == 0 && S_ISREG(about.st_mode) ? fdopen(fd, "r") : nullptr;
  if (!stream)
    close(fd);
  return wllb_file(stream);
}

// Where the text behind the first word begins.
const char *behind_keyword(const char *text, const std::string &keyword) {
  return text + strspn(text, " \t\n\v\f\r") + keyword.size();
}

// A line of the file in words; no words for an empty line or a comment.
kw_line line_of(const char *text) {
  text += strspn(text, " \t");
  if (*text && strchr("# \t\n\r", *text))
    return {};
  kw_line line{.words = wllb_words(text, kw_max_words), .rest = ""};
  if (line.words.size() > 1)
    line.rest = behind_keyword(text, line.words[0]);
  return line;
}

int parse_line(kw_line line) {
  if (line.words.size() < 2) {
    wllb_trace(2, "Error", "error keyword = %s,  text1 = %s\n", line.word(0), line.word(1));
    return 0;
  }
  const kw_row *row = kw_find_row(line.words[0]);
  return row ? kw_apply_row(*row, line) : 0;
}
} // namespace

std::string kw_for_each_line(const char *path,
                             const std::function<int(const kw_line &line, int number, bool cut)> &take) {
  const wllb_file file = open_regular_file(path);
  if (!file)
    return wllb_format("Error in opening file %s\n", path);
  std::vector<char> text(line_limit);
  int number = 1;
  while (fgets(text.data(), line_limit, file.get())) {
    const size_t length = strlen(text.data());
    const kw_line line = line_of(text.data());
    if (!line.words.empty() && take(line, number, length == line_limit - 1 && text[length - 1] != '\n') < 0)
      break;
    number += length > 0 && text[length - 1] == '\n';
  }
  return "";
}

int read_config_file_and_parse_tq_keywords(const char *path, std::string *err_msg) {
  tq_conf_path = path;
  bool good = true;
  const std::string unreadable = kw_for_each_line(path, [&](kw_line line, int, bool) {
    line.err_msg = err_msg;
    good = parse_line(std::move(line)) >= 0;
    return good ? 0 : -1;
  });
  if (!unreadable.empty())
    *err_msg = unreadable;
  return good && unreadable.empty() ? 0 : -1;
}
