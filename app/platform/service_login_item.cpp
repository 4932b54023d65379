#include "app/platform/service_login_item.h"

#include <utility>

namespace corvane {

ServiceLoginItem::ServiceLoginItem(std::unique_ptr<LoginService> service)
    : service_(std::move(service)) {}

ServiceLoginItem::State ServiceLoginItem::stateOf(long status) {
  switch (status) {
    case 1:
      return State::on;
    case 2:
      return State::awaitingApproval;
    default:
      return State::off;
  }
}

bool ServiceLoginItem::isEnabled() { return stateOf(service_->status()) == State::on; }

std::optional<std::string> ServiceLoginItem::registerItem() {
  // Registering again changes nothing while the user hasn't answered; only
  // System Settings can.
  if (stateOf(service_->status()) == State::awaitingApproval) return approvalNeeded;
  const auto failure = service_->registerService();
  // Checked after a refusal too: one the user switched off in System
  // Settings is refused there and waits for their approval.
  if (stateOf(service_->status()) == State::awaitingApproval) return approvalNeeded;
  return failure;
}

std::optional<std::string> ServiceLoginItem::pendingApproval() {
  if (stateOf(service_->status()) != State::awaitingApproval) return std::nullopt;
  return approvalNeeded;
}

std::optional<std::string> ServiceLoginItem::unregisterItem() {
  return service_->unregisterService();
}

}  // namespace corvane
