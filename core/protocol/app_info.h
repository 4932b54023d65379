// What the agent says about itself when pairing and reporting status: its
// version, the operating system and the machine's name. Each value is
// computed once; safe to call from any thread.
#pragma once

#include <optional>
#include <string>

namespace corvane::AppInfo {

// The app's short version, e.g. "0.1.0": versionFrom(bundleShortVersion()).
const std::string& version();

// The main bundle's "CFBundleShortVersionString" when the process runs from
// an application bundle that has one as a string; absent elsewhere (and on
// systems without bundles).
std::optional<std::string> bundleShortVersion();

// `bundleVersion` when it is present and not empty, else the build's
// version (the CMake project version). Pure.
std::string versionFrom(const std::optional<std::string>& bundleVersion);

// "macOS 14.5" (patch only when above 0) on a Mac; elsewhere the kernel's
// name and release, e.g. "Linux 6.1.0-18-amd64".
const std::string& osVersion();

// The name the user gave the machine, falling back to its host name.
const std::string& deviceName();

}  // namespace corvane::AppInfo
