// Sums over what a question finds, the largest first.
//   In      the reading library's sums
//   Out     columns or JSON lines on standard output
//   Thread  one
//   Failure rows that cannot be read are reported on standard error; the exit status is 1 then
#include "show_list.h"

#include "tqread_sums.h"
#include "tqread_text.h"

#include "wllb_json_writer.h"

#include <algorithm>
#include <array>

using namespace tqread;

// --- a table of numbers ---------------------------------------------------------------------------------------------

constexpr size_t most_numbers = 12;

struct sum_line {
  std::array<double, most_numbers> numbers = {};
  std::string name;
};

struct sum_column {
  const char *title; // also its sort key and its member in JSON
  int decimals = 0;
};

struct sum_table {
  const char *name_title;
  std::vector<sum_column> columns;
  size_t sorted_by; // without --sort
  std::vector<sum_line> lines = {};
};

static void print_columns(const sum_table &table, show_out *out) {
  constexpr size_t width = 11;
  for (const sum_column &column : table.columns)
    out->right(column.title, width).put("  ");
  out->put(table.name_title).end_line();
  for (const sum_line &line : table.lines) {
    for (size_t i = 0; i < table.columns.size(); ++i) {
      char text[400];
      snprintf(text, sizeof text, "%.*f", table.columns[i].decimals, line.numbers[i]);
      out->right(text, width).put("  ");
    }
    out->put_safe(line.name, 300).end_line();
  }
}

static void print_json(const sum_table &table, show_out *out) {
  for (const sum_line &line : table.lines) {
    wllb_json_writer json([out](std::string_view bytes) {
      out->put(bytes);
      return true;
    });
    json.begin_object().member(table.name_title, std::string_view(line.name));
    for (size_t i = 0; i < table.columns.size(); ++i)
      if (table.columns[i].decimals == 0)
        json.member(table.columns[i].title, static_cast<int64_t>(line.numbers[i]));
      else
        json.member(table.columns[i].title, line.numbers[i]);
    json.end_object().finish();
    out->end_line();
  }
}

// Sorts, cuts and prints. False: there is no such column to sort by.
static bool print_table(sum_table *table, const show_options &options, show_out *out) {
  size_t key = table->sorted_by;
  if (!options.sort.empty()) {
    for (key = 0; key < table->columns.size() && options.sort != table->columns[key].title; ++key) {
    }
    if (key == table->columns.size()) {
      fprintf(stderr, "tqshow: these sums have no column '%s'\n", printable(options.sort, 100).c_str());
      return false;
    }
  }
  std::sort(table->lines.begin(), table->lines.end(), [key](const sum_line &a, const sum_line &b) {
    return a.numbers[key] != b.numbers[key] ? a.numbers[key] > b.numbers[key] : a.name < b.name;
  });
  if (options.top > 0 && table->lines.size() > static_cast<size_t>(options.top))
    table->lines.resize(static_cast<size_t>(options.top));
  if (options.json)
    print_json(*table, out);
  else
    print_columns(*table, out);
  return true;
}

// --- what is summed -------------------------------------------------------------------------------------------------

struct sum_request {
  flowpath_reader *reader;
  show_question *asked;
  fault_function fault;
};

static double as_real(int64_t number) {
  return static_cast<double>(number);
}

static double average(double total, int64_t count) {
  return count > 0 ? total / static_cast<double>(count) : 0;
}

static sum_table transactions(const sum_request &of) {
  sum_table table = {
      "url", {{"count"}, {"errors"}, {"average", 1}, {"p50"}, {"p95"}, {"p99"}, {"slowest"}, {"cpu"}, {"callouts"}}, 0};
  for (const auto &[id, sums] : sum_transactions(of.reader, &of.asked->which, of.fault))
    table.lines.push_back(
        {{as_real(sums.count), as_real(sums.errors), average(as_real(sums.total_ms), sums.count),
          as_real(sums.durations.at(0.5)), as_real(sums.durations.at(0.95)), as_real(sums.durations.at(0.99)),
          as_real(sums.slowest_ms), as_real(sums.cpu_ms), as_real(sums.callouts)},
         of.asked->names.show(name_kind::url, id)});
  return table;
}

