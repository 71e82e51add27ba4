#pragma once

#include <cstddef>
#include <functional>

#include "qvcore/QVExport.h"

namespace qv {

// The process's shared concurrent queue of default priority: tasks submitted
// from any thread run on a small pool of worker threads, several at a time
// and in no promised order. The pool grows on demand (up to 8 threads) and
// lives as long as the process. An exception that escapes a task ends the
// process through std::terminate, as it would on a serial queue.
class QV_EXPORT QVGlobalQueue {
 public:
  using Task = std::function<void()>;

  static void async(Task task);
};

}  // namespace qv
