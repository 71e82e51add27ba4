// The last chance to send what is queued when the process dies of an
// uncaught exception.
//
// The core's terminate handler tells every registered module that can hear
// it, starts a flush, waits without a time-out for the flush cycle to report
// its end through QVCore::flushCompleted, then calls the terminate handler
// that was installed before it. A terminate handler must not return, so the
// core's ends the process with std::abort() when the previous one returns,
// when there is none, and when a std::exception cut the handling short.
//
// enable installs the handler on every call, and each install saves what is
// installed at that moment. After a second enable the saved handler is the
// core's own: the handler then calls itself once its flush is done, which
// tells the modules again and waits for a second flush. That second flush
// usually finds nothing to send, never reports an end, and the process waits
// for ever, as a flush with nothing to send always does here. Each level of
// that chain needs one more finished flush, and the handler holds no lock
// while it waits or calls on, so the chain goes no deeper and blocks on
// nothing else than the flushes themselves; only a module that queues more
// each time it is told keeps the chain going, one stack frame a level. The
// application's own handler is then never reached.
//
// The wait needs the flush to run on other threads (the queue service's
// queue, the HTTP session's thread): an exception that escapes a task on one
// of those blocks the process for ever.
#include <atomic>
#include <cstdlib>
#include <exception>
#include <semaphore>

#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVUncaughtExceptionHandler.h"
#include "qvcore/queue/QVQueueService.h"

namespace qv {

namespace {

using CrashSemaphore = std::counting_semaphore<>;

// The handler that was installed before the core's own.
std::atomic<std::terminate_handler> appExceptionHandler{nullptr};

// Made by each run of the handler and signalled by flushCompleted from the
// flush's thread. A semaphore is never freed: flushCompleted may still hold
// one that a later run replaced, and the process is ending anyway.
std::atomic<CrashSemaphore*> crashSemaphore{nullptr};

void tellModules(const std::exception_ptr& exception) {
  if (!exception) return;
  const auto registry = QVCore::sharedInstance()->classReferences();
  if (!registry) return;
  for (const auto& [name, module] : *registry) {
    if (auto* handler = dynamic_cast<QVUncaughtExceptionHandler*>(module.get())) {
      handler->handleUncaughtException(exception);
    }
  }
}

}  // namespace

void QVCoreUncaughtExceptionHandler();

// Outside the unnamed namespace so that a crashed process's stack names it
// plainly. Only a std::exception is swallowed; any other escapes, and the
// runtime then aborts, as it does when a terminate handler throws.
void QVCoreUncaughtExceptionHandler() {
  const std::exception_ptr exception = std::current_exception();
  auto* semaphore = new CrashSemaphore(0);
  crashSemaphore.store(semaphore);
  try {
    tellModules(exception);
    QVQueueService::sharedInstance()->asyncFlushQueues();
    semaphore->acquire();
    if (std::terminate_handler previous = appExceptionHandler.load()) previous();
  } catch (const std::exception&) {
    // Swallowed: it ends the handling, and the process ends below.
  }
  std::abort();
}

void QVCore::setUncaughtExceptionHandler() {
  appExceptionHandler.store(std::get_terminate());
  std::set_terminate(&QVCoreUncaughtExceptionHandler);
}

void QVCore::flushCompleted() {
  if (CrashSemaphore* semaphore = crashSemaphore.load()) semaphore->release();
}

}  // namespace qv
