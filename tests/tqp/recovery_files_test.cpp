// The local maps survive a restart: by whole saves, by saves of what changed, and beside files that are damaged.

#include "output_files_fixture.h"
#include "state_save.h"
#include "tqp_recovery.h"

#include <csignal>
#include <map>
#include <random>

#include <sys/resource.h>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memory_is_lazy = false; // there the maps come from the sanitizer's heap, which touches them
#else
constexpr bool memory_is_lazy = true;
#endif
constexpr int64_t highest_id = memory_is_lazy ? max_local_id : 1048575;

template <class T> std::string bytes_of(const T &entries, size_t count) {
  return {reinterpret_cast<const char *>(entries), count * sizeof *entries};
}

std::string bytes_of(const wllb_zarray<int> &map) {
  return bytes_of(map.data, static_cast<size_t>(map.size));
}

class recovery_files : public output_files {
protected:
  recovery_files() {
    g_min_init_nonprep_sql_id = 0;
    std::filesystem::create_directories(run_dir() + "tq/recovery/tier_server_app/tqp");
    std::filesystem::create_directories(root + "/webapps/logs/TR1001/" + partition + "/tq/raw_data");
    put_file(file(".SQLMapNewVer"), "");
  }

  ~recovery_files() override { tqp_free_local_maps(inst); }

  std::string file(const char *name) const { return make_loc2_norm_file_path(inst, name); }

  std::string file(int bit) const { return file(loc2norm_rows[bit].file_name); }

  void save() const { write_loc2norm_rec_file(inst, 65535); }

  // The process ends without a save and comes back.
  void restart() const {
    tqp_free_local_maps(inst);
    inst->recovery_file_found = 0;
    read_loc2norm_rec_file(inst, 65535);
  }

  int query(int loc_id) const {
    return sql_query_map_read_loc2norm(inst->sql_query_map.data, loc_id, inst->sql_query_map_size, nullptr);
  }
};

// What the files have to bring back: norm ids by local id.
struct maps_model {
  std::map<int64_t, int> ids[__NUM_LOC2NORM_BITS__];

  void store(tqp_instance_t *inst, int bit, int64_t local_id, int norm_id) {
    if (bit == LOC2NORM_SQL) {
      tqp_store_sql(inst, static_cast<int>(local_id), norm_id, 3);
      ids[bit].try_emplace(local_id, norm_id);
      return;
    }
    ids[bit][local_id] = norm_id;
    if (bit == LOC2NORM_HTTP_HEADER)
      tqp_store_http_header(inst, local_id, norm_id, name_of(norm_id).c_str());
    else
      tqp_store_loc2norm(inst, bit, local_id, norm_id);
  }

  static std::string name_of(int norm_id) { return "X-" + std::to_string(norm_id); }

  static std::map<int64_t, int> held(const tqp_instance_t *inst, int bit) {
    std::map<int64_t, int> found;
    if (bit == LOC2NORM_SQL)
      for (int i = 0; i < inst->sql_query_map_size; ++i)
        found[inst->sql_query_map.data[i].loc_id] = inst->sql_query_map.data[i].norm_id;
    else if (bit == LOC2NORM_HTTP_HEADER)
      for (int64_t i = 0; i < inst->http_header_map.size; ++i) {
        const http_header_map_t &header = inst->http_header_map.data[i];
        if (header.norm_http_header_id != 0)
          found[i] = header.norm_http_header_id;
        EXPECT_EQ(header.norm_http_header_id ? name_of(found[i]) : "",
                  header.http_header_name ? header.http_header_name : "");
      }
    else
      for (int64_t i = 0; i < (inst->*loc2norm_rows[bit].map).size; ++i)
        if (const int norm_id = (inst->*loc2norm_rows[bit].map).data[i])
          found[i] = norm_id;
    return found;
  }
};

TEST_F(recovery_files, saves_of_what_changed_bring_everything_back) {
  maps_model model;
  std::mt19937 random(5);
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    for (int i = 0; i < 40; ++i)
      model.store(inst, static_cast<int>(random() % __NUM_LOC2NORM_BITS__),
                  static_cast<int64_t>(random() % (round < 30 ? 20000 : 40000)), 1 + static_cast<int>(random() % 9999));
    const std::string path = file(static_cast<int>(random() % __NUM_LOC2NORM_BITS__));
    if (round % 5 == 1) // whatever somebody does to a file, its next save makes it good
      std::filesystem::remove(path);
    else if (round % 5 == 2)
      put_file(path, std::string(random() % 9999, 'x'));
    else if (round % 5 == 3) {
      save();
      restart();
    }
    inst->loc2norm_unsaved_flags = (1 << __NUM_LOC2NORM_BITS__) - 1;
    save();
    if (round % 3 == 2) {
      restart();
      for (int bit = 0; bit < __NUM_LOC2NORM_BITS__; ++bit)
        ASSERT_EQ(model.ids[bit], maps_model::held(inst, bit)) << file(bit);
    }
  }
}

