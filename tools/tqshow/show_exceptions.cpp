// Lists exceptions, those of one flowpath or of all.
//   In      TQExceptions.csv, the names behind its ids
//   Out     lines on standard output: when, what, thrown where, why, where the stack begins, the method that met it
//   Thread  one
//   Failure a row that cannot be read is told in its place by the list; the exceptions of one flowpath pass over it
// Sample:   4611686018427387905,3,4,5,1000,1,2,3,42,4,5,6,17,88,2,9
#include "show_exceptions.h"

#include <algorithm>

using exception_row = show_columns<16>;

enum exception_column {
  EXCP_FPI = 1,
  EXCP_TIME = 5,
  EXCP_CLS = 6,
  EXCP_THR_CLS = 7,
  EXCP_THR_MTD = 8,
  EXCP_LINE = 9,
  EXCP_MSG = 10,
  EXCP_CAUSE = 11,
  EXCP_STACK = 12,
  EXCP_METHOD = 13,
  EXCP_METHOD_LINE = 14,
  EXCP_BACKEND_TYPE = 15,
  EXCP_SUB_TYPE = 16
};

// What is printed of a row: a time, the names behind these ids, and the method that met the exception.
struct name_cell {
  const char *title;
  exception_column column; // EXCP_THR_CLS: its method and line follow
  show_kind kind;
  size_t most;
};

static constexpr name_cell name_cells[] = {
    // clang-format off
  {"exception", EXCP_CLS,     KIND_EXCP_CLS,     60},
  {"thrown at", EXCP_THR_CLS, KIND_EXCP_THR_CLS, 80},
  {"message",   EXCP_MSG,     KIND_EXCP_MSG,     60},
  {"cause",     EXCP_CAUSE,   KIND_EXCP_CAUSE,   60},
  {"stack",     EXCP_STACK,   KIND_EXCP_STACK,   100},
}; // clang-format on

constexpr size_t most_of_method = 60, places_of_line = 5;
constexpr uint32_t exception_kinds = 1U << KIND_EXCP_CLS | 1U << KIND_EXCP_THR_CLS | 1U << KIND_EXCP_THR_MTD |
                                     1U << KIND_EXCP_MSG | 1U << KIND_EXCP_CAUSE | 1U << KIND_EXCP_STACK |
                                     1U << KIND_METHOD | 1U << KIND_SQL;

// Names, and how wide they make the columns.
struct exception_table {
  show_names names;
  int widths[std::size(name_cells)];
};

// --- the table ----------------------------------------------------------------------------------------------------

// A stack trace is one line of its file: its own lines begin with "at", or stand behind a tab or the like.
static std::string first_line(std::string_view stack) {
  stack.remove_prefix(std::min(stack.find_first_not_of(" \t\v\f\r"), stack.size()));
  return std::string(stack.substr(0, std::min(stack.find_first_of("\t\v\f\r"), stack.find(" at "))));
}

static size_t widest(const show_names &names, show_kind kind, size_t most) {
  size_t width = 0;
  for (const auto &[id, text] : names.texts[kind])
    width = std::max(width, text.size());
  return std::min(width, most);
}

static void begin_table(const show_run &run, exception_table *table) {
  show_load_names(run, exception_kinds, true, &table->names, nullptr);
  for (auto &[id, text] : table->names.texts[KIND_EXCP_STACK])
    text = first_line(text);
  for (size_t i = 0; i < std::size(name_cells); ++i) {
    const name_cell &cell = name_cells[i];
    size_t width = widest(table->names, cell.kind, cell.most);
    if (cell.column == EXCP_THR_CLS)
      width += 1 + widest(table->names, KIND_EXCP_THR_MTD, most_of_method) + 1 + places_of_line;
    table->widths[i] = static_cast<int>(std::max(width, std::string_view(cell.title).size()));
  }
}

static void print_titles(const exception_table &table) {
  printf("%-19s", "time (UTC)");
  for (size_t i = 0; i < std::size(name_cells); ++i)
    printf("  %-*s", table.widths[i], name_cells[i].title);
  printf("  method\n");
}

