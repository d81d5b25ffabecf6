// The partition layout: files cut and damaged in any byte, chains that go nowhere, and the walk back to resume in.
#include "wllb_partition.h"

#include "wllb_test_dir.h"
#include "wllb_util.h"

#include <cstring>
#include <map>

constexpr int64_t P1 = 20261122213000;
constexpr int64_t P2 = 20261122220000;
constexpr int64_t P3 = 20261122223000;

TEST(partition_files, the_newest_partition_is_the_value_of_its_line) {
  const wllb_test_dir dir;
  const std::string nul(1, '\0');
  const std::pair<std::string, int64_t> rows[] = {
      {"a=1\ncURpARTITIONiDX=20261122213000\r\nb=2", P1},
      {"CurPartitionIdx=20261122213000", P1},
      {"CurPartitionIdx=20261122213000\n\n", -1},
      {"CurPartitionIdx" + nul + "=5\n", 0},
      {"CurPartitionIdx=5" + nul + "6\n", 5},
      {"XCurPartitionIdx=5\nCurPartitionIdx2=6\n=7\n", 0},
      {"CurPartitionIdx=99999999999999999999\n", INT64_MAX},
      {std::string(100000, 'x') + "=1\nCurPartitionIdx=8\n", 8},
  };
  for (const auto &[text, partition] : rows) {
    put_file(dir / ".curPartition", text);
    EXPECT_EQ(partition, wllb_get_cur_partition(dir.path.c_str())) << text.substr(0, 100);
  }
  for (const char *bad : {"2026112221300", "202611222130000", "2026112221300x", "-2026112221300", "../../etc/host"})
    EXPECT_FALSE(is_partition(bad)) << bad;
}

// --- partition info -------------------------------------------------------------------------------------------

// Every field as number, in the order of the writer's lines.
static const std::vector<std::string> line_names = {
    "FirstPartition", "StartPartition", "CurrentPartition", "PreviousPartition", "NextPartition", "OriginalPartition",
    "AbsoluteTime",   "VexEpocDiff",    "TRInfoShmKey",     "WlParentPID",       "WlPort",        "ReaderRunMode",
    "NLMTraceLevel",  "NLWTraceLevel",  "NLRTraceLevel",    "WLDBUTraceLevel",   "Version"};

static std::vector<int64_t> fields_of(const PartitionInfo &info) {
  return {info.first_partition,   info.start_partition, info.cur_partition,
          info.prev_partition,    info.next_partition,  info.original_partition,
          info.absolute_time,     info.vex_epoch_diff,  info.test_run_info_shr_mem_id,
          info.wl_parent_pid,     info.wl_port,         info.reader_run_mode,
          info.nlm_trace_level,   info.nlw_trace_level, info.nlr_trace_level,
          info.wldbu_trace_level, info.version};
}

static const std::vector<int64_t> line_values = {
    P1, P1 + 1, P2, P1 + 2, P3, P1 + 3, 1795383000, -1388534400, 65537, 4711, 7891, 2, 1, 4, 3, 12, 3};

namespace {

class partition_info : public testing::Test {
protected:
  wllb_test_dir dir;
  std::string whole = "#Start Partition, Previous Partition, Next Partition, Current Partition, First Partition\n";

  partition_info() {
    for (size_t i = 0; i < line_names.size(); ++i)
      whole += line_names[i] + "=" + std::to_string(line_values[i]) + "\n";
  }

  PartitionInfo parsed(const std::string &text) {
    std::filesystem::remove(dir / "20261122220000/.partition_info.txt");
    put_file(dir / "20261122220000/.partition_info.txt", text);
    PartitionInfo info;
    memset(&info, 0x55, sizeof info);
    EXPECT_EQ(0, wllb_get_partition_info(dir.path.c_str(), &info, "20261122220000"));
    return info;
  }
};

} // namespace

// A file that is just being written: whole lines count, the last one as far as its digits go.
TEST_F(partition_info, the_file_may_end_anywhere) {
  for (size_t cut = 0; cut <= whole.size(); cut += cut < 80 ? 20 : 1) {
    const std::string text = whole.substr(0, cut);
    std::vector<int64_t> expected(line_names.size(), 0);
    for (size_t i = 0; i < line_names.size(); ++i) {
      const size_t at = text.find("\n" + line_names[i] + "=");
      if (at != std::string::npos)
        expected[i] = atoll(text.c_str() + at + line_names[i].size() + 2);
    }
    EXPECT_EQ(expected, fields_of(parsed(text))) << cut;
  }
}

// --- a chain of partitions ------------------------------------------------------------------------------------

namespace {

class partition_chain : public testing::Test {
protected:
  wllb_test_dir wdir;
  const std::string base = wdir / "logs/TR7";

  std::string at(int64_t partition, const std::string &path) const {
    return base + "/" + std::to_string(partition) + "/" + path;
  }

  void write_info(int64_t partition, int64_t previous, int64_t next = 0, int version = 1) const {
    std::filesystem::create_directories(at(partition, "tq/raw_data"));
    set_file(at(partition, ".partition_info.txt"), true,
             wllb_format("PreviousPartition=%ld\nNextPartition=%ld\nVersion=%d\n", previous, next, version));
  }

  static void set_file(const std::string &path, bool present, const std::string &text = "") {
    std::filesystem::remove(path);
    if (present)
      put_file(path, text);
  }

  void set_files(int64_t partition, bool data, bool offset) const {
    set_file(at(partition, "tq/raw_data/inst.txt"), data);
    set_file(at(partition, "tq/raw_data/.inst.txt.offset"), offset);
  }

