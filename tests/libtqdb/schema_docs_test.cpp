// docs/database.md is what people read of the schema: it must be the schema that is made.
#include "tqdb_describe.h"

#include "wllb_util.h"

#include <gtest/gtest.h>

TEST(schema_docs, are_those_of_the_tables) {
  const std::string docs = wllb_read_small_file(TQDB_DOCS "/database.md");
  const std::string begin = "test keeps it current -->\n\n", end = "<!-- end of schema -->";
  const size_t from = docs.find(begin), to = docs.find(end);
  ASSERT_NE(from, docs.npos);
  ASSERT_NE(to, docs.npos);
  EXPECT_EQ(docs.substr(from + begin.size(), to - from - begin.size()), tqdb::schema_markdown());
}
