#include "qvcore/environment/QVReachability.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVReachabilitySource.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

const char* const kQVReachabilityChangedNotification = "kQVNetworkReachabilityChangedNotification";

namespace {

// What a started target calls on every change. The flags are not passed on:
// observers read them anew. The weak reference keeps the registration from
// holding the object alive.
void ReachabilityCallback(const std::weak_ptr<QVReachability>& info) {
  const auto reachability = info.lock();
  if (!reachability) return;
  QVNotification notification;
  notification.name = kQVReachabilityChangedNotification;
  notification.sender = reachability.get();
  notification.object = reachability;
  QVNotificationCenter::defaultCenter().post(notification);
}

sockaddr_in ipv4Address(in_addr_t hostOrderAddress) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(hostOrderAddress);
  return address;
}

}  // namespace

QVReachability::QVReachability(std::unique_ptr<QVReachabilityTarget> target)
    : reachabilityRef_(std::move(target)) {}

QVReachability::~QVReachability() { stopNotifier(); }

std::shared_ptr<QVReachability> QVReachability::withTarget(
    std::unique_ptr<QVReachabilityTarget> target) {
  if (!target) return nullptr;
  return std::shared_ptr<QVReachability>(new QVReachability(std::move(target)));
}

std::shared_ptr<QVReachability> QVReachability::reachabilityWithHostName(
    const std::string& hostName) {
  return withTarget(QVReachabilitySource::shared()->targetWithHostName(hostName));
}

std::shared_ptr<QVReachability> QVReachability::reachabilityWithAddress(
    const sockaddr* hostAddress) {
  return withTarget(QVReachabilitySource::shared()->targetWithAddress(hostAddress));
}

std::shared_ptr<QVReachability> QVReachability::reachabilityForInternetConnection() {
  const sockaddr_in zero = ipv4Address(INADDR_ANY);
  return reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&zero));
}

std::shared_ptr<QVReachability> QVReachability::reachabilityForLocalWiFi() {
  const sockaddr_in linkLocal = ipv4Address(0xA9FE0000);  // 169.254.0.0
  auto reachability = reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&linkLocal));
  if (reachability) reachability->alwaysReturnLocalWiFiStatus_ = true;
  return reachability;
}

bool QVReachability::startNotifier() {
  std::weak_ptr<QVReachability> info = weak_from_this();
  return reachabilityRef_->schedule(QVRunLoop::current(), [info] { ReachabilityCallback(info); });
}

bool QVReachability::stopNotifier() {
  if (!reachabilityRef_) return true;
  return reachabilityRef_->unschedule();
}

QVReachability::NetworkStatus QVReachability::localWiFiStatusForFlags(uint32_t flags) {
  const uint32_t needed = kQVReachabilityFlagsReachable | kQVReachabilityFlagsIsDirect;
  return (flags & needed) == needed ? ReachableViaWiFi : NotReachable;
}

QVReachability::NetworkStatus QVReachability::networkStatusForFlags(uint32_t flags) {
  if ((flags & kQVReachabilityFlagsReachable) == 0) return NotReachable;
  if (flags & kQVReachabilityFlagsIsWWAN) return ReachableViaWWAN;
  const bool onDemandOrTraffic =
      flags & (kQVReachabilityFlagsConnectionOnTraffic | kQVReachabilityFlagsConnectionOnDemand);
  // A connection made on demand, with no user to ask, counts as Wi-Fi.
  if (onDemandOrTraffic && (flags & kQVReachabilityFlagsInterventionRequired) == 0) {
    return ReachableViaWiFi;
  }
  return (flags & kQVReachabilityFlagsConnectionRequired) ? NotReachable : ReachableViaWiFi;
}

bool QVReachability::connectionRequired() const {
  const auto flags = reachabilityRef_->flags();
  return flags && (*flags & kQVReachabilityFlagsConnectionRequired);
}

QVReachability::NetworkStatus QVReachability::currentReachabilityStatus() const {
  return statusForFlags(reachabilityRef_->flags());
}

QVReachability::NetworkStatus QVReachability::publishedReachabilityStatus() const {
  return statusForFlags(reachabilityRef_->publishedFlags());
}

bool QVReachability::awaitPublished(std::chrono::milliseconds patience) const {
  return reachabilityRef_->awaitPublished(patience);
}

QVReachability::NetworkStatus QVReachability::statusForFlags(std::optional<uint32_t> flags) const {
  if (!flags) return NotReachable;
  return alwaysReturnLocalWiFiStatus_ ? localWiFiStatusForFlags(*flags)
                                      : networkStatusForFlags(*flags);
}

}  // namespace qv
