// Flowpaths whole: head, segments with their call trees, called tiers in their places, exceptions.
//   In      the reading library's whole flowpaths, names
//   Out     lines on standard output
//   Thread  one
//   Failure what cannot be read is reported in its place, the rest goes on; the exit status is 1 then
#include "show_flowpath.h"

#include "show_detail.h"
#include "show_exceptions.h"
#include "show_list.h"
#include "show_tree.h"

#include "tqread_text.h"
#include "tqread_tiers.h"

#include <memory>

using namespace tqread;

constexpr int most_tiers = 16; // below each other

struct flowpath_printer {
  const test_run &run;
  const show_options &options;
  const name_table &names;
  show_out *out;
  flowpath_reader reader{run};
  std::unique_ptr<tier_index> tiers = {};
  std::vector<int64_t> callers = {}; // flowpaths that are being printed, outermost first
  bool good = true;

  void print_head(const flowpath &whole) const;
  void print_segment_head(const flowpath &whole, const flowpath_segment &segment) const;
  void print_segment(const flowpath &whole, const flowpath_segment &segment);
  void print_tree(const flowpath &whole, const flowpath_segment &segment, int levels);
  void print_called(const flowpath &caller, const flowpath_segment &segment, const tree_callout &callout, int levels);
  void print_called_flowpath(const flowpath &called, int levels);
  void print(const flowpath &whole);
};

// --- heads --------------------------------------------------------------------------------------------------------

void flowpath_printer::print_head(const flowpath &whole) const {
  const flowpath_record &row = whole.row;
  out->begin_colour(BOLD).put("flowpath     ").number(row.fpi).end_colour(BOLD).end_line();
  out->put("instance     ").put_safe(whole.instance, 255).put(", partition ").put(whole.partition).end_line();
  out->put("url          ").put(show_name(names, name_kind::url, row.url_id, 1000)).end_line();
  out->put("start (UTC)  ")
      .put(utc_text(whole.begin_utc_ms, true))
      .put(", ")
      .number(row.duration_ms)
      .put(" ms, status ");
  out->number(row.status).end_line();
  out->put("sums         ").number(row.methods).put(" methods, ").number(row.callouts).put(" callouts, ");
  out->number(row.errors).put(" errors, cpu ").number(row.cpu_ms).put(" ms, wait ").number(row.wait_ms);
  out->put(", sync ").number(row.sync_ms).put(", io ").number(row.io_ms).put(", suspended ");
  out->number(row.suspension_ms).put(", queue ").number(row.queue_ms).end_line();
  out->put("correlation  ").put_safe(row.correlation_id, 255).end_line();
  if (row.parent_fpi != 0)
    out->put("called by    ").number(row.parent_fpi).put(" as ").put_safe(row.begin_seq, 255).end_line();
  if (row.tag_set_id != 0)
    out->put("tags         ").put(show_name(names, name_kind::tag_set, row.tag_set_id, 1000)).end_line();
  out->put("list         ").put_safe(row.reference, 255).end_line();
}

void flowpath_printer::print_segment_head(const flowpath &whole, const flowpath_segment &segment) const {
  const segment_record &line = segment.line;
  out->put("\n").begin_colour(BOLD).put("segment      ").put_safe(line.begin_seq, 255).end_colour(BOLD);
  out->put(", flowpath ").number(line.fpi).put(" of ").number(line.parent_fpi).end_line();
  out->put("where        tier ").number(whole.row.tier).put(", server ").number(whole.row.server).put(", app ");
  out->number(whole.row.app).put(", thread ").put_safe(line.thread, 255).put(", segment tier ").number(line.tier);
  out->put(", partition ").put_safe(line.partition, 20).end_line();
  out->put("start (UTC)  ").put(utc_text(segment.begin_utc_ms, true)).put(", ").number(line.response_ms);
  out->put(" ms, status ").number(line.status).put(", ").number(line.methods).put(" methods").end_line();
}

// --- segments -----------------------------------------------------------------------------------------------------

void flowpath_printer::print_tree(const flowpath &whole, const flowpath_segment &segment, int levels) {
  show_tree_options of_tree = {.fold_ms = options.fold_ms, .levels = levels, .after_callout = {}};
  if (tiers && levels < most_tiers * 100)
    of_tree.after_callout = [&](const tree_callout &callout, int below) {
      print_called(whole, segment, callout, below);
    };
  show_print_tree(names, segment.tree, of_tree, out);
}

