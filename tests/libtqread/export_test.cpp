// Exports: frames that never contradict each other, ids that stay, texts that break nothing, sinks that fail.
//   In      flowpaths made by hand, their call trees out of blobs as the daemon writes them, damaged ones too
//   Failure a document that other people's parser refuses, a parent that is not there, a line that is none
#include "export.h"
#include "export_frames.h"
#include "export_otlp_parts.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <map>
#include <random>
#include <set>

namespace tqread {

namespace {

// --- flowpaths made by hand -----------------------------------------------------------------------------------------

struct made_segment {
  int64_t fpi, parent_fpi;
  std::string begin_seq;
  std::string blob;
};

// Texts stay where they are as long as the flowpath lives.
struct made_flowpath {
  std::vector<made_segment> made;
  flowpath whole;

  made_flowpath(std::vector<made_segment> segments, int64_t root_fpi, std::string instance = "Shop_web1_app")
      : made(std::move(segments)) {
    whole.instance = std::move(instance);
    whole.partition = "20261122100000";
    whole.row.fpi = made.front().fpi;
    whole.row.root_fpi = root_fpi;
    whole.row.url_id = nonprepared_flag + 1;
    whole.begin_utc_ms = 1795341600000;
    whole.segments.resize(made.size());
    tree_builder builder;
    for (size_t i = 0; i < made.size(); ++i) {
      flowpath_segment &segment = whole.segments[i];
      segment.line.fpi = made[i].fpi;
      segment.line.parent_fpi = made[i].parent_fpi;
      segment.line.begin_seq = made[i].begin_seq;
      segment.line.thread = "http-1";
      segment.line.response_ms = 100;
      segment.line.url_id = whole.row.url_id;
      segment.begin_utc_ms = whole.begin_utc_ms;
      builder.build(made[i].blob, "", 0, &segment.tree);
      if (made[i].fpi == whole.row.fpi)
        whole.main_segment = static_cast<int32_t>(i);
    }
  }
};

const std::string hostile = "a;b\n\"\\</script><b>\xff\xc0\x80\x1b[2J\xe2\x80\xa8 7";

name_table hostile_names() {
  name_table names;
  for (int64_t id = 1; id < 10; ++id) {
    names.add(name_kind::method, id, "com.acme.C" + std::to_string(id) + ".run" + hostile + "(J)V");
    names.add(name_kind::query, id, "select " + hostile);
    names.add(name_kind::resource, id, "http/" + hostile + ":80");
  }
  names.add(name_kind::url, nonprepared_flag + 1, "/shop" + hostile + "?q=" + hostile);
  return names;
}

std::string exported(const export_options &options, const std::vector<const made_flowpath *> &flowpaths) {
  const test_run run = {};
  const name_table names = hostile_names();
  std::string document;
  const std::unique_ptr<exporter> out = make_exporter(options, run, names, [&](std::string_view bytes) {
    document += bytes;
    return true;
  });
  for (const made_flowpath *flowpath : flowpaths)
    out->add(flowpath->whole);
  EXPECT_TRUE(out->finish());
  return document;
}

struct json_tree {
  json_t *root;

  explicit json_tree(std::string_view text)
      : root(json_loadb(text.data(), text.size(), JSON_DISABLE_EOF_CHECK, nullptr)) {}

  ~json_tree() { json_decref(root); }

