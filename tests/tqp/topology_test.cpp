// The topology: its file to the byte, when it is written, and what a run before it left behind.
#include "tqp_tags.h"

#include "output_files_fixture.h"

#include <thread>

namespace {

class topology : public output_files {
protected:
  const std::string path = run_dir() + "topology/tqIntegrationPoint.conf";

  topology() { wllb_init_norm_id_table(&key_auto_topo_discovery_src, 16384); }

  ~topology() override {
    tqp_free_auto_topology();
    wllb_obj_hash_destroy(&key_auto_topo_discovery_src);
  }

  static void restart() {
    tqp_free_auto_topology();
    wllb_obj_hash_reset(&key_auto_topo_discovery_src);
    tq_build_norm_tables_for_auto_discovery();
  }

  // What a record says behind its event id.
  static void tell(std::string fields) {
    char *cursor = fields.data();
    tq_process_auto_topology_discovery_record(&cursor, fields.data() + fields.size());
  }

  // The file's text; it is gone then, so that only a new one is found later.
  std::string taken() const {
    const std::string text = file_text(path);
    std::filesystem::remove(path);
    return text;
  }
};

// clang-format off
const std::string one_pair = "{\n  \"backendNamesMappings\":\n  [\n    {\n      \"srcTier\" : \"Shop\",\n      \"backendData\":\n      [\n"
    "        {\n          \"backendName\": \"Db\",\n          \"destTier\": \"Store\"\n        }\n      ]\n    }\n  ]\n}";
const std::string three_pairs = "{\n  \"backendNamesMappings\":\n  [\n    {\n      \"srcTier\" : \"Shop\",\n      \"backendData\":\n      [\n"
    "        {\n          \"backendName\": \"Db\",\n          \"destTier\": \"Store\"\n        },\n"
    "        {\n          \"backendName\": \"Mail\",\n          \"destTier\": \"Post\"\n        }\n      ]\n    },\n"
    "    {\n      \"srcTier\" : \"Cart\",\n      \"backendData\":\n      [\n"
    "        {\n          \"backendName\": \"Db\",\n          \"destTier\": \"Other\"\n        }\n      ]\n    }\n  ]\n}";

// clang-format on
TEST_F(topology, the_file_is_written_once_for_each_new_pair_and_read_back) {
  tell("Db,Shop,Store");
  EXPECT_EQ(one_pair, taken());
  for (const char *fields : {"Db,Shop,Store", "Db,Shop,Else", "", "New", "New,Shop", ",Shop,Store", "New,,Store"})
    tell(fields);
  EXPECT_EQ("", taken()) << "known pairs, and records that end early or lack a text";
  std::filesystem::create_directories(path); // in the file's place
  tell("Mail,Shop,Post,and more");
  EXPECT_EQ(1, traced("Renaming Auto discovery topology json failed. Old file was = "));
  std::filesystem::remove(path);
  tell("Db,Cart,Other");
  EXPECT_EQ(three_pairs, file_text(path));
  restart();
  EXPECT_EQ(three_pairs, taken()) << "not touched by the restart";
  tell("Db,Cart,Late");
  EXPECT_EQ("", taken());
  std::filesystem::remove_all(run_dir() + "topology");
  put_file(run_dir() + "topology", "in the way");
  tell("Db,Bank,Vault");
  EXPECT_EQ(1, traced("Updating Auto discovery topology json failed because file = "));
  EXPECT_EQ(2, traced("json file = [" + path + "] created sucessfully"));
}

TEST_F(topology, arrays_grow_under_two_threads_and_long_texts_are_cut) {
  const auto tell_each_second = [](int first) {
    for (int i = first; i < 260; i += 2)
      tell(wllb_format("b%d,Tier%d,d%d", i, i % 4 < 2 ? 0 : i, i));
  };
  std::thread beside(tell_each_second, 1);
  tell_each_second(0);
  beside.join();
  tell(std::string(1030, 'y') + "," + std::string(1030, 'z') + "," + std::string(1030, '0'));
  tqp_save_auto_topology();
  restart();
  tell("b257,Tier0,again");
  tell("last,last,last");
  tqp_save_auto_topology();
  const std::string whole = taken();
  for (int i = 0; i < 260; ++i)
    EXPECT_NE(whole.npos, whole.find(wllb_format("\"b%d\",\n          \"destTier\": \"d%d\"", i, i))) << i;
  EXPECT_NE(whole.npos, whole.find(" \"" + std::string(1024, 'z') + "\",\n"));
}

TEST_F(topology, a_hostile_file_is_told_and_leaves_nothing) {
  const std::string init = "json file = " + path + " initialization failed with error = [";
  const std::string tree = "could not create json tree";
  int unreadable = 0;
  const std::string entry = "Error: found invalid entry in json file = [" + path + "] for ";
  const std::string open = R"({"backendNamesMappings":[)", data = R"(,"backendData":)";
  const std::pair<std::string, std::string> rows[] = {
      {"", init},
      {one_pair.substr(0, one_pair.size() - 1), init},
      {std::string(500, '[') + std::string(500, ']'), tree},
      {R"({"backendNamesMappings":"srcTier"})", tree},
      {open + "7]}", entry + "backend_name[], src_tier[], dest_tier[]"},
      {open + R"({"srcTier":"A")" + data + "{}}]}", entry + "backend_name[], src_tier[A], dest_tier[]"},
      {open + R"({"srcTier":["A"])" + data + R"([{"backendName":"b","destTier":"c"}]}]})",
       entry + "backend_name[b], src_tier[], dest_tier[c]"},
      {open + R"({"srcTier":"A")" + data + R"([{"backendName":"b","destTier":""},"x"]}]})",
       entry + "backend_name[b], src_tier[A], dest_tier[]"},
  };
  for (const auto &[text, words] : rows) {
    const int before = traced(words);
    std::filesystem::create_directory(run_dir() + "topology");
    put_file(path, text);
    restart();
    EXPECT_EQ(before + 1, traced(words)) << text.substr(0, 60);
    unreadable += words == init || words == tree;
    tell("Db,Shop,Store");
    EXPECT_EQ(one_pair, file_text(path));
  }
  const std::string aside = path + ".unreadable"; // each is kept
  EXPECT_EQ("", file_text(aside));
  EXPECT_EQ(one_pair.substr(0, one_pair.size() - 1), file_text(aside + ".1"));
  EXPECT_TRUE(std::filesystem::exists(aside + ".3") && !std::filesystem::exists(aside + ".4"));
  EXPECT_EQ(4, unreadable);
}

TEST_F(topology, names_of_any_bytes_come_back_as_they_were) {
  const auto tell_all = [] {
    for (const char *name :
         {"say \"hi\"", "C:\\new\\table", "tab\there", "\xff\xfe", "\"destTier\": \"x\"", "\\", "{", "}"})
      for (const char *fields : {"%s,Shop,Store", "Db,%s,Store", "Db2,Cart,%s"})
        tell(std::string(fields).replace(std::string(fields).find("%s"), 2, name));
  };
  tell_all();
  const std::string before = file_text(path);
  restart();
  EXPECT_EQ(before, taken());
  tell_all();
  EXPECT_EQ("", taken()) << "all are known";
  tell("New,}x,Store");
  EXPECT_EQ(0U, taken().find(before.substr(0, before.size() - std::strlen("\n  ]\n}"))));
}

TEST_F(topology, a_flood_of_pairs_is_limited_and_written_in_steps) {
  for (int i = 0; i < 150000; ++i)
    tell(wllb_format("b%d,t%d,d", i, i % 3 ? i : 0));
  tqp_save_auto_topology();
  const int written = traced(" json file = [");
  EXPECT_GT(400, written);
  EXPECT_EQ(1, traced("Auto discovery topology has reached its limit"));
  const std::string whole = taken();
  EXPECT_GT(8U << 20U, whole.size());
  EXPECT_LT(6U << 20U, whole.size());
}

} // namespace
