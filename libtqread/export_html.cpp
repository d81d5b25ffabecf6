// One flowpath as one HTML page: waterfall, call tree, queries, exceptions, details.
//   In      a whole flowpath
//   Out     the page; its data stand in it as JSON, from which its script builds everything as text, never as markup
//   Thread  the owner's
//   Failure the sink's
// The page's own files are in export_page/; CMake puts them into export_page.h. The page allows no script and no style but
// those two, by their hashes, and loads nothing.
#include "export_formats.h"
#include "export_page.h"

#include "tqread_text.h"

#include <algorithm>
#include <map>
#include <unordered_map>

namespace tqread {

namespace {

class html_exporter : public exporter {
public:
  html_exporter(const name_table &of, wllb_sink sink) : names_(of), json_(std::move(sink), wllb_json_writer::IN_HTML) {}

  void add(const flowpath &whole) override;
  bool finish() override;

  bool failed() const override { return json_.failed(); }

private:
  // Of one query at one backend.
  struct query_sum {
    int64_t calls = 0, errors = 0;
    double total_ms = 0, longest_ms = 0;
  };

  using query_sums = std::map<std::pair<int64_t, int64_t>, query_sum>; // by query and backend

  int64_t text_number(std::string text);
  void put_flowpath(const flowpath &whole);
  void put_problems(const flowpath &whole);
  void put_segments(const flowpath &whole);
  void put_calls(const flowpath &whole);
  void put_call(const call_tree &tree, const tree_node &node, int64_t segment);
  void put_method_call(const tree_node &node, int64_t segment);
  void put_callout_call(const tree_callout &callout, const tree_node &node, int64_t segment);
  void put_queries(const flowpath &whole);
  void put_exceptions(const flowpath &whole);
  void put_details(const flowpath &whole);
  void put_detail(std::string_view segment, std::string_view kind, std::string_view item, std::string_view value);
  void put_captured(const flowpath_segment &segment);

  std::string_view name(name_kind kind, int64_t id) const {
    return id == 0 ? std::string_view() : names_.find(kind, id);
  }

