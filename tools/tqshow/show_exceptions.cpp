// Lists exceptions, those of one flowpath or of all.
//   In      exception records, the names behind their ids
//   Out     columns or JSON lines: when, what, thrown where, why, where the stack begins, the method that met it
//   Thread  one
//   Failure a row that cannot be read is reported on standard error; the exit status is 1 then
#include "show_exceptions.h"

#include "show_list.h"

#include "tqread_text.h"

#include "wllb_json_writer.h"

#include <algorithm>

using namespace tqread;

// --- the table ----------------------------------------------------------------------------------------------------

// What is printed of a row: the names behind these ids, in columns as wide as their widest name.
struct name_cell {
  const char *title;
  int64_t exception_record::*id;
  name_kind kind;
  size_t most;
};

static constexpr name_cell name_cells[] = {
    // clang-format off
  {"exception", &exception_record::class_id,          name_kind::exception_class, 60},
  {"thrown at", &exception_record::throwing_class_id, name_kind::throwing_class,  80}, // its method and line follow
  {"message",   &exception_record::message_id,        name_kind::message,         60},
  {"cause",     &exception_record::cause_id,          name_kind::cause,           60},
  {"stack",     &exception_record::stack_id,          name_kind::stack_trace,     100},
}; // clang-format on

constexpr size_t most_of_method = 60, places_of_line = 5;

struct exception_table {
  const name_table &names;
  show_out *out;
  size_t widths[std::size(name_cells)] = {};

  exception_table(const name_table &of, show_out *to);
  std::string cell_text(const exception_record &row, const name_cell &cell) const;
  void print_titles() const;
  void print_row(const exception_record &row) const;
};

// A stack trace is one line of its file: its own lines begin with "at"; what separated them is no longer a tab.
static std::string_view first_line(std::string_view stack) {
  stack.remove_prefix(std::min(stack.find_first_not_of(" ?"), stack.size()));
  return stack.substr(0, std::min(stack.find(" at "), stack.find("?at ")));
}

static size_t widest(const name_table &names, name_kind kind, size_t most) {
  size_t width = 0;
  names.each(kind, [&](int64_t, std::string_view text) {
    width = std::max(width, show_width(kind == name_kind::stack_trace ? first_line(text) : text));
  });
  return std::min(width, most);
}

exception_table::exception_table(const name_table &of, show_out *to) : names(of), out(to) {
  for (size_t i = 0; i < std::size(name_cells); ++i) {
    const name_cell &cell = name_cells[i];
    widths[i] = widest(names, cell.kind, cell.most);
    if (cell.kind == name_kind::throwing_class)
      widths[i] += 1 + widest(names, name_kind::throwing_method, most_of_method) + 1 + places_of_line;
    widths[i] = std::max(widths[i], std::string_view(cell.title).size());
  }
}

std::string exception_table::cell_text(const exception_record &row, const name_cell &cell) const {
  if (cell.kind == name_kind::stack_trace) {
    const std::string_view stack = names.find(cell.kind, row.*cell.id);
    return stack.data() ? printable(first_line(stack), cell.most) : names.show(cell.kind, row.*cell.id);
  }
  std::string text = show_name(names, cell.kind, row.*cell.id, cell.most);
  if (cell.kind == name_kind::throwing_class)
    text += "." + show_name(names, name_kind::throwing_method, row.throwing_method_id, most_of_method) + ":" +
            std::to_string(row.line);
  return text;
}

void exception_table::print_titles() const {
  out->left("time (UTC)", 19);
  for (size_t i = 0; i < std::size(name_cells); ++i)
    out->put("  ").left(name_cells[i].title, widths[i]);
  out->put("  method").end_line();
}

// "com.acme.Shop.pay()V:88, JDBC, sql "select 1"", or "-".
static std::string method_text(const name_table &names, const exception_record &row) {
  constexpr int64_t none = -1, backend_sql = 2;
  if (row.method_id == none)
    return "-";
  const backend_type type = backend_type_of(row.backend_type);
  std::string text = show_name(names, name_kind::method, row.method_id, 200) + ":" + std::to_string(row.method_line) +
                     ", " + (type.name ? type.name : "backend type " + std::to_string(row.backend_type));
  if (row.backend_type == backend_sql && row.sub_type != none)
    text += ", sql \"" + show_name(names, name_kind::query, row.sub_type, 200) + "\"";
  return text;
}

void exception_table::print_row(const exception_record &row) const {
  out->put(utc_text(row.utc_ms, false));
  for (size_t i = 0; i < std::size(name_cells); ++i)
    out->put("  ").left(cell_text(row, name_cells[i]), widths[i]);
  out->put("  ").put(method_text(names, row)).end_line();
}