TEST_F(recovery_files, a_huge_id_costs_what_it_touches) {
  maps_model model;
  struct rusage before, after;
  getrusage(RUSAGE_SELF, &before);
  for (const loc2norm_row &row : loc2norm_rows)
    if (row.map)
      for (const int64_t local_id : {int64_t{0}, int64_t{70000}, highest_id})
        model.store(inst, row.bit, local_id, 1 + row.bit);
  for (int round = 0; round < 2; ++round) {
    save();
    for (const loc2norm_row &row : loc2norm_rows)
      tqp_store_loc2norm(inst, row.bit, 70000, 1 + row.bit);
    save();
    restart();
    for (const loc2norm_row &row : loc2norm_rows) {
      if (!row.map)
        continue;
      const wllb_zarray<int> &map = inst->*row.map;
      struct stat st = {};
      ASSERT_EQ(0, stat(file(row.bit).c_str(), &st));
      EXPECT_EQ(map.size * 4, st.st_size);
      EXPECT_LT(st.st_blocks, 128) << "512-byte blocks";
      for (const auto &[local_id, norm_id] : model.ids[row.bit])
        EXPECT_EQ(norm_id, map.at_or_zero(local_id));
      model.store(inst, row.bit, highest_id - 3000, 99);
    }
  }
  getrusage(RUSAGE_SELF, &after);
  EXPECT_TRUE(!memory_is_lazy || after.ru_maxrss - before.ru_maxrss < 16384);
}

TEST_F(recovery_files, a_save_writes_what_is_new_and_nothing_else) {
  tqp_store_loc2norm(inst, LOC2NORM_METHOD, 3, 7);
  save();
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(file("")), {}) - 1) << "beside the marker";
  put_file(file(LOC2NORM_METHOD), "untouched");
  save();
  tqp_store_loc2norm(inst, LOC2NORM_URL, 3, 7);
  write_loc2norm_rec_file(inst, ~(1 << LOC2NORM_URL));
  EXPECT_EQ("untouched", file_text(file(LOC2NORM_METHOD)));
  EXPECT_FALSE(std::filesystem::exists(file(LOC2NORM_URL)));
  wllb_zarray_reserve(inst->bci_arg_id_map, 1, bci_arg_id_map_growth);
  inst->bci_arg_id_map.data[0] = norm_id_flag;
  tqp_store_loc2norm(inst, LOC2NORM_BCI_ARG, 3000, 7);
  save();
  EXPECT_EQ(bytes_of(inst->bci_arg_id_map), file_text(file(LOC2NORM_BCI_ARG))) << "with what the map was made with";
}

TEST_F(recovery_files, a_failed_save_is_made_good_by_the_next_change) {
  tqp_store_loc2norm(inst, LOC2NORM_METHOD, 3, 7);
  block(file(LOC2NORM_METHOD));
  save();
  std::filesystem::remove(file(LOC2NORM_METHOD));
  struct rlimit limit;
  getrlimit(RLIMIT_FSIZE, &limit);
  const struct rlimit small = {.rlim_cur = 10000, .rlim_max = limit.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  for (const int64_t local_id : {3000, 9000}) {
    tqp_store_loc2norm(inst, LOC2NORM_METHOD, local_id, 8);
    save();
  }
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, SIG_DFL);
  tqp_store_loc2norm(inst, LOC2NORM_METHOD, 12000, 9);
  save();
  EXPECT_EQ(bytes_of(inst->method_map), file_text(file(LOC2NORM_METHOD)));
}

// --- queries and headers ----------------------------------------------------------------------------------------

// A run that begins anew reads no maps at its start; its first partition switch does.
TEST_F(recovery_files, queries_saved_for_the_first_time_are_read_back) {
  std::filesystem::remove(file(".SQLMapNewVer"));
  tqp_store_sql(inst, 1, 2, 3);
  EXPECT_FALSE(std::filesystem::exists(file(".SQLMapNewVer")));
  save();
  restart();
  EXPECT_EQ(2, query(1));
}

