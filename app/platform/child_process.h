// ChildProcess: starts other programs for the platform layer (the relocator's
// quarantine removal and relaunch shell). Short-lived helpers only: nothing is
// read from the child, and it inherits standard output and error.
//
// Any thread may call these; they never throw.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane::ChildProcess {

// Runs `executable` with `args` (argv[1]…) and waits for it to end. Returns
// its exit status (128 + the signal number when a signal ended it), or absent
// when it couldn't be started.
std::optional<int> run(const std::string& executable, const std::vector<std::string>& args);

// Starts `executable` with `args` in a session of its own and returns its
// process id without waiting, or absent when it couldn't be started. Nobody
// reaps it here: it is meant to outlive this process (or the caller reaps it).
std::optional<std::int64_t> start(const std::string& executable,
                                  const std::vector<std::string>& args);

// This process's id.
std::int64_t currentProcessId();

}  // namespace corvane::ChildProcess
