// Finder selects the file in its window.
#import <AppKit/AppKit.h>

#include "app/ui/desktop_opener.h"

namespace corvane {

void DesktopOpener::reveal(const std::filesystem::path& path) {
  NSURL* url = [NSURL fileURLWithPath:[NSString stringWithUTF8String:path.c_str()]];
  [[NSWorkspace sharedWorkspace] activateFileViewerSelectingURLs:@[ url ]];
}

}  // namespace corvane
