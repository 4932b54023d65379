// The main bundle, when the application runs from one.
#import <Foundation/Foundation.h>

#include "app/platform/app_bundle.h"

namespace corvane::AppBundle {

std::optional<std::filesystem::path> runningPath() {
  @autoreleasepool {
    NSURL* url = NSBundle.mainBundle.bundleURL;
    // A bare executable's "bundle" is the folder holding it.
    if (![url.pathExtension isEqualToString:@"app"]) return std::nullopt;
    return std::filesystem::path(url.fileSystemRepresentation);
  }
}

}  // namespace corvane::AppBundle
