// Side records and timing: how many columns a row has, and whether its ids have names.
//   In      text files of an instance in a partition, its dat file of method timing
//   Out     faults
//   Thread  one
//   Failure a file that is not there has no rows
#include "show_side_files.h"

#include <cstring>

// --- text files -----------------------------------------------------------------------------------------------------

struct id_column {
  size_t column; // from 1; 0: no more of them
  show_kind kind;
  int64_t none = INT64_MIN;   // a value that stands for none
  size_t when_column = 0;     // the id is one only where this column
  std::string_view when = ""; // says this
};

constexpr size_t most_columns = 40, most_id_columns = 8;

struct side_file {
  const char *name;
  size_t columns;
  bool free_tail; // the last column may hold commas
  id_column ids[most_id_columns];
};

static constexpr side_file instance_files[] = {
    // clang-format off
  {"TQMethodTiming.csv", 23, false, {{1, KIND_METHOD}, {15, KIND_URL, 0}}},
  {"TQSQLTiming.csv",    14, false, {{1, KIND_SQL}, {5, KIND_URL, 0}, {14, KIND_METHOD}}},
  {"TQSQLRecord.csv",     9, false, {{7, KIND_SQL}, {9, KIND_URL, 0}}},
  {"TQExceptions.csv",   16, false, {{6, KIND_EXCP_CLS}, {7, KIND_EXCP_THR_CLS}, {8, KIND_EXCP_THR_MTD},
                                     {10, KIND_EXCP_MSG}, {11, KIND_EXCP_CAUSE}, {12, KIND_EXCP_STACK},
                                     {13, KIND_METHOD, -1}, {16, KIND_SQL, -1, 15, "2"}}},
  {"TQCustomData.csv",   10, false, {{3, KIND_HEADER, 0}}},
  {"TQBCIArg.csv",       14, false, {{3, KIND_PAGE}, {4, KIND_METHOD}}},
  {"TQJMS.csv",           6, true,  {}},
  {"TQURLRecord.csv",    38, false, {{2, KIND_URL}}},
}; // clang-format on

static constexpr side_file common_files[] = {
    {"TQMetaDataEx.csv", 4, false, {}},
    {"TQFunctionalGroup.csv", 2, true, {}},
};

// A line of a file, as faults name it.
struct file_place {
  const std::string &path;
  const show_lines &lines;
};

static void check_ids(const file_place &at, const side_file &file, const std::string_view *columns,
                      const show_names &names, show_faults *faults) {
  for (const id_column &id : file.ids) {
    if (id.column == 0)
      return;
    if (id.when_column != 0 && columns[id.when_column - 1] != id.when)
      continue;
    int64_t value = 0;
    if (!show_number(columns[id.column - 1], &value))
      show_fault(faults, "%s line %lld: column %zu is no number", at.path.c_str(),
                 static_cast<long long>(at.lines.number), id.column);
    else if (value != id.none && !show_is_known(names, id.kind, value))
      show_fault(faults, "%s line %lld: column %zu is %lld, which has no row among the names", at.path.c_str(),
                 static_cast<long long>(at.lines.number), id.column, static_cast<long long>(value));
  }
}

static int64_t check_file(const std::string &path, const std::string &shown, const side_file &file,
                          const show_names &names, show_faults *faults) {
  show_lines lines(path);
  for (std::string_view line; lines.next(&line);) {
    std::string_view columns[most_columns];
    const size_t count = show_split(line, ',', columns, most_columns);
    if (!lines.whole)
      show_fault(faults, "%s line %lld: it has no newline at its end", shown.c_str(),
                 static_cast<long long>(lines.number));
    else if (count < file.columns || (count > file.columns && !file.free_tail))
      show_fault(faults, "%s line %lld: it has %zu columns, not %zu", shown.c_str(),
                 static_cast<long long>(lines.number), count, file.columns);
    else
      check_ids({shown, lines}, file, columns, names, faults);
  }
  return lines.number;
}

int64_t show_check_common_files(const show_run &run, show_faults *faults) {
  const show_names none;
  int64_t rows = 0;
  for (const side_file &file : common_files)
    rows += check_file(run.base + "/tq/csv/" + file.name, std::string("tq/csv/") + file.name, file, none, faults);
  return rows;
}

// --- method timing in binary -------------------------------------------------------------------------------------------

// One record, in the byte order and alignment of the host that wrote it. Only what is looked at has a name.
constexpr size_t timing_record_size = 144;
constexpr size_t methodid_at = 0, urlindex_at = 16;

struct padding {
  size_t at, length;
};

static constexpr padding paddings[] = {{66, 2}, {76, 4}}; // zero

template <class T> static T read_at(const char *record, size_t at) {
  T value;
  memcpy(&value, record + at, sizeof value);
  return value;
}

static void check_timing_record(const char *record, const std::string &shown, int64_t number, const show_names &names,
                                show_faults *faults) {
  static constexpr char zeros[8] = {};
  const int64_t method = read_at<int64_t>(record, methodid_at);
  const int64_t url = read_at<uint32_t>(record, urlindex_at);
  if (!show_is_known(names, KIND_METHOD, method))
    show_fault(faults, "%s record %lld: its method %lld has no row among the names", shown.c_str(),
               static_cast<long long>(number), static_cast<long long>(method));
  if (url != 0 && !show_is_known(names, KIND_URL, url))
    show_fault(faults, "%s record %lld: its URL %lld has no row among the names", shown.c_str(),
               static_cast<long long>(number), static_cast<long long>(url));
  for (const padding &p : paddings)
    if (memcmp(record + p.at, zeros, p.length) != 0)
      show_fault(faults, "%s record %lld: the padding at byte %zu is not zero", shown.c_str(),
                 static_cast<long long>(number), p.at);
}

static int64_t check_timing_file(const std::string &path, const std::string &shown, const show_names &names,
                                 show_faults *faults) {
  if (!wllb_is_regular_file(path.c_str()))
    return 0;
  const wllb_file file(fopen(path.c_str(), "re"));
  if (!file)
    return 0;
  char record[timing_record_size];
  int64_t number = 0;
  size_t count = 0;
  while ((count = fread(record, 1, sizeof record, file.get())) == sizeof record)
    check_timing_record(record, shown, ++number, names, faults);
  if (count != 0)
    show_fault(faults, "%s: its size is no multiple of %zu bytes", shown.c_str(), timing_record_size);
  return number;
}

int64_t show_check_side_files(const show_run &run, const std::string &partition, const std::string &instance,
                              const show_names &names, show_faults *faults) {
  int64_t rows = 0;
  for (const side_file &file : instance_files) {
    const std::string shown = wllb_format("%s/%s/%s", partition.c_str(), instance.c_str(), file.name);
    rows += check_file(show_data_path(run, partition, instance, file.name), shown, file, names, faults);
  }
  const std::string dat = partition + "/tq/dat/" + instance + "_MethodTiming.dat";
  return rows + check_timing_file(run.base + "/" + dat, dat, names, faults);
}
