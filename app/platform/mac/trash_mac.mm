// The file manager's Trash behind Trash: the item can be put back from
// Finder.
#import <Foundation/Foundation.h>

#include "app/platform/trash.h"

namespace corvane {
namespace {

class FileManagerTrash final : public Trash {
 public:
  bool moveToTrash(const std::filesystem::path& path) override {
    @autoreleasepool {
      NSURL* url = [NSURL fileURLWithFileSystemRepresentation:path.c_str()
                                                  isDirectory:std::filesystem::is_directory(path)
                                                relativeToURL:nil];
      return [NSFileManager.defaultManager trashItemAtURL:url resultingItemURL:nil error:nil];
    }
  }
};

}  // namespace

std::unique_ptr<Trash> Trash::makeDefault() { return std::make_unique<FileManagerTrash>(); }

}  // namespace corvane
