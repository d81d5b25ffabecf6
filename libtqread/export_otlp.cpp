// OTLP in JSON: flowpaths as traces, by OpenTelemetry's semantic conventions for HTTP, databases, messaging and exceptions.
//   In      whole flowpaths
//   Out     documents, each a whole request of up to about a thousand spans of one instance
//   Thread  the owner's
//   Failure the sink's
//
// A segment is a span, so is a method with times and a callout with a number of its own; grouped queries, cache calls, error
// marks, messages and exceptions are events of the span that they happened in. docs/exports.md lists the attributes.
//
#include "export_formats.h"
#include "export_otlp_parts.h"

#include "tqread_text.h"

#include <algorithm>
#include <unordered_set>

namespace tqread {

namespace {

enum span_kind : int64_t { INTERNAL = 1, SERVER = 2, CLIENT = 3, PRODUCER = 4 };

enum status_code : int64_t { UNSET = 0, ERROR = 2 };

// --- the exporter -------------------------------------------------------------------------------------------------------

class otlp_exporter : public exporter {
public:
  otlp_exporter(const test_run &run, const name_table &of, otlp_sink to)
      : run_(run.number), names_(of), sink_(std::move(to)), json_([this](std::string_view bytes) {
          document_ += bytes;
          return true;
        }) {}

  void add(const flowpath &whole) override;

  bool finish() override {
    end_document();
    return !failed_;
  }

  bool failed() const override { return failed_; }

private:
  static constexpr int64_t most_spans = 1000;            // of a document
  static constexpr size_t most_bytes = size_t{4} << 20U; // about

  struct span {
    uint64_t id, parent; // parent 0: a root
    int64_t kind;
    int64_t begin_ns, end_ns;
  };

  // What is the same for all of a segment's spans.
  struct segment_place {
    const flowpath &whole;
    const flowpath_segment &segment;
    uint64_t id;
    bool is_main;
    std::vector<uint64_t> node_ids;                   // by node: the span that its callees have as parent
    std::vector<std::vector<int32_t>> events_of_node; // by node, then the segment's own: callouts that are events
  };

  void begin_document(const std::string &instance);
  void end_document();
  void begin_span(const flowpath &whole, const span &what, std::string_view name);
  void end_span(int64_t status, std::string_view words);
  uint64_t unused_id(const id_hash &hash);
  uint64_t parent_of(const flowpath &whole, const flowpath_segment &segment, bool is_main) const;
  void name_callouts(const flowpath &whole);
  void put_segment(segment_place *at);
  void put_segment_attributes(const segment_place &at);
  void put_detail(attributes *to, const flowpath_segment &segment);
  void put_bodies(attributes *to, const flowpath_segment &segment);
  void put_segment_events(const segment_place &at, const span &what);
  void put_exception(const exception_record &exception, const span &what);
  void put_messages(const flowpath &whole, const span &what);
  void put_calls(segment_place *at);
  void put_method(const segment_place &at, size_t index);
  void put_callout(const segment_place &at, const tree_node &node, size_t index);
  void put_callout_attributes(const tree_callout &callout, const backend_type &type);
  void put_database(attributes *to, const tree_callout &callout, const backend_type &type, std::string_view resource);
  std::string callout_span_name(const tree_callout &callout, const backend_type &type) const;
  void put_mark_events(const segment_place &at, const std::vector<int32_t> &callouts, int64_t time_ns);

  std::string_view name(name_kind kind, int64_t id) const {
    return id == 0 ? std::string_view() : names_.find(kind, id);
  }

  int64_t run_;
  const name_table &names_;
  otlp_sink sink_;
  bool failed_ = false;
  std::string document_;
  wllb_json_writer json_;
  std::string open_instance_; // whose document is open; "": none
  bool is_open_ = false;
  int64_t spans_ = 0; // in it

