#pragma once

#include <memory>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVClock.h"

namespace qv {

// Real time: std::chrono::steady_clock, which never jumps when the wall clock
// is set.
class QV_EXPORT QVRealClock final : public QVClock {
 public:
  // One instance serves every run loop; the clock has no state.
  static std::shared_ptr<QVRealClock> shared();

  TimePoint now() const override;
  bool isSteady() const override;
};

}  // namespace qv
