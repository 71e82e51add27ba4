#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

// One thing whose reachability is asked about: an address, a host name, or
// the internet at large. Made by a QVReachabilitySource. Every operation is
// safe from any thread.
class QV_EXPORT QVReachabilityTarget {
 public:
  using Changed = std::function<void()>;

  virtual ~QVReachabilityTarget();

  // The reachability flag word (see QVReachabilityFlags.h) as of now; none
  // when it cannot be read.
  virtual std::optional<uint32_t> flags() = 0;

  // The flags as the source last published them, for readers that ask on
  // every post: no system call and no lock that another reader takes. A
  // source that learns of changes on its own thread may lag behind flags()
  // until that thread has handled the change; awaitPublished() tells when it
  // has. By default, flags().
  virtual std::optional<uint32_t> publishedFlags();

  // Waits until every change the source had been told of before this call
  // shows in publishedFlags(). False when that did not happen within
  // patience. By default true at once.
  virtual bool awaitPublished(std::chrono::milliseconds patience);

  // Calls changed on loop whenever the flags may have changed, until
  // unschedule(); a source may call it when they did not, so the listener
  // reads them again. Scheduling again replaces the earlier loop and
  // callback. The loop must outlive the schedule. False when the target
  // cannot be watched.
  virtual bool schedule(QVRunLoop& loop, Changed changed) = 0;

  // Once this returns, changed is not called again, except for a call already
  // running on the loop's thread. True when the target is left unscheduled,
  // which it also is when it never was scheduled.
  virtual bool unschedule() = 0;
};

}  // namespace qv
