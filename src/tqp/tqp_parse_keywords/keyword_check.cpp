// What is wrong with a keyword file.
//   In      a keyword file of any bytes
//   Out     findings; no keyword global changes
//   Thread  main, before any other thread starts
//   Failure a file that cannot be read is a finding
// Checks run beside the handlers, not in them: a handler's words in the trace are fixed, and many take bad values silently.
#include "keyword_check.h"

#include "keyword_rows.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <strings.h>
#include <utility>

namespace {
constexpr size_t shown_bytes = 60;
constexpr size_t most_warnings = 50;

// Text of the file as it may be printed: no control characters, of bearable length.
std::string printable(std::string_view text) {
  std::string shown(text.substr(0, shown_bytes));
  for (char &c : shown)
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
      c = '?';
  return text.size() > shown_bytes ? shown + "..." : shown;
}

std::string quoted(const char *word) {
  return "'" + printable(word) + "'";
}

// --- the nearest keyword -------------------------------------------------------------------------------------

// Letters to add, drop or change to make one word of the other.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i);
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t changed = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, changed}));
    }
  }
  return row.back();
}

std::string unknown_keyword(const std::string &word) {
  std::string given = word.substr(0, 200);
  for (char &c : given)
    if ('a' <= c && c <= 'z')
      c = static_cast<char>(c - 'a' + 'A');
  const kw_row *nearest = nullptr;
  size_t best = std::max<size_t>(given.size() / 4, 1) + 1;
  for (const kw_row &row : kw_rows) {
    const size_t longer = std::max(given.size(), row.keyword.size()),
                 shorter = std::min(given.size(), row.keyword.size());
    const size_t found = longer - shorter < best ? distance(given, row.keyword) : best;
    if (found < best) {
      best = found;
      nearest = &row;
    }
  }
  return nearest ? "is not a keyword; the nearest is " + std::string(nearest->keyword) : "is not a keyword";
}

// --- values --------------------------------------------------------------------------------------------------

// What is wrong with a word as a number: "" when it is one.
std::string number_fault(const char *word) {
  char *end = nullptr;
  const long number = strtol(word, &end, 10);
  if (end == word || *end != '\0')
    return quoted(word) + " is not a number; " + std::to_string(kw_int(word)) + " is read";
  return number == kw_int(word) ? "" : quoted(word) + " is too large; " + std::to_string(kw_int(word)) + " is read";
}

std::string check_plain(const kw_row &row, const char *word) {
  std::string fault = number_fault(word);
  if (kw_accepts(row, word, kw_int(word)))
    return fault;
  const bool number = fault.find(" is not a number;") == std::string::npos;
  const std::string accepted = kw_accepted_text(row); // of the first word
  return quoted(word) + " is not " + (number ? accepted.substr(0, accepted.find("; ")) : "a number") + "; " +
         std::to_string(row.def / row.unit) + " is used";
}

// A later word that must be a count from 1; "" also when it is missing.
std::string check_count(const char *word, const char *name, int fallback) {
  if (!*word || (wllb_is_numeric(word) && kw_int(word) >= 1))
    return "";
  return wllb_format("%s %s is not 1 or more; %d is used", name, quoted(word).c_str(), fallback);
}

std::string check_seq_blob(const kw_row &row, const kw_line &line) {
  if (std::string why = check_plain(row, line.word(1)); !why.empty())
    return why;
  const char version = *line.word(2);
  if (version && (version < 'A' || version > 'C'))
    return "version " + quoted(line.word(2)) + " is not A, B or C; B is used";
  return *line.word(3) && kw_int(line.word(3)) < 1 ? check_count(line.word(3), "size", 10000) : "";
}

std::string check_db_timing(const kw_row &, const kw_line &line) {
  constexpr size_t flags = 10;
  for (size_t i = 1; i <= flags && i < line.words.size(); ++i)
    if (*line.word(i) == '#')
      return wllb_format("has %zu flags of %zu; the words after them count as 0", i - 1, flags);
    else if (std::string why = number_fault(line.word(i)); !why.empty())
      return why;
  const size_t given = line.words.size() - 1;
  return given < flags ? wllb_format("has %zu flags of %zu; the missing ones are 0", given, flags) : "";
}

std::string check_mempool(const kw_row &, const kw_line &line) {
  if (std::string why = number_fault(line.word(1)); !why.empty() || kw_int(line.word(1)) == 0)
    return why;
  std::string why = check_count(line.word(2), "first count", 64);
  return why.empty() ? check_count(line.word(3), "second count", 64) : why;
}

std::string check_unchanged(const kw_row &, const kw_line &line) {
  for (size_t i = 1; i < std::min<size_t>(line.words.size(), 3) && *line.word(i) != '#'; ++i)
    if (!wllb_is_numeric(line.word(i)))
      return quoted(line.word(i)) + " is not a number; it has no effect";
  return "";
}

std::string check_sql_load(const kw_row &row, const kw_line &line) {
  return strncasecmp(line.word(1), "ALL", 3) == 0 ? "" : check_plain(row, line.word(1));
}

std::string check_sql_interval(const kw_row &row, const kw_line &line) {
  return kw_int(line.word(1)) == 0 ? number_fault(line.word(1)) : check_plain(row, line.word(1));
}

std::string check_similarity(const kw_row &row, const kw_line &line) {
  return check_plain(row, line.word(1));
}

