#pragma once

#include <memory>
#include <mutex>

#include "platform/net/QVNetlinkRoutes.h"
#include "platform/net/QVNetlinkSocket.h"
#include "qvcore/platform/QVReachabilityTarget.h"

namespace qv {

// 0 when a socket that hears the kernel's link, address and route events can
// be opened, as a scheduled target needs; else the error that refused it.
int netlinkWatchError();

// A target whose flags come from the kernel's route to its destination. Once
// scheduled, a socket subscribed to the kernel's link, address and route
// events is watched on the loop; after each burst of events the flags are
// read again, and changed is called only when they differ from the last
// ones, so that unrelated routing noise stays quiet. flags() keeps its last
// answer until a socket of its own hears of such an event.
class QVNetlinkReachabilityTarget final : public QVReachabilityTarget {
 public:
  explicit QVNetlinkReachabilityTarget(QVNetlinkDestination destination);
  ~QVNetlinkReachabilityTarget() override;

  std::optional<uint32_t> flags() override;
  bool schedule(QVRunLoop& loop, Changed changed) override;
  bool unschedule() override;

 private:
  struct Subscription;

  const QVNetlinkDestination destination_;

  std::mutex flagsMutex_;
  // Subscribed before the first read, so that no change is missed.
  const std::unique_ptr<QVNetlinkSocket> watch_;  // read under flagsMutex_
  std::optional<uint32_t> lastFlags_;             // guarded by flagsMutex_
  std::mutex mutex_;
  std::shared_ptr<Subscription> subscription_;  // guarded by mutex_
};

}  // namespace qv
