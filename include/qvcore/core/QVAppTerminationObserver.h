#pragma once

#include "qvcore/QVExport.h"

namespace qv {

// Optional operation of a module: told, on the main thread, that the
// application is about to lose its last chance to run (the background time
// granted after it left the foreground ran out), right before the queue
// service flushes. The queue service probes for it with dynamic_cast.
//
// Threads: the main thread, inside the lifecycle manager's expiration
// handler, with no lock of the core held. It may post messages (they go out
// with the flush that follows) but should be quick: the flush waits for it,
// and the time left is the platform's. A std::exception thrown here is
// caught, and the other modules are still told.
class QV_EXPORT QVAppTerminationObserver {
 public:
  virtual ~QVAppTerminationObserver() = default;
  virtual void brvAppWillTerminate() = 0;
};

}  // namespace qv
