#include "app/headless/command_line.h"

namespace corvane {

UsagePlaces UsagePlaces::thisPlatform() { return macOS(); }

}  // namespace corvane
