// MainScheduler: the application's main thread as the model sees it. Work
// can be posted to it from any thread; timers run on it and can be
// cancelled. The Qt event loop implements it in the application
// (app/ui/qt_scheduler.h), VirtualScheduler in tests, where time only moves
// when the test says so.
#pragma once

#include <cstdint>
#include <functional>

namespace corvane {

class MainScheduler {
 public:
  using TimerId = std::uint64_t;  // 0 is never a timer

  MainScheduler() = default;
  MainScheduler(const MainScheduler&) = delete;
  MainScheduler& operator=(const MainScheduler&) = delete;
  virtual ~MainScheduler() = default;

  // Runs `work` on the main thread soon, after what was posted before it.
  // The only call that may be made from any thread.
  virtual void post(std::function<void()> work) = 0;

  // Runs `work` once after `seconds`. Main thread only.
  virtual TimerId after(double seconds, std::function<void()> work) = 0;
  // Runs `work` every `seconds` until cancelled. Main thread only.
  virtual TimerId every(double seconds, std::function<void()> work) = 0;
  // Stops a timer; cancelling one that has fired or was cancelled is a no-op.
  virtual void cancel(TimerId timer) = 0;
};

// Runs work off the main thread. The model hands it blocking calls (the
// sync cycle, network requests, the Automation prompt) and gets their
// results back through MainScheduler::post.
class BackgroundWorker {
 public:
  BackgroundWorker() = default;
  BackgroundWorker(const BackgroundWorker&) = delete;
  BackgroundWorker& operator=(const BackgroundWorker&) = delete;
  virtual ~BackgroundWorker() = default;

  // Starts `work` on a thread other than the main thread; returns at once.
  virtual void run(std::function<void()> work) = 0;
};

}  // namespace corvane
