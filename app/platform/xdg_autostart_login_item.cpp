#include "app/platform/xdg_autostart_login_item.h"

#include <fstream>
#include <sstream>
#include <system_error>

namespace corvane {
namespace fs = std::filesystem;

namespace {

std::string quoted(const fs::path& path) { return "\u201C" + path.string() + "\u201D"; }

std::string trimmed(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// One argument of an Exec line: inside double quotes, the Desktop Entry
// rules escape `"`, "`", "$" and "\" with a backslash, and "%" doubles
// (field codes). The value as a whole then escapes backslashes again, and
// line breaks, which a key=value line can't hold.
std::string execValue(const std::string& argument) {
  std::string quotedArgument = "\"";
  for (const char c : argument) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') quotedArgument += '\\';
    if (c == '%') quotedArgument += '%';
    quotedArgument += c;
  }
  quotedArgument += '"';
  std::string value;
  for (const char c : quotedArgument) {
    switch (c) {
      case '\\': value += "\\\\"; break;
      case '\n': value += "\\n"; break;
      case '\r': value += "\\r"; break;
      case '\t': value += "\\t"; break;
      default: value += c;
    }
  }
  return value;
}

}  // namespace

XdgAutostartLoginItem::XdgAutostartLoginItem(fs::path autostartDirectory, fs::path executable)
    : directory_(std::move(autostartDirectory)), executable_(std::move(executable)) {}

fs::path XdgAutostartLoginItem::defaultDirectory(const UserDirectories::GetEnv& getenv) {
  // The XDG rules say a relative value is to be ignored.
  if (const char* value = getenv("XDG_CONFIG_HOME"); value != nullptr && value[0] == '/') {
    return fs::path(value) / "autostart";
  }
  return UserDirectories::home(getenv) / ".config" / "autostart";
}

std::string XdgAutostartLoginItem::entryText(const fs::path& executable) {
  return "[Desktop Entry]\n"
         "Type=Application\n"
         "Name=Corvane\n"
         "Exec=" + execValue(executable.string()) + "\n"
         "X-GNOME-Autostart-enabled=true\n";
}

bool XdgAutostartLoginItem::isEnabled() {
  std::ifstream in(entryPath());
  if (!in) return false;
  bool inEntry = false;
  std::string line;
  while (std::getline(in, line)) {
    line = trimmed(line);
    if (!line.empty() && line.front() == '[') {
      inEntry = line == "[Desktop Entry]";
      continue;
    }
    const auto eq = line.find('=');
    if (!inEntry || eq == std::string::npos) continue;
    const std::string key = trimmed(line.substr(0, eq));
    const std::string value = trimmed(line.substr(eq + 1));
    if ((key == "Hidden" && value == "true") ||
        (key == "X-GNOME-Autostart-enabled" && value == "false")) {
      return false;
    }
  }
  return true;
}

std::optional<std::string> XdgAutostartLoginItem::registerItem() {
  if (executable_.empty() || !executable_.is_absolute()) {
    return "Corvane couldn't find its own program file to start at login.";
  }
  std::error_code ec;
  fs::create_directories(directory_, ec);
  if (ec) {
    return "The folder " + quoted(directory_) + " couldn't be created: " + ec.message() + ".";
  }
  // Written aside and renamed, so a desktop reading the folder never sees
  // half an entry.
  const fs::path target = entryPath();
  const fs::path temporary = directory_ / ("." + std::string(entryName) + ".tmp");
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << entryText(executable_);
    out.close();
    if (!out) {
      fs::remove(temporary, ec);
      return "The login item " + quoted(target) + " couldn't be written.";
    }
  }
  fs::rename(temporary, target, ec);
  if (ec) {
    std::error_code ignored;
    fs::remove(temporary, ignored);
    return "The login item " + quoted(target) + " couldn't be written: " + ec.message() + ".";
  }
  return std::nullopt;
}

std::optional<std::string> XdgAutostartLoginItem::unregisterItem() {
  std::error_code ec;
  fs::remove(entryPath(), ec);
  if (ec) {
    return "The login item " + quoted(entryPath()) + " couldn't be removed: " + ec.message() + ".";
  }
  return std::nullopt;
}

}  // namespace corvane
