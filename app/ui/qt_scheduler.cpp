#include "app/ui/qt_scheduler.h"

#include <QMetaObject>
#include <cmath>

namespace corvane {

QtMainScheduler::QtMainScheduler(QObject* parent) : QObject(parent) {}

QtMainScheduler::~QtMainScheduler() {
  for (auto& [id, timer] : timers_) delete timer;
}

void QtMainScheduler::post(std::function<void()> work) {
  QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection);
}

Qt::TimerType QtMainScheduler::timerTypeFor(double seconds) {
  // Within 5% for the short waits of the setup screens; to the second for
  // the sync loop's naps and the ticks.
  return seconds >= 10.0 ? Qt::VeryCoarseTimer : Qt::CoarseTimer;
}

MainScheduler::TimerId QtMainScheduler::start(double seconds, bool repeating,
                                              std::function<void()> work) {
  const TimerId id = next_++;
  auto* timer = new QTimer(this);
  timer->setTimerType(timerTypeFor(seconds));
  timer->setSingleShot(!repeating);
  timer->setInterval(static_cast<int>(std::llround(std::max(0.0, seconds) * 1000.0)));
  connect(timer, &QTimer::timeout, this, [this, id, repeating, work = std::move(work)] {
    // A one-shot timer is forgotten before its work runs, so the work may
    // start another timer or cancel this one without harm.
    if (!repeating) cancel(id);
    work();
  });
  timers_[id] = timer;
  timer->start();
  return id;
}

MainScheduler::TimerId QtMainScheduler::after(double seconds, std::function<void()> work) {
  return start(seconds, false, std::move(work));
}

MainScheduler::TimerId QtMainScheduler::every(double seconds, std::function<void()> work) {
  return start(seconds, true, std::move(work));
}

void QtMainScheduler::cancel(TimerId timer) {
  const auto it = timers_.find(timer);
  if (it == timers_.end()) return;
  it->second->stop();
  it->second->deleteLater();  // it may be the timer whose signal is running
  timers_.erase(it);
}

}  // namespace corvane
