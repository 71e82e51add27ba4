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
//
// A host may bound the wait (QVCORE_CRASH_FLUSH_TIMEOUT, or
// QVCore::setCrashFlushTimeout): the handler then goes on as if the flush had
// completed once the bound has passed. The bound is a deadline fixed by the
// first run of the handler and shared by the runs that it chains to itself,
// and a run past the deadline does not chain to the core's own handler again
// (that could only wait again), so the process ends within the bound.
#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <semaphore>
#include <string_view>

#include "platform/host/QVSwallowed.h"
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

using Clock = std::chrono::steady_clock;

// Bounds in milliseconds: kUnbounded waits for ever, kNotSet defers to the
// environment.
constexpr int64_t kUnbounded = -1;
constexpr int64_t kNotSet = -2;
// A day of waiting is as good as for ever, and keeps deadlines far from
// overflow.
constexpr double kLongestBoundSeconds = 86400.0;

std::atomic<int64_t> boundSetByHost{kNotSet};

// The variable's seconds: a plain non-negative decimal number; anything
// else leaves the wait unbounded.
int64_t parseBound(const char* text) {
  if (!text || !*text) return kUnbounded;
  const std::string_view view(text);
  double seconds = -1.0;
  const auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), seconds);
  if (error != std::errc() || end != view.data() + view.size()) return kUnbounded;
  if (!std::isfinite(seconds) || seconds < 0.0) return kUnbounded;
  return static_cast<int64_t>(std::ceil(std::min(seconds, kLongestBoundSeconds) * 1000.0));
}

// Read once, at the first install of the handler, so that the dying handler
// calls no getenv.
int64_t boundFromEnvironment() {
  static const int64_t bound = parseBound(std::getenv("QVCORE_CRASH_FLUSH_TIMEOUT"));
  return bound;
}

int64_t boundInForce() {
  const int64_t set = boundSetByHost.load();
  return set == kNotSet ? boundFromEnvironment() : set;
}

// Steady-clock ticks of the deadline of the handling under way; 0 before.
std::atomic<Clock::rep> crashDeadline{0};

Clock::time_point deadlineFor(int64_t bound) {
  const Clock::rep wanted =
      (Clock::now() + std::chrono::milliseconds(bound)).time_since_epoch().count();
  Clock::rep fixed = 0;
  // The first run fixes it; the runs it chains to keep it.
  if (crashDeadline.compare_exchange_strong(fixed, wanted)) fixed = wanted;
  return Clock::time_point(Clock::duration(fixed));
}

// True when the flush reported its end, false when the bound ran out.
bool waitForFlush(CrashSemaphore& semaphore) {
  const int64_t bound = boundInForce();
  if (bound < 0) {
    semaphore.acquire();
    return true;
  }
  return semaphore.try_acquire_until(deadlineFor(bound));
}

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
    const bool flushed = waitForFlush(*semaphore);
    const std::terminate_handler previous = appExceptionHandler.load();
    if (previous && (flushed || previous != &QVCoreUncaughtExceptionHandler)) previous();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Swallowed: it ends the handling, and the process ends below.
  }
  std::abort();
}

void QVCore::setUncaughtExceptionHandler() {
  boundFromEnvironment();
  appExceptionHandler.store(std::get_terminate());
  std::set_terminate(&QVCoreUncaughtExceptionHandler);
}

void QVCore::flushCompleted() {
  if (CrashSemaphore* semaphore = crashSemaphore.load()) semaphore->release();
}

void QVCore::setCrashFlushTimeout(std::optional<std::chrono::milliseconds> timeout) {
  constexpr auto longest = static_cast<int64_t>(kLongestBoundSeconds * 1000.0);
  boundSetByHost.store(timeout ? std::clamp<int64_t>(timeout->count(), 0, longest) : kUnbounded);
}

std::optional<std::chrono::milliseconds> QVCore::crashFlushTimeout() {
  const int64_t bound = boundInForce();
  if (bound < 0) return std::nullopt;
  return std::chrono::milliseconds(bound);
}

}  // namespace qv
