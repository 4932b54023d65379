// What a failed sync cycle means, decided once for every loop that repeats
// cycles: the headless daemon and the application's sync loop each map these
// kinds to their own reaction (a log line and a wait, or a published status
// and a nap). Pure; safe to call from any thread.
#pragma once

#include <exception>
#include <stdexcept>

namespace corvane {

enum class CycleFailure {
  revoked,           // the server no longer accepts this device's token
  databaseMissing,   // chat.db doesn't exist: Messages isn't set up here
  noFullDiskAccess,  // chat.db exists but this process may not read it
  database,          // chat.db couldn't be opened for another reason
  transient,         // no answer from the server, or 408, 429, 5xx: retry later
  stopped,           // the cycle was asked to stop (CycleStopped)
  other,             // anything else
};

// Thrown by a cycle that stops early because its stop token was requested.
// It stops only between stages or between two outbox items, never during a
// send, so everything done before it is saved.
class CycleStopped : public std::runtime_error {
 public:
  CycleStopped() : std::runtime_error("sync cycle stopped") {}
};

CycleFailure classifyCycleFailure(const std::exception& error);

}  // namespace corvane
