// StopSource and StopToken: cooperative cancellation across threads. The
// owner of a source asks for a stop; holders of its tokens check for it at
// safe points or wait on it. Apple's shipping libc++ keeps std::stop_token
// behind an experimental flag, so the agent carries the little it needs.
//
// Copies share one state, as with std::stop_source. Every member is safe to
// call from any thread.
#pragma once

#include <chrono>
#include <memory>

namespace corvane {

class StopToken {
 public:
  // A token no source controls: never stopped, and waitFor sleeps in full.
  StopToken() = default;

  bool stopRequested() const noexcept;

  // Waits up to `duration`, returning early (true) once a stop is requested;
  // returns at once when it already was.
  bool waitFor(std::chrono::nanoseconds duration) const;

 private:
  friend class StopSource;
  struct State;
  explicit StopToken(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

class StopSource {
 public:
  StopSource();

  StopToken token() const { return StopToken(state_); }
  bool stopRequested() const noexcept { return token().stopRequested(); }
  // Idempotent; wakes every waitFor of every token of this source.
  void requestStop();

 private:
  std::shared_ptr<StopToken::State> state_;
};

}  // namespace corvane
