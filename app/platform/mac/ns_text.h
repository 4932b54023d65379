// UTF-8 text to NSString for the macOS glue; nil when the bytes aren't UTF-8.
#pragma once

#import <Foundation/Foundation.h>

#include <string_view>

namespace corvane {

inline NSString* nsText(std::string_view s) {
  return [[NSString alloc] initWithBytes:s.data() length:s.size() encoding:NSUTF8StringEncoding];
}

}  // namespace corvane
