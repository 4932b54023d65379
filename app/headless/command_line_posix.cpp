// Outside macOS the defaults live in the XDG folders.
#include "app/headless/command_line.h"

namespace corvane {

UsagePlaces UsagePlaces::thisPlatform() { return xdg(); }

}  // namespace corvane
