// What zlib alone costs for a run's blobs: reads every text back that a run has written to its sequence blob files, then
// deflates them all again with one kept stream, and prints the CPU seconds of that alone.
//   tqp_deflate_floor TEST_RUN_DIR       prints "cpu texts bytes"
//   In      TQFlowPath.csv of every partition and instance, and the blob files they point into (version B)
//   Failure exit status 1 when there is nothing to deflate

#include "wllb_compression.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

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
    if (fields.size() < 11)
      continue;
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

int main(int argc, char **argv) {
  if (argc != 2)
    return 2;
  blob_texts all;
  for (const auto &entry : fs::recursive_directory_iterator(argv[1])) {
    if (entry.path().filename() != "TQFlowPath.csv" || entry.file_size() == 0)
      continue;
    const fs::path partition = entry.path().parent_path().parent_path().parent_path().parent_path();
    const std::string rows = whole_file(entry.path());
    const std::vector<std::string> first = split(rows.substr(0, rows.find('\n')), ',');
    const std::string blobs = whole_file(partition / "tq" / "sqb" / first.at(3));
    for (const std::string &row : split(rows, '\n'))
      take_flowpath(row, blobs, &all);
  }
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
