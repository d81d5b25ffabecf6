// The JSON tree: what a good file holds, and a reason for everything that is none.
#include "wllb_json_parser.h"

#include "wllb_test_dir.h"

namespace {

// {a='x' b=[='y' =##]}: names before '=', '##' for what is neither object, array nor text.
std::string shown(const wllb_jsont *value) {
  std::string text = std::string(value->name) + "=" + "{['#"[value->type] + value->text;
  for (const wllb_jsont *child = value->child; child; child = child->next)
    text += shown(child) + (child->next ? " " : "");
  return text + "}]'#"[value->type];
}

// The tree of a file, or where it failed.
std::string read(const std::string &path) {
  std::string error;
  const wllb_json_file json(wllb_json_init(path.c_str(), &error));
  const wllb_jsont *root = json ? wllb_json_to_jsont(json.get(), &error) : nullptr;
  EXPECT_EQ(root == nullptr, !error.empty());
  return root ? shown(root) : json ? "no tree" : "no json";
}

std::string read_text(const wllb_test_dir &dir, const std::string &text) {
  put_file(dir / "file", text);
  return read(dir / "file");
}

const std::string good = R"({"b": [{"n":"x\ty"}, "\u00e4", []], "a" : 1.5e3, "c":{"d":null}})";

TEST(json_parser, a_good_file_is_a_tree_and_any_part_of_it_is_none) {
  const wllb_test_dir dir;
  EXPECT_EQ("={b=[={n='x\ty'} ='\u00e4' =[]] a=## c={d=##}}", read_text(dir, good));
  for (size_t at = 0; at < good.size(); ++at) {
    EXPECT_EQ("no json", read_text(dir, good.substr(0, at))) << at;
    for (const char byte : {'\0', '"', '\\', '[', '}', '\xff'})
      read_text(dir, good.substr(0, at) + byte + good.substr(at + 1)); // a tree, or a reason
  }
}

TEST(json_parser, hostile_files_leave_a_reason) {
  const wllb_test_dir dir;
  const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  using namespace std::string_literals;
  for (const std::string &text :
       {"7"s, "{\"a\":1}x"s, "[\"quote\"s\"]"s, "{a:1}"s, "[\"\n\"]"s, "[\"\\u0000\"]"s, "{\"\\u0000\":1}"s,
        "[\"\xed\xa0\x80\"]"s, "[\"\\ud800\"]"s, "[1e999]"s, "[\"\0\"]"s, nested(1000000), std::string(1000000, '{')})
    EXPECT_EQ("no json", read_text(dir, text)) << text.substr(0, 40);
  EXPECT_EQ("no json", read(dir / "missing"));
  EXPECT_EQ("no json", read(dir.path));
  EXPECT_EQ("no tree", read_text(dir, nested(wllb_json_most_depth + 1)));
  EXPECT_EQ("=[=", read_text(dir, nested(wllb_json_most_depth)).substr(0, 3));
}

} // namespace
