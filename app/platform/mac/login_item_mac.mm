// ServiceManagement's main-app service behind ServiceLoginItem.
#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include "app/platform/service_login_item.h"

// ServiceLoginItem::stateOf reads the raw values.
static_assert(SMAppServiceStatusNotRegistered == 0 && SMAppServiceStatusEnabled == 1 &&
              SMAppServiceStatusRequiresApproval == 2 && SMAppServiceStatusNotFound == 3);

namespace corvane {
namespace {

std::string describe(NSError* error) {
  const char* text = error.localizedDescription.UTF8String;
  return text != nullptr ? text : "The login item couldn't be changed.";
}

class MainAppService final : public LoginService {
 public:
  // https://developer.apple.com/documentation/servicemanagement/smappservice/status-swift.property
  long status() override {
    @autoreleasepool {
      return static_cast<long>(SMAppService.mainAppService.status);
    }
  }

  // https://developer.apple.com/documentation/servicemanagement/smappservice/register()
  std::optional<std::string> registerService() override {
    @autoreleasepool {
      NSError* error = nil;
      if ([SMAppService.mainAppService registerAndReturnError:&error]) return std::nullopt;
      return describe(error);
    }
  }

  // https://developer.apple.com/documentation/servicemanagement/smappservice/unregister()
  std::optional<std::string> unregisterService() override {
    @autoreleasepool {
      NSError* error = nil;
      if ([SMAppService.mainAppService unregisterAndReturnError:&error]) return std::nullopt;
      return describe(error);
    }
  }
};

}  // namespace

std::unique_ptr<LoginItem> LoginItem::makeDefault() {
  return std::make_unique<ServiceLoginItem>(std::make_unique<MainAppService>());
}

}  // namespace corvane
