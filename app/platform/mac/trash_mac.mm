// The file manager's Trash behind Trash: the item can be put back from
// Finder.
#import <Foundation/Foundation.h>

#include <system_error>

#include "app/platform/trash.h"

namespace corvane {
namespace {

class FileManagerTrash final : public Trash {
 public:
  // https://developer.apple.com/documentation/foundation/filemanager/trashitem(at:resultingitemurl:)
  bool moveToTrash(const std::filesystem::path& path) override {
    @autoreleasepool {
      // The link itself, never its target: a link to a folder must not get a
      // directory URL, whose trailing "/" would resolve through the link and
      // trash the folder it points to.
      std::error_code ec;
      const auto status = std::filesystem::symlink_status(path, ec);
      if (ec || !std::filesystem::exists(status)) return false;
      NSURL* url = [NSURL fileURLWithFileSystemRepresentation:path.c_str()
                                                  isDirectory:std::filesystem::is_directory(status)
                                                relativeToURL:nil];
      return url != nil && [NSFileManager.defaultManager trashItemAtURL:url
                                                       resultingItemURL:nil
                                                                  error:nil];
    }
  }
};

}  // namespace

std::unique_ptr<Trash> Trash::makeDefault() { return std::make_unique<FileManagerTrash>(); }

}  // namespace corvane