static sum_table methods(const sum_request &of) {
  sum_table table = {
      "method", {{"self"}, {"wall"}, {"cpu"}, {"calls"}, {"average", 2}, {"longest"}, {"wait"}, {"sync"}, {"io"}}, 0};
  for (const auto &[id, sums] : sum_methods(of.reader, &of.asked->which, of.fault))
    table.lines.push_back({{as_real(sums.self_ms), as_real(sums.wall_ms), as_real(sums.cpu_ms), as_real(sums.calls),
                            average(as_real(sums.self_ms), sums.calls), as_real(sums.longest_self_ms),
                            as_real(sums.wait_ms), as_real(sums.sync_ms), as_real(sums.io_ms)},
                           of.asked->names.show(name_kind::method, id)});
  return table;
}

static sum_table queries(const sum_request &of) {
  sum_table table = {
      "query", {{"total", 1}, {"count"}, {"failed"}, {"average", 2}, {"shortest", 2}, {"longest", 2}}, 0};
  for (const auto &[id, sums] : sum_queries(of.reader, &of.asked->which, of.fault))
    table.lines.push_back({{sums.total_ms, as_real(sums.executions), as_real(sums.failed),
                            average(sums.total_ms, sums.executions), sums.shortest_ms, sums.longest_ms},
                           of.asked->names.show(name_kind::query, id)});
  return table;
}

static sum_table backends(const sum_request &of) {
  sum_table table = {
      "backend", {{"total", 1}, {"calls"}, {"errors"}, {"average", 2}, {"longest", 1}, {"flowpaths"}}, 0};
  for (const auto &[id, sums] : sum_backends(of.reader, &of.asked->which, of.fault)) {
    const backend_type type = backend_type_of(sums.type);
    table.lines.push_back(
        {{sums.total_ms, as_real(sums.calls), as_real(sums.errors), average(sums.total_ms, sums.calls), sums.longest_ms,
          as_real(sums.flowpaths)},
         of.asked->names.show(name_kind::method, id) + (type.name ? std::string(" (") + type.name + ")" : "")});
  }
  return table;
}

static sum_table exceptions(const sum_request &of) {
  sum_table table = {"exception", {{"count"}}, 0};
  const name_table &names = of.asked->names;
  for (const auto &[key, sums] : sum_exceptions(of.reader, &of.asked->which, of.fault))
    table.lines.push_back({{as_real(sums.count)},
                           names.show(name_kind::exception_class, key.class_id) + " at " +
                               names.show(name_kind::throwing_class, key.throwing_class_id) + "." +
                               names.show(name_kind::throwing_method, key.throwing_method_id) + ": " +
                               names.show(name_kind::message, sums.message_id) + " (last " +
                               utc_text(sums.last_utc_ms, false) + ", flowpath " + std::to_string(sums.fpi) + ")"});
  return table;
}

struct sum_kind {
  uint32_t names;
  sum_table (*sum)(const sum_request &of);
};

static constexpr sum_kind sum_kinds[] = {
    // in the order of show_by
    {kinds_of({name_kind::url}), transactions},
    {kinds_of({name_kind::method}), methods},
    {kinds_of({name_kind::query}), queries},
    {kinds_of({name_kind::method}), backends},
    {kinds_of({name_kind::exception_class, name_kind::throwing_class, name_kind::throwing_method, name_kind::message}),
     exceptions},
};

int show_sums(const test_run &run, const show_options &options, show_out *out) {
  const sum_kind &kind = sum_kinds[options.by];
  show_question asked;
  if (!asked.make(run, options.asked, kind.names))
    return 1;
  flowpath_reader reader(run);
  int status = 0;
  sum_table table = kind.sum({&reader, &asked, [&status](const error &fault) {
                                show_fault(fault);
                                status = 1;
                              }});
  return print_table(&table, options, out) ? status : 1;
}
