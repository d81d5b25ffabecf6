// The trace file: what a line looks like, which file it goes to, and that none is torn or lost while files change.
#include "wllb_multi_thread_trace_log.h"

#include "wllb_test_dir.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

static const std::string header = "#TimeStamp|Thread Name|Src file name|Line number|Function|Severity|Message";
static const std::string front = "\n11/02/26 01:03:05|tier_server_app|file.cpp|7|func|Info|";

// 2 November 2026, 01:03:05 local time.
static int64_t fixed_clock() {
  tm when = {};
  when.tm_year = 126;
  when.tm_mon = 10;
  when.tm_mday = 2;
  when.tm_hour = 1;
  when.tm_min = 3;
  when.tm_sec = 5;
  when.tm_isdst = -1;
  static const int64_t ms = static_cast<int64_t>(mktime(&when)) * 1000 + 999;
  return ms;
}

namespace {

class trace_log : public testing::Test {
protected:
  wllb_test_dir dir;
  MTTraceLogKey *key = wllb_init_mt_trace_log_ex(dir.path.c_str(), 0, "tq/logs/t.log", 1, 1);
  int64_t (*const clock_before)() = wllb_clock_ms;

  void SetUp() override { wllb_clock_ms = fixed_clock; }

  void TearDown() override {
    wllb_clean_mt_trace_log(key);
    wllb_clock_ms = clock_before;
    wllb_trace_self = {};
    wllb_trace_partition = 0;
  }

  std::string path_in(const std::string &partition) const { return dir / (partition + "/tq/logs/t.log"); }

  std::string text_in(const std::string &partition) const { return wllb_test_read(path_in(partition)); }

  void trace(int64_t partition, const std::string &message) {
    wllb_mt_trace_log(key, partition, "tier_server_app", "Info", "src/dir/file.cpp", 7, "func", "%s", message.c_str());
  }

  // What a call adds to the file, without the front.
  std::string shown(const std::string &message) {
    const size_t before = text_in("1").size();
    trace(1, message);
    const std::string added = text_in("1").substr(before);
    EXPECT_EQ(front, added.substr(0, front.size()));
    return added.substr(std::min(added.size(), front.size()));
  }
};

} // namespace

// --- lines ----------------------------------------------------------------------------------------------------

TEST_F(trace_log, a_file_is_a_header_and_lines_that_begin_with_their_newline) {
  trace(3, "one");
  errno = ENOSPC;
  wllb_mt_trace_log(key, 3, nullptr, "Error", "plain.cpp", 12, "other", "%d of %s", 2, "two");
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ(header + front + "one\n11/02/26 01:03:05|Main Thread|plain.cpp|12|other|Error|2 of two", text_in("3"));
}

TEST_F(trace_log, every_call_is_one_line_whatever_bytes_the_message_has) {
  trace(1, "");
  for (int byte = 1; byte < 256; ++byte) {
    const std::string shown_byte(1, byte < 32 && byte != '\t' ? ' ' : static_cast<char>(byte));
    const std::string c(1, static_cast<char>(byte));
    EXPECT_EQ("a" + shown_byte + "b" + (byte == '\n' ? "" : shown_byte), shown("a" + c + "b" + c)) << byte;
  }
  EXPECT_EQ("", shown("\n"));
  EXPECT_EQ("a ", shown("a\n\n"));
}

TEST_F(trace_log, a_line_is_cut_at_the_size_of_its_buffer) {
  const size_t room = 16383 - front.size();
  trace(1, "");
  for (const size_t length : {size_t{0}, room - 1, room, room + 1, size_t{100000}})
    EXPECT_EQ(std::string(std::min(length, room), 'x'), shown(std::string(length, 'x'))) << length;

  const std::string name(16383, 'n');
  for (const size_t length : {size_t{16300}, size_t{16364}, size_t{16365}, size_t{16383}}) {
    const int64_t partition = key->partition_idx + 1;
    wllb_mt_trace_log(key, partition, name.substr(0, length).c_str(), "Info", "f.cpp", 1, "f", "message");
    const std::string line = "\n11/02/26 01:03:05|" + name.substr(0, length) + "|f.cpp|1|f|Info|message";
    EXPECT_EQ(header + line.substr(0, 16383), text_in(std::to_string(partition))) << length;
  }
}

// --- levels ---------------------------------------------------------------------------------------------------

