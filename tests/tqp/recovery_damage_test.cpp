// Files that a restart reads, cut at every byte or overwritten: each is told in the trace and none gives a wrong id. And
// what is copied at a partition switch.

#include "output_files_fixture.h"
#include "tag_ids.h"
#include "tqp_process_data.h"
#include "tqp_recovery.h"
#include "tqp_tags.h"

#include <functional>
#include <random>

namespace {

constexpr int highest = 20; // id that each table has given out

NormObjKey *const tables[] = {&key_method_id,         &key_excp_cls_id, &key_excp_thr_cls_id, &key_excp_thr_mtd_id,
                              &key_excp_msg_id,       &key_excp_st_id,  &key_url_id,          &key_excp_cause_id,
                              &key_http_header_id,    &key_sql_query,   &key_bci_arg,         &key_class_id,
                              &key_sql_nonprep_query, &key_package_id,  &key_resource_id};

class recovery_damage : public output_files {
protected:
  const std::string recovery = root + "/webapps/logs/TR1001/tq/recovery/";
  const std::string raw_dir = root + "/webapps/logs/TR1001/" + partition + "/tq/raw_data/";
  size_t seen = 0; // bytes of the trace log

  recovery_damage() {
    g_min_init_nonprep_sql_id = 0;
    resume_flag = 1;
    for (const std::string &dir : {raw_dir, recovery, run_dir() + "tq/recovery/tier_server_app/tqp"})
      std::filesystem::create_directories(dir);
    put_file(file(".SQLMapNewVer"), "");
    make_tables(highest);
  }

  ~recovery_damage() override {
    drop_tables();
    tqp_free_local_maps(inst);
    tqp_free_global_texts(inst);
    tqp_close_stream(&inst->raw_data_file_offset_fp);
  }

  static void make_tables(int given_out) {
    drop_tables();
    for (NormObjKey *table : tables) {
      wllb_init_norm_id_table(table, 64);
      wllb_set_start_norm_id(table, given_out);
    }
    tqp_init_norm_table();
    count_tags = static_cast<uint32_t>(given_out);
  }

  static void drop_tables() {
    for (NormObjKey *table : tables)
      wllb_obj_hash_destroy(table);
    tqp_free_norm_table();
  }

  std::string file(const std::string &name) const { return make_loc2_norm_file_path(inst, name.c_str()); }

  // True when the trace has these words since the last call.
  bool told(const std::string &words) {
    std::ifstream log(run_dir() + partition + "/trace.log");
    log.seekg(static_cast<std::streamoff>(seen));
    const std::string news{std::istreambuf_iterator<char>(log), {}};
    seen += news.size();
    return news.find(words) != news.npos;
  }