// --- the rows -----------------------------------------------------------------------------------------------------

static void print_json(const name_table &names, const flowpath_place &place, const exception_record &row,
                       show_out *out) {
  wllb_json_writer json([out](std::string_view bytes) {
    out->put(bytes);
    return true;
  });
  const auto name = [&](const char *member, name_kind kind, int64_t id) {
    json.member(member, std::string_view(names.show(kind, id)));
  };
  json.begin_object().member("partition", place.partition).member("instance", place.instance);
  json.member("flowpath", std::to_string(row.fpi)).member("time", utc_text(row.utc_ms, false));
  name("class", name_kind::exception_class, row.class_id);
  name("throwing_class", name_kind::throwing_class, row.throwing_class_id);
  name("throwing_method", name_kind::throwing_method, row.throwing_method_id);
  json.member("line", row.line);
  name("message", name_kind::message, row.message_id);
  name("cause", name_kind::cause, row.cause_id);
  name("stack", name_kind::stack_trace, row.stack_id);
  if (row.method_id != -1)
    name("method", name_kind::method, row.method_id);
  json.end_object().finish();
  out->end_line();
}

// Whether a row belongs to a flowpath that was asked for: what a question says of flowpaths is held against those alone.
static bool asks_more_than_places(const question &asked) {
  question rest = asked;
  rest.partition.clear();
  rest.instance.clear();
  rest.tier.clear();
  return !rest.url.empty() || rest.min_ms > 0 || !rest.status.empty() || rest.errors || !rest.tag.empty() ||
         !rest.correlation.empty() || !rest.text.empty() || rest.asked_flowpath || !rest.from.empty() ||
         !rest.to.empty();
}

// The list while it is printed.
struct exception_list {
  const show_options &options;
  show_question *asked;
  show_out *out;
  exception_table table{asked->names, out};
  std::unordered_set<int64_t> flowpaths = {};
  bool all = true; // else those of `flowpaths` alone
  size_t width = std::string_view("instance").size();
  int64_t count = 0, bad = 0;

  bool is_full() const { return options.top > 0 && count >= options.top; }

  void print(const flowpath_place &place, const exception_record &row) {
    if ((!all && !flowpaths.contains(row.fpi)) || is_full())
      return;
    ++count;
    if (options.count_only)
      return;
    if (options.json)
      return print_json(asked->names, place, row, out);
    out->left(place.partition, 14).put("  ").left(printable(place.instance, 40), width).put("  ");
    out->right(row.fpi, 20).put("  ");
    table.print_row(row);
  }

  void print_heading() {
    if (options.json || options.count_only)
      return;
    out->left("partition", 14).put("  ").left("instance", width).put("  ").right("flowpath", 20).put("  ");
    table.print_titles();
  }
};

int show_exceptions(const test_run &run, const show_options &options, show_out *out) {
  show_question asked;
  if (!asked.make(run, options.asked, show_exception_kinds))
    return 1;
  exception_list list = {options, &asked, out};
  flowpath_reader reader(run);
  list.all = !asks_more_than_places(options.asked);
  if (!list.all)
    each_flowpath(&reader, &asked.which, show_fault, [&](const found_flowpath &found) {
      list.flowpaths.insert(found.row.fpi);
      return true;
    });
  each_place(run, options.asked.partition, "", [&](const flowpath_place &place) {
    if (asked.which.takes_place(place))
      list.width = std::max(list.width, std::min<size_t>(show_width(place.instance), 40));
    return true;
  });
  list.print_heading();
  each_place(run, options.asked.partition, "", [&](const flowpath_place &place) {
    if (!asked.which.takes_place(place))
      return true;
    row_file rows(run, row_path(place.partition, place.instance, "TQExceptions.csv"), table_of(table_id::exception));
    while (rows.next()) {
      if (!rows.reason()) {
        list.print(place, rows.record.as<exception_record>());
        continue;
      }
      ++list.bad;
      show_fault(rows.fault());
    }
    return !out->failed() && !list.is_full();
  });
  if (options.count_only)
    out->put(options.json ? "{\"count\":" : "").number(list.count).put(options.json ? "}" : "").end_line();
  return list.bad == 0 ? 0 : 1;
}

void show_exceptions_of(const name_table &names, const flowpath &whole, show_out *out) {
  if (whole.exceptions.empty())
    return;
  const exception_table table(names, out);
  out->put("\nexceptions").end_line();
  table.print_titles();
  for (const exception_record &row : whole.exceptions)
    table.print_row(row);
}
