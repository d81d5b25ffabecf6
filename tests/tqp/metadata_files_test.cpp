// Rows of the common files: whole, in their own column order, and durable over restarts, rollovers and failures.

#include "output_files_fixture.h"

#include <functional>
#include <set>
#include <thread>

namespace {

const int64_t fixed_ms = 1795469400123;

struct writer {
  const char *file;
  std::function<void(tqp_instance_t *, int id, const char *text)> dump;
  std::string before; // the row around id and text: %i is the id, %t the text
  int offline_event;
  int extended_type; // -1: no extended row
};

const std::vector<writer> writers = {
    {"TQMetaData.csv", [](auto *i, int id, auto *t) { csv_dump_meta_data(i, id, 6, t, 0); }, "%i,6,%t\n", 5, 6},
    {"TQIPResourceMetaData.csv", [](auto *i, int id, auto *t) { csv_dump_resource_meta_data(i, id, t, 0); }, "%i,%t\n",
     26, 7},
    {"TQHTTPHeaderMetaData.csv", [](auto *i, int id, auto *t) { csv_dump_http_header_md_data(i, t, id, 0); }, "%t,%i\n",
     6, 10},
    {"TQExceptionClass.csv", [](auto *i, int id, auto *t) { csv_dump_excp_cls_data(i, id, t); }, "%i,%t\n", 32, 11},
    {"TQFPSignature.csv", [](auto *i, int id, auto *t) { csv_dump_fp_signature(i, t, id); }, "%t,%i\n", 17, 17},
    {"TQURLTable.csv", [](auto *i, int id, auto *t) { tq_process_url_table_data(i, id, t); },
     "1001,%i,-1,0,0,0,%t,0,'-'\n", 7, -1},
    {"TQSQL.csv", [](auto *i, int id, auto *t) { csv_dump_sql_table(i, -5, t, -1, id, 0, 0); }, "-5,%i,0,%t\n", 23, 8},
    {"TQSQL_nonprepared.csv", [](auto *i, int id, auto *t) { csv_dump_sql_table(i, 0, t, -1, id, 0, 1); },
     "0,%i,0,%t\n", 23, 8},
};

std::string row_of(const writer &w, int id, const std::string &text) {
  std::string row = w.before;
  row.replace(row.find("%i"), 2, std::to_string(id));
  return row.replace(row.find("%t"), 2, text);
}

class metadata_rows : public output_files {
protected:
  void open_files() const { create_csv_metadata_files(inst->commoncsvfilepath); }

  std::string extended_row(int id, int type) const {
    return wllb_format("%d,%d,%lld,%s\n", id, type, static_cast<long long>(fixed_ms), inst->tier_server_app_name);
  }

  metadata_rows() {
    clock_before = wllb_clock_ms;
    wllb_clock_ms = [] { return fixed_ms; };
  }

  ~metadata_rows() override { wllb_clock_ms = clock_before; }

