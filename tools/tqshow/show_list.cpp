// The list of flowpaths: found by a question, in the files' order or sorted, once or as they arrive.
//   In      flowpath rows, lists of segments for their count, names
//   Out     columns or JSON lines on standard output
//   Thread  one
//   Failure a row that cannot be read is reported on standard error and passed over; the exit status is 1 then
#include "show_list.h"

#include "tqread_follow.h"
#include "tqread_text.h"

#include "wllb_json_writer.h"

#include <algorithm>
#include <queue>
#include <unistd.h>

using namespace tqread;

// --- questions ------------------------------------------------------------------------------------------------------

void show_fault(const error &fault) {
  fprintf(stderr, "%s\n", error_text(fault).c_str());
}

bool show_question::make(const test_run &run, const question &asked, uint32_t more_kinds) {
  name_loader(run, kinds_for(asked) | more_kinds, name_loader::texts::printable).load(&names);
  const std::string words = which.make(run, names, asked);
  if (words.empty())
    return true;
  fprintf(stderr, "tqshow: %s\n", words.c_str());
  return false;
}

// --- one line ---------------------------------------------------------------------------------------------------

// A flowpath as the list shows it.
struct listed_flowpath {
  std::string partition, instance, row_bytes;
  flowpath_record row = {}; // views into row_bytes
};

struct list_printer {
  const test_run &run;
  const show_options &options;
  const name_table &names;
  show_out *out;
  blob_store store{run};
  segment_list list = {};
  size_t width = 0; // of the column of instances

  std::string segment_count(const flowpath_record &row) {
    return read_segment_list(&store, row, &list) ? "?" : std::to_string(list.count);
  }

  void print_heading() const;
  void print_line(const flowpath_place &place, const flowpath_record &row);
  void print_json(const flowpath_place &place, const flowpath_record &row);

  void print(const flowpath_place &place, const flowpath_record &row) {
    options.json ? print_json(place, row) : print_line(place, row);
  }
};

constexpr size_t most_of_instance = 40, most_of_url = 40, most_of_correlation = 255;

// How wide the column of instances is.
static size_t instance_width(const test_run &run, const filter &which) {
  size_t width = std::string_view("instance").size();
  each_place(run, which.asked().partition, "", [&](const flowpath_place &place) {
    if (which.takes_place(place))
      width = std::max(width, show_width(place.instance));
    return true;
  });
  return std::min(width, most_of_instance);
}

void list_printer::print_heading() const {
  if (options.json)
    return;
  out->left("partition", 14).put("  ").left("instance", width).put("  ").right("flowpath", 20).put("  ");
  out->left("start (UTC)", 19).put("  ").right("ms", 9).put("  ").right("status", 6).put("  ").right("parts", 5);
  out->put("  ").right("methods", 8).put("  ").right("callouts", 8).put("  ").right("errors", 6).put("  ");
  out->left("url", most_of_url).put("  correlation id").end_line();
}

void list_printer::print_line(const flowpath_place &place, const flowpath_record &row) {
  out->left(place.partition, 14).put("  ").left(printable(place.instance, most_of_instance), width).put("  ");
  out->right(row.fpi, 20).put("  ").put(utc_text(row.begin_utc_ms, false)).put("  ").right(row.duration_ms, 9);
  out->put("  ").right(row.status, 6).put("  ").right(segment_count(row), 5).put("  ").right(row.methods, 8);
  out->put("  ").right(row.callouts, 8).put("  ").right(row.errors, 6).put("  ");
  out->left(show_name(names, name_kind::url, row.url_id, most_of_url), most_of_url).put("  ");
  out->put_safe(row.correlation_id, most_of_correlation).end_line();
}

