#pragma once

#include "qvcore/QVExport.h"

namespace qv {

// Optional operation of a module: told, on the main thread, that the
// application is about to lose its last chance to run (the background time
// granted after it left the foreground ran out), right before the queue
// service flushes. The queue service probes for it with dynamic_cast.
class QV_EXPORT QVAppTerminationObserver {
 public:
  virtual ~QVAppTerminationObserver() = default;
  virtual void brvAppWillTerminate() = 0;
};

}  // namespace qv
