// Outside macOS the settings live in a JSON file beside the token.
#include "app/platform/user_defaults.h"

namespace corvane {

std::unique_ptr<UserDefaults> UserDefaults::makeDefault() {
  return std::make_unique<JsonFileUserDefaults>(
      JsonFileUserDefaults::defaultPath(UserDirectories::processEnvironment));
}

bool UserDefaults::defaultFollowsConfigDirectory() { return true; }

}  // namespace corvane
