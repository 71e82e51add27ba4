#pragma once

#include <cstdint>

#include "qvcore/QVExport.h"

namespace qv {

// Told by QVOrientationManager when the device turns to another orientation.
class QV_EXPORT QVOrientationManagerDelegate {
 public:
  virtual ~QVOrientationManagerDelegate() = default;
  // deviceOrientation is a device orientation code; the manager reports only
  // upright and sideways ones, 1 to 4.
  virtual bool qvOrientationChanged(int64_t deviceOrientation) = 0;
};

}  // namespace qv
