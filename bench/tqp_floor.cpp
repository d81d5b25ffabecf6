// What no program that writes a run's output can do without: the CPU seconds of zlib alone, and those of the system calls.
//   tqp_floor deflate TEST_RUN_DIR       prints "cpu texts bytes"
//   tqp_floor write TEST_RUN_DIR         prints "cpu calls bytes"; writes into the current directory, and cleans up
//   In      TQFlowPath.csv of every partition and instance, and the files beside it
//   Out     deflate: every compressed text of the blob files, deflated again with one kept stream
//           write: the same bytes into fresh files. A segment's end reaches the disk before the next record is looked at:
//           its blob, its timing records and the offset go out one by one, flowpath rows row by row. All other files are
//           written in large pieces here, so that the true number of calls is never below this one
//   Failure exit status 1 when there is nothing to deflate or to write

#include "wllb_compression.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

static std::string whole_file(const fs::path &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

static std::vector<std::string> split(const std::string &text, char at) {
  std::vector<std::string> out;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(at, begin), text.size());
    out.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return out;
}

struct blob_texts {
  std::vector<std::string> texts;
  size_t bytes = 0;
  size_t segments = 0;             // in the lists
  size_t segments_with_timing = 0; // those that have entered a method

  // Takes the member at an offset, if it is a whole one. Its text stays valid until the next call.
  const std::string *take(const std::string &file, size_t offset, size_t length) {
    std::string text;
    if (length == 0 || offset + length > file.size() ||
        wllb_decomp_do(file.data() + offset, length, size_t{1} << 30U, &text) != 0)
      return nullptr;
    bytes += text.size();
    texts.push_back(std::move(text));
    return &texts.back();
  }
};

// The list that a row points at, then each segment's members in their order.
static void take_flowpath(const std::string &row, const std::string &blobs, blob_texts *out) {
  const size_t reference = row.find("C:1:");
  if (reference == std::string::npos)
    return;
  const std::vector<std::string> parts = split(row.substr(reference, row.find(',', reference) - reference), ':');
  if (parts.size() != 5)
    return;
  const std::string *found =
      out->take(blobs, strtoull(parts[3].c_str(), nullptr, 10), strtoull(parts[4].c_str(), nullptr, 10));
  if (!found)
    return;
  const std::vector<std::string> lines = split(*found, '|');
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::vector<std::string> fields = split(lines[i], ',');
    if (fields.size() < 20)
      continue;
    ++out->segments;
    out->segments_with_timing += fields[19] != "0";
    size_t offset = strtoull(fields[4].c_str(), nullptr, 10);
    for (const size_t column : {8, 9, 10}) {
      const size_t length = strtoull(fields[column].c_str(), nullptr, 10);
      out->take(blobs, offset, length);
      offset += length;
    }
  }
}

static double cpu_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// --- deflate ----------------------------------------------------------------------------------------------------

static int run_deflate(const blob_texts &all) {
  wllb_text out = {};
  const double begin = cpu_seconds();
  for (const std::string &text : all.texts) {
    wllb_text_clear(out);
    wllb_comp_do(text, 1, &out);
  }
  printf("%.3f %zu %zu\n", cpu_seconds() - begin, all.texts.size(), all.bytes);
  wllb_text_free(out, "deflated");
  return all.texts.empty() ? 1 : 0;
}

// --- write ------------------------------------------------------------------------------------------------------

// One output file, and a fresh copy of it that grows by equal pieces.
struct written_file {
  std::string bytes;
  size_t pieces; // system calls
  int fd;
};

static int make_file(size_t number) {
  const std::string name = "floor_" + std::to_string(number);
  const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
  unlink(name.c_str());
  return fd;
}

constexpr size_t large_piece = 32768;

static size_t pieces_of(const fs::path &path, const std::string &bytes, const blob_texts &all) {
  if (path.parent_path().filename() == "sqb")
    return all.segments;
  if (path.extension() == ".dat")
    return all.segments_with_timing;
  if (path.filename() == "TQFlowPath.csv")
    return static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\n'));
  return bytes.size() / large_piece + 1;
}

static bool is_output(const fs::directory_entry &entry) {
  const fs::path extension = entry.path().extension();
  return entry.is_regular_file() && entry.file_size() > 0 &&
         (extension == ".csv" || extension == ".dat" || entry.path().parent_path().filename() == "sqb");
}

static std::vector<written_file> take_files(const char *test_run, const blob_texts &all) {
  std::vector<written_file> files;
  for (const auto &entry : fs::recursive_directory_iterator(test_run))
    if (is_output(entry)) {
      std::string bytes = whole_file(entry.path());
      const size_t pieces = pieces_of(entry.path(), bytes, all);
      files.push_back({std::move(bytes), pieces, make_file(files.size())});
    }
  return files;
}

// Piece `turn` of `turns` of a file that has as many pieces or fewer. The calls made.
static size_t write_turn(const written_file &file, size_t turn, size_t turns) {
  const size_t from = file.bytes.size() * (turn * file.pieces / turns) / file.pieces;
  const size_t to = file.bytes.size() * ((turn + 1) * file.pieces / turns) / file.pieces;
  return from < to && write(file.fd, file.bytes.data() + from, to - from) > 0 ? 1 : 0;
}

static int run_write(const char *test_run, const blob_texts &all) {
  const std::vector<written_file> files = take_files(test_run, all);
  const int offset_file = make_file(files.size());
  fcntl(offset_file, F_SETFL, 0); // not appended to
  size_t calls = 0, bytes = 0;
  const double begin = cpu_seconds();
  for (size_t turn = 0; turn < all.segments; ++turn) {
    for (const written_file &file : files)
      if (file.pieces != 0)
        calls += write_turn(file, turn, all.segments);
    calls += pwrite(offset_file, "12345678", 8, 0) == 8;
  }
  const double cpu = cpu_seconds() - begin;
  for (const written_file &file : files) {
    bytes += file.bytes.size();
    close(file.fd);
  }
  close(offset_file);
  printf("%.3f %zu %zu\n", cpu, calls, bytes);
  return calls == 0 ? 1 : 0;
}

int main(int argc, char **argv) {
  if (argc != 3)
    return 2;
  blob_texts all;
  for (const auto &entry : fs::recursive_directory_iterator(argv[2])) {
    if (entry.path().filename() != "TQFlowPath.csv" || entry.file_size() == 0)
      continue;
    const fs::path partition = entry.path().parent_path().parent_path().parent_path().parent_path();
    const std::string rows = whole_file(entry.path());
    const std::vector<std::string> first = split(rows.substr(0, rows.find('\n')), ',');
    const std::string blobs = whole_file(partition / "tq" / "sqb" / first.at(3));
    for (const std::string &row : split(rows, '\n'))
      take_flowpath(row, blobs, &all);
  }
  return strcmp(argv[1], "write") == 0 ? run_write(argv[2], all) : run_deflate(all);
}
