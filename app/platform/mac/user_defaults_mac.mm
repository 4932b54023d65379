// The application's defaults domain behind UserDefaults.
#import <Foundation/Foundation.h>

#include "app/platform/mac/ns_text.h"
#include "app/platform/user_defaults.h"

namespace corvane {
namespace {

class StandardUserDefaults final : public UserDefaults {
 public:
  std::optional<std::string> getString(std::string_view key) override {
    @autoreleasepool {
      NSString* value = [NSUserDefaults.standardUserDefaults stringForKey:nsText(key)];
      if (value == nil) return std::nullopt;
      return std::string(value.UTF8String);
    }
  }

  bool getBool(std::string_view key) override {
    return [NSUserDefaults.standardUserDefaults boolForKey:nsText(key)];
  }

  bool setString(std::string_view key, std::string_view value) override {
    NSString* object = nsText(value);
    if (object == nil) return false;  // not UTF-8
    [NSUserDefaults.standardUserDefaults setObject:object forKey:nsText(key)];
    return true;
  }

  bool setBool(std::string_view key, bool value) override {
    [NSUserDefaults.standardUserDefaults setBool:value forKey:nsText(key)];
    return true;
  }

  bool remove(std::string_view key) override {
    [NSUserDefaults.standardUserDefaults removeObjectForKey:nsText(key)];
    return true;
  }
};

}  // namespace

std::unique_ptr<UserDefaults> UserDefaults::makeDefault() {
  return std::make_unique<StandardUserDefaults>();
}

}  // namespace corvane
