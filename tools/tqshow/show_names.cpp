// The names behind norm ids, from the common files of the test run.
//   In      files whose rows are an id and a text, the text last (or first, in two of them)
//   Out     texts by kind and id
//   Thread  one
//   Failure a row that is not like its file's others is a fault and is passed over
// Samples:  17,0,com.acme.Pay.charge()V    1001,1073741829,-1,0,0,0,/shop/a,b,0,'-'    user-agent,3    5,'{"a":1}'
#include "show_files.h"

#include <algorithm>

static constexpr size_t kept_text = 4096;

struct name_file {
  const char *name;
  show_kind kind;         // KIND_METHOD: the row's second column tells the kind
  size_t id_column;       // from 1
  size_t text_column;     // to the end of the line; 0: the text stands before the last comma, the id behind it
  std::string_view front; // stands before the text
  std::string_view tail;  // stands behind the text
};

static constexpr name_file name_files[] = {
    // clang-format off
  {"TQMetaData.csv",                 KIND_METHOD,       1, 3, "",  ""},
  {"TQURLTable.csv",                 KIND_URL,          2, 7, "",  ",0,'-'"},
  {"TQSQL.csv",                      KIND_SQL,          2, 4, "",  ""},
  {"TQSQL_nonprepared.csv.prev",     KIND_SQL,          2, 4, "",  ""},
  {"TQSQL_nonprepared.csv",          KIND_SQL,          2, 4, "",  ""},
  {"TQIPResourceMetaData.csv",       KIND_RESOURCE,     1, 2, "",  ""},
  {"TQHTTPHeaderMetaData.csv",       KIND_HEADER,       0, 0, "",  ""},
  {"TQFPSignature.csv",              KIND_SIGNATURE,    0, 0, "",  ""},
  {"TQExceptionClass.csv",           KIND_EXCP_CLS,     1, 2, "",  ""},
  {"TQExceptionThrowingClass.csv",   KIND_EXCP_THR_CLS, 1, 2, "",  ""},
  {"TQExceptionThrowingMethod.csv",  KIND_EXCP_THR_MTD, 1, 2, "",  ""},
  {"TQExceptionStackTrace.csv",      KIND_EXCP_STACK,   1, 2, "",  ""},
  {"TQExceptionMessage.csv",         KIND_EXCP_MSG,     1, 2, "",  ""},
  {"TQExceptionCause.csv",           KIND_EXCP_CAUSE,   1, 2, "",  ""},
  {"TQTags.csv",                     KIND_TAG,          1, 2, "'", "'"},
}; // clang-format on

static constexpr uint32_t metadata_kinds =
    1U << KIND_METHOD | 1U << KIND_CLASS | 1U << KIND_PACKAGE | 1U << KIND_PAGE | 1U << KIND_OTHER;

struct name_row {
  show_kind kind;
  int64_t id; // with its type, for KIND_OTHER
  std::string_view text;
};

// The values of TQMetaData.csv's second column.
static bool read_metadata_type(std::string_view column, name_row *row) {
  int64_t type = 0;
  if (!show_number(column, &type) || type < 0 || type > 18)
    return false;
  static constexpr show_kind kinds[] = {KIND_METHOD, KIND_CLASS, KIND_PACKAGE, KIND_OTHER,
                                        KIND_OTHER,  KIND_OTHER, KIND_PAGE};
  row->kind = type < static_cast<int64_t>(std::size(kinds)) ? kinds[type] : KIND_OTHER;
  if (row->kind == KIND_OTHER)
    row->id += type << 40U;
  return true;
}

static bool read_text_first(std::string_view line, name_row *row) {
  const size_t comma = line.rfind(',');
  row->text = line.substr(0, comma);
  return comma != line.npos && show_number(line.substr(comma + 1), &row->id);
}

static bool read_row(const name_file &file, std::string_view line, name_row *row) {
  row->kind = file.kind;
  if (file.text_column == 0)
    return read_text_first(line, row);
  std::string_view columns[8];
  if (show_split(line, ',', columns, file.text_column) < file.text_column ||
      !show_number(columns[file.id_column - 1], &row->id))
    return false;
  std::string_view text = line.substr(static_cast<size_t>(columns[file.text_column - 1].data() - line.data()));
  if (!text.starts_with(file.front))
    return false;
  text.remove_prefix(file.front.size());
  if (!text.ends_with(file.tail))
    return false;
  row->text = text.substr(0, text.size() - file.tail.size());
  return file.kind != KIND_METHOD || read_metadata_type(columns[1], row);
}

static void keep_row(const name_file &file, const show_lines &lines, const name_row &row, bool texts, show_names *names,
                     show_faults *faults) {
  ++names->rows;
  const std::string_view kept = texts ? row.text.substr(0, kept_text) : std::string_view();
  if (!names->texts[row.kind].emplace(row.id, kept).second)
    show_fault(faults, "tq/csv/%s line %lld: the id has a row already", file.name,
               static_cast<long long>(lines.number));
  if (row.kind != KIND_SQL || !(row.id & show_id_flag))
    return;
  names->oldest_nonprepared = std::min(names->oldest_nonprepared, row.id);
  names->rolled_over = names->rolled_over || std::string_view(file.name).ends_with(".prev");
}

void show_load_names(const show_run &run, uint32_t kinds, bool texts, show_names *names, show_faults *faults) {
  for (const name_file &file : name_files) {
    if (!(kinds & (file.kind == KIND_METHOD ? metadata_kinds : 1U << file.kind)))
      continue;
    show_lines lines(run.base + "/tq/csv/" + file.name);
    for (std::string_view line; lines.next(&line);) {
      name_row row = {};
      if (!lines.whole || !read_row(file, line, &row))
        show_fault(faults, "tq/csv/%s line %lld: %s", file.name, static_cast<long long>(lines.number),
                   lines.whole ? "it is not like the rows of this file" : "it has no newline at its end");
      else if (kinds & 1U << row.kind)
        keep_row(file, lines, row, texts, names, faults);
    }
  }
}

bool show_is_known(const show_names &names, show_kind kind, int64_t id) {
  return names.texts[kind].contains(id) || (kind == KIND_SQL && names.rolled_over && (id & show_id_flag) &&
                                            id >= show_id_flag && id < names.oldest_nonprepared);
}

std::string show_name(const show_names &names, show_kind kind, int64_t id, size_t most) {
  const auto found = names.texts[kind].find(id);
  return found != names.texts[kind].end() ? show_printable(found->second, most)
                                          : wllb_format("#%lld", static_cast<long long>(id));
}
