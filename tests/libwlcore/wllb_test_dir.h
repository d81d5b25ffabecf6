// A directory of its own for a test, gone afterwards.
#pragma once

#include "../support/test_files.h"

#include <cstdlib>
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
