// Opener: hands things to the desktop — a web page to the browser, a file
// to the file manager. Main thread; never throws, failures are silent.
#pragma once

#include <filesystem>
#include <string>

namespace corvane {

class Opener {
 public:
  Opener() = default;
  Opener(const Opener&) = delete;
  Opener& operator=(const Opener&) = delete;
  virtual ~Opener() = default;

  // Opens `url` with the application the desktop chooses for it.
  virtual void openURL(const std::string& url) = 0;
  // Shows `path` selected in the file manager (Finder on macOS).
  virtual void reveal(const std::filesystem::path& path) = 0;
};

}  // namespace corvane
