#include "platform/net/QVNetlinkReachabilityTarget.h"

#include <cerrno>

#include <utility>

#include "platform/net/QVNetlinkSocket.h"

namespace qv {

int netlinkWatchError() {
  errno = 0;
  const QVNetlinkSocket probe(netlinkWatchedGroups());
  if (probe.isOpen()) return 0;
  return errno != 0 ? errno : EACCES;
}

// One schedule: the subscribed socket and what it reports to. The loop's
// watch holds it, so a call under way keeps the socket open while another
// thread unschedules.
struct QVNetlinkReachabilityTarget::Subscription {
  Subscription(std::shared_ptr<QVNetlinkReachabilityWatcher> w, QVRunLoop& l, Changed c)
      : socket(netlinkWatchedGroups()), watcher(std::move(w)), loop(l), changed(std::move(c)) {}

  // Read through the watcher, which publishes the answer, so that the
  // listener, and every post after it, reads the flags that made it called.
  void onReadable() {
    if (!socket.drain()) return;
    const auto now = watcher->current();
    if (now == lastFlags) return;
    lastFlags = now;
    changed();
  }

  QVNetlinkSocket socket;
  const std::shared_ptr<QVNetlinkReachabilityWatcher> watcher;
  QVRunLoop& loop;
  const Changed changed;
  QVRunLoop::WatchId watch = 0;
  // Set before the watch starts, then touched only on the loop's thread.
  std::optional<uint32_t> lastFlags;
};

QVNetlinkReachabilityTarget::QVNetlinkReachabilityTarget(QVNetlinkDestination destination)
    : watcher_(std::make_shared<QVNetlinkReachabilityWatcher>(destination)) {}

QVNetlinkReachabilityTarget::~QVNetlinkReachabilityTarget() { unschedule(); }

// The kernel queues the report of a change before the request that made it
// returns, so a change made before this call is always seen, whether or not
// any run loop or watcher thread runs.
std::optional<uint32_t> QVNetlinkReachabilityTarget::flags() { return watcher_->current(); }

std::optional<uint32_t> QVNetlinkReachabilityTarget::publishedFlags() {
  return watcher_->published();
}

bool QVNetlinkReachabilityTarget::awaitPublished(std::chrono::milliseconds patience) {
  return watcher_->awaitPublished(patience);
}

bool QVNetlinkReachabilityTarget::schedule(QVRunLoop& loop, Changed changed) {
  if (!changed) return false;
  auto subscription = std::make_shared<Subscription>(watcher_, loop, std::move(changed));
  if (!subscription->socket.isOpen()) return false;
  // Read after subscribing, so that a change in between is heard, not lost.
  subscription->lastFlags = flags();
  subscription->watch =
      loop.watchReadable(subscription->socket.fd(), [subscription] { subscription->onReadable(); });
  if (subscription->watch == 0) return false;
  std::shared_ptr<Subscription> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(subscription_, subscription);
  }
  if (previous) previous->loop.cancelWatch(previous->watch);
  return true;
}

bool QVNetlinkReachabilityTarget::unschedule() {
  std::shared_ptr<Subscription> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(subscription_, nullptr);
  }
  if (previous) previous->loop.cancelWatch(previous->watch);
  return true;
}

}  // namespace qv
