// QtPlatform: whether the display Qt's platform plug-in needs is there,
// decided before QApplication is made, since Qt ends the process (SIGABRT)
// when it can't open one. Only the absence of the variables that name a
// display is caught; a display that is named but unreachable is Qt's to
// report.
//
// Pure functions; safe on any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/headless/command_line.h"
#include "app/platform/user_directories.h"

namespace corvane::QtPlatform {

// The plug-ins Qt tries, in order: "-platform NAME" from the command line,
// else QT_QPA_PLATFORM (a ";"-separated list), else `defaultNames`. Options
// after a ":" are dropped ("xcb:foo" is "xcb").
std::vector<std::string> candidates(const CommandLine& args, const UserDirectories::GetEnv& getenv,
                                    std::string_view defaultNames);

// One line for the user when none of the candidates can open a display:
// which variables are missing and that --headless needs none. Nothing when
// one can, or needs no display (offscreen, minimal, cocoa, …).
std::optional<std::string> missingDisplay(const CommandLine& args,
                                          const UserDirectories::GetEnv& getenv,
                                          std::string_view defaultNames);

// Exit code when there is no display (BSD's EX_UNAVAILABLE).
inline constexpr int kNoDisplayExitCode = 69;

// What Qt loads here without being told: "cocoa" on macOS; elsewhere "xcb",
// or "wayland" in a Wayland session.
std::string_view defaultNames();

}  // namespace corvane::QtPlatform