void flowpath_printer::print_segment(const flowpath &whole, const flowpath_segment &segment) {
  print_segment_head(whole, segment);
  if (!segment.unreadable.empty()) {
    out->put("its texts cannot be read: ").put_safe(segment.unreadable, 1000).end_line();
    return;
  }
  show_print_detail(names, segment, out);
  if (segment.no_blob) {
    out->put("it left no call tree").end_line();
    return;
  }
  show_tree_heading(out);
  print_tree(whole, segment, 0);
}

// --- called tiers ---------------------------------------------------------------------------------------------------

void flowpath_printer::print_called_flowpath(const flowpath &called, int levels) {
  const auto begin = [&] {
    out->right("", 47);
    out->begin_colour(DIM);
    for (int i = 0; i < levels; ++i)
      out->put(out->guide);
    out->end_colour(DIM);
  };
  begin();
  out->begin_colour(BOLD).put("=> ").put_safe(called.instance, 255).end_colour(BOLD).put(", flowpath ");
  out->number(called.row.fpi).put(", ").put(show_name(names, name_kind::url, called.row.url_id, 200)).put(", ");
  out->number(called.row.duration_ms).put(" ms, status ").number(called.row.status).end_line();
  for (const flowpath_segment &segment : called.segments) {
    if (called.segments.size() > 1) {
      begin();
      out->put("segment ")
          .put_safe(segment.line.begin_seq, 255)
          .put(", thread ")
          .put_safe(segment.line.thread, 255)
          .end_line();
    }
    if (!segment.unreadable.empty()) {
      begin();
      out->put("its texts cannot be read: ").put_safe(segment.unreadable, 1000).end_line();
    }
    print_tree(called, segment, levels + 1);
  }
}

// A flowpath that calls itself by damaged numbers is not followed.
void flowpath_printer::print_called(const flowpath &caller, const flowpath_segment &segment,
                                    const tree_callout &callout, int levels) {
  if (callout.token.number.empty() || callers.size() >= most_tiers)
    return;
  callers.push_back(caller.row.fpi);
  const std::string seq = called_seq(segment.line.begin_seq, callout.token.number);
  tiers->each_called(caller.row.fpi, segment.line.fpi, seq, [&](const flowpath_place &place, std::string_view bytes) {
    flowpath called;
    if (!reader.read(place, bytes, WITH_TREES, &called))
      return;
    for (const int64_t fpi : callers)
      if (fpi == called.row.fpi)
        return;
    print_called_flowpath(called, levels);
    good = good && called.faults.empty();
  });
  callers.pop_back();
}

// --- all of it ------------------------------------------------------------------------------------------------------

void flowpath_printer::print(const flowpath &whole) {
  print_head(whole);
  for (const flowpath_segment &segment : whole.segments)
    print_segment(whole, segment);
  for (const error &fault : whole.faults)
    out->put("? ").put(error_text(fault)).end_line();
  good = good && whole.faults.empty();
}

int show_flowpaths(const test_run &run, const show_options &options, show_out *out) {
  show_question asked;
  if (!asked.make(run, options.asked,
                  show_tree_kinds | show_detail_kinds | kinds_of({name_kind::url, name_kind::tag_set})))
    return 1;
  flowpath_printer printer = {run, options, asked.names, out};
  if (options.tiers)
    printer.tiers = std::make_unique<tier_index>(run);
  flowpath whole;
  int64_t found = 0;
  const uint32_t parts = WITH_TREES | WITH_CAPTURED | (options.every ? 0U : WITH_SIDE_ROWS);
  const auto report = [&](const error &fault) {
    show_fault(fault);
    printer.good = false;
  };
  each_flowpath(&printer.reader, &asked.which, report, [&](const found_flowpath &one) {
    if (found++ > 0)
      out->put("\n");
    printer.reader.read(one.place, one.row_bytes, parts, &whole);
    printer.print(whole);
    if (!options.every)
      show_exceptions_of(asked.names, whole, out);
    return !options.first && !out->failed() && (options.top == 0 || found < options.top);
  });
  if (found == 0)
    fputs("tqshow: there is no such flowpath\n", stderr);
  return found > 0 && printer.good ? 0 : 1;
}
