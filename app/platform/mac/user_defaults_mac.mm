// A defaults domain behind UserDefaults: the application's own in
// production. Every entry point has its pool, since the model calls some of
// them from worker threads, which have none.
#import <Foundation/Foundation.h>

#include "app/platform/mac/ns_text.h"
#include "app/platform/user_defaults.h"

namespace corvane {
namespace {

class DomainUserDefaults final : public UserDefaults {
 public:
  explicit DomainUserDefaults(NSUserDefaults* domain) : domain_(domain) {}

  // objectForKey: and a type check, not stringForKey:/boolForKey:, which
  // convert: a flag would read as "1", the text "YES" as true.
  // https://developer.apple.com/documentation/foundation/userdefaults/object(forkey:)
  std::optional<std::string> getString(std::string_view key) override {
    @autoreleasepool {
      NSString* name = nsText(key);
      const id value = name == nil ? nil : [domain_ objectForKey:name];
      if (![value isKindOfClass:NSString.class]) return std::nullopt;
      // Nil for text that has no UTF-8 form (a lone surrogate).
      const char* text = static_cast<NSString*>(value).UTF8String;
      if (text == nullptr) return std::nullopt;
      return std::string(text);
    }
  }

  bool getBool(std::string_view key) override {
    @autoreleasepool {
      NSString* name = nsText(key);
      const id value = name == nil ? nil : [domain_ objectForKey:name];
      // A flag is a CFBoolean; other numbers are not flags.
      if (![value isKindOfClass:NSNumber.class] ||
          CFGetTypeID((__bridge CFTypeRef)value) != CFBooleanGetTypeID()) {
        return false;
      }
      return static_cast<NSNumber*>(value).boolValue;
    }
  }

  // https://developer.apple.com/documentation/foundation/userdefaults/set(_:forkey:)-1np9y
  bool setString(std::string_view key, std::string_view value) override {
    @autoreleasepool {
      NSString* name = nsText(key);
      NSString* object = nsText(value);
      if (name == nil || object == nil) return false;  // not UTF-8
      [domain_ setObject:object forKey:name];
      return true;
    }
  }

  bool setBool(std::string_view key, bool value) override {
    @autoreleasepool {
      NSString* name = nsText(key);
      if (name == nil) return false;
      [domain_ setBool:value forKey:name];
      return true;
    }
  }

  // https://developer.apple.com/documentation/foundation/userdefaults/removeobject(forkey:)
  bool remove(std::string_view key) override {
    @autoreleasepool {
      NSString* name = nsText(key);
      if (name == nil) return false;
      [domain_ removeObjectForKey:name];
      return true;
    }
  }

 private:
  NSUserDefaults* domain_;
};

}  // namespace

// https://developer.apple.com/documentation/foundation/userdefaults/standard
std::unique_ptr<UserDefaults> UserDefaults::makeDefault() {
  return std::make_unique<DomainUserDefaults>(NSUserDefaults.standardUserDefaults);
}

bool UserDefaults::defaultFollowsConfigDirectory() { return false; }

}  // namespace corvane