TEST_F(trace_log, a_line_is_written_when_handle_and_thread_both_open_its_level) {
  trkey = key;
  for (int handle = -1; handle <= 6; ++handle)
    for (int own = -1; own <= 6; ++own)
      for (int level = 1; level <= 4; ++level) {
        const auto opens = [level](int keyword) { return level <= (keyword < 0 || keyword > 4 ? 1 : keyword); };
        const wllb_relaxed<uint32_t> debug_level(wllb_trace_mask(own));
        wllb_change_atb_mt_trace_log_core(key, handle, 0);
        wllb_trace_self.debug_level = own == 6 ? nullptr : &debug_level;
        wllb_trace_partition = key->partition_idx + 1;
        int evaluated = 0;
        wllb_trace(level, "Info", "%d", ++evaluated);
        const bool open = opens(handle) && (own == 6 || opens(own));
        EXPECT_EQ(open, evaluated == 1) << handle << own << level;
        EXPECT_EQ(open, wllb_path_exists(path_in(std::to_string(wllb_trace_partition)).c_str()));
        key->partition_idx = wllb_trace_partition.load();
      }
  wllb_clean_mt_trace_log(key);
  key = nullptr;
  EXPECT_FALSE(wllb_trace_on(1));
}

TEST_F(trace_log, level_0_makes_no_file_and_no_directory) {
  trkey = key;
  wllb_change_atb_mt_trace_log_core(key, 0, 0);
  wllb_trace_partition = 9;
  for (int level = 1; level <= 4; ++level)
    wllb_trace(level, "Critical", "nothing");
  EXPECT_TRUE(std::filesystem::is_empty(dir.path));
}

// The file is cut at each byte; only a line with keyword and level counts, and the first one of them.
TEST_F(trace_log, the_level_file_may_end_anywhere) {
  const std::string before = "#LEVEL 4\n LEVEL 4\n\tLEVEL 4\n\nlevel 4\nLEVELS 4\nLEVEL\nLEVEL ";
  const std::string whole = before + "2 5\nLEVEL 4 9\n";
  const std::string conf = dir / "level.conf";
  const char *const conf_before = wllb_trace_level_conf_path;
  wllb_trace_level_conf_path = conf.c_str();
  for (size_t cut = 0; cut <= whole.size(); ++cut) {
    wllb_change_atb_mt_trace_log_core(key, 3, 1);
    wllb_test_write(conf, whole.substr(0, cut));
    wllb_change_atb_mt_trace_log(key, "LEVEL");
    EXPECT_EQ(cut > before.size() ? 0xFFFFU : 0xFFFFFFU, key->log_level) << cut;
    EXPECT_EQ(cut > before.size() + 2 ? 5 << 20 : 1 << 20, key->max_log_file_size) << cut;
  }

  const struct {
    std::string text;
    uint32_t mask;
    int size;
  } rows[] = {
      {"LEVEL " + std::string(1024, ' ') + "4\n" + std::string(2000, 'x') + " LEVEL 4\nLEVEL 2", 0xFFFF, 1 << 20},
      {"LEVEL 0 -7\n", 0, 1 << 20},
      {"LEVEL x y\n", 0, 1 << 20},
      {"LEVEL 9 0\r\n", 0xFF, 1 << 20},
      {"LEVEL\t4\t2047\n", 0xFFFFFFFF, 2047 << 20},
      {"LEVEL 99999999999999999999 2000000000\n", 0xFF, INT_MAX}};

  for (const auto &row : rows) {
    wllb_change_atb_mt_trace_log_core(key, 3, 1);
    wllb_test_write(conf, row.text);
    wllb_change_atb_mt_trace_log(key, "LEVEL");
    EXPECT_EQ(row.mask, key->log_level) << row.text;
    EXPECT_EQ(row.size, key->max_log_file_size) << row.text;
  }
  for (const bool pipe : {false, true}) { // no file; a pipe that nobody writes to
    std::filesystem::remove(conf);
    wllb_change_atb_mt_trace_log_core(key, 3, 1);
    EXPECT_EQ(0, pipe ? mkfifo(conf.c_str(), 0600) : 0);
    wllb_change_atb_mt_trace_log(key, "LEVEL");
    EXPECT_EQ(0xFFFFFFU, key->log_level);
  }
  wllb_trace_level_conf_path = conf_before;
}

// --- which file -----------------------------------------------------------------------------------------------

TEST_F(trace_log, lines_move_on_to_newer_partitions_and_never_back) {
  const struct {
    int64_t told;
    const char *file; // the partition whose file gets the line
  } rows[] = {{0, ""},
              {-5, ""},
              {5, "5"},
              {6, "6"},
              {5, "6"},
              {0, "6"},
              {7, "7"},
              {20261122213000, "20261122213000"},
              {6, "20261122213000"}};

  std::string expected;
  const char *last = nullptr;
  for (const auto &row : rows) {
    expected = last && std::string(last) == row.file ? expected : header;
    expected += front + "x";
    last = row.file;
    trace(row.told, "x");
    EXPECT_EQ(expected, text_in(row.file)) << row.told;
  }
  // Told so, the file goes back, and says again what its columns are.
  const std::string old = text_in("6");
  wllb_tl_reset_partition_idx(key, 0);
  wllb_tl_reset_partition_idx(key, 6);
  EXPECT_EQ(-1, key->file_fd);
  trace(6, "y");
  EXPECT_EQ(old + header + front + "y", text_in("6"));
  EXPECT_EQ(expected, text_in(last));
}

