// LoginItem: whether the application starts when the user logs in. On macOS
// the main-app service of ServiceManagement (service_login_item.h); elsewhere
// an XDG autostart entry. The decision whether to change anything is the caller's
// (AppModel::setLaunchAtLogin): registering again when already registered
// would undo a user's own choice in the system's settings.
//
// Calls are made on the main thread; they never throw.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace corvane {

class LoginItem {
 public:
  LoginItem() = default;
  LoginItem(const LoginItem&) = delete;
  LoginItem& operator=(const LoginItem&) = delete;
  virtual ~LoginItem() = default;

  // True when the application is registered to start at login.
  virtual bool isEnabled() = 0;
  // Each returns absent on success, else the failure as a finished sentence.
  virtual std::optional<std::string> registerItem() = 0;
  virtual std::optional<std::string> unregisterItem() = 0;
  // While a registration waits for the user's approval in the system's
  // settings (it is not enabled meanwhile), the sentence saying where to
  // give it; absent otherwise, and on systems that never ask.
  virtual std::optional<std::string> pendingApproval() { return std::nullopt; }

  // This system's login item for the running application.
  static std::unique_ptr<LoginItem> makeDefault();
};

}  // namespace corvane