  int64_t (*clock_before)();
};

TEST_F(metadata_rows, each_text_is_written_whole_and_unquoted) {
  tqp_extended_metadata = 1;
  const std::string texts[] = {"", "one,two,,three", "\"quoted\" 'text'\t\x01\xff", std::string(102400, 'x') + ",end"};
  open_files();
  for (const writer &w : writers) {
    SCOPED_TRACE(w.file);
    std::string expected, expected_extended = file_text(common("TQMetaDataEx.csv"));
    int id = 0x40000000;
    for (const std::string &text : texts) {
      w.dump(inst, ++id, text.c_str());
      expected += row_of(w, id, text);
      if (w.extended_type >= 0)
        expected_extended += extended_row(id, w.extended_type);
    }
    EXPECT_EQ(expected, file_text(common(w.file)));
    EXPECT_EQ(expected_extended, file_text(common("TQMetaDataEx.csv")));
  }
}

TEST_F(metadata_rows, rows_of_a_file_that_does_not_open_are_written_with_the_next_one) {
  tqp_extended_metadata = 1;
  for (const writer &w : writers) {
    SCOPED_TRACE(w.file);
    block(common(w.file));
    const std::string extended_before = file_text(common("TQMetaDataEx.csv"));
    w.dump(inst, 1, "late");
    EXPECT_EQ(extended_before + (w.extended_type < 0 ? "" : extended_row(1, w.extended_type)),
              file_text(common("TQMetaDataEx.csv")));
    std::filesystem::remove(common(w.file));
    w.dump(inst, 2, "kept");
    EXPECT_EQ(row_of(w, 1, "late") + row_of(w, 2, "kept"), file_text(common(w.file)));
  }
}

TEST_F(metadata_rows, rows_of_four_threads_do_not_mix) {
  max_buffered_meta_data_bufsize = 256; // the longer rows go around the buffer
  constexpr int rows = 200;             // the first one of each file opens it
  tqp_instance_t instances[4];
  std::vector<std::thread> threads;
  std::multiset<std::string> expected, found;
  const auto text = [](int t, int i) { return std::string(static_cast<size_t>(i * 3), static_cast<char>('a' + t)); };
  for (int t = 0; t < 4; ++t) {
    begin_instance(instances[t], wllb_format("tier_server_app%d", t).c_str());
    for (int i = 0; i < rows; ++i)
      expected.insert(wllb_format("%d,%d,%s", t * rows + i, t, text(t, i).c_str()));
  }
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < rows; ++i)
        csv_dump_meta_data(&instances[t], t * rows + i, t, text(t, i).c_str(), 0);
    });
  for (std::thread &thread : threads)
    thread.join();
  std::ifstream file(common("TQMetaData.csv"));
  for (std::string line; std::getline(file, line);)
    found.insert(line);
  EXPECT_EQ(expected, found);
  for (tqp_instance_t &ended : instances)
    end_instance(ended);
}

TEST_F(metadata_rows, a_run_over_chosen_partitions_ends_at_new_metadata) {
  start_partition_idx = stoll(partition);
  for (const writer &w : writers) {
    SCOPED_TRACE(w.file);
    const std::string words = wllb_format("with Event id = %d for Meta data = a.b", w.offline_event);
    EXPECT_EXIT(
        {
          dup2(STDERR_FILENO, STDOUT_FILENO);
          w.dump(inst, 1, "a.b");
        },
        testing::ExitedWithCode(255), words);
    EXPECT_FALSE(wllb_path_exists(common(w.file).c_str()));
  }
  force_write_in_meta_data_csv = 1;
  csv_dump_meta_data(inst, 1, 0, "a.b", 0);
  EXPECT_EQ("1,0,a.b\n", file_text(common("TQMetaData.csv")));
}

TEST(query_type, goes_by_the_first_word_in_any_case) {
  const char *words[] = {"SELECT", "insert", "Update", "dElEtE", "create", "DROP", "call", "Xa", "connection"};
  for (int i = 0; i < 9; ++i)
    for (const char *before : {"", " ", " \t \t"})
      for (const char *behind : {"", " x", "ed"})
        EXPECT_EQ(i + 1, find_query_type((std::string(before) + words[i] + behind).c_str())) << words[i];
  for (const char *other : {"", " ", "\nselect", "selec", "connectio", "X", "x a"})
    EXPECT_EQ(0, find_query_type(other)) << other;
  EXPECT_EQ(0, find_query_type(nullptr));
}

class sql_rollover : public metadata_rows {
protected:
  static constexpr int64_t mb = 1048576;
  const std::string query = "  select 1";

  // Brings the file to a size; its blocks stay unwritten.
  void grow_file_to(int64_t size, const char *first_bytes) const {
    put_file(common("TQSQL_nonprepared.csv"), first_bytes);
    std::filesystem::resize_file(common("TQSQL_nonprepared.csv"), static_cast<uintmax_t>(size));
  }

  void dump(int id, int is_non_prepared) const {
    csv_dump_sql_table(inst, INT64_MIN, query.c_str(), -1, id, 0, is_non_prepared);
  }

  std::string row(int id) const { return wllb_format("-9223372036854775808,%d,1,%s\n", id, query.c_str()); }

  int64_t size_of(const char *name) const {
    return wllb_path_exists(common(name).c_str()) ? static_cast<int64_t>(std::filesystem::file_size(common(name))) : -1;
  }
};