  json_tree(const json_tree &) = delete;
  json_tree &operator=(const json_tree &) = delete;
};

struct made_span {
  std::string trace, parent, name;
};

// Spans of an OTLP export by id; a repeated id fails the test.
std::map<std::string, made_span> spans_of(const std::vector<const made_flowpath *> &flowpaths) {
  std::map<std::string, made_span> spans;
  const std::string document = exported({export_format::otlp}, flowpaths);
  for (size_t at = 0; at < document.size(); at = document.find('\n', at) + 1) {
    const json_tree tree(std::string_view(document).substr(at));
    EXPECT_TRUE(tree.root);
    const json_t *const resource = json_array_get(json_object_get(tree.root, "resourceSpans"), 0);
    const json_t *const list = json_object_get(json_array_get(json_object_get(resource, "scopeSpans"), 0), "spans");
    for (size_t i = 0; i < json_array_size(list); ++i) {
      const json_t *const span = json_array_get(list, i);
      const char *const parent = json_string_value(json_object_get(span, "parentSpanId"));
      const bool is_new =
          spans
              .emplace(json_string_value(json_object_get(span, "spanId")),
                       made_span{json_string_value(json_object_get(span, "traceId")), parent ? parent : "",
                                 json_string_value(json_object_get(span, "name"))})
              .second;
      EXPECT_TRUE(is_new);
    }
  }
  return spans;
}

const char *const simple_blob =
    "1:9_0::0_0_2:9_0::0_10_T.12:3:3.5:2:1:12:1:4:6:200_2:9_1_40_3:1:0:0:0_1:9_1_100_9:0:0:0:0";

// --- frames ---------------------------------------------------------------------------------------------------------

// Tokens in no order, with times in no order: what a damaged blob may hold.
std::string random_blob(std::minstd_rand *random, bool exit_form) {
  const auto number = [&](int below) { return std::to_string((*random)() % static_cast<unsigned>(below)); };
  static constexpr const char *odd_times[] = {"-5", "9223372036854775807", "-9223372036854775807", "4000000000000"};
  const auto time = [&] { return (*random)() % 20 == 0 ? std::string(odd_times[(*random)() % 4]) : number(50); };
  std::string blob;
  for (int i = 0; i < 60; ++i) {
    const std::string method = number(4), thread = exit_form ? "0" : number(3);
    if ((*random)() % 9 == 0)
      blob += "T." + number(30) + ":3:" + number(9) + ":2:1:" + number(50) + ":1:4:6:200_";
    else if ((*random)() % 2 == 0)
      blob += method + ":" + thread + "_0:" + std::to_string(i) + ":0_" + time() + "_";
    else
      blob += method + ":" + thread + "_1:" + std::to_string(i) + (exit_form ? ":0_" : "_") + time() + "_1:1:1:1:1_";
  }
  return blob;
}

TEST(export_frames, lie_one_in_the_other_whatever_the_tree_says) {
  std::minstd_rand random(7);
  tree_builder builder;
  frame_builder frames_of;
  call_tree tree;
  size_t made = 0;
  for (int round = 0; round < 2000; ++round) {
    builder.build(random_blob(&random, round % 2 == 0), "", 0, &tree);
    const std::vector<profile_frame> &frames = frames_of.build(tree);
    std::map<int32_t, int64_t> reached_in;   // by parent
    std::map<int64_t, int64_t> reached_on;   // by thread
    std::map<int64_t, int64_t> roots, selfs; // by thread
    for (size_t i = 0; i < frames.size(); ++i) {
      const profile_frame &f = frames[i];
      ASSERT_LE(0, f.begin_ms);
      ASSERT_LE(f.begin_ms, f.end_ms);
      ASSERT_LE(0, f.self_ms);
      selfs[f.thread] += f.self_ms;
      if (f.parent == no_node) {
        ASSERT_LE(reached_on[f.thread], f.begin_ms);
        reached_on[f.thread] = f.end_ms;
        roots[f.thread] += f.end_ms - f.begin_ms;
        continue;
      }
      ASSERT_LT(f.parent, static_cast<int32_t>(i)) << "a frame comes before those in it";
      const profile_frame &parent = frames[static_cast<size_t>(f.parent)];
      ASSERT_LE(parent.begin_ms, f.begin_ms);
      ASSERT_LE(f.end_ms, parent.end_ms);
      ASSERT_EQ(parent.depth + 1, f.depth);
      ASSERT_LE(reached_in[f.parent], f.begin_ms) << "two calls of one caller overlap";
      reached_in[f.parent] = f.end_ms;
    }
    ASSERT_EQ(roots, selfs);
    made += frames.size();
  }
  EXPECT_LT(20000U, made);
}

// --- ids ------------------------------------------------------------------------------------------------------------

TEST(export_otlp, ids_are_the_same_on_every_export_and_callees_name_their_callers) {
  const made_flowpath caller({{77, 0, "1", simple_blob}}, 77);
  const made_flowpath called({{90, 77, "12.1", simple_blob}}, 77, "Orders_ord1_app");
  const made_flowpath other({{500, 0, "1", simple_blob}}, 500);
  const std::map<std::string, made_span> alone = spans_of({&caller}), later = spans_of({&other, &called, &caller});
  ASSERT_EQ(4U, alone.size()); // segment, two methods, callout
  std::string trace;
  for (const auto &[id, span] : alone) {
    ASSERT_TRUE(later.contains(id));
    EXPECT_EQ(span.parent, later.at(id).parent);
    EXPECT_EQ(span.trace, later.at(id).trace);
    trace = span.trace;
  }
  const std::map<std::string, made_span> callee = spans_of({&called}), stranger = spans_of({&other});
  std::set<std::string> outside;
  for (const auto &[id, span] : callee) {
    EXPECT_EQ(trace, span.trace);
    if (!callee.contains(span.parent))
      outside.insert(span.parent);
  }
  ASSERT_EQ(1U, outside.size());
  ASSERT_TRUE(alone.contains(*outside.begin()));
  EXPECT_TRUE(alone.at(*outside.begin()).name.starts_with("SELECT")) << "the callout 12, not a method";
  for (const auto &[id, span] : stranger)
    EXPECT_NE(trace, span.trace);
}

TEST(export_otlp, parents_exist_when_texts_are_lost_and_numbers_come_twice) {
  // The second segment's caller has no blob any more; two callouts have one number; two segments are the same.
  const std::string twice = std::string(simple_blob) + "_T.12:3:3.5:2:1:12:1:4:6:200_t12_x.12:4:1::0:1:0:200";
  const made_flowpath flowpath({{77, 0, "1", ""},
                                {78, 77, "12.1", twice},
                                {78, 77, "12.1", twice},
                                {79, 78, "12.12.1", simple_blob},
                                {80, 0, "NA", simple_blob}},
                               77);
  const std::map<std::string, made_span> spans = spans_of({&flowpath});
  int roots = 0;
  for (const auto &[id, span] : spans) {
    roots += span.parent.empty() ? 1 : 0;
    EXPECT_TRUE(span.parent.empty() || spans.contains(span.parent)) << span.name;
  }
  EXPECT_EQ(1, roots);
}

// --- texts ----------------------------------------------------------------------------------------------------------

TEST(export_texts, any_bytes_leave_every_format_whole) {
  const made_flowpath flowpath({{77, 0, "1" + hostile, simple_blob}}, 77, "Shop_" + hostile + "_app");
  for (const export_format format : {export_format::chrome, export_format::speedscope, export_format::otlp}) {
    const std::string document = exported({format}, {&flowpath});
    EXPECT_TRUE(json_tree(document).root) << document;
    EXPECT_EQ(document.find('\x1b'), document.npos);
  }
  const std::string folded = exported({export_format::folded, export_weight::calls}, {&flowpath});
  EXPECT_EQ(2, std::count(folded.begin(), folded.end(), '\n'));
  EXPECT_EQ(3, std::count(folded.begin(), folded.end(), ';')); // between names, not in them
  EXPECT_TRUE(folded.ends_with(" 1\n"));
  EXPECT_EQ(folded.find('\x1b'), folded.npos);
  const std::string page = exported({export_format::html}, {&flowpath});
  EXPECT_EQ(page.find("</script><b>"), page.npos);
  const size_t data = page.find("id=\"flowpath\">");
  ASSERT_NE(data, page.npos);
  EXPECT_TRUE(json_tree(std::string_view(page).substr(page.find('{', data))).root);
}

TEST(export_texts, trees_as_deep_as_they_may_be) {
  std::string blob;
  for (size_t i = 0; i < most_nodes; ++i)
    blob += "1:9_0::0_" + std::to_string(i) + "_";
  const made_flowpath flowpath({{77, 0, "1", blob}}, 77);
  EXPECT_LT(exported({export_format::folded, export_weight::calls}, {&flowpath}).size(), size_t{16} << 20U);
  for (const export_format format :
       {export_format::chrome, export_format::speedscope, export_format::otlp, export_format::html})
    EXPECT_GT(exported({format}, {&flowpath}).size(), most_nodes);
}

// --- sinks ----------------------------------------------------------------------------------------------------------

TEST(export_sink, one_that_fails_gets_nothing_more) {
  const made_flowpath flowpath({{77, 0, "1", simple_blob}}, 77);
  const test_run run = {};
  const name_table names = hostile_names();
  for (const export_format format : {export_format::chrome, export_format::speedscope, export_format::folded,
                                     export_format::otlp, export_format::html}) {
    int calls = 0;
    const std::unique_ptr<exporter> out = make_exporter({format}, run, names, [&](std::string_view) {
      ++calls;
      return false;
    });
    for (int i = 0; i < 3000; ++i)
      out->add(flowpath.whole);
    EXPECT_FALSE(out->finish()) << static_cast<int>(format);
    EXPECT_EQ(1, calls) << static_cast<int>(format);
    EXPECT_TRUE(out->failed());
  }
}

TEST(export_words, formats_and_weights) {
  export_format format = export_format::chrome;
  export_weight weight = export_weight::self;
  EXPECT_TRUE(read_export_format("otlp", &format));
  EXPECT_EQ(export_format::otlp, format);
  EXPECT_FALSE(read_export_format("OTLP", &format));
  EXPECT_TRUE(read_export_weight("cpu", &weight));
  EXPECT_EQ(export_weight::cpu, weight);
  EXPECT_FALSE(read_export_weight("", &weight));
}

} // namespace

} // namespace tqread
