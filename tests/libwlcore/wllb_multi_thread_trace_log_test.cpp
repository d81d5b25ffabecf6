// The trace file: what a line looks like, which file it goes to, and that none is torn or lost while files change.
#include "wllb_multi_thread_trace_log.h"

#include "wllb_test_dir.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

static const std::string header = "#TimeStamp|Thread Name|Src file name|Line number|Function|Severity|Message";
static const std::string front = "\n11/02/26 01:03:05|tier_server_app|file.cpp|7|func|Info|";

// 2 November 2026, 01:03:05 local time.
static int64_t fixed_clock() {
  tm when = {};
  strptime("2026-11-02 01:03:05", "%Y-%m-%d %H:%M:%S", &when);
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

  std::string text_in(const std::string &partition) const { return file_text(path_in(partition)); }

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

TEST_F(trace_log, every_call_is_as_many_lines_as_its_format_whatever_bytes_the_message_has) {
  trace(1, "");
  for (int byte = 1; byte < 256; ++byte) {
    const std::string shown_byte(1, byte < 32 && byte != '\t' ? ' ' : static_cast<char>(byte));
    const std::string c(1, static_cast<char>(byte));
    EXPECT_EQ("a" + shown_byte + "b" + shown_byte, shown("a" + c + "b" + c)) << byte;
  }
  const size_t before = text_in("1").size();
  wllb_mt_trace_log(key, 1, "T", "Info", "a.cpp", 7, "f", "\nmsg %s\n && end\n", "a\rb");
  const std::string added = text_in("1").substr(before);
  EXPECT_EQ("\nmsg a b\n && end\n", added.substr(added.find("|Info|") + 6));
  const size_t room = 16383 - front.size(); // a line is cut at the size of its buffer
  for (const size_t length : {room - 1, room, room + 1, size_t{100000}})
    EXPECT_EQ(std::string(std::min(length, room), 'x'), shown(std::string(length, 'x'))) << length;
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
    put_file(conf, whole.substr(0, cut));
    wllb_change_atb_mt_trace_log(key, "LEVEL");
    EXPECT_EQ(cut > before.size() ? 0xFFFFU : 0xFFFFFFU, key->log_level) << cut;
    EXPECT_EQ(cut > before.size() + 2 ? 5 << 20 : 1 << 20, key->max_log_file_size) << cut;
  }

  wllb_trace_level_conf_path = conf_before;
}

// --- which file -----------------------------------------------------------------------------------------------

TEST_F(trace_log, lines_move_on_to_newer_partitions_and_never_back) {
  const std::pair<int64_t, const char *> rows[] = {
      // partition told, partition whose file gets the line
      {0, ""}, {-5, ""}, {5, "5"}, {6, "6"}, {5, "6"}, {0, "6"}, {20261122213000, "20261122213000"}};
  std::string expected;
  const char *last = "none";
  for (const auto &[told, file] : rows) {
    expected = (strcmp(last, file) == 0 ? expected : header) + front + "x";
    last = file;
    trace(told, "x");
    EXPECT_EQ(expected, text_in(file)) << told;
  }
  // Told so, the file goes back, and says again what its columns are.
  const std::string old = text_in("6");
  wllb_tl_reset_partition_idx(key, 0);
  wllb_tl_reset_partition_idx(key, 6);
  trace(6, "y");
  EXPECT_EQ(old + header + front + "y", text_in("6"));
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
    ASSERT_EQ(older, file_text(path_in("4") + ".prev")) << i;
  }
  // A file left by an earlier process is measured before it is opened: one byte decides.
  for (const size_t size : {400, 401}) {
    const std::string partition = std::to_string(size);
    std::filesystem::create_directories(dir / (partition + "/tq/logs"));
    put_file(path_in(partition), std::string(size, 'o'));
    trace(static_cast<int64_t>(size), "m");
    EXPECT_EQ((size == 400 ? std::string(400, 'o') : "") + header + front + "m", text_in(partition));
  }
}

TEST_F(trace_log, what_happens_to_the_file_from_outside_costs_lines_at_most) {
  put_file(dir / "5", "a file where the directory has to be");
  testing::internal::CaptureStderr();
  trace(5, "lost");
  EXPECT_NE("", testing::internal::GetCapturedStderr());
  std::filesystem::remove(dir / "5");
  std::filesystem::create_directories(path_in("5"));
  trace(5, "lost, too: a directory does not open");
  std::filesystem::remove(path_in("5"));
  trace(5, "b");
  EXPECT_EQ(header + front + "b", text_in("5"));
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
TEST_F(trace_log, of_lines_that_are_lost_the_first_goes_to_standard_error) {
  std::filesystem::create_directories(dir.path + "/tq/logs");
  std::filesystem::create_symlink("/dev/full", dir.path + "/tq/logs/t.log");
  testing::internal::CaptureStderr();
  for (const char *words : {"first", "second", "third"})
    wllb_mt_trace_log(key, 0, nullptr, "Error", "file.cpp", 7, "func", "%s", words);
  const std::string reported = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, reported.find(wllb_strerror(ELOOP))) << "a link is not written through";
  EXPECT_NE(std::string::npos, reported.find("|Error|first\n"));
  EXPECT_EQ(1, std::count(reported.begin(), reported.end(), '\n'));
}

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
    count_lines(file_text(entry.path()), &seen);
  }
  EXPECT_EQ(std::vector<int>(writers * lines_each, 1), seen);
  EXPECT_GE(older_files, writers);
  EXPECT_EQ("", file_text(other));
}