TEST_F(recovery_files, queries_are_read_only_beside_the_marker_and_with_their_text) {
  g_min_init_nonprep_sql_id = norm_id_flag + 6;
  std::vector<sql_query_map_t> queries = {{9, norm_id_flag + 5, 1}, {8, norm_id_flag + 6, 1}};
  for (const int times : {1, 0}) // out of order, and most of them twice
    for (int loc_id = 100; loc_id > 6; --loc_id)
      queries.push_back({loc_id, loc_id * times, 1});
  put_file(file(LOC2NORM_SQL), bytes_of(queries.data(), queries.size()));
  std::filesystem::remove(file(".SQLMapNewVer"));
  restart();
  EXPECT_EQ(0, inst->sql_query_map_size);
  EXPECT_TRUE(std::filesystem::exists(file(".SQLMapNewVer")));
  restart();
  EXPECT_EQ(94, inst->sql_query_map_size);
  for (int loc_id = 100; loc_id > 6; --loc_id)
    EXPECT_EQ(loc_id == 8 ? norm_id_flag + 6 : loc_id, query(loc_id)) << "the first that has its text";
  for (const std::string &gone : {file(LOC2NORM_SQL), file(".SQLMapNewVer")})
    std::filesystem::remove(gone);
  restart();
  EXPECT_FALSE(std::filesystem::exists(file(".SQLMapNewVer"))) << "no file of either layout";
  tqp_store_sql(inst, 1, 2, 3);
  save();
  restart();
  EXPECT_EQ(2, query(1)) << "saved with its marker";
  tqp_enable_sql_metadata_recovery = 0;
  std::filesystem::remove(file(LOC2NORM_SQL));
  tqp_store_sql(inst, 1, 2, 3);
  save();
  EXPECT_FALSE(std::filesystem::exists(file(LOC2NORM_SQL)));
}

TEST_F(recovery_files, header_lines_are_counted_one_more_for_each_read) {
  const std::string long_name(200000, 'n'); // longer than a read
  put_file(file(LOC2NORM_HTTP_HEADER), "1,a\n2," + long_name + "\n-3,c\n4,d\n");
  restart();
  EXPECT_EQ(4 + 2, inst->http_header_map.size);
  EXPECT_EQ(long_name, inst->http_header_map.data[1].http_header_name);
  EXPECT_EQ(0, inst->http_header_map.data[2].norm_http_header_id);
  EXPECT_EQ(4, inst->http_header_map.data[3].norm_http_header_id);
  tqp_store_http_header(inst, 2, 3, "");
  save();
  EXPECT_EQ("1,a\n2," + long_name + "\n3,\n4,d\n0,\n0,\n", file_text(file(LOC2NORM_HTTP_HEADER)));
}

// --- the save step, and runs over a chosen range ----------------------------------------------------------------

TEST_F(recovery_files, only_a_live_run_saves_its_maps_with_its_offset) {
  const std::string offset = root + "/webapps/logs/TR1001/" + partition + "/tq/raw_data/.tier_server_app.txt.offset";
  for (const bool offline : {true, false}) {
    start_partition_idx = offline ? stoll(partition) : 0;
    tqp_store_loc2norm(inst, LOC2NORM_METHOD, 3, 7);
    inst->raw_data_file_offset = offline ? 100 : 200;
    for (int round = 0; round < 2; ++round) {
      inst->flag_to_update_offset = 1;
      save_tqp_app_instance_thread_state(inst);
    }
    EXPECT_EQ(offline ? "100" : "200", file_text(offset));
    EXPECT_EQ(!offline, std::filesystem::exists(file(LOC2NORM_METHOD)));
  }
  tqp_close_stream(&inst->raw_data_file_offset_fp);
}

TEST_F(recovery_files, an_offline_run_without_files_needs_data_that_resends_them) {
  start_partition_idx = stoll(partition);
  const std::string raw = root + "/webapps/logs/TR1001/" + partition + "/tq/raw_data/tier_server_app.txt";
  restart(); // no raw file: nothing to be wrong about
  for (const std::string begin : {"80,", "82,x", "2"}) {
    put_file(raw, "0,tier,server,app,1,1,1\n5,21,80\n" + std::string(300000, '1') + "\n" + begin + "\n11,1,0\n");
    EXPECT_EXIT(
        {
          dup2(STDERR_FILENO, STDOUT_FILENO);
          restart();
        },
        testing::ExitedWithCode(255), "Recovery file not found");
  }
  put_file(raw, "3,\n2"); // the line is not whole yet
  restart();
  EXPECT_EQ(0, inst->recovery_file_found);
}

} // namespace
