// XdgAutostartLoginItem: launch at login on desktops that start what the
// user's autostart folder holds, as the entry "corvane.desktop" in that
// autostart folder. An entry the desktop's own settings turned off
// ("Hidden=true", or GNOME's "X-GNOME-Autostart-enabled=false") counts as
// not enabled.
//
// Main thread; never throws.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "app/platform/login_item.h"
#include "app/platform/user_directories.h"

namespace corvane {

class XdgAutostartLoginItem final : public LoginItem {
 public:
  static constexpr const char* entryName = "corvane.desktop";

  // `executable` is the program the entry starts (absolute).
  XdgAutostartLoginItem(std::filesystem::path autostartDirectory, std::filesystem::path executable);

  // "$XDG_CONFIG_HOME/autostart" when that is an absolute path, else
  // "<home>/.config/autostart".
  static std::filesystem::path defaultDirectory(const UserDirectories::GetEnv& getenv);

  // The entry's text for `executable`.
  static std::string entryText(const std::filesystem::path& executable);

  std::filesystem::path entryPath() const { return directory_ / entryName; }

  bool isEnabled() override;
  std::optional<std::string> registerItem() override;
  std::optional<std::string> unregisterItem() override;

 private:
  std::filesystem::path directory_;
  std::filesystem::path executable_;
};

}  // namespace corvane
