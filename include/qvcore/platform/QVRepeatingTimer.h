#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVClock.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

// Calls fire on a run loop every interval of the loop's clock until
// invalidate(). The loop holds the timer while it is valid, so a timer whose
// owner drops it without invalidating keeps firing; only invalidate() stops
// it. Fire times keep to the grid set when the timer was made: a loop that
// falls behind by several intervals fires once, then resumes on the grid.
class QV_EXPORT QVRepeatingTimer : public std::enable_shared_from_this<QVRepeatingTimer> {
 public:
  using Fire = std::function<void()>;

  // Intervals under 0.1 ms (including zero, negative and NaN) become 0.1 ms;
  // intervals over 1e9 s (about 31 years) become 1e9 s.
  static std::shared_ptr<QVRepeatingTimer> scheduledTimer(QVRunLoop& loop, double intervalSeconds,
                                                          Fire fire);

  // Stops the timer for good and releases fire. Safe from any thread; a fire
  // already under way on the loop finishes.
  void invalidate();
  bool isValid() const;
  // The interval in seconds, after the limits above.
  double interval() const;

 private:
  using Duration = QVClock::Duration;
  using TimePoint = QVClock::TimePoint;

  QVRepeatingTimer(QVRunLoop& loop, Duration interval, Fire fire);

  void scheduleAt(TimePoint due);
  void onDue(TimePoint scheduled);
  TimePoint nextFireAfter(TimePoint scheduled, TimePoint now) const;
  std::shared_ptr<const Fire> currentFire() const;

  // Used only by tasks running on the loop, so the loop is alive then.
  QVRunLoop& loop_;
  const Duration interval_;
  std::atomic<bool> valid_{true};
  mutable std::mutex mutex_;
  std::shared_ptr<const Fire> fire_;  // guarded by mutex_
};

}  // namespace qv
