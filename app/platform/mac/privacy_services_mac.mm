// Apple events and the workspace behind PrivacyServices.
#import <AppKit/AppKit.h>
#import <CoreServices/CoreServices.h>
#import <Foundation/Foundation.h>

#include "app/platform/mac/ns_text.h"
#include "app/platform/permissions.h"

namespace corvane {
namespace {

class MacPrivacyServices final : public PrivacyServices {
 public:
  std::optional<int> automationStatus(std::string_view bundleId) override {
    @autoreleasepool {
      NSAppleEventDescriptor* target =
          [NSAppleEventDescriptor descriptorWithBundleIdentifier:nsText(bundleId)];
      const AEDesc* desc = target.aeDesc;
      if (desc == nullptr) return std::nullopt;
      return AEDeterminePermissionToAutomateTarget(desc, typeWildCard, typeWildCard, false);
    }
  }

  void openURL(const std::string& url) override {
    @autoreleasepool {
      NSString* string = nsText(url);
      NSURL* target = string == nil ? nil : [NSURL URLWithString:string];
      if (target != nil) [NSWorkspace.sharedWorkspace openURL:target];
    }
  }
};

}  // namespace

std::unique_ptr<PrivacyServices> PrivacyServices::makeDefault() {
  return std::make_unique<MacPrivacyServices>();
}

}  // namespace corvane
