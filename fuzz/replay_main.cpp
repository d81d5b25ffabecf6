// Runs a fuzz target over its corpus and over seeded damages of each file, without a fuzzer.
//   replay CORPUS_DIR [DAMAGES]       damages of each file: bytes changed, cut out, doubled, moved (default 40)

#include "fuzz_targets.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

static std::string damaged(std::string text, std::mt19937 &random) {
  static constexpr char favourites[] = {',', ':', '_', '|', '\n', '\0',   '-',   '.',
                                        '0', '9', '{', '}', '=',  '\x1E', '\xFF'};
  const auto below = [&](size_t n) { return n == 0 ? 0 : random() % n; };
  for (size_t times = 1 + below(6); times > 0 && !text.empty(); --times) {
    const size_t at = below(text.size());
    const size_t len = 1 + below(std::min<size_t>(text.size() - at, 40));
    switch (below(5)) {
    case 0:
      text[at] = favourites[below(sizeof favourites)];
      break;
    case 1:
      text.erase(at, len);
      break;
    case 2:
      text.insert(at, text.substr(at, len));
      break;
    case 3:
      text.insert(at, std::to_string(static_cast<int64_t>(uint64_t{random()} * uint64_t{random()})));
      break;
    default:
      text.insert(below(text.size()), text.substr(at, len));
    }
  }
  return text;
}

int main(int argc, char **argv) {
  if (argc < 2)
    return 2;
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(argv[1]))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  const int damages = argc > 2 ? atoi(argv[2]) : 40;
  std::mt19937 random(20261122); // NOLINT: the same damages each time, so that a failure can be repeated
  for (const auto &path : files) {
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    for (int i = 0; i <= damages; ++i) {
      const std::string input = i == 0 ? text : damaged(text, random);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
    printf("%s: %d inputs\n", path.filename().c_str(), damages + 1);
  }
  return files.empty() ? 1 : 0;
}
