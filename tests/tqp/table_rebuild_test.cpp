// The norm tables come back from the metadata files with the ids they had.

#include "output_files_fixture.h"
#include "tag_ids.h"
#include "tqp_recovery.h"

#include <algorithm>
#include <random>
#include <tuple>

namespace {

NormObjKey *const tables[] = {&key_method_id,      &key_class_id,          &key_package_id,      &key_bci_arg,
                              &key_http_header_id, &key_excp_cls_id,       &key_excp_thr_cls_id, &key_excp_thr_mtd_id,
                              &key_excp_msg_id,    &key_excp_st_id,        &key_excp_cause_id,   &key_url_id,
                              &key_sql_query,      &key_sql_nonprep_query, &key_signature,       &key_resource_id};

int id_of(const NormObjKey *table, const std::string &text) {
  return wllb_get_norm_id(table, text.c_str(), static_cast<int>(text.size()));
}

class table_rebuild : public output_files {
protected:
  table_rebuild() {
    g_min_init_nonprep_sql_id = 0;
    make_tables();
  }

  ~table_rebuild() override { drop_tables(); }

  static void make_tables() {
    for (NormObjKey *table : tables)
      wllb_init_norm_id_table(table, 64);
    tqp_init_norm_table();
  }

  static void drop_tables() {
    for (NormObjKey *table : tables)
      wllb_obj_hash_destroy(table);
    tqp_free_norm_table();
  }

  static void rebuild(int kind = -1) {
    drop_tables();
    make_tables();
    tq_build_norm_tables_from_metadata_csv(kind);
  }

