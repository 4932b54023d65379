// DesktopEntry: the freedesktop.org desktop entry that makes "corvane://"
// links open this executable on Linux desktops: "corvane.desktop" with
// MimeType=x-scheme-handler/corvane; and an Exec line that passes the link
// as the only argument. The running instance then takes the link from the
// new process (single_instance.h).
//
// Pure functions apart from install(), which writes one file. Any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "app/platform/user_directories.h"

namespace corvane::DesktopEntry {

inline constexpr const char* fileName = "corvane.desktop";
inline constexpr const char* urlScheme = "corvane";

// The file's text for an executable at `executable`, an absolute path.
// Absent when the path cannot be written on an Exec line (it holds a line
// break or a control character).
std::optional<std::string> text(const std::filesystem::path& executable);

// One argument of an Exec line: as it is when it needs no quoting, else in
// double quotes with `"`, `` ` ``, `$` and `\` escaped; then the escapes of
// a string value (`\` doubled) and `%` as "%%", which a launcher would
// otherwise take for a field code.
std::string quoteExecArgument(std::string_view argument);

// "$XDG_DATA_HOME/applications" when that variable is an absolute path,
// else "<home>/.local/share/applications".
std::filesystem::path applicationsDirectory(const UserDirectories::GetEnv& getenv);

struct InstallResult {
  bool written = false;  // false: the file already held `content`, or the write failed
  std::optional<std::string> error{};  // why the write failed, naming the file
};

// Writes `content` to "corvane.desktop" in `directory` (created as needed)
// unless the file already holds exactly that. The file is replaced
// atomically, so a desktop never reads half an entry.
InstallResult install(const std::filesystem::path& directory, const std::string& content);

}  // namespace corvane::DesktopEntry
