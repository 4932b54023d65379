// AppBundle: the application bundle ("….app") this process runs from. Only
// macOS has bundles (mac/); elsewhere there is none. Any thread.
#pragma once

#include <filesystem>
#include <optional>

namespace corvane::AppBundle {

// The running bundle's path, or absent when the main bundle is not an ".app".
std::optional<std::filesystem::path> runningPath();

}  // namespace corvane::AppBundle