// Flowpath numbers are texts: they have more digits than many readers of JSON keep.
void list_printer::print_json(const flowpath_place &place, const flowpath_record &row) {
  wllb_json_writer json([this](std::string_view bytes) {
    out->put(bytes);
    return true;
  });
  json.begin_object().member("partition", place.partition).member("instance", place.instance);
  json.member("flowpath", std::to_string(row.fpi)).member("start", utc_text(row.begin_utc_ms, false));
  json.member("ms", row.duration_ms).member("status", row.status).member("segments", segment_count(row));
  json.member("methods", row.methods).member("callouts", row.callouts).member("errors", row.errors);
  json.member("cpu_ms", row.cpu_ms).member("db_calls", row.db_calls).member("http_calls", row.http_callouts);
  json.member("url", std::string_view(show_name(names, name_kind::url, row.url_id, 4096)));
  json.member("correlation", row.correlation_id);
  if (row.parent_fpi != 0)
    json.member("parent", std::to_string(row.parent_fpi));
  if (row.tag_set_id != 0)
    json.member("tags", std::string_view(show_name(names, name_kind::tag_set, row.tag_set_id, 4096)));
  json.end_object().finish();
  out->end_line();
}

// --- sorting ----------------------------------------------------------------------------------------------------

struct sort_key {
  const char *name;
  int64_t (*value)(const flowpath_record &row); // null: sorted by URL
  bool ascending;
};

static constexpr sort_key sort_keys[] = {
    // clang-format off
  {"start",    [](const flowpath_record &row) { return row.begin_utc_ms; }, true},
  {"ms",       [](const flowpath_record &row) { return row.duration_ms; },  false},
  {"cpu",      [](const flowpath_record &row) { return row.cpu_ms; },       false},
  {"methods",  [](const flowpath_record &row) { return row.methods; },      false},
  {"callouts", [](const flowpath_record &row) { return row.callouts; },     false},
  {"errors",   [](const flowpath_record &row) { return row.errors; },       false},
  {"status",   [](const flowpath_record &row) { return row.status; },       false},
  {"url",      nullptr,                                                     true},
}; // clang-format on

static const sort_key *find_key(std::string_view name) {
  for (const sort_key &key : sort_keys)
    if (name == key.name)
      return &key;
  return nullptr;
}

std::string show_check_sort(const show_options &options) {
  if (options.sort.empty() || options.by >= 0 || find_key(options.sort))
    return "";
  std::string words = "flowpaths are sorted by";
  for (const sort_key &key : sort_keys)
    words += std::string(&key == sort_keys ? " " : ", ") + key.name;
  return words;
}

// A flowpath in its order: the worse one is the one that leaves a full list first.
struct ranked_flowpath {
  int64_t value;
  std::string url;
  int64_t found; // in the order of the files, from 0: so equal ones keep that order
  listed_flowpath shown;

  bool operator<(const ranked_flowpath &other) const {
    if (value != other.value)
      return value < other.value;
    return url != other.url ? url < other.url : found < other.found;
  }
};

static ranked_flowpath rank(const name_table &names, const sort_key &key, const found_flowpath &found, int64_t at) {
  const int64_t value = key.value ? key.value(found.row) : 0;
  return {key.ascending        ? value
          : value == INT64_MIN ? INT64_MAX
                               : -value,
          key.value ? "" : names.show(name_kind::url, found.row.url_id),
          at,
          {std::string(found.place.partition), std::string(found.place.instance), std::string(found.row_bytes)}};
}

// Prints the best of what is found; memory is for `top` rows, or for all when there is no such number.
static found_counts print_sorted(flowpath_reader *reader, show_question *asked, list_printer *printer) {
  const show_options &options = printer->options;
  const sort_key &key = *find_key(options.sort.empty() ? "ms" : options.sort);
  const size_t most = options.top > 0 ? static_cast<size_t>(options.top) : SIZE_MAX;
  std::priority_queue<ranked_flowpath> best; // the worst on top
  int64_t at = 0;
  const found_counts counts = each_flowpath(reader, &asked->which, show_fault, [&](const found_flowpath &found) {
    best.push(rank(asked->names, key, found, at++));
    if (best.size() > most)
      best.pop();
    return true;
  });
  std::vector<ranked_flowpath> sorted;
  for (; !best.empty(); best.pop())
    sorted.push_back(best.top());
  any_record record;
  for (auto one = sorted.rbegin(); one != sorted.rend(); ++one)
    if (!read_row(table_of(table_id::flowpath), one->shown.row_bytes, printer->run.epoch_diff_s, &record))
      printer->print({one->shown.partition, one->shown.instance}, record.as<flowpath_record>());
  return counts;
}

