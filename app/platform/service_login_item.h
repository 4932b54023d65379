// ServiceLoginItem: launch at login as ServiceManagement's main-app service,
// the entry the user sees (and can switch off) under Login Items in System
// Settings. What each of the service's states means is decided here; the
// framework itself is reached through `LoginService` (mac/) or a stand-in in
// tests.
//
// A registration may need the user's approval in System Settings before it
// takes effect, and the user may withdraw it there later. Such an item is not
// enabled, and asking to register it answers with the sentence that says where
// to approve it rather than reporting success.
//
// Main thread; never throws.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/platform/login_item.h"

namespace corvane {

// The main-app service's calls, one to one.
class LoginService {
 public:
  LoginService() = default;
  LoginService(const LoginService&) = delete;
  LoginService& operator=(const LoginService&) = delete;
  virtual ~LoginService() = default;

  // The raw SMAppServiceStatus.
  virtual long status() = 0;
  // Each returns absent on success, else the framework's description.
  virtual std::optional<std::string> registerService() = 0;
  virtual std::optional<std::string> unregisterService() = 0;
};

class ServiceLoginItem final : public LoginItem {
 public:
  enum class State { off, on, awaitingApproval };

  // What the user is told while the item waits for their approval.
  static constexpr const char* approvalNeeded =
      "macOS needs your approval to open Corvane at login: turn Corvane on in System Settings "
      "\u203a General \u203a Login Items.";

  explicit ServiceLoginItem(std::unique_ptr<LoginService> service);

  // SMAppServiceStatus: 0 not registered, 1 enabled, 2 requires approval,
  // 3 not found (the service can't be found: off as well).
  static State stateOf(long status);

  // Only an approved registration counts.
  bool isEnabled() override;
  // Registers unless a registration already waits for approval; a
  // registration that ends up waiting answers `approvalNeeded`.
  std::optional<std::string> registerItem() override;
  std::optional<std::string> unregisterItem() override;
  std::optional<std::string> pendingApproval() override;

 private:
  std::unique_ptr<LoginService> service_;
};

}  // namespace corvane