  const name_table &names_;
  wllb_json_writer json_;
  bool has_flowpath_ = false;
  std::vector<std::string> texts_; // of calls, each once
  std::unordered_map<std::string, int64_t> text_numbers_;
};

// --- the page -----------------------------------------------------------------------------------------------------------

void html_exporter::add(const flowpath &whole) {
  if (has_flowpath_)
    return;
  has_flowpath_ = true;
  json_.raw(export_page_front).begin_object();
  put_flowpath(whole);
  put_problems(whole);
  put_segments(whole);
  put_calls(whole);
  put_queries(whole);
  put_exceptions(whole);
  put_details(whole);
  json_.key("names").begin_array();
  for (const std::string &text : texts_)
    json_.text(text);
  json_.end_array().end_object().raw(export_page_back);
}

bool html_exporter::finish() {
  if (!has_flowpath_)
    json_.raw("<!DOCTYPE html>\n<title>Flowpath</title>\n<p>There is no such flowpath.\n");
  return json_.finish();
}

int64_t html_exporter::text_number(std::string text) {
  const auto [found, is_new] = text_numbers_.try_emplace(std::move(text), static_cast<int64_t>(texts_.size()));
  if (is_new)
    texts_.push_back(found->first);
  return found->second;
}

void html_exporter::put_flowpath(const flowpath &whole) {
  const flowpath_record &row = whole.row;
  json_.key("flowpath").begin_object().member("fpi", std::to_string(row.fpi));
  json_.member("url", names_.show(name_kind::url, row.url_id)).member("instance", whole.instance);
  json_.member("begin", utc_text(whole.begin_utc_ms, true)).member("ms", row.duration_ms).member("status", row.status);
  json_.member("is_error", row.status >= 500).member("methods", row.methods).member("callouts", row.callouts);
  json_.member("errors", row.errors).member("cpu", row.cpu_ms).member("wait", row.wait_ms).member("sync", row.sync_ms);
  json_.member("io", row.io_ms).member("suspension", row.suspension_ms).member("queue", row.queue_ms);
  json_.member("correlation", row.correlation_id);
  json_.member("parent", row.parent_fpi == 0 ? "" : std::to_string(row.parent_fpi)).end_object();
}

void html_exporter::put_problems(const flowpath &whole) {
  json_.key("problems").begin_array();
  for (const error &fault : whole.faults)
    json_.text(error_text(fault));
  json_.end_array();
}

void html_exporter::put_segments(const flowpath &whole) {
  json_.key("segments").begin_array();
  for (const flowpath_segment &segment : whole.segments) {
    int64_t at = 0;
    if (__builtin_sub_overflow(segment.begin_utc_ms, whole.begin_utc_ms, &at))
      at = 0;
    json_.begin_object().member("number", segment.line.begin_seq).member("thread", segment.line.thread);
    json_.member("tier", segment.line.tier).member("at", at).member("ms", segment.line.response_ms);
    json_.member("problem", segment.unreadable).end_object();
  }
  json_.end_array();
}

// --- calls --------------------------------------------------------------------------------------------------------------

// In the order of a printed tree. A call is an array: depth, segment, kind, at, wall, self, CPU, waiting, synchronisation,
// I/O, suspended, name, note, group.
enum call_kind : int64_t { METHOD_CALL, CALLOUT_CALL, OTHER_CALL };

void html_exporter::put_calls(const flowpath &whole) {
  json_.key("calls").begin_array();
  for (size_t i = 0; i < whole.segments.size(); ++i) {
    const call_tree &tree = whole.segments[i].tree;
    tree.walk([&](const tree_node &node, int32_t) { put_call(tree, node, static_cast<int64_t>(i)); });
  }
  json_.end_array();
}

void html_exporter::put_call(const call_tree &tree, const tree_node &node, int64_t segment) {
  if (node.kind == node_kind::method)
    return put_method_call(node, segment);
  if (node.kind == node_kind::callout)
    return put_callout_call(tree.callouts[static_cast<size_t>(node.callout)], node, segment);
  std::string text =
      node.kind == node_kind::bad ? std::string(node.text) : names_.show(name_kind::method, node.method_id);
  const char *const note = node.kind == node_kind::bad         ? "cannot be read"
                           : node.kind == node_kind::lone_exit ? "end without a beginning"
                                                               : "not instrumented";
  json_.begin_array().number(node.depth).number(segment).number(OTHER_CALL);
  for (int column = 0; column < 8; ++column)
    json_.null();
  json_.number(text_number(std::move(text))).text(note).text("other").end_array();
}

void html_exporter::put_method_call(const tree_node &node, int64_t segment) {
  std::string note = node.is_open ? "not ended" : node.is_forced ? "ended by force" : "";
  if (node.is_async)
    note += std::string(note.empty() ? "" : ", ") + "asynchronous" + (node.text.empty() ? "" : ", task ");
  if (node.is_async)
    note += node.text;
  json_.begin_array().number(node.depth).number(segment).number(METHOD_CALL).number(node.begin_ms);
  if (node.is_open)
    json_.null().null().null();
  else
    json_.number(node.wall_ms).number(node.self_ms).number(node.cpu_ms);
  json_.number(node.wait_ms).number(node.sync_ms).number(node.io_ms).number(node.suspension_ms);
  json_.number(text_number(names_.show(name_kind::method, node.method_id))).text(note).text("segment").end_array();
}

static const char *group_word(const tree_callout &callout, const backend_type &type) {
  if (callout.token.letter == 'E' || callout.token.letter == 'e')
    return "error";
  static constexpr const char *words[] = {"other", "database", "http", "messaging"};
  return words[static_cast<size_t>(type.group)];
}

static void add_note(std::string *note, std::string_view title, std::string_view text) {
  if (text.empty())
    return;
  *note += note->empty() ? "" : ", ";
  *note += title;
  *note += text;
}

static std::string ms_text(double ms) {
  std::string text = wllb_format("%.3f", ms);
  text.erase(text.find_last_not_of('0') + 1);
  return text.ends_with('.') ? text.substr(0, text.size() - 1) : text;
}

void html_exporter::put_callout_call(const tree_callout &callout, const tree_node &node, int64_t segment) {
  const callout_token &token = callout.token;
  const backend_type type = backend_type_of(number_or(token.backend_type, -1));
  std::string text = words_of_callout(token.letter), note;
  if (!token.is_bare)
    text += ": " + names_.show(name_kind::method, token.backend_id);
  if (token.query_id != 0)
    text += ": " + names_.show(name_kind::query, token.query_id);
  add_note(&note, "", type.name ? type.name : "");
  add_note(&note, "number ", token.number);
  add_note(&note, "status ", token.status);
  add_note(&note, "resource ", name(name_kind::resource, token.resource_id));
  add_note(&note, "parameter ", token.parameter);
  if (!token.net_request_ms.empty())
    add_note(&note, "network ms ", std::string(token.net_request_ms) + "/" + std::string(token.net_response_ms));
  if (callout.group.count != 0)
    add_note(&note, "", std::to_string(callout.group.count) + " calls in " + ms_text(callout.group.total_ms) + " ms");
  json_.begin_array().number(node.depth).number(segment).number(CALLOUT_CALL);
  token.start_ms.empty() ? json_.null() : json_.real(callout.start_ms);
  token.duration_ms.empty() ? json_.null() : json_.real(callout.duration_ms);
  json_.null().null().number(0).number(0).number(0).number(0);
  json_.number(text_number(std::move(text))).text(note).text(group_word(callout, type)).end_array();
}

// --- queries, exceptions, details -----------------------------------------------------------------------------------------

void html_exporter::put_queries(const flowpath &whole) {
  query_sums sums;
  for (const flowpath_segment &segment : whole.segments)
    for (const tree_callout &callout : segment.tree.callouts) {
      if (callout.token.query_id == 0)
        continue;
      const bool is_group = callout.token.letter == 'G';
      query_sum &sum = sums[{callout.token.query_id, callout.token.backend_id}];
      sum.calls += is_group ? std::clamp<int64_t>(callout.group.count, 0, 1 << 30) : 1;
      sum.errors += is_group                      ? std::clamp<int64_t>(callout.group.errors, 0, 1 << 30)
                    : callout.token.letter == 'E' ? 1
                                                  : 0;
      sum.total_ms += is_group ? callout.group.total_ms : callout.duration_ms;
      sum.longest_ms = std::max(sum.longest_ms, is_group ? callout.group.longest_ms : callout.duration_ms);
    }
  std::vector<const query_sums::value_type *> order;
  for (const auto &entry : sums)
    order.push_back(&entry);
  std::stable_sort(order.begin(), order.end(),
                   [](const auto *a, const auto *b) { return a->second.total_ms > b->second.total_ms; });
  json_.key("queries").begin_array();
  for (const auto *entry : order) {
    json_.begin_object().member("text", names_.show(name_kind::query, entry->first.first));
    json_.member("backend", names_.show(name_kind::method, entry->first.second)).member("calls", entry->second.calls);
    json_.member("ms", entry->second.total_ms).member("longest", entry->second.longest_ms);
    json_.member("errors", entry->second.errors).end_object();
  }
  json_.end_array();
}

void html_exporter::put_exceptions(const flowpath &whole) {
  json_.key("exceptions").begin_array();
  for (const exception_record &row : whole.exceptions) {
    const std::string thrown_at = names_.show(name_kind::throwing_class, row.throwing_class_id) + "." +
                                  names_.show(name_kind::throwing_method, row.throwing_method_id) + ":" +
                                  std::to_string(row.line);
    json_.begin_object().member("time", utc_text(row.utc_ms, false));
    json_.member("type", names_.show(name_kind::exception_class, row.class_id));
    json_.member("message", name(name_kind::message, row.message_id))
        .member("cause", name(name_kind::cause, row.cause_id));
    json_.member("stack", name(name_kind::stack_trace, row.stack_id)).member("thrown_at", thrown_at).end_object();
  }
  json_.end_array();
}

void html_exporter::put_detail(std::string_view segment, std::string_view kind, std::string_view item,
                               std::string_view value) {
  if (item.empty() && value.empty())
    return;
  json_.begin_object().member("segment", segment).member("kind", kind).member("name", item).member("value", value);
  json_.end_object();
}

void html_exporter::put_captured(const flowpath_segment &segment) {
  const std::string_view number = segment.line.begin_seq;
  for (const std::string &text : segment.logged) {
    logged_values logged;
    std::string_view header, value;
    if (!read_logged_values(text, &logged))
      continue;
    const std::string kind = "logged in " + names_.show(name_kind::method, logged.method_id);
    while (take_logged_value(&logged.values, &header, &value))
      if (!header.empty())
        put_detail(number, kind, names_.show(name_kind::header, number_or(header, 0)), value);
  }
  for (const auto *bodies : {&segment.request_bodies, &segment.response_bodies})
    for (const std::string &text : *bodies)
      if (captured_body body; read_body(text, &body))
        put_detail(number, body.is_response ? "response body" : "request body", body.head, body.body);
}

void html_exporter::put_details(const flowpath &whole) {
  static constexpr const char *message_sections[] = {"message header", "message property", "message text"};
  json_.key("details").begin_array();
  if (const std::string_view tags = name(name_kind::tag_set, whole.row.tag_set_id); !tags.empty())
    put_detail("", "tags", "", tags);
  if (!whole.row.query_parameters.empty())
    put_detail("", "query parameters", "", whole.row.query_parameters);
  for (const flowpath_segment &segment : whole.segments) {
    std::string_view rest = segment.texts.detail;
    char section = 0;
    for (detail_item item; take_detail_item(&rest, &section, &item);) {
      std::string kind = name_of_section(item.section);
      if (item.method_id >= 0)
        kind += " of " + names_.show(name_kind::method, item.method_id);
      put_detail(segment.line.begin_seq, kind, item.name, item.value);
    }
    put_captured(segment);
  }
  for (const custom_data_record &row : whole.custom_data)
    put_detail("", "custom value", row.name, row.value);
  for (const message_record &row : whole.messages)
    put_detail("", message_sections[static_cast<size_t>(std::clamp<int64_t>(row.section, 0, 2))], row.key, row.value);
  json_.end_array();
}

} // namespace

std::unique_ptr<exporter> make_html_exporter(const name_table &names, wllb_sink sink) {
  return std::make_unique<html_exporter>(names, std::move(sink));
}

} // namespace tqread