  // --- of the flowpath that is being exported ---
  std::string trace_id_;
  std::unordered_set<uint64_t> used_;              // ids of spans
  std::vector<std::vector<uint64_t>> callout_ids_; // by segment and callout; 0: it is an event
  std::vector<uint64_t> segment_ids_;              // by segment
  std::unordered_set<uint64_t> callable_;          // ids that a called segment may name
};

// --- documents ------------------------------------------------------------------------------------------------------------

void otlp_exporter::begin_document(const std::string &instance) {
  if (is_open_ && open_instance_ == instance && spans_ < most_spans && document_.size() < most_bytes)
    return;
  end_document();
  is_open_ = true;
  open_instance_ = instance;
  json_.begin_object().key("resourceSpans").begin_array().begin_object().key("resource").begin_object();
  {
    // An instance is "Tier_Server_App"; with more or fewer parts it is not known where they end.
    std::string_view parts[3];
    const bool known = split(instance, '_', parts, 3) == 3;
    attributes to(&json_);
    to.text("service.name", known ? parts[0] : std::string_view(instance)).text("service.instance.id", instance);
    if (known)
      to.text("host.name", parts[1]).text("tqp.app", parts[2]);
    to.number("tqp.test_run", run_);
  }
  json_.end_object().key("scopeSpans").begin_array().begin_object();
  json_.key("scope").begin_object().member("name", "tqp").end_object().key("spans").begin_array();
}

void otlp_exporter::end_document() {
  if (!is_open_)
    return;
  json_.end_array().end_object().end_array().end_object().end_array().end_object();
  json_.end_document(); // into document_
  failed_ = failed_ || !sink_(document_, spans_);
  document_.clear();
  spans_ = 0;
  is_open_ = false;
}

// --- spans ----------------------------------------------------------------------------------------------------------------

// Nanoseconds since 1970, as far as they fit.
int64_t ns_of_ms(int64_t utc_ms) {
  return std::clamp<int64_t>(utc_ms, 0, INT64_MAX / 1000000) * 1000000;
}

int64_t ns_after(int64_t base_ns, double ms) {
  const double span_ns = std::clamp(ms, 0.0, 4e12) * 1e6;
  int64_t sum = 0;
  return __builtin_add_overflow(base_ns, static_cast<int64_t>(span_ns), &sum) ? INT64_MAX : sum;
}

// The caller puts attributes and events, then calls end_span().
void otlp_exporter::begin_span(const flowpath &whole, const span &what, std::string_view span_name) {
  begin_document(whole.instance);
  ++spans_;
  json_.begin_object().member("traceId", trace_id_).member("spanId", hex(what.id));
  if (what.parent != 0)
    json_.member("parentSpanId", hex(what.parent));
  json_.member("name", span_name.empty() ? std::string_view("unknown") : cut_attribute(span_name))
      .member("kind", what.kind);
  json_.member("startTimeUnixNano", std::to_string(what.begin_ns));
  json_.member("endTimeUnixNano", std::to_string(std::max(what.begin_ns, what.end_ns)));
}

void otlp_exporter::end_span(int64_t status, std::string_view words) {
  if (status != UNSET) {
    json_.key("status").begin_object().member("code", status);
    if (!words.empty())
      json_.member("message", cut_attribute(words));
    json_.end_object();
  }
  json_.end_object();
}

// Damaged data may have one number twice: the second one gets another id, the same on every export.
uint64_t otlp_exporter::unused_id(const id_hash &hash) {
  for (uint64_t salt = 0;; ++salt)
    if (const uint64_t id = hash.value(salt); used_.insert(id).second)
      return id;
}

// --- a flowpath -------------------------------------------------------------------------------------------------------------

// Whether a callout is a span: it has a number, and is neither a sum nor a mark of an error.
bool is_span(const tree_callout &callout) {
  const char letter = callout.token.letter;
  return !callout.token.number.empty() && letter != 'G' && letter != 'C' && !(letter == 'e' && callout.token.is_bare);
}

uint64_t callout_id(int64_t run, int64_t fpi, std::string_view full_number) {
  return id_hash("callout", run).number(fpi).text(full_number).value();
}

// All of the flowpath's ids are found before its first span: a segment may come before the one that called it.
void otlp_exporter::name_callouts(const flowpath &whole) {
  used_.clear();
  callable_.clear();
  segment_ids_.clear();
  callout_ids_.assign(whole.segments.size(), {});
  for (size_t i = 0; i < whole.segments.size(); ++i) {
    const segment_record &line = whole.segments[i].line;
    segment_ids_.push_back(
        unused_id(id_hash("segment", run_).number(whole.row.app).number(line.fpi).text(line.begin_seq)));
    for (const tree_callout &callout : whole.segments[i].tree.callouts) {
      if (!is_span(callout)) {
        callout_ids_[i].push_back(0);
        continue;
      }
      const std::string number = full_number(line.begin_seq, callout.token.number);
      const bool answers = callout.token.letter == 'A';
      callout_ids_[i].push_back(unused_id(id_hash(answers ? "answer" : "callout", run_).number(line.fpi).text(number)));
      callable_.insert(callout_ids_[i].back());
    }
  }
}

// The callout that started a segment, by the segment's own words. One that should be in this flowpath and is not there (its
// segment's texts were lost, say) is replaced by its segment, or the main one.
uint64_t otlp_exporter::parent_of(const flowpath &whole, const flowpath_segment &segment, bool is_main) const {
  const int64_t fpi = segment.line.parent_fpi;
  const uint64_t main_id = whole.main_segment < 0 ? 0 : segment_ids_[static_cast<size_t>(whole.main_segment)];
  const std::string_view front = front_of(segment.line.begin_seq);
  if (fpi == 0 || front.empty())
    return is_main ? 0 : main_id;
  const uint64_t caller = callout_id(run_, fpi, front);
  if (callable_.contains(caller))
    return caller;
  for (size_t i = 0; i < whole.segments.size(); ++i)
    if (whole.segments[i].line.fpi == fpi && &whole.segments[i] != &segment)
      return is_main ? 0 : segment_ids_[i];
  return caller; // of another flowpath
}

void otlp_exporter::add(const flowpath &whole) {
  const int64_t root = whole.row.root_fpi != 0 ? whole.row.root_fpi : whole.row.fpi;
  trace_id_ =
      hex(id_hash("trace", run_).number(root).value()) + hex(id_hash("trace, second half", run_).number(root).value());
  name_callouts(whole);
  for (size_t i = 0; i < whole.segments.size() && !failed_; ++i) {
    segment_place at = {whole, whole.segments[i], segment_ids_[i], static_cast<int32_t>(i) == whole.main_segment, {},
                        {}};
    put_calls(&at);
    put_segment(&at);
  }
}

// --- segments ---------------------------------------------------------------------------------------------------------------

void otlp_exporter::put_segment(segment_place *at) {
  const flowpath_segment &segment = at->segment;
  const std::string_view url = name(name_kind::url, segment.line.url_id);
  const bool is_http = at->is_main && !url.empty() && url != "-";
  const int64_t begin = ns_of_ms(segment.begin_utc_ms);
  const span what = {at->id, parent_of(at->whole, segment, at->is_main), is_http ? SERVER : INTERNAL, begin,
                     ns_after(begin, static_cast<double>(segment.line.response_ms))};
  const std::string span_name =
      is_http ? "HTTP " + std::string(url.substr(0, url.find('?'))) : "segment " + std::string(segment.line.begin_seq);
  begin_span(at->whole, what, span_name);
  put_segment_attributes(*at);
  put_segment_events(*at, what);
  const bool failed = is_http ? segment.line.status >= 500 : segment.line.errors > 0;
  end_span(failed ? ERROR : UNSET, "");
}

void otlp_exporter::put_segment_attributes(const segment_place &at) {
  const flowpath_segment &segment = at.segment;
  const segment_record &line = segment.line;
  attributes to(&json_);
  if (const std::string_view url = name(name_kind::url, line.url_id); at.is_main && !url.empty() && url != "-") {
    const std::string_view path = url.substr(0, url.find('?'));
    const std::string_view query = path.size() < url.size() ? url.substr(path.size() + 1) : line.query_parameters;
    to.text("http.request.method", "_OTHER").text("url.path", path).text_if("url.query", query);
    if (line.status >= 100 && line.status <= 599)
      to.number("http.response.status_code", line.status);
    if (line.status >= 500)
      to.text("error.type", std::to_string(line.status));
  }
  to.text_if("thread.name", line.thread);
  to.number("tqp.flowpath", line.fpi).text("tqp.segment", line.begin_seq).number("tqp.tier", line.tier);
  to.number_if("tqp.parent_flowpath", line.parent_fpi).number("tqp.status", line.status);
  to.number_if("tqp.methods", line.methods)
      .number_if("tqp.callouts", line.callouts)
      .number_if("tqp.errors", line.errors);
  to.number("tqp.cpu_ms", line.cpu_ms).number("tqp.wait_ms", line.wait_ms).number("tqp.sync_ms", line.sync_ms);
  to.number("tqp.io_ms", line.io_ms)
      .number("tqp.suspension_ms", line.suspension_ms)
      .number("tqp.queue_ms", line.queue_ms);
  to.text_if("tqp.unreadable", segment.unreadable);
  put_detail(&to, segment);
  put_bodies(&to, segment);
  if (!at.is_main)
    return;
  to.text_if("tqp.correlation_id", line.correlation_id)
      .text_if("tqp.tags", name(name_kind::tag_set, at.whole.row.tag_set_id));
  for (const custom_data_record &custom : at.whole.custom_data)
    to.text("tqp.custom." + std::string(custom.name), custom.value);
}

void otlp_exporter::put_detail(attributes *to, const flowpath_segment &segment) {
  static constexpr const char *prefixes[] = {"http.request.header.", "http.response.header.", "tqp.custom.",
                                             "tqp.session.",         "tqp.argument.",         "tqp.logged.",
                                             "tqp.detail."};
  std::string_view rest = segment.texts.detail;
  char section = 0;
  for (detail_item item; take_detail_item(&rest, &section, &item);) {
    const size_t which = std::min<size_t>(static_cast<size_t>(item.section - '0'), std::size(prefixes) - 1);
    const std::string_view item_name = item.name.empty() ? std::string_view("value") : item.name;
    if (which < 2)
      to->list(prefixes[which] + lower(item_name), item.value);
    else if (item.method_id >= 0)
      to->text(prefixes[which] + std::string(short_name(names_.show(name_kind::method, item.method_id))) + "." +
                   std::string(item_name),
               item.value);
    else
      to->text(prefixes[which] + std::string(item_name), item.value);
  }
}

void otlp_exporter::put_bodies(attributes *to, const flowpath_segment &segment) {
  for (const auto *bodies : {&segment.request_bodies, &segment.response_bodies})
    for (const std::string &text : *bodies)
      if (captured_body body; read_body(text, &body))
        to->text(body.is_response ? "tqp.response.body" : "tqp.request.body", body.body);
  for (const std::string &text : segment.logged) {
    logged_values logged;
    if (!read_logged_values(text, &logged))
      continue;
    const std::string method(short_name(names_.show(name_kind::method, logged.method_id)));
    std::string_view header, value;
    while (take_logged_value(&logged.values, &header, &value))
      if (!header.empty())
        to->text("tqp.logged." + method + "." + names_.show(name_kind::header, number_or(header, 0)), value);
  }
}

// --- events -----------------------------------------------------------------------------------------------------------------

// The caller puts attributes and ends the object.
wllb_json_writer &begin_event(wllb_json_writer *json, std::string_view name, int64_t time_ns) {
  return json->begin_object().member("name", name).member("timeUnixNano", std::to_string(time_ns));
}

// Rows have whole seconds; an event lies within its span.
int64_t event_time(int64_t utc_ms, int64_t begin_ns, int64_t end_ns) {
  return std::clamp(ns_of_ms(utc_ms), begin_ns, std::max(begin_ns, end_ns));
}

void otlp_exporter::put_segment_events(const segment_place &at, const span &what) {
  json_.key("events").begin_array();
  if (!at.events_of_node.empty())
    put_mark_events(at, at.events_of_node.back(), what.begin_ns);
  for (const exception_record &exception : at.whole.exceptions) {
    const bool has_own = std::any_of(at.whole.segments.begin(), at.whole.segments.end(),
                                     [&](const flowpath_segment &s) { return s.line.fpi == exception.fpi; });
    if (exception.fpi == at.segment.line.fpi || (at.is_main && !has_own))
      put_exception(exception, what);
  }
  if (at.is_main)
    put_messages(at.whole, what);
  json_.end_array();
}

void otlp_exporter::put_exception(const exception_record &exception, const span &what) {
  begin_event(&json_, "exception", event_time(exception.utc_ms, what.begin_ns, what.end_ns));
  {
    attributes to(&json_);
    const std::string_view type = name(name_kind::exception_class, exception.class_id);
    const std::string_view message = name(name_kind::message, exception.message_id);
    to.text("exception.type", type.empty() ? std::string_view("unknown") : type).text_if("exception.message", message);
    to.text_if("exception.stacktrace", name(name_kind::stack_trace, exception.stack_id));
    to.text_if("tqp.exception.cause", name(name_kind::cause, exception.cause_id));
    to.text_if("tqp.exception.thrown_in_class", name(name_kind::throwing_class, exception.throwing_class_id));
    to.text_if("tqp.exception.thrown_in_method", name(name_kind::throwing_method, exception.throwing_method_id));
    to.number_if("tqp.exception.line", exception.line);
    if (exception.method_id >= 0)
      to.text("code.function.name", without_signature(names_.show(name_kind::method, exception.method_id)));
  }
  json_.end_object();
}

// The keys of one message are one event; a key with the first index begins the next message.
void otlp_exporter::put_messages(const flowpath &whole, const span &what) {
  static constexpr const char *sections[] = {"tqp.message.header.", "tqp.message.property.", "tqp.message.text."};
  for (size_t i = 0; i < whole.messages.size();) {
    begin_event(&json_, "message", event_time(whole.messages[i].utc_ms, what.begin_ns, what.end_ns));
    {
      attributes to(&json_);
      size_t first = i;
      for (; i < whole.messages.size() && (i == first || whole.messages[i].index > whole.messages[i - 1].index); ++i) {
        const message_record &row = whole.messages[i];
        const size_t section = static_cast<size_t>(std::clamp<int64_t>(row.section, 0, 2));
        to.text(sections[section] + std::string(row.key), row.value);
      }
    }
    json_.end_object();
  }
}

// Sums and marks of a method, or of the segment.
void otlp_exporter::put_mark_events(const segment_place &at, const std::vector<int32_t> &callouts, int64_t time_ns) {
  for (const int32_t index : callouts) {
    const tree_callout &callout = at.segment.tree.callouts[static_cast<size_t>(index)];
    begin_event(&json_, words_of_callout(callout.token.letter), time_ns);
    {
      attributes to(&json_);
      if (callout.token.letter == 'G' || callout.token.letter == 'C') {
        to.text_if("db.query.text", name(name_kind::query, callout.token.query_id));
        to.text_if("tqp.backend", name(name_kind::method, callout.token.backend_id));
        to.number("tqp.count", callout.group.count).number_if("tqp.errors", callout.group.errors);
        to.real("tqp.total_ms", callout.group.total_ms).real("tqp.shortest_ms", callout.group.shortest_ms);
        to.real("tqp.longest_ms", callout.group.longest_ms);
      }
    }
    json_.end_object();
  }
}

// --- methods and callouts -----------------------------------------------------------------------------------------------------

void otlp_exporter::put_calls(segment_place *at) {
  const call_tree &tree = at->segment.tree;
  const size_t segment_index = static_cast<size_t>(&at->segment - at->whole.segments.data());
  at->node_ids.assign(tree.nodes.size(), at->id);
  at->events_of_node.assign(tree.nodes.size() + 1, {});
  for (size_t i = 0; i < tree.nodes.size(); ++i) {
    const tree_node &node = tree.nodes[i];
    const size_t parent = node.parent == no_node ? tree.nodes.size() : static_cast<size_t>(node.parent);
    if (node.kind == node_kind::method)
      at->node_ids[i] = unused_id(id_hash("method", static_cast<int64_t>(at->id)).number(static_cast<int64_t>(i)));
    else if (node.kind == node_kind::callout && callout_ids_[segment_index][static_cast<size_t>(node.callout)] == 0)
      at->events_of_node[parent].push_back(node.callout);
  }
  for (size_t i = 0; i < tree.nodes.size() && !failed_; ++i) {
    const tree_node &node = tree.nodes[i];
    if (node.kind == node_kind::method)
      put_method(*at, i);
    else if (node.kind == node_kind::callout && callout_ids_[segment_index][static_cast<size_t>(node.callout)] != 0)
      put_callout(*at, node, static_cast<size_t>(node.callout));
  }
}

void otlp_exporter::put_method(const segment_place &at, size_t index) {
  const tree_node &node = at.segment.tree.nodes[index];
  const int64_t base = ns_of_ms(at.segment.begin_utc_ms);
  const std::string method = names_.show(name_kind::method, node.method_id);
  const uint64_t parent = node.parent == no_node ? at.id : at.node_ids[static_cast<size_t>(node.parent)];
  const int64_t begin = ns_after(base, static_cast<double>(node.begin_ms));
  const int64_t length_ms = node.is_open ? at.segment.line.response_ms - node.begin_ms : node.wall_ms;
  begin_span(at.whole, {at.node_ids[index], parent, INTERNAL, begin, ns_after(begin, static_cast<double>(length_ms))},
             short_name(method));
  {
    attributes to(&json_);
    to.text("code.function.name", without_signature(method));
    if (node.has_thread)
      to.number("thread.id", node.thread_id);
    to.number("tqp.self_ms", node.self_ms).number_if("tqp.cpu_ms", node.cpu_ms).number_if("tqp.wait_ms", node.wait_ms);
    to.number_if("tqp.sync_ms", node.sync_ms).number_if("tqp.io_ms", node.io_ms);
    to.number_if("tqp.suspension_ms", node.suspension_ms);
    to.flag_if("tqp.not_ended", node.is_open).flag_if("tqp.ended_by_force", node.is_forced);
    to.flag_if("tqp.asynchronous", node.is_async).text_if("tqp.task", node.text);
  }
  if (!at.events_of_node[index].empty()) {
    json_.key("events").begin_array();
    put_mark_events(at, at.events_of_node[index], begin);
    json_.end_array();
  }
  end_span(UNSET, "");
}

std::string otlp_exporter::callout_span_name(const tree_callout &callout, const backend_type &type) const {
  std::string backend(short_name(names_.show(name_kind::method, callout.token.backend_id)));
  const std::string resource(parts_of(name(name_kind::resource, callout.token.resource_id)).rest);
  if (callout.token.is_bare)
    return words_of_callout(callout.token.letter);
  switch (type.group) {
  case backend_group::database: {
    const std::string operation = operation_of(name(name_kind::query, callout.token.query_id));
    return operation.empty() ? backend : operation + " " + (resource.empty() ? backend : resource);
  }
  case backend_group::http:
    return "HTTP";
  case backend_group::messaging:
    return (receives(backend) ? "receive " : "send ") + (resource.empty() ? backend : resource);
  case backend_group::other:
    break;
  }
  return backend;
}

void otlp_exporter::put_database(attributes *to, const tree_callout &callout, const backend_type &type,
                                 std::string_view resource) {
  const std::string_view query = name(name_kind::query, callout.token.query_id);
  to->text("db.system.name", type.system ? type.system : "other_sql").text_if("db.namespace", resource);
  to->text_if("db.query.text", query).text_if("db.operation.name", operation_of(query));
}

void otlp_exporter::put_callout_attributes(const tree_callout &callout, const backend_type &type) {
  const callout_token &token = callout.token;
  const resource_parts resource = parts_of(name(name_kind::resource, token.resource_id));
  const std::string_view backend = name(name_kind::method, token.backend_id);
  attributes to(&json_);
  if (type.group == backend_group::database) {
    put_database(&to, callout, type, resource.rest);
  } else if (type.group == backend_group::http) {
    to.text("http.request.method", "_OTHER")
        .text_if("server.address", resource.host)
        .number_if("server.port", resource.port);
    if (!resource.host.empty())
      to.text("url.full", "http://" + std::string(resource.rest) +
                              (token.parameter.empty() ? "" : "?" + std::string(token.parameter)));
    if (const int64_t status = http_status(token.status))
      to.number("http.response.status_code", status);
  } else if (type.group == backend_group::messaging) {
    to.text("messaging.system", type.system ? type.system : "jms").text_if("messaging.destination.name", resource.rest);
    to.text("messaging.operation.type", receives(backend) ? "receive" : "send");
    to.text("messaging.operation.name", receives(backend) ? "receive" : "send");
  }
  if (token.letter == 'E')
    to.text("error.type", token.status.empty() || token.status == "-" ? std::string_view("_OTHER") : token.status);
  else if (type.group == backend_group::http && http_status(token.status) >= 400)
    to.text("error.type", token.status);
  to.text("tqp.callout", words_of_callout(token.letter)).text_if("tqp.callout.number", token.number);
  to.text_if("tqp.backend", backend).text_if("tqp.status", token.status).text_if("tqp.parameter", token.parameter);
  to.text_if("tqp.resource", name(name_kind::resource, token.resource_id));
  to.text_if("tqp.net_request_ms", token.net_request_ms).text_if("tqp.net_response_ms", token.net_response_ms);
  to.number_if("tqp.called_flowpath", token.flowpath);
}

void otlp_exporter::put_callout(const segment_place &at, const tree_node &node, size_t index) {
  const tree_callout &callout = at.segment.tree.callouts[index];
  const backend_type type = backend_type_of(number_or(callout.token.backend_type, -1));
  const size_t segment_index = static_cast<size_t>(&at.segment - at.whole.segments.data());
  const uint64_t parent = node.parent == no_node ? at.id : at.node_ids[static_cast<size_t>(node.parent)];
  // A callout that does not say when it began, began no earlier than the method that made it.
  const double start = !callout.token.start_ms.empty() ? callout.start_ms
                       : node.parent == no_node
                           ? 0.0
                           : static_cast<double>(at.segment.tree.nodes[static_cast<size_t>(node.parent)].begin_ms);
  const int64_t begin = ns_after(ns_of_ms(at.segment.begin_utc_ms), start);
  const bool sends =
      type.group == backend_group::messaging && !receives(names_.show(name_kind::method, callout.token.backend_id));
  const bool calls_out = type.group != backend_group::other || callout.token.letter == 'T';
  begin_span(at.whole,
             {callout_ids_[segment_index][index], parent,
              sends       ? PRODUCER
              : calls_out ? CLIENT
                          : INTERNAL,
              begin, ns_after(begin, callout.duration_ms)},
             callout_span_name(callout, type));
  put_callout_attributes(callout, type);
  const bool failed = callout.token.letter == 'E' || callout.token.letter == 'e' ||
                      (type.group == backend_group::http && http_status(callout.token.status) >= 400);
  end_span(failed ? ERROR : UNSET, failed ? callout.token.status : std::string_view());
}

} // namespace

std::unique_ptr<exporter> make_otlp_exporter(const test_run &run, const name_table &names, otlp_sink sink) {
  return std::make_unique<otlp_exporter>(run, names, std::move(sink));
}

} // namespace tqread
