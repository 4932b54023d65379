// DesktopOpener: the Opener of the Qt application — web pages go to the
// desktop's browser; a file is shown in the file manager (selected in
// Finder on macOS, its folder opened elsewhere, where no common way to
// select a file exists).
//
// Main thread only; failures are silent, as Opener promises.
#pragma once

#include "app/platform/opener.h"

namespace corvane {

class DesktopOpener final : public Opener {
 public:
  void openURL(const std::string& url) override;
  void reveal(const std::filesystem::path& path) override;
};

}  // namespace corvane