// --- the list ---------------------------------------------------------------------------------------------------

// What a question names that only the rows themselves can have.
static int status_of(const show_options &options, const found_counts &counts) {
  if (counts.found == 0 && !options.asked.correlation.empty()) {
    fprintf(stderr, "tqshow: no flowpath has the correlation id '%s'\n",
            printable(options.asked.correlation, 200).c_str());
    return 1;
  }
  return counts.bad == 0 ? 0 : 1;
}

int show_list(const test_run &run, const show_options &options, show_out *out) {
  show_question asked;
  if (!asked.make(run, options.asked, kinds_of({name_kind::url, name_kind::tag_set})))
    return 1;
  flowpath_reader reader(run);
  list_printer printer = {run, options, asked.names, out};
  printer.width = instance_width(run, asked.which);
  printer.print_heading();
  found_counts counts;
  if (options.top > 0 || !options.sort.empty())
    counts = print_sorted(&reader, &asked, &printer);
  else
    counts = each_flowpath(&reader, &asked.which, show_fault, [&](const found_flowpath &found) {
      printer.print(found.place, found.row);
      return !out->failed();
    });
  return status_of(options, counts);
}

int show_count(const test_run &run, const show_options &options, show_out *out) {
  show_question asked;
  if (!asked.make(run, options.asked, 0))
    return 1;
  flowpath_reader reader(run);
  const found_counts counts =
      each_flowpath(&reader, &asked.which, show_fault, [](const found_flowpath &) { return true; });
  if (options.json)
    out->put("{\"count\":").number(counts.found).put("}").end_line();
  else
    out->number(counts.found).end_line();
  return status_of(options, counts);
}

// --- as they arrive ---------------------------------------------------------------------------------------------

// Prints the flowpaths of each piece that comes.
struct follow_sink : piece_sink {
  const test_run &run;
  show_question *asked;
  list_printer *printer;
  name_loader loader;
  flowpath_reader reader;
  bool shows = false; // false: what was there before

  follow_sink(const test_run &of, show_question *question, list_printer *prints)
      : run(of), asked(question), printer(prints),
        loader(of, kinds_for(question->which.asked()) | kinds_of({name_kind::url, name_kind::tag_set}),
               name_loader::texts::printable),
        reader(of) {}

  bool take(const file_piece &piece, std::string_view rows) override {
    if (!shows)
      return true;
    loader.load(&asked->names);
    asked->which.learn(asked->names);
    const std::string partition = std::to_string(piece.partition);
    const flowpath_place place = {partition, instance_of_path(piece.path)};
    if (!asked->which.takes_place(place))
      return true;
    for (row_cursor row(table_of(table_id::flowpath), false, rows, piece.from, run.epoch_diff_s); row.next();) {
      if (row.reason())
        show_fault({piece.path, place_unit::byte, row.at_byte(), row.reason()});
      else if (const flowpath_record &record = row.record.as<flowpath_record>();
               asked->which.takes_row(place, record) && asked->which.takes_whole(&reader, place, row.bytes()))
        printer->print(place, record);
    }
    return !printer->out->failed();
  }
};

int show_follow(const test_run &run, const show_options &options, show_out *out) {
  show_question asked;
  asked.which.allow_unknown(); // what is asked for may come
  if (!asked.make(run, options.asked, 0))
    return 1;
  list_printer printer = {run, options, asked.names, out};
  printer.width = std::max<size_t>(20, instance_width(run, asked.which));
  follow_sink sink(run, &asked, &printer);
  follower follower(run.base, &sink, {}, [] { return false; });
  follower.only([](std::string_view path) { return path.ends_with("/TQFlowPath.csv"); });
  follower.pass(); // goes to the present ends
  sink.shows = true;
  printer.print_heading();
  for (;;) {
    if (follower.pass() == pass_result::sink_failed)
      return 1;
    out->flush();
    usleep(static_cast<useconds_t>(options.poll_ms) * 1000);
  }
}
