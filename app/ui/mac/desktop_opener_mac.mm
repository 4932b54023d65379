// Finder selects the file in its window.
#import <AppKit/AppKit.h>

#include "app/ui/desktop_opener.h"

namespace corvane {

// https://developer.apple.com/documentation/appkit/nsworkspace/activatefileviewerselecting(_:)
void DesktopOpener::reveal(const std::filesystem::path& path) {
  @autoreleasepool {
    // From the path's bytes: a name that isn't UTF-8 makes no NSString, and
    // a nil path would raise.
    NSURL* url = [NSURL fileURLWithFileSystemRepresentation:path.c_str()
                                                isDirectory:NO
                                              relativeToURL:nil];
    if (url == nil) return;
    [[NSWorkspace sharedWorkspace] activateFileViewerSelectingURLs:@[ url ]];
  }
}

}  // namespace corvane
