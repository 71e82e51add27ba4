#pragma once

#include <cstdint>
#include <memory>

#include "qvcore/QVExport.h"

namespace qv {

// The millisecond clock of messages and sessions.
class QV_EXPORT QVCoreHelper {
 public:
  static std::shared_ptr<QVCoreHelper> sharedInstance();

  // Wall-clock milliseconds since 1970-01-01 00:00 UTC: the seconds as a
  // double times 1000, truncated toward zero.
  uint64_t now() const;
};

}  // namespace qv
