#include "core/protocol/app_info.h"

namespace corvane::AppInfo {

std::string versionFrom(const std::optional<std::string>& bundleVersion) {
  if (bundleVersion && !bundleVersion->empty()) return *bundleVersion;
  return CORVANE_VERSION;  // the CMake project version
}

const std::string& version() {
  static const std::string value = versionFrom(bundleShortVersion());
  return value;
}

}  // namespace corvane::AppInfo
