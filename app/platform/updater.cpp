#include "app/platform/updater.h"

#include <filesystem>

namespace corvane {

Updater::Updater(std::unique_ptr<UpdateController> controller, ActivationPolicy& policy,
                 std::function<bool()> setupWindowVisible)
    : controller_(std::move(controller)),
      policy_(policy),
      setupWindowVisible_(std::move(setupWindowVisible)) {}

void Updater::checkForUpdates() {
  if (controller_) controller_->checkForUpdates();
}

void Updater::setCanCheckForUpdates(bool can) {
  can = can && controller_ != nullptr;
  if (can == canCheck_) return;
  canCheck_ = can;
  changed();
}

bool Updater::shouldHandleShowingScheduledUpdate(bool /*immediateFocus*/) const {
  // The framework shows scheduled updates itself, focused or not.
  return true;
}

void Updater::willHandleShowingUpdate(const std::string& displayVersion, bool userInitiated) {
  // A menu-bar application's windows only come to the front from the Dock.
  policy_.setRegular();
  // The user who asked is looking at the update already; only a scheduled
  // check has news for the menu.
  if (userInitiated || availableVersion_ == displayVersion) return;
  availableVersion_ = displayVersion;
  changed();
}

void Updater::didReceiveUserAttention() {
  if (!availableVersion_) return;
  availableVersion_.reset();
  changed();
}

void Updater::willFinishUpdateSession() {
  didReceiveUserAttention();
  // The setup window keeps the Dock icon it needs.
  if (setupWindowVisible_ && setupWindowVisible_()) return;
  policy_.setAccessory();
}

bool Updater::shouldStart(const std::string& bundlePath, const std::string& feedURL) {
  std::filesystem::path path(bundlePath);
  if (!path.has_filename()) path = path.parent_path();  // "Corvane.app/"
  return path.extension() == ".app" && !feedURL.empty();
}

void Updater::changed() {
  if (onChange_) onChange_();
}

}  // namespace corvane
