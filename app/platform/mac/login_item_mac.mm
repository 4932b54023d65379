// Launch at login as ServiceManagement's main-app service: the entry the
// user sees (and can switch off) under Login Items in System Settings.
#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include "app/platform/login_item.h"

namespace corvane {
namespace {

constexpr const char* kUnavailable = "Launch at login needs macOS 13 or later.";

std::string describe(NSError* error) {
  const char* text = error.localizedDescription.UTF8String;
  return text != nullptr ? text : "The login item couldn't be changed.";
}

class MainAppLoginItem final : public LoginItem {
 public:
  bool isEnabled() override {
    if (@available(macOS 13.0, *)) {
      return SMAppService.mainAppService.status == SMAppServiceStatusEnabled;
    }
    return false;
  }

  std::optional<std::string> registerItem() override {
    if (@available(macOS 13.0, *)) {
      @autoreleasepool {
        NSError* error = nil;
        if ([SMAppService.mainAppService registerAndReturnError:&error]) return std::nullopt;
        return describe(error);
      }
    }
    return kUnavailable;
  }

  std::optional<std::string> unregisterItem() override {
    if (@available(macOS 13.0, *)) {
      @autoreleasepool {
        NSError* error = nil;
        if ([SMAppService.mainAppService unregisterAndReturnError:&error]) return std::nullopt;
        return describe(error);
      }
    }
    return kUnavailable;
  }
};

}  // namespace

std::unique_ptr<LoginItem> LoginItem::makeDefault() { return std::make_unique<MainAppLoginItem>(); }

}  // namespace corvane
