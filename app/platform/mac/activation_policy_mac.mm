// The application's activation policy: regular shows it in the Dock and
// lets its windows come to the front; accessory keeps it in the menu bar.
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
