// The region of the user's current locale, as System Settings sets it.
#import <Foundation/Foundation.h>

#include "core/contacts/phone.h"

namespace corvane::Phone {

// Called from worker threads, which have no autorelease pool of their own:
// the pool keeps the autoreleased locale and string from leaking there. The
// text is copied out before the pool drains.
std::optional<std::string> currentLocaleRegion() {
  @autoreleasepool {
    NSString* code = [NSLocale.currentLocale objectForKey:NSLocaleCountryCode];
    if (code == nil) return std::nullopt;
    return std::string(code.UTF8String);
  }
}

}  // namespace corvane::Phone
