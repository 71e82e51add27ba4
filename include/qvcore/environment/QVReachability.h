#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVReachabilityFlags.h"

namespace qv {

class QVReachabilityTarget;

// "kQVNetworkReachabilityChangedNotification": posted on the default centre
// each time a started QVReachability hears that its flags changed. The sender
// is the QVReachability; the notification's object holds it as a
// std::shared_ptr<QVReachability>. No user info.
extern QV_EXPORT const char* const kQVReachabilityChangedNotification;

// Whether one target (an address, a host name, the internet, the local
// Wi-Fi network) can be reached, and over what, from the flags of a target
// made by QVReachabilitySource::shared(). Every operation is safe from any
// thread.
class QV_EXPORT QVReachability : public std::enable_shared_from_this<QVReachability> {
 public:
  enum NetworkStatus : int64_t { NotReachable = 0, ReachableViaWiFi = 1, ReachableViaWWAN = 2 };

  // Null when the source cannot make the target.
  static std::shared_ptr<QVReachability> reachabilityWithHostName(const std::string& hostName);
  static std::shared_ptr<QVReachability> reachabilityWithAddress(const sockaddr* hostAddress);
  // The IPv4 address 0.0.0.0, which stands for the internet.
  static std::shared_ptr<QVReachability> reachabilityForInternetConnection();
  // The link-local network 169.254.0.0; its status is localWiFiStatusForFlags.
  static std::shared_ptr<QVReachability> reachabilityForLocalWiFi();

  // Stops the notifier.
  ~QVReachability();
  QVReachability(const QVReachability&) = delete;
  QVReachability& operator=(const QVReachability&) = delete;

  // Posts kQVReachabilityChangedNotification on every change, on the calling
  // thread's run loop (QVRunLoop::current()), until stopNotifier. The loop
  // does not keep this object alive; a change heard after it is gone posts
  // nothing. False when the target cannot be watched.
  bool startNotifier();
  // Whether the notifier is off now (it is when it never started).
  bool stopNotifier();

  // ReachableViaWiFi when the flags say Reachable and IsDirect, else
  // NotReachable.
  static NetworkStatus localWiFiStatusForFlags(uint32_t flags);
  static NetworkStatus networkStatusForFlags(uint32_t flags);

  // Whether the flags can be read and say ConnectionRequired.
  bool connectionRequired() const;
  // NotReachable when the flags cannot be read.
  NetworkStatus currentReachabilityStatus() const;
  // The same from the flags the source last published (see
  // QVReachabilityTarget::publishedFlags): what the core's gate reads on
  // every post, with no system call.
  NetworkStatus publishedReachabilityStatus() const;
  // Waits until every change the source had been told of before this call
  // shows in publishedReachabilityStatus(); false when that did not happen
  // within patience.
  bool awaitPublished(std::chrono::milliseconds patience) const;

 private:
  explicit QVReachability(std::unique_ptr<QVReachabilityTarget> target);

  static std::shared_ptr<QVReachability> withTarget(std::unique_ptr<QVReachabilityTarget> target);
  NetworkStatus statusForFlags(std::optional<uint32_t> flags) const;

  const std::unique_ptr<QVReachabilityTarget> reachabilityRef_;
  // Set before the object is handed out, never changed afterwards.
  bool alwaysReturnLocalWiFiStatus_ = false;
};

}  // namespace qv