  // Rows of non-prepared queries, ids begin to end - 1.
  static std::string queries(int begin, int end) {
    std::string rows;
    for (int id = begin; id < end; ++id)
      rows += wllb_format("0,%d,1,select %d\n", id | norm_id_flag, id);
    return rows;
  }
};

TEST_F(table_rebuild, every_table_gets_its_own_rows) {
  put_file(common("TQMetaData.csv"),
           "5,0,a.b.C.m()V\n3,1,a.b.C\n0,0,Unknown\n1,2,a.b\n2,3,app\n7,6,Login\n4,6,Logout, x\n");
  put_file(common("TQHTTPHeaderMetaData.csv"), "Host,2\n ,1\nX-Odd,,3\n");

  const std::pair<const char *, NormObjKey *> by_id[] = {{"TQExceptionClass.csv", &key_excp_cls_id},
                                                         {"TQExceptionThrowingClass.csv", &key_excp_thr_cls_id},
                                                         {"TQExceptionThrowingMethod.csv", &key_excp_thr_mtd_id},
                                                         {"TQExceptionMessage.csv", &key_excp_msg_id},
                                                         {"TQExceptionStackTrace.csv", &key_excp_st_id},
                                                         {"TQExceptionCause.csv", &key_excp_cause_id},
                                                         {"TQIPResourceMetaData.csv", &key_resource_id}};
  for (const auto &[file, table] : by_id)
    put_file(common(file), wllb_format("9,text of %s\n0,-", file)); // the last line is not ended
  put_file(common("TQURLTable.csv"), "1001,1073741824,-1,0,0,0,-,0,'-'\n1001,1073741827,-1,0,0,0,/shop,0,'-'\n"
                                     "1001,1073741826,-1,0,0,0,/a?b=1,,2,0,'-'\n1001,1073741828,-1,0,0,0,/torn");
  put_file(common("TQSQL.csv"), "0,12,1,select * from cart\n0,13,1,select a,b from c," + std::string(300, ',') + "\n");
  put_file(common("TQFPSignature.csv"), "A1B2,6\n");
  const std::string with_commas = "select a,b from c," + std::string(300, ',');
  for (const int signatures : {0, 1}) {
    tqp_generate_fp_signatures = signatures;
    rebuild();
    const std::tuple<int, NormObjKey *, const char *> expected[] = {{5, &key_method_id, "a.b.C.m()V"},
                                                                    {0, &key_method_id, "Unknown"},
                                                                    {3, &key_class_id, "a.b.C"},
                                                                    {-2, &key_class_id, "a.b.C.m()V"},
                                                                    {1, &key_package_id, "a.b"},
                                                                    {4, &key_bci_arg, "Logout, x"},
                                                                    {3, &key_http_header_id, "X-Odd,"},
                                                                    {2, &key_http_header_id, "Host"},
                                                                    {1, &key_http_header_id, " "},
                                                                    {12, &key_sql_query, "select * from cart"},
                                                                    {13, &key_sql_query, with_commas.c_str()},
                                                                    {signatures ? 6 : -2, &key_signature, "A1B2"}};
    for (const auto &[id, table, text] : expected)
      EXPECT_EQ(id, id_of(table, text)) << text;
    for (const auto &[file, table] : by_id)
      EXPECT_EQ(9, id_of(table, std::string("text of ") + file));
    EXPECT_EQ(3, id_of(&key_url_id, "/shop") & ~norm_id_flag);
    EXPECT_EQ(2, id_of(&key_url_id, "/a?b=1,,2") & ~norm_id_flag);
    EXPECT_EQ(4, id_of(&key_url_id, "/torn") & ~norm_id_flag);
    int is_new;
    EXPECT_EQ(6, wllb_get_or_gen_norm_id(&key_method_id, "new", 0, &is_new)) << "above the highest";
    EXPECT_EQ(norm_id_flag | 5, wllb_get_or_gen_norm_id(&key_url_id, "new", 0, &is_new) | norm_id_flag);
  }
  EXPECT_EQ(0, traced("|Warning|"));
}

TEST_F(table_rebuild, a_bad_row_is_told_and_the_others_load) {
  const std::string long_name(65535 - 4, 'n'); // with its id and type all that is read of a line
  std::string rows;
  for (const char *bad : {"", "7", "7,0", ",", "-7,0,negative", "x"})
    rows += std::string(bad) + "\n1,0,good\n";
  rows += std::string("7,\0", 3) + "0,nul\n2,0," + long_name + "9,0,spoof\n2147483647,0,last possible\n3,0,good";
  put_file(common("TQMetaData.csv"), rows);
  rebuild();
  EXPECT_EQ(1, id_of(&key_method_id, "good")) << "the first id of a text stays";
  EXPECT_EQ(2, id_of(&key_method_id, long_name));
  EXPECT_EQ(-2, id_of(&key_method_id, "negative"));
  EXPECT_EQ(-2, id_of(&key_method_id, "spoof"));
  EXPECT_EQ(4 * 6 + 1, traced("|Warning|")) << "six short rows in each of four readings, and one bad id";
}

TEST_F(table_rebuild, tags_come_back_without_their_quotes) {
  put_file(common("TQTags.csv"), "4,'{\"a\":1,\"b\":2}'\n2,'it's'\n3,\n5\n-1,'x'\n");
  count_tags = 1;
  rebuild();
  EXPECT_EQ(4U, lookup_name_str_32(key_tags, "{\"a\":1,\"b\":2}"));
  EXPECT_EQ(2U, lookup_name_str_32(key_tags, "it's"));
  EXPECT_EQ(wllb_string_absent, lookup_name_str_32(key_tags, "x"));
  EXPECT_EQ(4U, count_tags);
}

TEST_F(table_rebuild, only_the_newest_nonprepared_queries_load) {
  const auto expect_loaded = [](int begin, int end) {
    for (int id = 0; id < 200; ++id)
      EXPECT_EQ(id >= begin && id < end ? id : -2, id_of(&key_sql_nonprep_query, wllb_format("select %d", id))) << id;
    EXPECT_EQ(begin < end ? norm_id_flag | begin : 0, g_min_init_nonprep_sql_id);
    g_min_init_nonprep_sql_id = 0;
  };
  put_file(common("TQSQL.csv"), "0,12,1,select * from cart\n");
  put_file(common("TQSQL_nonprepared.csv.prev"), queries(0, 100));
  rebuild(9);
  expect_loaded(0, 100); // a kill in the rollover leaves the former file alone
  put_file(common("TQSQL_nonprepared.csv"), queries(100, 200));
  tqp_num_nonprep_sql_load_at_init = 30;
  for (const int kind : {9, -1}) {
    rebuild(kind);
    expect_loaded(169, 200); // reading ends at more than 30
    int is_new;
    EXPECT_EQ(200, wllb_get_or_gen_norm_id(&key_sql_nonprep_query, "new", 0, &is_new));
    EXPECT_EQ(kind == -1 ? 12 : -2, id_of(&key_sql_query, "select * from cart"));
  }
  tqp_num_nonprep_sql_load_at_init = 150;
  rebuild(9);
  expect_loaded(49, 200);
  tqp_num_nonprep_sql_load_at_init = -1;
  rebuild(9);
  expect_loaded(0, 200);
  tqp_num_nonprep_sql_load_at_init = 0;
  put_file(common("TQSQL_nonprepared.csv"),
           queries(150, 199) + queries(120, 130)); // an instance was late with its rows
  int next;
  rebuild();
  EXPECT_EQ(199, wllb_get_or_gen_norm_id(&key_sql_nonprep_query, "new", 0, &next));
  tqp_num_nonprep_sql_load_at_init = -1;
  put_file(common("TQSQL_nonprepared.csv"), "0,1073741900,1,select 5\n0,1073741901,1\n");
  rebuild(9);
  EXPECT_EQ(76, id_of(&key_sql_nonprep_query, "select 5")) << "the newest row of a text counts";
  int is_new;
  EXPECT_EQ(100, wllb_get_or_gen_norm_id(&key_sql_nonprep_query, "new", 0, &is_new));
}

TEST_F(table_rebuild, lines_come_backwards) {
  std::mt19937 random(2);
  const std::string path = common("lines");
  for (int round = 0; round < 600; ++round) {
    std::string text;
    for (size_t i = random() % 30; i > 0; --i)
      text += random() % 3 ? static_cast<char>('a' + random() % 26) : '\n';
    if (round % 60 == 0)
      text.insert(random() % (text.size() + 1), random() % 200000, 'x'); // longer than a block
    put_file(path, text);
    std::vector<std::string> expected;
    for (size_t at = 0, end; at < text.size(); at = end) {
      end = std::min(text.find('\n', at), text.size() - 1) + 1;
      expected.insert(expected.begin(), text.substr(at, std::min<size_t>(end - at, 65535)));
    }
    // An empty line at the file's head, or a file of one byte, is not worth a line.
    if (!expected.empty() && (expected.back() == "\n" || text.size() == 1))
      expected.pop_back();
    const wllb_file file(fopen(path.c_str(), "r"));
    tqp_reverse_file lines = {fileno(file.get()), static_cast<int64_t>(text.size()) - 1, {}, 0};
    std::vector<char> buffer(65536);
    std::vector<std::string> seen;
    while (tqp_fgets_r(buffer.data(), 65536, &lines))
      seen.emplace_back(buffer.data());
    ASSERT_EQ(expected, seen) << text;
  }
}

} // namespace
