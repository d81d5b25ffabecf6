// The profile formats: trace events of Chrome, speedscope's file, folded stacks.
//   In      whole flowpaths
//   Out     a JSON document or lines of text
//   Thread  the owner's
//   Failure the sink's
// All three show methods with times as frames (export_frames.h), so that their totals agree: the self times of a method add up
// to those of its timing rows, as far as the trees are whole.
#include "export_formats.h"
#include "export_frames.h"

#include "tqread_text.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_map>

namespace tqread {

// --- names --------------------------------------------------------------------------------------------------------

// "database", "HTTP", ...: what a callout goes to, in a word.
static const char *word_of(const tree_callout &callout) {
  const backend_type type = backend_type_of(number_or(callout.token.backend_type, -1));
  return type.name ? type.name : words_of_callout(callout.token.letter);
}

static std::string callout_name(const name_table &names, const tree_callout &callout) {
  std::string name =
      std::string("[") + word_of(callout) + "] " + names.show(name_kind::method, callout.token.backend_id);
  if (callout.token.query_id != 0)
    name += ": " + names.show(name_kind::query, callout.token.query_id);
  return name;
}

// --- Chrome's trace events ----------------------------------------------------------------------------------------

namespace {

// Rows of the viewer in which nothing overlaps. Flowpaths come in the order of their ends, so a lane is free for whatever
// begins after its end.
class lane_pool {
public:
  // The lane's number; *is_new: it has not been given before.
  int64_t take(int64_t begin, int64_t end, bool *is_new) {
    for (lane &l : lanes_)
      if (l.end <= begin) {
        l.end = end;
        *is_new = false;
        return l.number;
      }
    if (lanes_.size() >= most_lanes) // data in no order at all: old lanes are not used again
      lanes_.erase(lanes_.begin());
    lanes_.push_back({++made_, end});
    *is_new = true;
    return made_;
  }

private:
  static constexpr size_t most_lanes = 512;

  struct lane {
    int64_t number, end;
  };

  std::vector<lane> lanes_;
  int64_t made_ = 0;
};

class chrome_exporter : public exporter {
public:
  chrome_exporter(const name_table &of, wllb_sink sink) : names_(of), json_(std::move(sink)) {
    json_.begin_object().member("displayTimeUnit", "ms").key("traceEvents").begin_array();
  }

  void add(const flowpath &whole) override;

  bool finish() override {
    json_.end_array().end_object().end_line();
    return json_.finish();
  }

  bool failed() const override { return json_.failed(); }

private:
  enum pool { SEGMENTS, METHODS, CALLOUTS, POOLS };

  struct process {
    int64_t pid;
    lane_pool lanes[POOLS];
  };

  process &process_of(const std::string &instance);
  int64_t take_lane(process *of, pool which, int64_t begin_us, int64_t end_us);
  wllb_json_writer &begin_event(std::string_view name, const char *category, int64_t pid, int64_t tid, int64_t ts_us,
                                int64_t dur_us);
  void put_metadata(const char *what, int64_t pid, int64_t tid, std::string_view name);
  void put_segment(const flowpath &whole, const flowpath_segment &segment, process *of);
  void put_methods(const flowpath &whole, const flowpath_segment &segment, process *of);
  void put_callouts(const flowpath_segment &segment, process *of);

