#include "app/ui/desktop_entry.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

namespace corvane::DesktopEntry {
namespace fs = std::filesystem;

std::string quoteExecArgument(std::string_view argument) {
  // Characters the Exec rules reserve: with any of them the argument must be
  // quoted.
  constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
  std::string quoted;
  const bool needsQuotes =
      argument.empty() || argument.find_first_of(reserved) != std::string::npos;
  if (needsQuotes) quoted += '"';
  for (const char c : argument) {
    if (needsQuotes && (c == '"' || c == '`' || c == '$' || c == '\\')) quoted += '\\';
    quoted += c;
  }
  if (needsQuotes) quoted += '"';
  // The value is a string first: each backslash is read as an escape once
  // more before the quoting is undone.
  std::string value;
  for (const char c : quoted) {
    if (c == '\\') value += '\\';
    if (c == '%') value += '%';
    value += c;
  }
  return value;
}

std::optional<std::string> text(const fs::path& executable) {
  const std::string path = executable.string();
  for (const char c : path) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return std::nullopt;
  }
  return std::string(
             "[Desktop Entry]\n"
             "Type=Application\n"
             "Name=Corvane\n"
             "Comment=Links your Messages with Corvane\n"
             "Exec=") +
         quoteExecArgument(path) +
         " %u\n"
         "Terminal=false\n"
         "NoDisplay=true\n"
         "Categories=Network;\n"
         "MimeType=x-scheme-handler/" +
         urlScheme + ";\n";
}

fs::path applicationsDirectory(const UserDirectories::GetEnv& getenv) {
  // The XDG rules say a relative value is to be ignored.
  if (const char* value = getenv("XDG_DATA_HOME"); value != nullptr && value[0] == '/') {
    return fs::path(value) / "applications";
  }
  return UserDirectories::home(getenv) / ".local" / "share" / "applications";
}

InstallResult install(const fs::path& directory, const std::string& content) {
  const QString path = QString::fromStdString((directory / fileName).string());
  QFile existing(path);
  if (existing.open(QIODevice::ReadOnly) && existing.readAll().toStdString() == content) {
    return {};
  }
  existing.close();
  const auto failed = [&](const QString& reason) {
    return InstallResult{false,
                         "could not write " + path.toStdString() + ": " + reason.toStdString()};
  };
  if (!QDir().mkpath(QString::fromStdString(directory.string()))) {
    return failed("the folder could not be created");
  }
  QSaveFile file(path);
  if (!file.open(QIODevice::WriteOnly)) return failed(file.errorString());
  file.write(content.data(), static_cast<qint64>(content.size()));
  if (!file.commit()) return failed(file.errorString());
  return {true, std::nullopt};
}

}  // namespace corvane::DesktopEntry
