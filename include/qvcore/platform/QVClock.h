#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "qvcore/QVExport.h"

namespace qv {

// The time source of a run loop. Times are steady_clock time points, so a
// clock that follows real time can hand its waits straight to an OS timer. A
// virtual clock moves only when told to and announces each move to its
// listeners, which is how a run loop learns that delayed work became due.
class QV_EXPORT QVClock {
 public:
  using Duration = std::chrono::steady_clock::duration;
  using TimePoint = std::chrono::steady_clock::time_point;
  using ListenerId = uint64_t;
  using Listener = std::function<void()>;

  virtual ~QVClock();

  virtual TimePoint now() const = 0;

  // True when now() is std::chrono::steady_clock::now(): a run loop then waits
  // with an OS timer and never needs a listener.
  virtual bool isSteady() const = 0;

  // Listeners hear about every move of a clock that is not steady. They are
  // called on the moving thread without the clock's lock held; a move already
  // under way when a listener is removed may still call it once. A steady
  // clock never calls them, so the defaults keep nothing.
  virtual ListenerId addListener(Listener listener);
  virtual void removeListener(ListenerId id);
};

}  // namespace qv
