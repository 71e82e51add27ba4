#pragma once

#include <chrono>
#include <memory>
#include <mutex>

#include "platform/net/QVNetlinkReachabilityWatcher.h"
#include "platform/net/QVNetlinkRoutes.h"
#include "qvcore/platform/QVReachabilityTarget.h"

namespace qv {

// 0 when a socket that hears the kernel's link, address and route events can
// be opened, as a scheduled target needs; else the error that refused it.
int netlinkWatchError();

// A target whose flags come from the kernel's route to its destination.
// flags() asks again whenever the kernel reported a change of links,
// addresses or routes since the last read; publishedFlags() reads the answer
// a watcher thread keeps current (see QVNetlinkReachabilityWatcher). Once
// scheduled, a socket subscribed to the same events is watched on the loop;
// after each burst of events the flags are read again, and changed is called
// only when they differ from the last ones, so that unrelated routing noise
// stays quiet.
class QVNetlinkReachabilityTarget final : public QVReachabilityTarget {
 public:
  explicit QVNetlinkReachabilityTarget(QVNetlinkDestination destination);
  ~QVNetlinkReachabilityTarget() override;

  std::optional<uint32_t> flags() override;
  std::optional<uint32_t> publishedFlags() override;
  bool awaitPublished(std::chrono::milliseconds patience) override;
  bool schedule(QVRunLoop& loop, Changed changed) override;
  bool unschedule() override;

 private:
  struct Subscription;

  // Shared with the subscriptions, whose calls may outlive the target.
  const std::shared_ptr<QVNetlinkReachabilityWatcher> watcher_;
  std::mutex mutex_;
  std::shared_ptr<Subscription> subscription_;  // guarded by mutex_
};

}  // namespace qv
