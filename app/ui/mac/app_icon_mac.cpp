// The menu-bar icon on macOS: a template image, which the system draws in
// the menu bar's own colour (dark, light, highlighted).
#include <QPixmap>

#include "app/ui/app_icon.h"

namespace corvane::AppIcon {

QIcon trayIcon() {
  QIcon icon;
  // 18 points high, at 1x and 2x.
  for (const int size : {18, 36}) icon.addPixmap(QPixmap::fromImage(drawTemplate(size)));
  icon.setIsMask(true);
  return icon;
}

}  // namespace corvane::AppIcon
