// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes away.
#pragma once

#include <string>

namespace corvane::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path()/name.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace corvane::testing
