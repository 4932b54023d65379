// The application's activation policy: regular shows it in the Dock and
// lets its windows come to the front; accessory keeps it in the menu bar.
// Nothing here runs at launch: the bundle's LSUIElement starts the
// application as accessory (Qt, seeing it, leaves the policy alone), so a
// launch at login without a window never shows a Dock icon. Regular comes
// only with a window (AppDelegate::showSetupWindow, the updater's).
// https://developer.apple.com/documentation/appkit/nsapplication/setactivationpolicy(_:)
#import <AppKit/AppKit.h>

#include "app/platform/activation_policy.h"

namespace corvane {
namespace {

class AppActivationPolicy final : public ActivationPolicy {
 public:
  void setRegular() override {
    [NSApplication.sharedApplication setActivationPolicy:NSApplicationActivationPolicyRegular];
  }
  void setAccessory() override {
    [NSApplication.sharedApplication setActivationPolicy:NSApplicationActivationPolicyAccessory];
  }
};

}  // namespace

std::unique_ptr<ActivationPolicy> ActivationPolicy::makeDefault() {
  return std::make_unique<AppActivationPolicy>();
}

}  // namespace corvane
