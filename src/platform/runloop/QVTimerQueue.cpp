#include "platform/runloop/QVTimerQueue.h"

namespace qv {

QVTimerQueue::TimePoint QVTimerQueue::later(TimePoint from, Duration by) {
  if (by > Duration::zero() && from > TimePoint::max() - by) return TimePoint::max();
  if (by < Duration::zero() && from < TimePoint::min() - by) return TimePoint::min();
  return from + by;
}

void QVTimerQueue::add(TimePoint due, Task task) {
  // A multimap puts an equal key after the ones already there.
  tasks_.emplace(due, std::move(task));
}

std::optional<QVTimerQueue::TimePoint> QVTimerQueue::earliest() const {
  if (tasks_.empty()) return std::nullopt;
  return tasks_.begin()->first;
}

std::vector<QVTimerQueue::Task> QVTimerQueue::takeDue(TimePoint now) {
  std::vector<Task> due;
  const auto end = tasks_.upper_bound(now);
  for (auto it = tasks_.begin(); it != end; ++it) due.push_back(std::move(it->second));
  tasks_.erase(tasks_.begin(), end);
  return due;
}

void QVTimerQueue::shift(Duration by) {
  std::multimap<TimePoint, Task> shifted;
  for (auto& [due, task] : tasks_) {
    // "Never" stays never; saturation alone would bring it back on a return trip.
    const TimePoint moved = due == TimePoint::max() ? due : later(due, by);
    shifted.emplace_hint(shifted.end(), moved, std::move(task));
  }
  tasks_.swap(shifted);
}

}  // namespace qv
