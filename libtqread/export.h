// Exports of flowpaths to the programs in which people look at traces and profiles.
//   In      whole flowpaths, one after the other; names
//   Out     one document, handed to a sink in pieces while it is made; docs/exports.md describes each format
//   Thread  the owner's
//   Failure a sink that fails gets nothing more, and finish() is false; what could not be read of a flowpath is not in it
//
// Memory does not grow with the number of flowpaths: what is kept is a table of the names in use, and for folded stacks a
// tree of the stacks, which is written and begun anew when it is large.
//
//   const std::unique_ptr<exporter> out = make_exporter({export_format::chrome}, run, names, sink);
//   flowpath_reader reader(run);
//   flowpath whole;
//   ... for each row: reader.read(place, row_bytes, export_parts(format), &whole); out->add(whole); ...
//   if (!out->finish()) ...
#pragma once

#include "tqread_flowpath.h"
#include "tqread_names.h"
#include "tqread_run.h"

#include "wllb_json_writer.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

namespace tqread {

enum class export_format : uint8_t {
  chrome,     // Chrome's trace events
  speedscope, // speedscope's own file format
  folded,     // folded stacks: "a;b;c 120", a line each
  otlp,       // OTLP in JSON, a line for each document of spans
  html        // a page of one flowpath that needs nothing else; further flowpaths are left out
};

enum class export_weight : uint8_t {
  self, // ms of each stack's last method alone: a flame graph of them is as wide as the time that passed
  wall, // ms with what it called: for sorting, not for drawing
  cpu,  // ms of CPU of the last method alone
  calls // how often
};

struct export_options {
  export_format format = export_format::chrome;
  export_weight weight = export_weight::self; // folded stacks only
};

// By the words of the command line: "chrome", "self". False: there is no such word.
bool read_export_format(std::string_view word, export_format *format);
bool read_export_weight(std::string_view word, export_weight *weight);

// What an export needs: kinds of names (kinds_of()), to be loaded as valid UTF-8, and parts of flowpaths (flowpath_parts).
uint32_t export_name_kinds(export_format format);
uint32_t export_parts(export_format format);

class exporter {
public:
  virtual ~exporter() = default;
  exporter(const exporter &) = delete;
  exporter &operator=(const exporter &) = delete;

  // Exports a flowpath; nothing of it is kept.
  virtual void add(const flowpath &whole) = 0;

  // Ends the document and hands over the rest; once. False when the sink failed, now or before.
  virtual bool finish() = 0;

  // Whether the sink has failed: there is no use in going on.
  virtual bool failed() const = 0;

protected:
  exporter() = default;
};

// `run` and `names` are the caller's and outlive the exporter.
std::unique_ptr<exporter> make_exporter(const export_options &options, const test_run &run, const name_table &names,
                                        wllb_sink sink);

// --- OTLP by documents --------------------------------------------------------------------------------------------------

// Takes one document, a whole request of OTLP in JSON without a newline, and how many spans it has. False when it could not.
using otlp_sink = std::function<bool(std::string_view document, int64_t spans)>;

// The same spans as export_format::otlp, for who sends the documents one by one (export_push.h).
std::unique_ptr<exporter> make_otlp_exporter(const test_run &run, const name_table &names, otlp_sink sink);

} // namespace tqread