// After each line, both files hold what a log of limited size holds.
TEST_F(trace_log, a_file_above_the_limit_becomes_the_one_older_file) {
  key->max_log_file_size = 400;
  std::string newest = header;
  std::string older;
  for (int i = 0; i < 60; ++i) {
    const std::string message(static_cast<size_t>(i * 7 % 90), 'm');
    if (newest.size() > 400) {
      older = newest;
      newest = header;
    }
    newest += front + message;
    trace(4, message);
    ASSERT_EQ(newest, text_in("4")) << i;
    ASSERT_EQ(older, wllb_test_read(path_in("4") + ".prev")) << i;
  }
  // A file left by an earlier process is measured before it is opened: one byte decides.
  for (const size_t size : {400, 401}) {
    const std::string partition = std::to_string(size);
    std::filesystem::create_directories(dir / (partition + "/tq/logs"));
    wllb_test_write(path_in(partition), std::string(size, 'o'));
    trace(static_cast<int64_t>(size), "m");
    EXPECT_EQ((size == 400 ? std::string(400, 'o') : "") + header + front + "m", text_in(partition));
  }
}

TEST_F(trace_log, a_rollover_that_fails_is_told_and_writing_goes_on) {
  trace(4, "a");
  key->max_log_file_size = 10;
  std::filesystem::create_directories(path_in("4") + ".prev/full");
  testing::internal::CaptureStderr();
  trace(4, "b");
  EXPECT_EQ("Error in moving '" + path_in("4") + "' file, err = Is a directory\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(header + front + "a" + header + front + "b", text_in("4"));
}

TEST_F(trace_log, what_happens_to_the_file_from_outside_costs_lines_at_most) {
  trace(4, "a");
  std::filesystem::remove_all(dir / "4");
  key->max_log_file_size = 10;
  trace(4, "into the removed file");
  EXPECT_FALSE(wllb_path_exists(path_in("4").c_str()));

  wllb_test_write(dir / "5", "a file where the directory has to be");
  testing::internal::CaptureStderr();
  key->max_log_file_size = 1 << 20;
  trace(5, "lost");
  EXPECT_EQ("Fail: Error in creating virutal user trace directory", testing::internal::GetCapturedStderr());
  std::filesystem::remove(dir / "5");
  std::filesystem::create_directories(path_in("5"));
  trace(5, "lost, too: a directory does not open");
  std::filesystem::remove(path_in("5"));
  trace(5, "b");
  EXPECT_EQ(header + front + "b", text_in("5"));
}

// --- the handle -----------------------------------------------------------------------------------------------

TEST(trace_log_handle, is_made_only_with_a_directory_and_a_file_or_a_real_test_run) {
  unsetenv("WL_WDIR");
  EXPECT_EQ(nullptr, wllb_init_mt_trace_log(nullptr, 5000, 1, "t.log", 1, 1));
  EXPECT_EQ(nullptr, wllb_init_mt_trace_log("/nowhere", 999, 1, nullptr, 1, 1));
  EXPECT_EQ(nullptr, wllb_init_mt_trace_log_ex("/nowhere", 1, nullptr, 1, 1));
  EXPECT_EQ(nullptr, wllb_init_mt_trace_log_ex(nullptr, 1, "t.log", 1, 1));
  setenv("WL_WDIR", "/nowhere", 1);

  const struct {
    int64_t partition;
    int level;
    int size_mb;
    uint32_t mask;
    int size;
  } rows[] = {{0, 0, 0, 0, 1 << 20}, {7, 2, 3, 0xFFFF, 3 << 20}, {-7, 8, 1 << 30, 0xFF, INT_MAX}};

  for (const auto &row : rows) {
    MTTraceLogKey *key = wllb_init_mt_trace_log(nullptr, 1000, row.partition, nullptr, row.level, row.size_mb);
    ASSERT_NE(nullptr, key);
    EXPECT_STREQ("/nowhere/logs/TR1000", key->base_dir);
    EXPECT_STREQ("/nowhere", key->wl_wdir);
    EXPECT_EQ(std::max<int64_t>(row.partition, 0), key->partition_idx);
    EXPECT_EQ(row.mask, key->log_level);
    EXPECT_EQ(row.size, key->max_log_file_size);
    wllb_clean_mt_trace_log(key);
  }
  unsetenv("WL_WDIR");
}

// Root only: user 1 and group 1 are in the databases of every system, 54321 in neither.
TEST(trace_log_handle, gives_the_file_to_the_owner_of_the_directory) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root gives files away";
  constexpr auto nobody = static_cast<uid_t>(-1);

  const struct {
    uid_t user;
    gid_t group;
    uid_t owner_known;
    gid_t group_known;   // by the directory's group
    gid_t primary_known; // by the owner
  } rows[] = {{1, 2, 1, 2, 1}, {54321, 2, nobody, 2, nobody}, {1, 54321, 1, nobody, 1}};

  for (const auto &row : rows) {
    wllb_test_dir wdir;
    const std::string base = wdir / "logs/TR1";
    std::filesystem::create_directories(base);
    ASSERT_EQ(0, chown(base.c_str(), row.user, row.group));
    for (const bool ready : {false, true}) {
      const char *name = ready ? "ready" : "built";
      MTTraceLogKey *key = ready ? wllb_init_mt_trace_log_ex(base.c_str(), 0, name, 1, 1)
                                 : wllb_init_mt_trace_log(wdir.path.c_str(), 1, 0, name, 1, 1);
      EXPECT_EQ(row.owner_known, key->ownerid);
      EXPECT_EQ(ready ? row.primary_known : row.group_known, key->grpid);
      wllb_mt_trace_log(key, 0, nullptr, "Info", "f.cpp", 1, "f", "x");
      struct stat file = {};
      ASSERT_EQ(0, stat((base + "/" + name).c_str(), &file));
      EXPECT_EQ(key->ownerid == nobody ? 0 : key->ownerid, file.st_uid);
      EXPECT_EQ(key->grpid == nobody ? 0 : key->grpid, file.st_gid);
      wllb_clean_mt_trace_log(key);
    }
  }
}

