#include "app/ui/qt_platform.h"

#include <algorithm>

namespace corvane::QtPlatform {
namespace {

std::vector<std::string> split(std::string_view list) {
  std::vector<std::string> names;
  while (!list.empty()) {
    const auto end = list.find(';');
    std::string_view name = list.substr(0, end);
    name = name.substr(0, name.find(':'));
    if (!name.empty()) names.emplace_back(name);
    if (end == std::string_view::npos) break;
    list.remove_prefix(end + 1);
  }
  return names;
}

// The variable naming the display a plug-in connects to; none for plug-ins
// that draw without a display server.
std::optional<std::string_view> displayVariable(std::string_view plugin) {
  if (plugin == "xcb") return "DISPLAY";
  if (plugin.starts_with("wayland")) return "WAYLAND_DISPLAY";
  return std::nullopt;
}

}  // namespace

std::vector<std::string> candidates(const CommandLine& args, const UserDirectories::GetEnv& getenv,
                                    std::string_view defaultNames) {
  if (const auto chosen = args.value("-platform")) return split(*chosen);
  if (const char* chosen = getenv("QT_QPA_PLATFORM"); chosen != nullptr && *chosen != '\0') {
    return split(chosen);
  }
  return split(defaultNames);
}

std::optional<std::string> missingDisplay(const CommandLine& args,
                                          const UserDirectories::GetEnv& getenv,
                                          std::string_view defaultNames) {
  std::vector<std::string_view> missing;
  for (const std::string& plugin : candidates(args, getenv, defaultNames)) {
    const auto variable = displayVariable(plugin);
    if (!variable) return std::nullopt;
    const char* value = getenv(std::string(*variable).c_str());
    if (value != nullptr && *value != '\0') return std::nullopt;
    if (std::find(missing.begin(), missing.end(), *variable) == missing.end()) {
      missing.push_back(*variable);
    }
  }
  if (missing.empty()) return std::nullopt;
  std::string line = "Corvane: no display to show the application on (";
  for (std::size_t i = 0; i < missing.size(); ++i) {
    if (i > 0) line += " and ";
    line += missing[i];
  }
  line += missing.size() > 1 ? " are not set)" : " is not set)";
  line += "; Corvane --headless runs the agent without one, see Corvane --help";
  return line;
}

}  // namespace corvane::QtPlatform
