// Osascript: runs an AppleScript text in a child "osascript" process under a
// time limit and reports what it printed, and turns osascript's error output
// into a sentence the user can act on.
//
// Running is a plain synchronous call on the caller's thread; it never
// throws, leaves no child process or descriptor behind on any path, and may
// be called from several threads at once. Callers hold a Runner so that tests
// and the senders can put another runner in its place.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

struct OsascriptResult {
  // The exit status; the signal number when the process was killed by one;
  // -1 when it could not be started.
  std::int32_t code = 0;
  // Standard output and error as UTF-8 (empty when not valid UTF-8), trimmed
  // of white space and line breaks at both ends.
  std::string stdoutText;
  std::string stderrText;
  bool operator==(const OsascriptResult&) const = default;
};

namespace Osascript {

inline constexpr const char* defaultExecutable = "/usr/bin/osascript";

// Takes the script text, its arguments and a time limit in seconds.
using Runner = std::function<OsascriptResult(
    std::string_view script, const std::vector<std::string>& args, double timeoutSec)>;

// Runs `script` with "/usr/bin/osascript -", the script on standard input and
// `args` after the "-": user text travels only as an argument, never inside
// the script's source. A process still running after `timeoutSec` is killed
// with SIGKILL and its error text ends with "osascript timed out after Ns";
// that note is added whenever the process ends by a signal.
OsascriptResult run(std::string_view script, const std::vector<std::string>& args,
                    double timeoutSec);

// The same with another program in place of osascript (tests use a stand-in).
OsascriptResult runProgram(const std::string& executable, std::string_view script,
                           const std::vector<std::string>& args, double timeoutSec);

// A user-facing sentence for osascript's error output: the Automation
// refusal, a missing account and an unknown recipient get their own advice;
// anything else is passed on, shortened.
std::string explain(std::string_view stderrText);

}  // namespace Osascript
}  // namespace corvane