  const name_table &names_;
  wllb_json_writer json_;
  frame_builder builder_;
  std::map<std::string, process, std::less<>> processes_; // by instance
};

chrome_exporter::process &chrome_exporter::process_of(const std::string &instance) {
  const auto found = processes_.find(instance);
  if (found != processes_.end())
    return found->second;
  process &made = processes_[instance];
  made.pid = static_cast<int64_t>(processes_.size());
  put_metadata("process_name", made.pid, 0, instance);
  return made;
}

void chrome_exporter::put_metadata(const char *what, int64_t pid, int64_t tid, std::string_view name) {
  json_.begin_object().member("name", what).member("ph", "M").member("pid", pid).member("tid", tid);
  json_.key("args").begin_object().member("name", name).end_object().end_object();
}

int64_t chrome_exporter::take_lane(process *of, pool which, int64_t begin_us, int64_t end_us) {
  static constexpr const char *titles[POOLS] = {"segments", "methods", "callouts"};
  constexpr int64_t numbers = 1000000; // of a pool: what is of one kind stands together
  bool is_new = false;
  const int64_t number = of->lanes[which].take(begin_us, std::max(begin_us + 1, end_us), &is_new);
  const int64_t tid = which * numbers + number % numbers;
  if (is_new)
    put_metadata("thread_name", of->pid, tid, std::string(titles[which]) + " " + std::to_string(number));
  return tid;
}

// What takes no time lasts a microsecond: readers put events of no length in wrong places. The caller puts the arguments and
// ends two objects.
wllb_json_writer &chrome_exporter::begin_event(std::string_view name, const char *category, int64_t pid, int64_t tid,
                                               int64_t ts_us, int64_t dur_us) {
  json_.begin_object().member("name", name).member("cat", category).member("ph", "X").member("ts", ts_us);
  json_.member("dur", std::max<int64_t>(1, dur_us)).member("pid", pid).member("tid", tid);
  return json_.key("args").begin_object();
}

// As microseconds, within what a double holds exactly.
static int64_t us(int64_t utc_ms) {
  constexpr int64_t most = int64_t{1} << 52U;
  return std::clamp(utc_ms, -most / 1000, most / 1000) * 1000;
}

static int64_t us(double ms) {
  constexpr double most = 1e12;
  return std::llround(std::clamp(ms, 0.0, most) * 1000);
}

void chrome_exporter::put_segment(const flowpath &whole, const flowpath_segment &segment, process *of) {
  const int64_t begin = us(segment.begin_utc_ms), length = us(static_cast<double>(segment.line.response_ms));
  const int64_t tid = take_lane(of, SEGMENTS, begin, begin + length);
  const std::string_view url = names_.find(name_kind::url, segment.line.url_id);
  const std::string name =
      url.empty() || url == "-" ? "segment " + std::string(segment.line.begin_seq) : std::string(url);
  begin_event(name, "segment", of->pid, tid, begin, length)
      .member("flowpath", std::to_string(whole.row.fpi))
      .member("segment", segment.line.begin_seq)
      .member("thread", segment.line.thread)
      .member("status", segment.line.status)
      .member("correlation", whole.row.correlation_id)
      .end_object()
      .end_object();
}

void chrome_exporter::put_methods(const flowpath &whole, const flowpath_segment &segment, process *of) {
  const std::vector<profile_frame> &frames = builder_.build(segment.tree);
  const int64_t base = us(segment.begin_utc_ms);
  int64_t tid = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    const profile_frame &frame = frames[i];
    if (i == 0 || frame.thread != frames[i - 1].thread) {
      int64_t end = frame.end_ms;
      for (size_t root = i; root < frames.size() && frames[root].thread == frame.thread; ++root)
        end = std::max(end, frames[root].end_ms);
      tid = take_lane(of, METHODS, base + us(frame.begin_ms), base + us(end));
    }
    const tree_node &node = segment.tree.nodes[static_cast<size_t>(frame.node)];
    begin_event(names_.show(name_kind::method, node.method_id), "method", of->pid, tid, base + us(frame.begin_ms),
                us(frame.end_ms - frame.begin_ms));
    if (frame.parent == no_node)
      json_.member("flowpath", std::to_string(whole.row.fpi)).member("thread", segment.line.thread);
    const std::pair<const char *, int64_t> times[] = {{"cpu_ms", node.cpu_ms},
                                                      {"wait_ms", node.wait_ms},
                                                      {"sync_ms", node.sync_ms},
                                                      {"io_ms", node.io_ms},
                                                      {"suspension_ms", node.suspension_ms}};
    for (const auto &[name, value] : times)
      if (value != 0)
        json_.member(name, value);
    json_.end_object().end_object();
  }
}

void chrome_exporter::put_callouts(const flowpath_segment &segment, process *of) {
  const int64_t base = us(segment.begin_utc_ms);
  for (const tree_callout &callout : segment.tree.callouts) {
    if (callout.token.start_ms.empty() || callout.token.duration_ms.empty())
      continue;
    const int64_t begin = base + us(callout.start_ms), length = us(callout.duration_ms);
    const int64_t tid = take_lane(of, CALLOUTS, begin, begin + length);
    begin_event(callout_name(names_, callout), "callout", of->pid, tid, begin, length)
        .member("kind", words_of_callout(callout.token.letter))
        .member("number", callout.token.number)
        .member("status", callout.token.status)
        .member("resource",
                callout.token.resource_id ? names_.show(name_kind::resource, callout.token.resource_id) : std::string())
        .end_object()
        .end_object();
  }
}

void chrome_exporter::add(const flowpath &whole) {
  process &of = process_of(whole.instance);
  for (const flowpath_segment &segment : whole.segments) {
    put_segment(whole, segment, &of);
    put_methods(whole, segment, &of);
    put_callouts(segment, &of);
  }
}

// --- speedscope -----------------------------------------------------------------------------------------------------

// One profile for each thread of each segment. The frames' names stand at the end of the document, so that only they are kept.
class speedscope_exporter : public exporter {
public:
  speedscope_exporter(const test_run &run, const name_table &of, wllb_sink sink) : names_(of), json_(std::move(sink)) {
    json_.begin_object().member("$schema", "https://www.speedscope.app/file-format-schema.json");
    json_.member("exporter", "tqshow").member("name", "test run " + std::to_string(run.number));
    json_.key("profiles").begin_array();
  }