std::string check_scandir(const kw_row &, const kw_line &line) {
  char *unit = nullptr;
  const long long number = strtoll(line.word(1), &unit, 10);
  const bool seconds = unit != line.word(1) && !*unit;
  const int64_t ms = seconds ? number : check_time_in_min_sec_or_hr(line.word(1));
  if ((seconds && number < 0) || (!seconds && (ms < 0 || (*unit && unit[1]))))
    return quoted(line.word(1)) + " is not a time; " +
           (ms > 0 ? "the words after its unit are passed over" : "1800 s is used");
  const int64_t period = seconds ? number : ms / 1000;
  return 0 < period && period < 300 ? quoted(line.word(1)) + " is below 5 minutes; 300 s is used" : "";
}

std::string check_cleanup(const kw_row &, const kw_line &line) {
  char *unit = nullptr;
  const long number = strtol(line.word(1), &unit, 10);
  const bool known = unit != line.word(1) && (*unit ? strchr("mMhHdD", *unit) != nullptr : number != 0);
  if (known && number > 0)
    return "";
  return quoted(line.word(1)) + " is not a number above 0 with m, h or d" + (known ? "" : "; 3d is used");
}

std::string check_fpi_mask(const kw_row &, const kw_line &line) {
  std::string why;
  return kw_check_tq_fpi_mask(line.word(1), &why) == 0 ? "" : why + " The process will not start";
}

struct odd_check {
  std::string_view keyword;
  std::string (*check)(const kw_row &row, const kw_line &line);
};

constexpr odd_check odd_checks[] = {
    // clang-format off
  {"TQP_SEQ_BLOB_IN_FILE_FLAG", check_seq_blob},
  {"TQ_ENABLE_CAPTURE_DB_TIMING", check_db_timing},
  {"TQP_MEMPOOL_SETTINGS", check_mempool},
  {"TQP_MON_LARGE_FLOWPATH_METHOD_COUNT", check_unchanged},
  {"TQP_MONITORS", check_unchanged},
  {"TQP_NUM_NONPREP_SQL_LOAD_AT_INIT", check_sql_load},
  {"TQP_INTERVAL_TO_DUMP_SQL_TIMING_DATA", check_sql_interval},
  {"TQP_SQL_QUERY_SIMILARITY_PERCENTAGE", check_similarity},
  {"TQP_PERIODIC_SCANDIR_TIME", check_scandir},
  {"TQP_DELETED_INSTANCE_CLEANUP_DELAY", check_cleanup},
  {"TQ_FPI_MASK", check_fpi_mask},
    // clang-format on
};

// What is wrong with the values of a line; "" when nothing is.
std::string check_values(const kw_row &row, const kw_line &line) {
  for (const odd_check &odd : odd_checks)
    if (odd.keyword == row.keyword)
      return odd.check(row, line);
  return row.rule == KW_OWN ? "" : check_plain(row, line.word(1));
}

std::string without_effect(const kw_row &row) {
  if (row.unused)
    return row.value || row.rule != KW_OWN ? "has no effect: nothing uses it any more"
                                           : std::string("has no effect: ") + row.meaning;
  if (row.fixed && !row.read_before_fixing)
    return "has no effect: " + kw_default_text(row) + " is always used";
  return "";
}

// --- lines ---------------------------------------------------------------------------------------------------

struct checking {
  kw_findings found;
  std::map<std::string_view, int> first_lines; // of the keywords seen, by their rows' names
};

void add(checking &c, int line, std::string_view keyword, std::string what) {
  if (c.found.list.size() < kw_most_findings)
    c.found.list.push_back({line, printable(keyword), std::move(what)});
  else
    ++c.found.more;
}

void check_line(checking &c, const kw_line &line, int number) {
  const kw_row *row = kw_find_row(line.words[0]);
  if (!row) // the search for a near one is only for those that are shown
    return add(c, number, line.words[0], c.found.list.size() < kw_most_findings ? unknown_keyword(line.words[0]) : "");
  if (line.words.size() < 2 || *line.word(1) == '#')
    return add(c, number, row->keyword,
               "has no value" + std::string(line.words.size() < 2 ? " and is passed over" : ""));
  ++c.found.keywords;
  const auto [first, is_first] = c.first_lines.emplace(row->keyword, number);
  if (!is_first)
    add(c, number, row->keyword, wllb_format("was set in line %d; this line holds", first->second));
  std::string what = without_effect(*row);
  if (what.empty())
    what = check_values(*row, line);
  if (!what.empty())
    add(c, number, row->keyword, what);
}
} // namespace

kw_findings kw_check_file(const char *path) {
  checking c;
  const std::string why = kw_for_each_line(path, [&c](const kw_line &line, int number, bool cut) {
    if (cut)
      add(c, number, line.word(0), "is on a line that is too long; the rest is read as another line");
    check_line(c, line, number);
    return 0;
  });
  if (!why.empty())
    add(c, 0, "", "cannot be read: it is missing, or no plain file");
  return std::move(c.found);
}

std::string kw_finding_text(const char *path, const kw_finding &finding) {
  if (finding.line == 0)
    return wllb_format("%s: %s", path, finding.what.c_str());
  return wllb_format("%s:%d: %s %s", path, finding.line, finding.keyword.c_str(), finding.what.c_str());
}

void kw_warn_of_findings(const char *path) {
  const kw_findings found = kw_check_file(path);
  const size_t shown = std::min(found.list.size(), most_warnings);
  for (size_t i = 0; i < shown; ++i) {
    const std::string text = kw_finding_text(path, found.list[i]);
    fprintf(stderr, "tqp: warning: %s\n", text.c_str());
    wllb_trace(1, "Warning", "%s", text.c_str());
  }
  if (const size_t rest = found.list.size() - shown + found.more; rest > 0)
    fprintf(stderr, "tqp: warning: %s: %zu more findings; tqcheck lists them\n", path, rest);
}
