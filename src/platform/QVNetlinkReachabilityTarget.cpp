#include "platform/QVNetlinkReachabilityTarget.h"

#include <linux/rtnetlink.h>

#include <utility>

#include "platform/QVNetlinkSocket.h"

namespace qv {
namespace {

constexpr uint32_t kWatchedGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

}  // namespace

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
    : destination_(destination) {}

QVNetlinkReachabilityTarget::~QVNetlinkReachabilityTarget() { unschedule(); }

std::optional<uint32_t> QVNetlinkReachabilityTarget::flags() {
  return netlinkReachabilityFlags(destination_);
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
