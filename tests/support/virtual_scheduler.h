// VirtualScheduler: the main thread in virtual time. Nothing runs until the
// test calls runPending() or advance(); advance(s) fires every timer due
// within s seconds in time order, moving the clock to each one. A test of
// "a link 899 s after Connect pairs at once" runs in microseconds.
//
// ManualWorker is the worker to go with it: jobs wait in a queue until the
// test runs them, on the test's thread, so the order of events is the test's.
//
// post() may be called from any thread (real worker threads in race tests);
// everything else belongs to the test's thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>

#include "app/model/main_scheduler.h"

namespace corvane::testing {

class VirtualScheduler final : public MainScheduler {
 public:
  explicit VirtualScheduler(std::int64_t startMs = 1'700'000'000'000) : nowMs_(startMs) {}

  std::int64_t nowMs() const { return nowMs_; }
  std::function<std::int64_t()> clock() { return [this] { return nowMs_.load(); }; }

  void post(std::function<void()> work) override {
    std::lock_guard lock(postedMutex_);
    posted_.push_back(std::move(work));
  }
  TimerId after(double seconds, std::function<void()> work) override {
    timers_[next_] = {nowMs_ + toMs(seconds), 0, std::move(work)};
    return next_++;
  }
  TimerId every(double seconds, std::function<void()> work) override {
    const std::int64_t period = std::max<std::int64_t>(1, toMs(seconds));
    timers_[next_] = {nowMs_ + period, period, std::move(work)};
    return next_++;
  }
  void cancel(TimerId timer) override { timers_.erase(timer); }

  // Runs posted work (and work that work posts) until none is left.
  void runPending() {
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

  // Moves time forward by `seconds`, running posted work and each timer
  // that comes due on the way.
  void advance(double seconds) {
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

  // Timers still scheduled.
  std::size_t timerCount() const { return timers_.size(); }

 private:
  struct Timer {
    std::int64_t dueMs = 0;
    std::int64_t periodMs = 0;  // 0: one-shot
    std::function<void()> work;
  };
  static std::int64_t toMs(double seconds) {
    return static_cast<std::int64_t>(std::llround(std::max(0.0, seconds) * 1000.0));
  }

  // Read by cycles on worker threads in race tests.
  std::atomic<std::int64_t> nowMs_;
  TimerId next_ = 1;
  std::map<TimerId, Timer> timers_;
  std::mutex postedMutex_;
  std::deque<std::function<void()>> posted_;
};

class ManualWorker final : public BackgroundWorker {
 public:
  void run(std::function<void()> work) override { jobs_.push_back(std::move(work)); }
  std::size_t pending() const { return jobs_.size(); }
  // Runs the oldest job; false when there is none.
  bool runOne() {
    if (jobs_.empty()) return false;
    auto job = std::move(jobs_.front());
    jobs_.pop_front();
    job();
    return true;
  }

 private:
  std::deque<std::function<void()>> jobs_;
};

}  // namespace corvane::testing
