// The JSON writer: what it writes is read back by a parser of other people, whatever the bytes were.
//   In      values, texts of any bytes
//   Failure a document that does not parse, another value than was written, a byte that a terminal or a page obeys
#include "wllb_json_writer.h"
#include "wllb_utf8.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

wllb_sink into(std::string *text) {
  return [text](std::string_view bytes) {
    *text += bytes;
    return true;
  };
}

// The texts as they are after they were written and read.
std::vector<std::string> read_back(const std::vector<std::string> &texts, wllb_json_writer::target target) {
  std::string document;
  wllb_json_writer json(into(&document), target);
  json.begin_array();
  for (const std::string &text : texts)
    json.text(text);
  EXPECT_TRUE(json.end_array().finish());
  json_t *const tree = json_loadb(document.data(), document.size(), JSON_ALLOW_NUL, nullptr);
  EXPECT_TRUE(tree);
  std::vector<std::string> results;
  for (size_t i = 0; i < json_array_size(tree); ++i) {
    const json_t *const value = json_array_get(tree, i);
    results.emplace_back(json_string_value(value), json_string_length(value));
  }
  json_decref(tree);
  return results;
}

TEST(wllb_json_writer, structure_and_numbers) {
  std::string document;
  wllb_json_writer json(into(&document));
  json.begin_object().member("n", INT64_MIN).member("t", "x").member("b", true).member("r", 0.1);
  json.key("a").begin_array().begin_object().end_object().begin_array().end_array().null();
  json.unsigned_number(UINT64_MAX).real(NAN).real(std::numeric_limits<double>::infinity()).end_array();
  json.end_object().end_line().number(2).end_line();
  EXPECT_TRUE(json.finish());
  EXPECT_EQ("{\"n\":-9223372036854775808,\"t\":\"x\",\"b\":true,\"r\":0.1,"
            "\"a\":[{},[],null,18446744073709551615,null,null]}\n2\n",
            document);
}

TEST(wllb_json_writer, any_bytes_read_back) {
  std::vector<std::string> texts = {"Gr\xC3\xB6\xC3\x9F"
                                    "e \xE2\x80\xA8 \xF0\x9F\x98\x80 </script><!-- & \"\\\n\t\r\b"};
  std::vector<std::string> valid = texts;
  for (int bytes = 0; bytes < 65536; ++bytes) {
    texts.push_back({'a', static_cast<char>(bytes / 256), static_cast<char>(bytes % 256), 'z'});
    valid.push_back(wllb_valid_utf8(texts.back()));
  }
  EXPECT_EQ(valid, read_back(texts, wllb_json_writer::PLAIN));
  EXPECT_EQ(valid, read_back(texts, wllb_json_writer::IN_HTML));
}

TEST(wllb_json_writer, nothing_for_a_terminal_or_a_page_to_obey) {
  std::string document;
  wllb_json_writer json(into(&document), wllb_json_writer::IN_HTML);
  json.text("\x1B[2J \x7F \xC2\x9B"
            "2J </script> <!-- & \xE2\x80\xA8\xE2\x80\xA9");
  EXPECT_TRUE(json.finish());
  EXPECT_EQ("\"\\u001b[2J \\u007f \\u009b2J \\u003c/script\\u003e \\u003c!-- \\u0026 \\u2028\\u2029\"", document);
}

TEST(wllb_json_writer, a_sink_that_fails_gets_nothing_more) {
  int calls = 0;
  size_t most = 0;
  wllb_json_writer json([&](std::string_view bytes) {
    most = std::max(most, bytes.size());
    return ++calls < 2;
  });
  json.begin_array();
  for (int i = 0; i < 100000; ++i)
    json.text("some text of a document");
  json.end_array();
  EXPECT_FALSE(json.finish());
  EXPECT_FALSE(json.finish());
  EXPECT_EQ(2, calls);
  EXPECT_LT(most, size_t{80000}); // it is handed over while it is written
}

TEST(wllb_utf8, what_is_not_valid) {
  const std::string r(wllb_utf8_replacement);
  EXPECT_EQ("", wllb_valid_utf8(""));
  EXPECT_EQ("a" + r + "b", wllb_valid_utf8("a\xFF"
                                           "b"));
  EXPECT_EQ(r, wllb_valid_utf8("\xF0\x9F\x98")); // cut inside a character: one
  EXPECT_EQ(r + r, wllb_valid_utf8("\xC0\x80")); // overlong
  EXPECT_EQ(r + r + r, wllb_valid_utf8("\xE0\x80\x80"));
  EXPECT_EQ(r + r + r, wllb_valid_utf8("\xED\xA0\x80"));         // a surrogate
  EXPECT_EQ(r + r + r + r, wllb_valid_utf8("\xF4\x90\x80\x80")); // above U+10FFFF
  EXPECT_EQ("\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEE\x80\x80", wllb_valid_utf8("\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEE\x80\x80"));
  EXPECT_EQ(r + "\xC3\xA4", wllb_valid_utf8("\xE2\x82\xC3\xA4")); // the next character is whole
  EXPECT_TRUE(wllb_is_utf8("Gr\xC3\xB6\xC3\x9F"
                           "e"));
  EXPECT_FALSE(wllb_is_utf8("Gr\xF6\xDF"
                            "e"));
}

} // namespace
