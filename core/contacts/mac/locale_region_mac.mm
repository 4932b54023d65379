// The region of the user's current locale, as System Settings sets it.
#import <Foundation/Foundation.h>

#include "core/contacts/phone.h"

namespace corvane::Phone {

std::optional<std::string> currentLocaleRegion() {
  NSString* code = [NSLocale.currentLocale objectForKey:NSLocaleCountryCode];
  if (code == nil) return std::nullopt;
  return std::string(code.UTF8String);
}

}  // namespace corvane::Phone
