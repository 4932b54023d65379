// The process's arguments and how options are looked up in them: a flag is
// present when its exact text occurs anywhere; an option's value is the
// argument after its first occurrence (none when it stands last). Values are
// never checked for looking like options.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

class CommandLine {
 public:
  explicit CommandLine(std::vector<std::string> args) : args_(std::move(args)) {}
  CommandLine(int argc, char** argv) : args_(argv + (argc > 0 ? 1 : 0), argv + argc) {}

  bool flag(std::string_view name) const;
  std::optional<std::string> value(std::string_view name) const;
  const std::vector<std::string>& arguments() const { return args_; }

 private:
  std::vector<std::string> args_;
};

// Printed by --help, byte for byte.
extern const char* const kUsageText;

// What `Corvane` does with its arguments, decided before any mode starts, so
// that help, the version and a mistyped option need no display, no home and
// no token.
enum class Entry {
  renderIcon,   // --render-icon OUT.png
  headless,     // --headless, its own --help included
  application,  // the menu-bar application
  help,         // print fullUsageText, exit 0
  version,      // print "Corvane " and the version, exit 0
  usageError,   // an unknown option: say which, print the usage to stderr, exit 64
};

struct EntryChoice {
  Entry entry = Entry::application;
  std::string unknownOption{};  // usageError only
  bool operator==(const EntryChoice&) const = default;
};

// --render-icon first, then --headless (whose --help prints kUsageText),
// then help, the version and unknown options. An unknown option is an
// argument that starts with "--" and is none of Corvane's; the values of
// options that take one are never examined, and single-dash arguments go to
// Qt and the system untouched ("-platform", "-psn_…").
EntryChoice chooseEntry(const CommandLine& args);

// Where the defaults that fullUsageText mentions live on a platform.
struct UsagePlaces {
  std::string chatDB;    // --chat-db's default
  std::string home;      // --home's default
  std::string token;     // where the app saves the token
  std::string sender;    // what sends the outbox without --fake-send
  std::string contacts;  // what --contacts does
  bool operator==(const UsagePlaces&) const = default;

  static UsagePlaces macOS();
  static UsagePlaces xdg();
  // One of the above; the platform's sibling file picks it.
  static UsagePlaces thisPlatform();
};

// `Corvane --help`: every option of every mode, one line each, with the
// defaults at `places`.
std::string fullUsageText(const UsagePlaces& places);

// Exit code of a command line that can't be used (BSD's EX_USAGE), as an
// unacceptable --server is in the headless mode.
inline constexpr int kUsageExitCode = 64;

}  // namespace corvane