  void add(const flowpath &whole) override {
    for (const flowpath_segment &segment : whole.segments) {
      const std::vector<profile_frame> &frames = builder_.build(segment.tree);
      for (size_t first = 0, next = 0; first < frames.size(); first = next) {
        while (next < frames.size() && frames[next].thread == frames[first].thread)
          ++next;
        put_profile(whole, segment, frames, first, next);
      }
    }
  }

  bool finish() override {
    json_.end_array().key("shared").begin_object().key("frames").begin_array();
    for (const int64_t method : methods_)
      json_.begin_object().member("name", names_.show(name_kind::method, method)).end_object();
    json_.end_array().end_object().end_object().end_line();
    return json_.finish();
  }

  bool failed() const override { return json_.failed(); }

private:
  int64_t frame_of(int64_t method) {
    const auto [found, is_new] = numbers_.try_emplace(method, static_cast<int64_t>(methods_.size()));
    if (is_new)
      methods_.push_back(method);
    return found->second;
  }

  void put_event(const char *type, int64_t frame, int64_t at) {
    json_.begin_object().member("type", type).member("frame", frame).member("at", at).end_object();
  }

  void put_profile(const flowpath &whole, const flowpath_segment &segment, const std::vector<profile_frame> &frames,
                   size_t first, size_t next);

  const name_table &names_;
  wllb_json_writer json_;
  frame_builder builder_;
  std::unordered_map<int64_t, int64_t> numbers_; // of frames, by method
  std::vector<int64_t> methods_;                 // by frame
};

void speedscope_exporter::put_profile(const flowpath &whole, const flowpath_segment &segment,
                                      const std::vector<profile_frame> &frames, size_t first, size_t next) {
  std::string name = names_.show(name_kind::url, whole.row.url_id) + " " + std::to_string(whole.row.fpi) + " segment ";
  name += segment.line.begin_seq;
  (name += " ") += segment.line.thread;
  if (frames[first].thread >= 0)
    name += " thread " + std::to_string(frames[first].thread);
  json_.begin_object().member("type", "evented").member("name", name).member("unit", "milliseconds");
  json_.member("startValue", int64_t{0}).key("events").begin_array();
  std::vector<size_t> open;
  const auto close_to = [&](size_t depth) {
    for (; open.size() > depth; open.pop_back())
      put_event("C", frame_of(segment.tree.nodes[static_cast<size_t>(frames[open.back()].node)].method_id),
                frames[open.back()].end_ms);
  };
  for (size_t i = first; i < next; ++i) {
    close_to(static_cast<size_t>(frames[i].depth));
    put_event("O", frame_of(segment.tree.nodes[static_cast<size_t>(frames[i].node)].method_id), frames[i].begin_ms);
    open.push_back(i);
  }
  const int64_t end = frames[open.front()].end_ms; // the thread's last root
  close_to(0);
  json_.end_array().member("endValue", end).end_object();
}

// --- folded stacks --------------------------------------------------------------------------------------------------

// Stacks with the same names are one line, as far as memory allows: readers add up lines of the same stack.
class folded_exporter : public exporter {
public:
  folded_exporter(export_weight what, const name_table &of, wllb_sink to)
      : weight_(what), names_(of), sink_(std::move(to)) {
    index_.clear();
  }

  void add(const flowpath &whole) override;

  bool finish() override {
    flush();
    return !failed_;
  }

  bool failed() const override { return failed_; }

private:
  static constexpr size_t most_stacks = 500000; // kept at once: about 30 MB
  static constexpr int32_t most_depth = 256;    // what lies deeper counts for the method there

