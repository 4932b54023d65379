#include "tests/support/virtual_scheduler.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace corvane::testing {

std::int64_t VirtualScheduler::toMs(double seconds) {
  return static_cast<std::int64_t>(std::llround(std::max(0.0, seconds) * 1000.0));
}

void VirtualScheduler::post(std::function<void()> work) {
  std::lock_guard lock(postedMutex_);
  posted_.push_back(std::move(work));
}

MainScheduler::TimerId VirtualScheduler::after(double seconds, std::function<void()> work) {
  const TimerId id = next_++;
  timers_[id] = {nowMs_ + toMs(seconds), 0, std::move(work)};
  return id;
}

MainScheduler::TimerId VirtualScheduler::every(double seconds, std::function<void()> work) {
  const TimerId id = next_++;
  const std::int64_t period = std::max<std::int64_t>(1, toMs(seconds));
  timers_[id] = {nowMs_ + period, period, std::move(work)};
  return id;
}

void VirtualScheduler::cancel(TimerId timer) { timers_.erase(timer); }

void VirtualScheduler::runPending() {
  for (;;) {
    std::function<void()> work;
    {
      std::lock_guard lock(postedMutex_);
      if (posted_.empty()) return;
      work = std::move(posted_.front());
      posted_.pop_front();
    }
    work();
  }
}

void VirtualScheduler::advance(double seconds) {
  const std::int64_t endMs = nowMs_ + toMs(seconds);
  runPending();
  for (;;) {
    // The earliest due timer; ties go to the one scheduled first.
    const auto due = std::min_element(timers_.begin(), timers_.end(), [](auto& a, auto& b) {
      return a.second.dueMs < b.second.dueMs;
    });
    if (due == timers_.end() || due->second.dueMs > endMs) break;
    nowMs_ = std::max(nowMs_.load(), due->second.dueMs);
    std::function<void()> work = due->second.work;
    if (due->second.periodMs > 0) {
      due->second.dueMs += due->second.periodMs;
    } else {
      timers_.erase(due);
    }
    work();
    runPending();
  }
  nowMs_ = endMs;
}

bool ManualWorker::runOne() {
  if (jobs_.empty()) return false;
  auto job = std::move(jobs_.front());
  jobs_.pop_front();
  job();
  return true;
}

}  // namespace corvane::testing
