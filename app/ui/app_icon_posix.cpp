// The menu-bar icon outside macOS: panels may be light or dark and nothing
// tints a template image there, so the coloured icon is the one that reads.
#include <QPixmap>

#include "app/ui/app_icon.h"

namespace corvane::AppIcon {

QIcon trayIcon() { return drawnIcon(draw, {16, 22, 24, 32, 48, 64}); }

}  // namespace corvane::AppIcon
