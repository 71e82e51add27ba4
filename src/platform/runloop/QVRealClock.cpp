#include "qvcore/platform/QVRealClock.h"

namespace qv {

std::shared_ptr<QVRealClock> QVRealClock::shared() {
  // Never destroyed: run loops that outlive static destruction still read it.
  static auto* clock = new std::shared_ptr<QVRealClock>(std::make_shared<QVRealClock>());
  return *clock;
}

QVClock::TimePoint QVRealClock::now() const { return std::chrono::steady_clock::now(); }

bool QVRealClock::isSteady() const { return true; }

}  // namespace qv
