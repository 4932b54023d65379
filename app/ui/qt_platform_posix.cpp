#include "app/ui/qt_platform.h"

namespace corvane::QtPlatform {

// Qt picks Wayland in a Wayland session and X11 otherwise; either display
// will do.
std::string_view defaultNames() { return "xcb;wayland"; }

}  // namespace corvane::QtPlatform