TEST_F(sql_rollover, comes_at_exactly_the_size_and_replaces_the_file_before) {
  tqp_sql_nonprep_rollover_size_mb = 2;
  open_files();
  grow_file_to(2 * mb - 1, "first");
  dump(1, 1);
  const int64_t below = 2 * mb - 1 + static_cast<int64_t>(row(1).size());
  EXPECT_EQ(below, size_of("TQSQL_nonprepared.csv")) << "one byte less stays";

  for (const char *begin : {"first", "second"}) {
    SCOPED_TRACE(begin);
    grow_file_to(2 * mb, begin);
    put_file(common(".TQSQL_nonprepared.csv.offset"), begin);
    dump(7, 1);
    EXPECT_EQ(row(7), file_text(common("TQSQL_nonprepared.csv")));
    EXPECT_EQ(2 * mb, size_of("TQSQL_nonprepared.csv.prev"));
    EXPECT_EQ(begin, file_text(common("TQSQL_nonprepared.csv.prev")).substr(0, strlen(begin)));
    EXPECT_EQ(begin, file_text(common(".TQSQL_nonprepared.csv.prev.offset")));
    EXPECT_EQ(-1, size_of(".TQSQL_nonprepared.csv.offset"));
  }
}

TEST_F(sql_rollover, a_rename_that_fails_is_told_and_loses_no_row) {
  tqp_sql_nonprep_rollover_size_mb = 1;
  for (const int resumed : {0, 1}) {
    SCOPED_TRACE(resumed);
    resume_flag = resumed;
    open_files();
    block(common("TQSQL_nonprepared.csv.prev"));
    put_file(common(".TQSQL_nonprepared.csv.offset"), "17");
    grow_file_to(mb, "kept");
    dump(1, 1);
    EXPECT_EQ(mb + static_cast<int64_t>(row(1).size()), size_of("TQSQL_nonprepared.csv"));
    EXPECT_EQ("17", file_text(common(".TQSQL_nonprepared.csv.offset"))) << "the offset stays with its file";
    std::filesystem::remove(common("TQSQL_nonprepared.csv.prev"));
  }
}

class function_groups : public metadata_rows {
protected:
  std::string taken_over(std::string_view given) const {
    put_file(outside_paths.function_group_file, given);
    create_fn_grp_table();
    EXPECT_FALSE(wllb_path_exists(outside_paths.function_group_file.c_str()));
    return file_text(common("TQFunctionalGroup.csv"));
  }
};

TEST_F(function_groups, the_last_name_of_a_package_wins) {
  EXPECT_EQ("Z,z.p\nNew,com.pay\nB,a,b\n", taken_over("Old,com.pay\nZ,z.p\nno comma\n\nB,a,b\nNew,com.pay\n"));
  EXPECT_EQ("b,x\na,x\n", taken_over("a,x\nb,x")) << "without its line end it is another package";
  EXPECT_EQ("", taken_over("\n\nno comma at all\n,"));
}

TEST_F(function_groups, packages_keep_their_order_until_they_are_sorted) {
  put_file(outside_paths.function_group_file, "A,p\nB,q\nC,p\n");
  EXPECT_EQ("C,p\nB,q\n", remove_duplicate_fn_grps(outside_paths.function_group_file.c_str()));
  const std::string name(2000, 'n'); // goes on as a line of its own behind 1023 bytes
  put_file(outside_paths.function_group_file, name + ",p\n");
  EXPECT_EQ(name.substr(1023) + ",p\n", remove_duplicate_fn_grps(outside_paths.function_group_file.c_str()));
  EXPECT_EQ("", remove_duplicate_fn_grps((root + "/missing").c_str()));
}

TEST_F(function_groups, only_a_plain_file_is_taken_over) {
  put_file(root + "/secret", "root,x\n");
  const std::string given = outside_paths.function_group_file;
  ASSERT_EQ(0, symlink((root + "/secret").c_str(), given.c_str()));
  create_fn_grp_table();
  EXPECT_EQ("", file_text(common("TQFunctionalGroup.csv")));
  EXPECT_EQ("root,x\n", file_text(root + "/secret"));

  ASSERT_EQ(0, mkfifo(given.c_str(), 0666));
  create_fn_grp_table(); // does not wait for a writer
  EXPECT_FALSE(wllb_path_exists(given.c_str()));
}

} // namespace
