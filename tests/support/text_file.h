// Whole-file reads and writes for tests that check what code left on disk.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace corvane::testing {

// The file's text; empty when it can't be read.
inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Writes `text`, making the folders on the way.
inline void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

}  // namespace corvane::testing
