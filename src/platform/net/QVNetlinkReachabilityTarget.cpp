#include "platform/net/QVNetlinkReachabilityTarget.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

#include <utility>

#include "platform/net/QVNetlinkSocket.h"

namespace qv {
namespace {

constexpr uint32_t kWatchedGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

// Whether the kernel announced anything on socket since it was last
// drained: one non-blocking peek. An error other than "nothing queued" (a
// queue that overflowed, above all) counts as an announcement.
bool announced(const QVNetlinkSocket& socket) {
  char byte = 0;
  const ssize_t got = ::recv(socket.fd(), &byte, sizeof byte, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  return got >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

}  // namespace

int netlinkWatchError() {
  errno = 0;
  const QVNetlinkSocket probe(kWatchedGroups);
  if (probe.isOpen()) return 0;
  return errno != 0 ? errno : EACCES;
}

// One schedule: the subscribed socket and what it reports to. The loop's
// watch holds it, so a call under way keeps the socket open while another
// thread unschedules.
struct QVNetlinkReachabilityTarget::Subscription {
  Subscription(QVNetlinkDestination d, QVRunLoop& l, Changed c)
      : socket(kWatchedGroups), destination(d), loop(l), changed(std::move(c)) {}

  void onReadable() {
    if (!socket.drain()) return;
    const auto now = netlinkReachabilityFlags(destination);
    if (now == lastFlags) return;
    lastFlags = now;
    changed();
  }

  QVNetlinkSocket socket;
  const QVNetlinkDestination destination;
  QVRunLoop& loop;
  const Changed changed;
  QVRunLoop::WatchId watch = 0;
  // Set before the watch starts, then touched only on the loop's thread.
  std::optional<uint32_t> lastFlags;
};

QVNetlinkReachabilityTarget::QVNetlinkReachabilityTarget(QVNetlinkDestination destination)
    : destination_(destination), watch_(std::make_unique<QVNetlinkSocket>(kWatchedGroups)) {}

QVNetlinkReachabilityTarget::~QVNetlinkReachabilityTarget() { unschedule(); }

// Asking the kernel for the route costs a socket and a round trip; the
// answer is kept until the watch hears of a change of links, addresses or
// routes. The kernel queues that announcement before the request that made
// the change returns, so a change made before this call is always seen,
// whether or not any run loop runs. Without a watch every call asks.
std::optional<uint32_t> QVNetlinkReachabilityTarget::flags() {
  std::lock_guard lock(flagsMutex_);
  if (!watch_->isOpen()) return netlinkReachabilityFlags(destination_);
  if (announced(*watch_)) {
    watch_->drain();
    lastFlags_.reset();
  }
  // A failed read is not kept: the next call asks again.
  if (!lastFlags_) lastFlags_ = netlinkReachabilityFlags(destination_);
  return lastFlags_;
}

bool QVNetlinkReachabilityTarget::schedule(QVRunLoop& loop, Changed changed) {
  if (!changed) return false;
  auto subscription = std::make_shared<Subscription>(destination_, loop, std::move(changed));
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