  // Calls check(bytes are whole) for each damage of a file: cut, cut and filled up with zeros, zeros, noise.
  static void damage(const std::string &path, const std::string &whole, const std::function<void(bool)> &check) {
    std::mt19937 random(7);
    for (size_t cut = 0; cut <= whole.size() + 8; ++cut)
      for (const size_t size : {cut, whole.size()}) {
        SCOPED_TRACE(wllb_format("%s, cut %zu, size %zu", path.c_str(), cut, size));
        std::string bytes = whole.substr(0, cut);
        bytes.resize(cut > whole.size() ? 5000 : size);
        for (size_t i = 0; cut > whole.size() + 1 && i < bytes.size(); ++i)
          bytes[i] = static_cast<char>(random());
        put_file(path, bytes);
        check(bytes == whole);
      }
  }
};

TEST_F(recovery_damage, local_maps_hold_what_was_saved_or_nothing) {
  constexpr int ids[] = {3, 20, 0, 12, 1, 0, 19}; // by local id
  for (const loc2norm_row &row : loc2norm_rows) {
    const int flag = row.bit == LOC2NORM_URL ? norm_id_flag : 0;
    const auto file_of = [&](int first_id) {
      std::string bytes;
      for (int local_id = 0; local_id < 7; ++local_id) {
        const int id = (local_id == 0 ? first_id : ids[local_id]) | (ids[local_id] ? flag : 0);
        const sql_query_map_t query = {local_id, id, 1};
        if (row.bit == LOC2NORM_HTTP_HEADER)
          bytes += std::to_string(id) + (id ? ",H\n" : ",\n");
        else
          bytes.append(reinterpret_cast<const char *>(row.map ? &id : &query.loc_id),
                       row.map ? sizeof id : sizeof query);
      }
      return bytes;
    };
    const auto expect_ids = [&](bool whole, int first_id) {
      tqp_free_local_maps(inst);
      read_loc2norm_rec_file(inst, 1 << row.bit);
      for (int local_id = 0; local_id < 7; ++local_id) {
        const int right = local_id == 0 ? first_id : ids[local_id] | (ids[local_id] ? flag : 0);
        const int found = row.bit == LOC2NORM_SQL ? sql_query_map_read_loc2norm(inst->sql_query_map.data, local_id,
                                                                                inst->sql_query_map_size, nullptr)
                          : row.map               ? (inst->*row.map).at_or_zero(local_id)
                                                  : inst->http_header_map.at_or_zero(local_id).norm_http_header_id;
        EXPECT_TRUE(found == right || (!whole && found <= 0)) << found;
      }
      EXPECT_TRUE(std::is_sorted(inst->sql_query_map.data, inst->sql_query_map.data + inst->sql_query_map_size,
                                 [](const auto &a, const auto &b) { return a.loc_id < b.loc_id; }));
    };
    damage(file(row.file_name), file_of(ids[0]), [&](bool whole) {
      expect_ids(whole, ids[0] | flag);
      EXPECT_TRUE(told(row.file_name));
    });
    // An id of which no row tells is gone for good, also when another text has it by the next restart.
    put_file(file(row.file_name), file_of(highest + 1));
    for (const int given_out : {highest, highest + 5, highest}) {
      make_tables(given_out);
      expect_ids(true, row.bit == LOC2NORM_SQL ? -1 : 0);
    }
  }
}

TEST_F(recovery_damage, offsets_always_lead_to_the_beginning_of_a_line) {
  std::string data = "0,tier,server,app,1,1,1\n";
  while (data.size() < 12345)
    data += "5,5,spoof," + std::to_string(data.size()) + std::string(data.size() % 5000, 'x') + "\n";
  put_file(raw_dir + "raw", data);
  const wllb_file raw_fp(fopen((raw_dir + "raw").c_str(), "r"));
  const long saved = static_cast<long>(data.rfind('\n', data.size() - 2) + 1);
  damage(raw_dir + ".tier_server_app.txt.offset", std::to_string(saved), [&](bool whole) {
    tqp_close_stream(&inst->raw_data_file_offset_fp);
    check_offset_file_and_seek_raw_file(inst, raw_fp.get());
    EXPECT_TRUE(told("Seeking the raw file"));
    const long at = ftell(raw_fp.get());
    EXPECT_EQ(inst->raw_data_file_offset, at);
    EXPECT_TRUE(whole ? at == saved : at == 0 || (at <= saved && data[static_cast<size_t>(at) - 1] == '\n')) << at;
  });
  const long size = static_cast<long>(data.size());
  put_file(raw_dir + ".tier_server_app.txt.offset", std::to_string(size + 13));
  tqp_close_stream(&inst->raw_data_file_offset_fp);
  check_offset_file_and_seek_raw_file(inst, raw_fp.get());
  EXPECT_EQ(size, ftell(raw_fp.get())) << "nothing is read twice";
}

TEST_F(recovery_damage, partition_info_leads_to_partitions_that_are_there) {
  const std::string chain[] = {"0", "20261122200000", partition, "20261122220000", "0"}; // the oldest is half read
  const auto info_of = [&](int i) {
    return "PreviousPartition=" + chain[i - 1] + "\nNextPartition=" + chain[i + 1] + "\n";
  };
  for (int i = 1; i <= 3; ++i) {
    std::filesystem::create_directories(run_dir() + chain[i] + "/tq/raw_data");
    put_file(run_dir() + chain[i] + "/tq/raw_data/tier_server_app.txt", "");
    put_file(run_dir() + chain[i] + "/.partition_info.txt", info_of(i));
  }
  put_file(run_dir() + chain[1] + "/tq/raw_data/.tier_server_app.txt.offset", "0");
  damage(run_dir() + partition + "/.partition_info.txt", info_of(2), [&](bool whole) {
    wllb_copy_text(inst->partition_name, sizeof inst->partition_name, chain[3]);
    tqp_discover_partition_to_resume(inst);
    const auto at = std::find(chain + 1, chain + 4, inst->partition_name) - chain;
    EXPECT_LE(inst->test_run_swtch_flag, 3 - at) << inst->partition_name;
    EXPECT_TRUE(whole ? at == 1 : told("cut or damaged")) << inst->partition_name;
  });
}

TEST_F(recovery_damage, global_texts_come_back_whole_or_not_at_all) {
  const std::string path = recovery + "tier_server_app.txt.recovery", a = "{\"zone\":\"b,c\"}",
                    b = "{\"team\":\"shop\"}";
  damage(path, "110," + a + "\n111," + b + "\n", [&](bool whole) {
    tqp_free_global_texts(inst);
    put_file(file(".TQTagsData.recovery"), std::string(8, '\1')); // the texts come with the map
    read_loc2norm_rec_file(inst, 1 << LOC2NORM_TAGS);
    EXPECT_TRUE(inst->global_attributes ? inst->global_attributes == a : !whole);
    EXPECT_TRUE(inst->global_tags ? inst->global_tags == b : !whole);
    if (!whole)
      return;
    tqp_write_recovery_raw_data(inst);
    EXPECT_EQ("110," + a + "\n111," + b + "\n", file_text(path));
  });
}

TEST_F(recovery_damage, a_row_torn_by_a_kill_harms_no_other_row) {
  const std::string methods = "17,0,com.acme.charge\n18,0,com.acme.refund\n", headers = "Host,3\nUser-Agent,17\n";
  for (size_t cut = 0; cut < methods.size(); ++cut) {
    put_file(common("TQMetaData.csv"), methods.substr(0, cut));
    put_file(common("TQHTTPHeaderMetaData.csv"), headers.substr(0, cut));
    for (const int next : {-2, 21}) { // then there is a row behind the torn one
      make_tables(highest);
      tq_build_norm_tables_from_metadata_csv(-1);
      EXPECT_EQ(next, wllb_get_norm_id(&key_method_id, "next", 4)) << cut;
      EXPECT_EQ(next, wllb_get_norm_id(&key_http_header_id, "next", 4)) << cut;
      const int refund = wllb_get_norm_id(&key_method_id, "com.acme.refund", 15);
      const int agent = wllb_get_norm_id(&key_http_header_id, "User-Agent", 10);
      EXPECT_TRUE((refund == 18 || refund == -2) && (agent == 17 || agent == -2)) << cut;
      std::ofstream(common("TQMetaData.csv"), std::ios::app) << "21,0,next\n";
      std::ofstream(common("TQHTTPHeaderMetaData.csv"), std::ios::app) << "next,21\n";
    }
  }
}

TEST_F(recovery_damage, the_snapshot_holds_the_dot_files_and_nothing_else) {
  const std::string to = run_dir() + partition + "/tq/csv/tier_server_app/recovery/";
  std::filesystem::remove(file(".SQLMapNewVer"));
  tqp_copy_local2norm_at_partition_switch(inst);
  EXPECT_TRUE(told("Unable to copy local2norm file at path " + to));
  EXPECT_TRUE(std::filesystem::is_empty(to + ".TQMetaData.recovery"));
  tqp_store_loc2norm(inst, LOC2NORM_METHOD, 800000, 7); // mostly a hole
  write_loc2norm_rec_file(inst, 65535);
  std::filesystem::create_symlink("/etc/passwd", file(".link"));
  for (const char *name : {".fpg_version", "..hidden", "plain"})
    put_file(file(name), "2.0");
  tqp_copy_local2norm_at_partition_switch(inst);
  EXPECT_FALSE(told("Unable to copy local2norm file"));
  EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(to), {}));
  EXPECT_EQ("2.0", file_text(to + ".fpg_version"));
  EXPECT_TRUE(file_text(to + ".TQMetaData.recovery") == file_text(file(".TQMetaData.recovery")));
}

} // namespace
