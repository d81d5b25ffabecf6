// A directory of its own for a test, gone afterwards, and whole files read and written in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

struct wllb_test_dir {
  std::string path;

  wllb_test_dir() : path(testing::TempDir() + "wlcore_XXXXXX") {
    if (!mkdtemp(path.data()))
      ADD_FAILURE() << "no directory " << path;
  }

  ~wllb_test_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }

  wllb_test_dir(const wllb_test_dir &) = delete;
  wllb_test_dir &operator=(const wllb_test_dir &) = delete;

  std::string operator/(const std::string &name) const { return path + "/" + name; }
};

inline void wllb_test_write(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string wllb_test_read(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