static std::string cell_text(const show_names &names, const exception_row &row, const name_cell &cell) {
  std::string text = show_name(names, cell.kind, row.number(cell.column), cell.most);
  if (cell.column == EXCP_THR_CLS)
    text += "." + show_name(names, KIND_EXCP_THR_MTD, row.number(EXCP_THR_MTD), most_of_method) + ":" +
            std::to_string(row.number(EXCP_LINE));
  return text;
}

// "com.acme.Shop.pay()V:88, backend type 2, sql "select 1"", or "-".
static std::string method_text(const show_names &names, const exception_row &row) {
  constexpr int64_t none = -1, backend_sql = 2;
  if (row.number(EXCP_METHOD) == none)
    return "-";
  std::string text = show_name(names, KIND_METHOD, row.number(EXCP_METHOD), 200) + ":" +
                     std::to_string(row.number(EXCP_METHOD_LINE)) + ", backend type " +
                     std::to_string(row.number(EXCP_BACKEND_TYPE));
  if (row.number(EXCP_BACKEND_TYPE) == backend_sql && row.number(EXCP_SUB_TYPE) != none)
    text += ", sql \"" + show_name(names, KIND_SQL, row.number(EXCP_SUB_TYPE), 200) + "\"";
  return text;
}

static void print_row(const show_run &run, const exception_table &table, const exception_row &row) {
  printf("%-19s", show_time_text(run, row.number(EXCP_TIME)).c_str());
  for (size_t i = 0; i < std::size(name_cells); ++i)
    printf("  %-*s", table.widths[i], cell_text(table.names, row, name_cells[i]).c_str());
  printf("  %s\n", method_text(table.names, row).c_str());
}

// --- the rows -----------------------------------------------------------------------------------------------------

// Null, or what is wrong.
static const char *read_row(const show_lines &lines, std::string_view line, exception_row *row) {
  if (!lines.whole)
    return "it has no newline at its end";
  if (show_split(line, ',', row->text, std::size(row->text)) != std::size(row->text))
    return "the row has not 16 columns";
  int64_t ignored = 0;
  for (const std::string_view column : row->text)
    if (!show_number(column, &ignored))
      return "a column that should be a number is none, or has no room in 64 bits";
  return nullptr;
}

int show_exceptions(const show_run &run, const show_choice &choice) {
  exception_table table;
  begin_table(run, &table);
  const int width = show_instance_width(run, choice);
  printf("%-14s  %-*s  %20s  ", "partition", width, "instance", "flowpath");
  print_titles(table);
  int result = 0;
  show_each_instance(run, choice, [&](const std::string &partition, const std::string &instance) {
    const std::string path = show_data_path(run, partition, instance, "TQExceptions.csv");
    show_lines lines(path);
    for (std::string_view line; lines.next(&line);) {
      exception_row row;
      if (const char *words = read_row(lines, line, &row)) {
        show_tell_bad_row(path, lines, words);
        result = 1;
        continue;
      }
      printf("%-14s  %-*s  %20lld  ", partition.c_str(), width, show_printable(instance, 40).c_str(),
             static_cast<long long>(row.number(EXCP_FPI)));
      print_row(run, table, row);
    }
    return true;
  });
  return result;
}

void show_exceptions_of(const show_run &run, const show_choice &choice, int64_t flowpath) {
  exception_table table;
  bool begun = false;
  show_each_instance(run, choice, [&](const std::string &partition, const std::string &instance) {
    show_lines lines(show_data_path(run, partition, instance, "TQExceptions.csv"));
    for (std::string_view line; lines.next(&line);) {
      exception_row row;
      if (read_row(lines, line, &row) || row.number(EXCP_FPI) != flowpath)
        continue;
      if (!begun) { // most flowpaths have none: no names are read then
        begun = true;
        begin_table(run, &table);
        printf("\nexceptions\n");
        print_titles(table);
      }
      print_row(run, table, row);
    }
    return true;
  });
}
