// Whole files as tests make and read them.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

inline std::string file_text(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Makes the file's directories, too.
inline void put_file(const std::string &path, std::string_view text, std::ios::openmode mode = std::ios::trunc) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  std::ofstream(path, std::ios::binary | mode).write(text.data(), static_cast<std::streamsize>(text.size()));
}
