#include "qvcore/platform/QVRepeatingTimer.h"

#include <algorithm>
#include <chrono>

#include "platform/runloop/QVTimerQueue.h"

namespace qv {
namespace {

constexpr double kMinimumSeconds = 0.0001;
// Keeps every fire time far inside the range of the clock's time points.
constexpr double kMaximumSeconds = 1e9;

QVClock::Duration sanitizedInterval(double seconds) {
  if (!(seconds >= kMinimumSeconds)) seconds = kMinimumSeconds;  // NaN lands here too
  seconds = std::min(seconds, kMaximumSeconds);
  return std::chrono::duration_cast<QVClock::Duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

std::shared_ptr<QVRepeatingTimer> QVRepeatingTimer::scheduledTimer(QVRunLoop& loop,
                                                                   double intervalSeconds,
                                                                   Fire fire) {
  std::shared_ptr<QVRepeatingTimer> timer(
      new QVRepeatingTimer(loop, sanitizedInterval(intervalSeconds), std::move(fire)));
  timer->scheduleAt(QVTimerQueue::later(loop.clock()->now(), timer->interval_));
  return timer;
}

QVRepeatingTimer::QVRepeatingTimer(QVRunLoop& loop, Duration interval, Fire fire)
    : loop_(loop), interval_(interval), fire_(std::make_shared<const Fire>(std::move(fire))) {}

void QVRepeatingTimer::invalidate() {
  std::shared_ptr<const Fire> released;
  std::lock_guard lock(mutex_);
  valid_ = false;
  // Destroyed after the lock is let go: fire's captures may call back here.
  released = std::move(fire_);
}

bool QVRepeatingTimer::isValid() const { return valid_; }

double QVRepeatingTimer::interval() const {
  return std::chrono::duration<double>(interval_).count();
}

void QVRepeatingTimer::scheduleAt(TimePoint due) {
  // The pending task owns the timer: that is what keeps a dropped timer alive.
  loop_.postAt(due, [self = shared_from_this(), due] { self->onDue(due); });
}

void QVRepeatingTimer::onDue(TimePoint scheduled) {
  if (!isValid()) return;
  if (auto fire = currentFire()) (*fire)();
  if (!isValid()) return;
  scheduleAt(nextFireAfter(scheduled, loop_.clock()->now()));
}

QVRepeatingTimer::TimePoint QVRepeatingTimer::nextFireAfter(TimePoint scheduled,
                                                            TimePoint now) const {
  // After a change of the loop's clock the old grid may lie in the future.
  scheduled = std::min(scheduled, now);
  const TimePoint next = scheduled + interval_;
  if (next > now) return next;
  const auto missed = (now - scheduled) / interval_;
  return scheduled + interval_ * (missed + 1);
}

std::shared_ptr<const QVRepeatingTimer::Fire> QVRepeatingTimer::currentFire() const {
  std::lock_guard lock(mutex_);
  return fire_;
}

}  // namespace qv
