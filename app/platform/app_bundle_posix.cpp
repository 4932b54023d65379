// Outside macOS the application is a plain executable, never a bundle.
#include "app/platform/app_bundle.h"

namespace corvane::AppBundle {

std::optional<std::filesystem::path> runningPath() { return std::nullopt; }

}  // namespace corvane::AppBundle
