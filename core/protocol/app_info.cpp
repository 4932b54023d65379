#include "core/protocol/app_info.h"

namespace corvane::AppInfo {

// CORVANE_VERSION is the CMake project version.
const std::string& version() {
  static const std::string value = CORVANE_VERSION;
  return value;
}

}  // namespace corvane::AppInfo
