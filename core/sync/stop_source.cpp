#include "core/sync/stop_source.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace corvane {

struct StopToken::State {
  std::mutex mutex;
  std::condition_variable changed;
  // Read without the mutex by stopRequested, written under it so that a
  // waiter between its check and its wait cannot miss the notification.
  std::atomic<bool> stopped = false;
};

bool StopToken::stopRequested() const noexcept {
  return state_ && state_->stopped.load(std::memory_order_acquire);
}

bool StopToken::waitFor(std::chrono::nanoseconds duration) const {
  if (!state_) {
    std::this_thread::sleep_for(duration);
    return false;
  }
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, duration, [this] { return state_->stopped.load(); });
}

StopSource::StopSource() : state_(std::make_shared<StopToken::State>()) {}

void StopSource::requestStop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopped.store(true, std::memory_order_release);
  }
  state_->changed.notify_all();
}

}  // namespace corvane