// --- threads --------------------------------------------------------------------------------------------------

constexpr int writers = 4;
constexpr int lines_each = 2000;

static std::string numbered_message(int writer, int line) {
  return wllb_format("writer %d line %04d ", writer, line) + std::string(40, static_cast<char>('a' + writer));
}

// Counts each line of a file. A header stands wherever the file was opened; the rest must be whole lines.
static void count_lines(std::string text, std::vector<int> *seen) {
  for (size_t at = 0; (at = text.find(header, at)) != std::string::npos;)
    text.erase(at, header.size());
  const size_t line_size = front.size() + numbered_message(0, 0).size();
  ASSERT_EQ(0U, text.size() % line_size);
  for (size_t at = 0; at < text.size(); at += line_size) {
    int writer = -1;
    int line = -1;
    ASSERT_EQ(2, sscanf(text.c_str() + at + front.size(), "writer %d line %d", &writer, &line));
    ASSERT_EQ(front + numbered_message(writer, line), text.substr(at, line_size));
    ++seen->at(static_cast<size_t>(writer * lines_each + line));
  }
}

// Lines carry partitions that grow with their number; a fifth thread moves the file in between and keeps opening a
// file of its own, into which a line would fall that is written to a descriptor somebody else was given. The limit
// lies so that each partition's file rolls over at most once and nothing is dropped with an older generation.
TEST_F(trace_log, no_line_is_torn_or_lost_while_the_file_moves_and_rolls_over) {
  constexpr int per_partition = 1000;
  key->max_log_file_size = 600 * static_cast<int>(front.size() + numbered_message(0, 0).size());
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  for (int writer = 0; writer < writers; ++writer)
    threads.emplace_back([this, writer, &written] {
      for (int line = 0; line < lines_each; ++line)
        trace(10 + 2 * (written++ / per_partition), numbered_message(writer, line));
    });
  const std::string other = dir / "other";
  threads.emplace_back([this, &written, &other] {
    for (int done = 0, now = 0; now < writers * lines_each; now = written) {
      if (now >= done * per_partition + 800)
        wllb_tl_reset_partition_idx(key, 11 + 2 * done++);
      close(open(other.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    }
  });
  for (std::thread &thread : threads)
    thread.join();

  std::vector<int> seen(writers * lines_each, 0);
  int older_files = 0;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(dir.path)) {
    if (!entry.is_regular_file() || entry.path() == other)
      continue;
    older_files += entry.path().extension() == ".prev" ? 1 : 0;
    count_lines(wllb_test_read(entry.path()), &seen);
  }
  EXPECT_EQ(std::vector<int>(writers * lines_each, 1), seen);
  EXPECT_GE(older_files, writers);
  EXPECT_EQ("", wllb_test_read(other));
}
