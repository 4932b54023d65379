// Launch at login through the main-app service: which of the framework's
// states count as on, and that a registration held for the user's approval
// is reported as such rather than as success or as off.
#include "app/platform/service_login_item.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

namespace corvane {
namespace {

constexpr long kNotRegistered = 0, kEnabled = 1, kRequiresApproval = 2, kNotFound = 3;

// Registering moves the status to `afterRegister`, also when it is refused
// with `failure`.
class FakeService final : public LoginService {
 public:
  long current = kNotRegistered;
  long afterRegister = kEnabled;
  std::optional<std::string> failure;
  int registers = 0;

  long status() override { return current; }
  std::optional<std::string> registerService() override {
    ++registers;
    current = afterRegister;
    return failure;
  }
  std::optional<std::string> unregisterService() override {
    current = kNotRegistered;
    return std::nullopt;
  }
};

TEST(ServiceLoginItemTest, OnlyAnApprovedRegistrationIsEnabled) {
  const struct {
    long status;
    ServiceLoginItem::State state;
  } cases[] = {
      {kNotRegistered, ServiceLoginItem::State::off},
      {kEnabled, ServiceLoginItem::State::on},
      {kRequiresApproval, ServiceLoginItem::State::awaitingApproval},
      {kNotFound, ServiceLoginItem::State::off},
      {-1, ServiceLoginItem::State::off},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    EXPECT_EQ(ServiceLoginItem::stateOf(c.status), c.state);
    auto service = std::make_unique<FakeService>();
    service->current = c.status;
    ServiceLoginItem item(std::move(service));
    EXPECT_EQ(item.isEnabled(), c.state == ServiceLoginItem::State::on);
    EXPECT_EQ(item.pendingApproval().has_value(),
              c.state == ServiceLoginItem::State::awaitingApproval);
  }
}

TEST(ServiceLoginItemTest, RegisteringSaysWhenTheUserMustApproveInSystemSettings) {
  const struct {
    const char* what;
    long before, afterRegister;
    std::optional<std::string> failure;
    std::optional<std::string> answer;
    int registers;
  } cases[] = {
      {"approved at once", kNotRegistered, kEnabled, {}, {}, 1},
      {"held for approval", kNotRegistered, kRequiresApproval, {}, ServiceLoginItem::approvalNeeded, 1},
      {"already waiting: not registered again", kRequiresApproval, kEnabled, {},
       ServiceLoginItem::approvalNeeded, 0},
      {"a plain failure keeps its sentence", kNotRegistered, kNotRegistered,
       "The operation couldn't be completed.", "The operation couldn't be completed.", 1},
      // Switched off by the user in System Settings: the framework refuses,
      // and approval there is what is missing.
      {"refused while approval is missing", kNotRegistered, kRequiresApproval,
       "Operation not permitted", ServiceLoginItem::approvalNeeded, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto owned = std::make_unique<FakeService>();
    FakeService& service = *owned;
    service.current = c.before;
    service.afterRegister = c.afterRegister;
    service.failure = c.failure;
    ServiceLoginItem item(std::move(owned));
    EXPECT_EQ(item.registerItem(), c.answer);
    EXPECT_EQ(service.registers, c.registers);
    EXPECT_EQ(item.isEnabled(), !c.answer);
  }
}

}  // namespace
}  // namespace corvane
