// In which partition an instance goes on, and how many switches are before it.

#include "output_files_fixture.h"
#include "tqp_recovery.h"

namespace {

class resume_partition : public output_files {
protected:
  const std::vector<std::string> chain = {"20261122100000", "20261122110000", "20261122120000", "20261122130000"};

  resume_partition() {
    for (size_t i = 0; i < chain.size(); ++i) {
      std::filesystem::create_directories(raw_file(i, ""));
      put_info(i, i + 1 < chain.size() ? chain[i + 1] : "0");
    }
  }

  std::string raw_file(size_t i, const std::string &name) const {
    return run_dir() + chain[i] + "/tq/raw_data/" + name;
  }

  void put_info(size_t i, const std::string &next) const {
    put_file(run_dir() + chain[i] + "/.partition_info.txt",
             wllb_format("CurrentPartition=%s\nPreviousPartition=%s\nNextPartition=%s\n", chain[i].c_str(),
                         i > 0 ? chain[i - 1].c_str() : "0", next.c_str()));
  }

  void put_files(size_t i, bool data, bool offset) const {
    for (const auto &[name, wanted] :
         {std::pair{"tier_server_app.txt", data}, std::pair{".tier_server_app.txt.offset", offset}}) {
      std::filesystem::remove(raw_file(i, name));
      if (wanted)
        put_file(raw_file(i, name), "0");
    }
  }

  void expect_resumed(size_t i, int switches) const {
    EXPECT_EQ(chain[i], inst->partition_name);
    EXPECT_EQ(switches, inst->test_run_swtch_flag);
  }

  void resume_live() const {
    wllb_copy_text(inst->partition_name, sizeof inst->partition_name, chain.back());
    tqp_discover_partition_to_resume(inst);
  }
};

TEST_F(resume_partition, a_live_run_goes_on_where_files_are_but_not_before_what_is_done) {
  resume_live();
  expect_resumed(3, 0);
  put_files(1, true, true);
  put_files(2, true, false);
  resume_live();
  expect_resumed(1, 2);
  g_process_done_partition = stoll(chain[2]);
  resume_live();
  expect_resumed(2, 1);
}

TEST_F(resume_partition, a_newest_partition_that_cannot_be_read_is_kept) {
  std::filesystem::remove(run_dir() + chain[3] + "/.partition_info.txt");
  put_files(1, true, true);
  resume_live();
  expect_resumed(3, 0);
}

TEST_F(resume_partition, a_chosen_range_begins_with_the_first_file) {
  for (unsigned present = 0; present < 16; ++present)
    for (size_t end = 0; end < chain.size(); ++end) {
      SCOPED_TRACE(wllb_format("files %x, end %zu", present, end));
      for (size_t i = 0; i < chain.size(); ++i)
        put_files(i, present >> i & 1, false);
      size_t first = 0;
      while (first < end && !(present >> first & 1))
        ++first;
      const int last_counts = static_cast<int>(present >> end & 1);
      wllb_copy_text(inst->partition_name, sizeof inst->partition_name, chain[end]);
      tqp_discover_partition_to_resume_ex(inst, stoll(chain[0]));
      expect_resumed(first, (first < end ? static_cast<int>(end - first) - 1 : 0) + last_counts);
    }
}

TEST_F(resume_partition, a_broken_chain_ends_the_walk_over_a_range) {
  put_info(1, "0");
  put_files(0, true, false);
  put_files(3, true, false);
  wllb_copy_text(inst->partition_name, sizeof inst->partition_name, chain[3]);
  tqp_discover_partition_to_resume_ex(inst, stoll(chain[0]));
  expect_resumed(0, 2); // one passed, and the end has its file
  EXPECT_EQ(1, traced("Error in reading .partition_info.txt file"));
}

} // namespace
