// Outside macOS launch at login is an XDG autostart entry that starts this
// very executable.
#include <system_error>

#include "app/platform/xdg_autostart_login_item.h"

namespace corvane {

std::unique_ptr<LoginItem> LoginItem::makeDefault() {
  // Linux names the running executable here; an empty path makes
  // registering fail with a sentence rather than write a useless entry.
  std::error_code ec;
  std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) executable.clear();
  return std::make_unique<XdgAutostartLoginItem>(
      XdgAutostartLoginItem::defaultDirectory(UserDirectories::processEnvironment), executable);
}

}  // namespace corvane
