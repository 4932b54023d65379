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

 private:
  std::vector<std::string> args_;
};

// Printed by --help, byte for byte.
extern const char* const kUsageText;

}  // namespace corvane