  DataFileInfo walk_from(int64_t partition) const {
    DataFileInfo info = {};
    wllb_copy_text(info.partition, sizeof info.partition, std::to_string(partition));
    EXPECT_EQ(0, wllb_get_last_partition(base.c_str(), "tq/raw_data", "inst.txt", &info));
    EXPECT_EQ(info.partition, std::to_string(info.partition_idx));
    EXPECT_EQ(at(info.partition_idx, "tq/raw_data/.inst.txt.offset"), info.full_offset_filename);
    return info;
  }
};

} // namespace

TEST_F(partition_chain, a_partition_begins_at_the_time_of_its_name) {
  constexpr time_t utc = 1795383000; // 2026-11-22 21:30:00 UTC
  setenv("TZ", "TST-6", 1);
  tzset();
  for (const int version : {0, 1, -1}) { // version 0 means local time
    write_info(P1, 0, 0, version);
    EXPECT_EQ(utc - 100 - (version == 0 ? 21600 : 0),
              wllb_get_vexepoch_time_from_partition("20261122213000", 100, -1, base.c_str()));
  }
  for (const char *bad : {"", "x", "20261322213000", "20261122213000x", "99999999"})
    EXPECT_EQ(0, wllb_get_vexepoch_time_from_partition(bad, 5, 1, base.c_str())) << bad;
  unsetenv("TZ");
  tzset();
}

// --- the walk back --------------------------------------------------------------------------------------------

// Partitions without info are told on standard error, which these tests do not look at.
namespace {

class partition_walk : public partition_chain {
  void SetUp() override { testing::internal::CaptureStderr(); }

  void TearDown() override { testing::internal::GetCapturedStderr(); }
};

// A partition as the walk meets it. No entry in the chain: its info cannot be read.
struct met_partition {
  int64_t previous;
  bool data;
  bool offset;
};

} // namespace

// The rule in one sentence: the newest partition with both files, else the oldest one passed that has the data file
// without an offset, else 0. A partition is judged when its link leads down; a first one without a link is taken as
// it is.
static int64_t partition_to_resume(const std::map<int64_t, met_partition> &chain, int64_t from) {
  std::vector<int64_t> judged;
  for (auto met = chain.find(from); met != chain.end() && met->second.previous < met->first;) {
    judged.push_back(met->first);
    if (met->second.previous == 0)
      break;
    met = chain.find(met->second.previous);
  }
  if (chain.at(from).previous == 0)
    return from;
  for (const int64_t partition : judged)
    if (chain.at(partition).data && chain.at(partition).offset)
      return partition;
  int64_t oldest = 0;
  for (const int64_t partition : judged)
    if (chain.at(partition).data)
      oldest = partition;
  return oldest;
}

// Each presence of the six files under each chain: straight, cut short, without info, circles, links to itself, up
// and to nowhere.
TEST_F(partition_walk, the_walk_finds_the_partition_of_the_rule_on_any_chain) {
  constexpr int64_t nowhere = P1 - 5;
  constexpr int64_t no_info = -1;
  std::map<int64_t, met_partition> on_disk;
  for (const int64_t previous3 : {P2, P1, P3, nowhere, int64_t{0}})
    for (const int64_t previous2 : {P1, P3, nowhere, int64_t{0}, no_info})
      for (const int64_t previous1 : {int64_t{0}, P3, no_info}) {
        const std::pair<int64_t, int64_t> links[] = {{P3, previous3}, {P2, previous2}, {P1, previous1}};
        for (const auto &[partition, previous] : links) {
          write_info(partition, previous);
          if (previous == no_info)
            std::filesystem::remove(at(partition, ".partition_info.txt"));
        }
        for (unsigned present = 0; present < 64; ++present) {
          std::map<int64_t, met_partition> chain;
          unsigned bits = present ^ (present >> 1U); // one file changes from one to the next
          for (const auto &[partition, previous] : links) {
            const met_partition met = {previous, (bits & 1U) != 0, (bits & 2U) != 0};
            bits >>= 2U;
            if (previous != no_info)
              chain[partition] = met;
            met_partition &now = on_disk[partition];
            if (now.data != met.data || now.offset != met.offset)
              set_files(partition, met.data, met.offset);
            now = met;
          }
          ASSERT_EQ(partition_to_resume(chain, P3), walk_from(P3).partition_idx)
              << previous3 << ' ' << previous2 << ' ' << previous1 << ' ' << present;
        }
      }
}

// A partition passed on the way is marked by what it and the directory "buffer" of the process hold.
TEST_F(partition_walk, an_empty_partition_passed_is_marked_as_done) {
  const std::filesystem::path cwd_before = std::filesystem::current_path();
  const wllb_test_dir cwd;
  std::filesystem::current_path(cwd.path);
  for (const bool raw_data : {false, true})
    for (const char *buffer : {".", "buffer", "buffer/x"}) // missing, empty, filled
      for (const bool is_done : {false, true}) {
        std::filesystem::remove_all(base);
        std::filesystem::remove_all("buffer");
        std::filesystem::create_directories(buffer);
        write_info(P3, P2);
        write_info(P2, 0);
        std::filesystem::create_directories(at(P3, "tq/csv"));
        std::filesystem::create_directories(at(P2, "tq/csv"));
        if (!raw_data)
          std::filesystem::remove_all(at(P2, "tq/raw_data"));
        const std::string done = at(P2, "tq/csv/.tqp_process_done_v2.txt");
        set_file(done, is_done, "kept");
        walk_from(P3);
        EXPECT_EQ(is_done || !raw_data || strlen(buffer) < 8, wllb_path_exists(done.c_str()));
        EXPECT_EQ(is_done ? "kept" : "", file_text(done));
        EXPECT_TRUE(std::filesystem::is_empty(at(P3, "tq/csv"))); // where the walk begins, nothing is marked
      }
  std::filesystem::current_path(cwd_before);
}
