// AppDelegate: the application's life around the model — links that arrive
// before launch has finished wait and are handled once, in order, after it;
// the setup window opens when setup is needed, when a link comes and when
// the user opens the running application again; closing it stops the Full
// Disk Access poll and returns the application to menu-bar only.
//
// It knows the model, the window and the platform only through the hooks
// it is given, which the application binds to AppModel, the setup window
// and the activation policy (application.cpp), and tests to recorders.
//
// Main thread only.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/platform/activation_policy.h"
#include "core/sync/sync_logger.h"

namespace corvane {

class AppDelegate {
 public:
  struct Hooks {
    // Starts the model and the updater (AppModel::start), once.
    std::function<void()> start;
    // The model wants the window at launch (AppModel::needsSetup).
    std::function<bool()> needsSetup;
    // Hands a link to the model (AppModel::handleLink).
    std::function<void(const std::string&)> handleLink;
    // Screenshot mode: the model's step is left as the fixture set it.
    std::function<bool()> previewMode;
    // Picks the step the window opens on (AppModel::showCurrentStep).
    std::function<void()> showCurrentStep;
    // AppModel::stopPermissionPoll.
    std::function<void()> stopPermissionPoll;
    // Creates the setup window on first use, shows it, raises and activates it.
    std::function<void()> presentWindow;
    // Some window other than the setup window that can become main is on
    // screen (otherMainWindowVisible); the application then keeps its Dock
    // icon when the setup window closes. Required, like every hook.
    std::function<bool()> otherWindowVisible;
  };

  AppDelegate(Hooks hooks, ActivationPolicy& policy, std::shared_ptr<SyncLogger> log);
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Launch has finished: starts the model, shows the window when setup is
  // needed or links are waiting, then hands the waiting links over in the
  // order they came. Only the first call does anything.
  void launchFinished();

  // A link from the system (the get-URL event, a file-open event, another
  // start of the application). Logged by scheme and host only — the query
  // holds a pairing code. Waits until launch has finished; afterwards it
  // goes to the model at once and the window shows.
  void openURL(const std::string& url);

  // The user opened the running application again.
  void reopen();

  // Readies the wizard's step (unless in preview mode), switches to a
  // regular application and brings the window to the front.
  void showSetupWindow();

  // The setup window closed.
  void setupWindowClosed();

  bool launched() const { return launched_; }
  const std::vector<std::string>& pendingURLs() const { return pendingURLs_; }

  // "Corvane: received " + scheme + "://" + host + " link": never the path
  // or the query.
  static std::string receivedLine(std::string_view url);

 private:
  Hooks hooks_;
  ActivationPolicy& policy_;
  std::shared_ptr<SyncLogger> log_;
  std::vector<std::string> pendingURLs_;
  bool launched_ = false;
};

}  // namespace corvane
