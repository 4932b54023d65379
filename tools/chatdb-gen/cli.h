// The chatdb-gen command line: its options, the usage text (the tool's only
// documentation) and a run that writes to the streams it is given, so tests
// can drive it without a process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/chatdb-gen/generator.h"

namespace corvane::chatdbgen {

struct CommandLine {
  GeneratorOptions generator;
  std::string path;
  bool help = false;
  bool force = false;
  bool rosterOnly = false;
  bool json = false;
  std::size_t rosterSize = 0;
};

// A command line that can't be run; what() says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// `args` without the program name. Throws UsageError, also for options the
// generator would refuse.
CommandLine parseCommandLine(const std::vector<std::string>& args);

const std::string& usageText();

// Unix ms from "1735689600000", "2025-01-01", "2025-01-01T08:30Z" or
// "2025-01-01T08:30:15Z" (UTC); absent for anything else.
std::optional<std::int64_t> parseWhen(std::string_view text);

// Runs a command line: 0 when done, 1 when writing or reading failed, 64 for
// bad usage. Results go to `out`, progress and errors to `err`.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace corvane::chatdbgen
