// Outside macOS the Trash is the freedesktop.org one in the home directory.
#include "app/platform/trash.h"

namespace corvane {

std::unique_ptr<Trash> Trash::makeDefault() {
  return std::make_unique<FreedesktopTrash>(
      FreedesktopTrash::defaultDirectory(UserDirectories::processEnvironment));
}

}  // namespace corvane
