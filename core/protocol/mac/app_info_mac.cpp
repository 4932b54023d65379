// macOS values of AppInfo. Needs the CoreFoundation and SystemConfiguration
// frameworks. Values obtained under CoreFoundation's "Get" rule
// (CFBundleGetMainBundle, CFBundleGetValueForInfoDictionaryKey) are not
// released; those under the "Copy" rule (SCDynamicStoreCopyComputerName) are.
#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "core/protocol/app_info.h"

namespace corvane::AppInfo {
namespace {

std::optional<std::string> utf8(CFStringRef text) {
  const CFIndex size =
      CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
  std::vector<char> buffer(static_cast<std::size_t>(size));
  if (!CFStringGetCString(text, buffer.data(), size, kCFStringEncodingUTF8)) return std::nullopt;
  return std::string(buffer.data());
}

}  // namespace

std::optional<std::string> bundleShortVersion() {
  const CFBundleRef bundle = CFBundleGetMainBundle();
  if (bundle == nullptr) return std::nullopt;
  const CFTypeRef value =
      CFBundleGetValueForInfoDictionaryKey(bundle, CFSTR("CFBundleShortVersionString"));
  if (value == nullptr || CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
  return utf8(static_cast<CFStringRef>(value));
}

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
    if (CFStringRef name = SCDynamicStoreCopyComputerName(nullptr, nullptr)) {
      const auto text = utf8(name);
      CFRelease(name);
      if (text && !text->empty()) return *text;
    }
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) == 0 && host[0] != '\0') return std::string(host);
    return std::string("localhost");
  }();
  return value;
}

}  // namespace corvane::AppInfo
