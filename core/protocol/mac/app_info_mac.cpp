// macOS values of AppInfo. Needs the CoreFoundation and SystemConfiguration
// frameworks.
#include <SystemConfiguration/SystemConfiguration.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cstdio>

#include "core/protocol/app_info.h"

namespace corvane::AppInfo {

const std::string& osVersion() {
  static const std::string value = [] {
    char text[64] = {};
    size_t size = sizeof text;
    int major = 0, minor = 0, patch = 0;
    if (sysctlbyname("kern.osproductversion", text, &size, nullptr, 0) == 0) {
      std::sscanf(text, "%d.%d.%d", &major, &minor, &patch);
    }
    std::string out = "macOS " + std::to_string(major) + "." + std::to_string(minor);
    if (patch > 0) out += "." + std::to_string(patch);
    return out;
  }();
  return value;
}

const std::string& deviceName() {
  static const std::string value = [] {
    char buffer[256] = {};
    if (CFStringRef name = SCDynamicStoreCopyComputerName(nullptr, nullptr)) {
      const bool ok = CFStringGetCString(name, buffer, sizeof buffer, kCFStringEncodingUTF8);
      CFRelease(name);
      if (ok && buffer[0] != '\0') return std::string(buffer);
    }
    if (gethostname(buffer, sizeof buffer - 1) == 0 && buffer[0] != '\0')
      return std::string(buffer);
    return std::string("localhost");
  }();
  return value;
}

}  // namespace corvane::AppInfo
