// QtMainScheduler: the model's main thread on the Qt event loop. Timers are
// QTimers owned by the scheduler, so none outlives it; post() is safe from
// any thread (a queued call on the scheduler's QObject).
#pragma once

#include <QObject>
#include <QTimer>
#include <map>
#include <memory>

#include "app/model/main_scheduler.h"

namespace corvane {

class QtMainScheduler final : public QObject, public MainScheduler {
  Q_OBJECT
 public:
  explicit QtMainScheduler(QObject* parent = nullptr);
  ~QtMainScheduler() override;

  void post(std::function<void()> work) override;
  TimerId after(double seconds, std::function<void()> work) override;
  TimerId every(double seconds, std::function<void()> work) override;
  void cancel(TimerId timer) override;

  // The kind of QTimer a wait of `seconds` gets: nothing here needs
  // millisecond timing, and coarse timers let the system wake the process
  // together with others instead of just for it.
  static Qt::TimerType timerTypeFor(double seconds);

 private:
  TimerId start(double seconds, bool repeating, std::function<void()> work);

  TimerId next_ = 1;
  std::map<TimerId, QTimer*> timers_;
};

}  // namespace corvane
