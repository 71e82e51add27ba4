#pragma once

#include <exception>

#include "qvcore/QVExport.h"

namespace qv {

// Optional operation of a module: a last look at the exception that is about
// to end the process, before the core flushes the queues. Called on the
// crashing thread while it is blocked, so it must neither wait for that
// thread nor throw (a std::exception thrown here ends the core's handling
// at once, skipping the flush). Not called when the process terminates
// without an exception. The core probes for it with dynamic_cast.
class QV_EXPORT QVUncaughtExceptionHandler {
 public:
  virtual ~QVUncaughtExceptionHandler() = default;
  virtual void handleUncaughtException(std::exception_ptr exception) = 0;
};

}  // namespace qv
