// Updater: software updates through the platform's update framework and its
// standard windows. The decisions (when a check is possible, which version is
// waiting, when the application must show in the Dock) are here; the
// framework is behind UpdateController (mac/ glue). Without a feed there is
// no controller: no checks are scheduled and "Check for Updates…" stays
// disabled.
//
// Main thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/platform/activation_policy.h"

namespace corvane {

// The update framework's controller, started with the updater running.
class UpdateController {
 public:
  UpdateController() = default;
  UpdateController(const UpdateController&) = delete;
  UpdateController& operator=(const UpdateController&) = delete;
  virtual ~UpdateController() = default;

  // A check the user asked for, with the framework's windows.
  virtual void checkForUpdates() = 0;
};

class Updater {
 public:
  // `controller` is null when updates are not set up (no feed, or not a
  // bundle). `setupWindowVisible` tells whether the application must stay
  // in the Dock when an update session ends.
  Updater(std::unique_ptr<UpdateController> controller, ActivationPolicy& policy,
          std::function<bool()> setupWindowVisible);

  bool hasController() const { return controller_ != nullptr; }
  bool canCheckForUpdates() const { return canCheck_; }
  // A version found by a scheduled check that the user has not looked at yet.
  const std::optional<std::string>& availableVersion() const { return availableVersion_; }

  // Called after every change of the two values above.
  void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }

  // "Check for Updates…"; nothing without a controller.
  void checkForUpdates();

  // The framework's observed "can check" value (never true without a controller).
  void setCanCheckForUpdates(bool can);

  // The standard user driver's delegate.
  static constexpr bool supportsGentleScheduledUpdateReminders = true;
  bool shouldHandleShowingScheduledUpdate(bool immediateFocus) const;
  void willHandleShowingUpdate(const std::string& displayVersion, bool userInitiated);
  void didReceiveUserAttention();
  void willFinishUpdateSession();

  // Whether a bundle at `bundlePath` with this feed gets a controller: an
  // ".app" bundle with a non-empty feed URL.
  static bool shouldStart(const std::string& bundlePath, const std::string& feedURL);

  // This build's updater: with the framework's controller on macOS when the
  // application runs from a bundle and was built with a feed; without one
  // everywhere else.
  static std::unique_ptr<Updater> makeDefault(ActivationPolicy& policy,
                                              std::function<bool()> setupWindowVisible);

 private:
  void changed();

  std::unique_ptr<UpdateController> controller_;
  ActivationPolicy& policy_;
  std::function<bool()> setupWindowVisible_;
  std::function<void()> onChange_;
  bool canCheck_ = false;
  std::optional<std::string> availableVersion_;
};

}  // namespace corvane
