#pragma once

#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "qvcore/platform/QVClock.h"

namespace qv {

// The delayed tasks of a run loop, ordered by due time; tasks due at the same
// time keep the order in which they were added. Not locked: the run loop
// guards it.
class QVTimerQueue {
 public:
  using Task = std::function<void()>;
  using Duration = QVClock::Duration;
  using TimePoint = QVClock::TimePoint;

  // from + by, held at the ends of the range instead of overflowing, so that
  // "never" can be spelled as a very long delay.
  static TimePoint later(TimePoint from, Duration by);

  void add(TimePoint due, Task task);
  std::optional<TimePoint> earliest() const;
  // Removes and returns the tasks due at or before now, earliest first.
  std::vector<Task> takeDue(TimePoint now);
  // Moves every due time by the same amount, so a change of clock keeps the
  // time left for each task.
  void shift(Duration by);
  size_t size() const { return tasks_.size(); }

 private:
  std::multimap<TimePoint, Task> tasks_;
};

}  // namespace qv
