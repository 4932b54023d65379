#include "app/ui/app_delegate.h"

#include "core/protocol/url_parts.h"

namespace corvane {

AppDelegate::AppDelegate(Hooks hooks, ActivationPolicy& policy, std::shared_ptr<SyncLogger> log)
    : hooks_(std::move(hooks)), policy_(policy), log_(std::move(log)) {}

void AppDelegate::launchFinished() {
  if (launched_) return;
  hooks_.start();
  launched_ = true;
  if (hooks_.needsSetup() || !pendingURLs_.empty()) showSetupWindow();
  // Taken out first: a link that comes while these are handled goes
  // straight to the model and must not be handled twice.
  const std::vector<std::string> waiting = std::move(pendingURLs_);
  pendingURLs_.clear();
  for (const std::string& url : waiting) hooks_.handleLink(url);
}

void AppDelegate::openURL(const std::string& url) {
  log_->info(receivedLine(url));
  if (!launched_) {
    pendingURLs_.push_back(url);
    return;
  }
  hooks_.handleLink(url);
  showSetupWindow();
}

void AppDelegate::reopen() { showSetupWindow(); }

void AppDelegate::showSetupWindow() {
  if (!hooks_.previewMode()) hooks_.showCurrentStep();
  policy_.setRegular();
  hooks_.presentWindow();
}

void AppDelegate::setupWindowClosed() {
  hooks_.stopPermissionPoll();
  if (!hooks_.otherWindowVisible()) policy_.setAccessory();
}

std::string AppDelegate::receivedLine(std::string_view url) {
  std::string scheme, host;
  if (const auto parts = parseURL(url)) {
    scheme = parts->scheme;
    host = parts->host;
  } else if (const auto colon = url.find(':'); colon != std::string_view::npos) {
    // Not a URL with a host ("corvane:connect?code=…"): the scheme alone.
    scheme = url.substr(0, colon);
    if (scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                 "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.") != std::string::npos) {
      scheme.clear();
    }
  }
  return "Corvane: received " + scheme + "://" + host + " link";
}

}  // namespace corvane
