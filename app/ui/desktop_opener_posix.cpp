// Outside macOS there is no common call that selects a file in the file
// manager; opening its folder is the portable part of that.
#include <QDesktopServices>
#include <QUrl>

#include "app/ui/desktop_opener.h"

namespace corvane {

void DesktopOpener::reveal(const std::filesystem::path& path) {
  QDesktopServices::openUrl(
      QUrl::fromLocalFile(QString::fromStdString(path.parent_path().string())));
}

}  // namespace corvane
