#include "tests/support/temp_dir.h"

#include <unistd.h>  // mkdtemp on macOS

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace corvane::testing {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/corvane-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace corvane::testing
