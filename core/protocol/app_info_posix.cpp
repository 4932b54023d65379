// The Apple build takes these from mac/app_info_mac.cpp instead: uname there
// names Darwin, not the macOS release users know, and only it has bundles.
#ifndef __APPLE__

#include <sys/utsname.h>
#include <unistd.h>

#include <climits>

#include "core/protocol/app_info.h"

namespace corvane::AppInfo {

std::optional<std::string> bundleShortVersion() { return std::nullopt; }

const std::string& osVersion() {
  static const std::string value = [] {
    struct utsname name {};
    if (uname(&name) != 0) return std::string("unknown");
    return std::string(name.sysname) + " " + name.release;
  }();
  return value;
}

const std::string& deviceName() {
  static const std::string value = [] {
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') return std::string("localhost");
    return std::string(host);
  }();
  return value;
}

}  // namespace corvane::AppInfo

#endif  // __APPLE__