  struct stack {
    int32_t parent; // no_node: an instance's
    int64_t method; // of an instance: its place
    int64_t weight;
  };

  int32_t stack_of(int32_t parent, int64_t method);
  int64_t weight_of(const tree_node &node, const profile_frame &frame) const;
  void add_segment(int32_t root, const flowpath_segment &segment);
  void put_names(const stack &of, std::string *line) const;
  void flush();

  export_weight weight_;
  const name_table &names_;
  wllb_sink sink_;
  bool failed_ = false;
  frame_builder builder_;
  std::vector<std::string> instances_;
  std::vector<stack> stacks_; // each parent before what it calls
  pair_index index_;
  std::vector<int32_t> of_frame_;
};

int32_t folded_exporter::stack_of(int32_t parent, int64_t method) {
  int32_t &place = index_.at(parent, method);
  if (place == no_node) {
    place = static_cast<int32_t>(stacks_.size());
    stacks_.push_back({parent, method, 0});
  }
  return place;
}

int64_t folded_exporter::weight_of(const tree_node &node, const profile_frame &frame) const {
  switch (weight_) {
  case export_weight::self:
    return frame.self_ms;
  case export_weight::wall:
    return frame.end_ms - frame.begin_ms;
  case export_weight::cpu:
    return node.self_cpu_ms;
  case export_weight::calls:
    break;
  }
  return 1;
}

void folded_exporter::add_segment(int32_t root, const flowpath_segment &segment) {
  const std::vector<profile_frame> &frames = builder_.build(segment.tree);
  of_frame_.resize(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    const profile_frame &frame = frames[i];
    const tree_node &node = segment.tree.nodes[static_cast<size_t>(frame.node)];
    const int32_t parent = frame.parent == no_node ? root : of_frame_[static_cast<size_t>(frame.parent)];
    of_frame_[i] = frame.depth >= most_depth ? parent : stack_of(parent, node.method_id);
    int64_t &sum = stacks_[static_cast<size_t>(of_frame_[i])].weight;
    if (__builtin_add_overflow(sum, std::max<int64_t>(0, weight_of(node, frame)), &sum))
      sum = INT64_MAX;
  }
}

void folded_exporter::add(const flowpath &whole) {
  for (const flowpath_segment &segment : whole.segments) {
    if (stacks_.size() > most_stacks)
      flush();
    auto found = std::find(instances_.begin(), instances_.end(), whole.instance);
    if (found == instances_.end())
      found = instances_.insert(found, whole.instance);
    add_segment(stack_of(no_node, found - instances_.begin()), segment);
  }
}

// "instance;method;method": in names ';' separates nothing, and a line stays a line.
void folded_exporter::put_names(const stack &of, std::string *line) const {
  std::vector<const stack *> path;
  for (const stack *at = &of;; at = &stacks_[static_cast<size_t>(at->parent)]) {
    path.push_back(at);
    if (at->parent == no_node)
      break;
  }
  for (size_t i = path.size(); i-- > 0;) {
    const stack &at = *path[i];
    std::string name =
        at.parent == no_node ? instances_[static_cast<size_t>(at.method)] : names_.show(name_kind::method, at.method);
    std::replace(name.begin(), name.end(), ';', ':');
    append_printable(name, name.size(), line);
    if (i > 0)
      *line += ';';
  }
}

void folded_exporter::flush() {
  std::string lines;
  for (const stack &s : stacks_) {
    if (s.weight == 0)
      continue;
    put_names(s, &lines);
    ((lines += ' ') += std::to_string(s.weight)) += '\n';
    if (lines.size() < size_t{64} << 10U)
      continue;
    failed_ = failed_ || !sink_(lines);
    lines.clear();
  }
  failed_ = failed_ || (!lines.empty() && !sink_(lines));
  stacks_.clear();
  index_.clear();
}

} // namespace

// --- by name --------------------------------------------------------------------------------------------------------

std::unique_ptr<exporter> make_chrome_exporter(const name_table &names, wllb_sink sink) {
  return std::make_unique<chrome_exporter>(names, std::move(sink));
}

std::unique_ptr<exporter> make_speedscope_exporter(const test_run &run, const name_table &names, wllb_sink sink) {
  return std::make_unique<speedscope_exporter>(run, names, std::move(sink));
}

std::unique_ptr<exporter> make_folded_exporter(export_weight weight, const name_table &names, wllb_sink sink) {
  return std::make_unique<folded_exporter>(weight, names, std::move(sink));
}

} // namespace tqread
