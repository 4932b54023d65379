#include "app/ui/qt_platform.h"

namespace corvane::QtPlatform {

// The window server is always there for an application of the logged-in user.
std::string_view defaultNames() { return "cocoa"; }

}  // namespace corvane::QtPlatform
