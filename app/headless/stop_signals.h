// SIGINT and SIGTERM in the headless mode. The first asks `stop` to end the
// daemon at its next stage boundary, so a signal never cuts a send in half;
// a second one ends the process at once, by that signal, as users of
// command-line tools expect when a cycle hangs (a stuck server, a stuck
// osascript).
#pragma once

#include <memory>

#include "core/sync/stop_source.h"

namespace corvane {

// Call once, on the main thread before any other thread starts: it blocks
// both signals in the calling thread, which every later thread inherits, and
// leaves them to a detached thread that only waits for them (no work is ever
// done in a signal handler). That thread logs the first signal through a
// ConsoleLogger on standard error.
void watchStopSignals(std::shared_ptr<StopSource> stop);

}  // namespace corvane
