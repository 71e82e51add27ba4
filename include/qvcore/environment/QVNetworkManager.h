#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVNotification.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

class QVReachability;

// Posted on the default centre, with no sender, each time the manager's
// status changes. User info: kKeyVQNetworkStatus, the new status (an unsigned
// number); kKeyQVConnectionType, the new status name ("ReachableViaWiFi"), not
// the connection type.
inline constexpr char kQVEnvironmentalServiceDidPostNetworkChangeNotification[] =
    "kQVEnvironmentalServiceDidPostNetworkChangeNotification";
inline constexpr char kKeyVQNetworkStatus[] = "keyVQNetworkStatus";
inline constexpr char kKeyQVConnectionType[] = "keyQVConnectionType";

// Follows the device's way to the internet: one QVReachability for the
// internet at large, turned into a status (0 not yet known, 1 not reachable,
// 2 Wi-Fi, 3 cellular), a status name and a connection type ("Wifi", "WWAN",
// "2G", "3G", "4G", "N/A"). Changes are evaluated on the thread whose run
// loop started the monitoring (the main thread in practice). Every operation
// is safe from any thread.
class QV_EXPORT QVNetworkManager : public std::enable_shared_from_this<QVNetworkManager> {
 public:
  // The one manager. Never destroyed.
  static std::shared_ptr<QVNetworkManager> sharedInstance();

  // Observes reachability changes, starts a notifier for the internet on the
  // calling thread's run loop and, one second later on the main run loop,
  // evaluates the network once. False when monitoring is already on; false
  // too when the notifier cannot start, and if the monitor could be made it
  // stays, so that starting again is refused until a stop.
  bool startNetworkMonitoring();
  // Stops and drops the monitor; true when there was none. The status, name
  // and type keep their last values, and the observation stays until the
  // next start adds another.
  bool stopNetworkMonitoring();

  uint64_t currentNetworkStatus() const;
  // "UNKNOWN" until the first change, then a name of stringForNetworkStatus.
  std::string currentNetworkReachabilityName() const;
  // "N/A" until the first evaluation.
  std::string currentConnectionType() const;

  // The name of a reachability status (QVReachability's numbering, one less
  // than the manager's): "NotReachable", "ReachableViaWiFi",
  // "ReachableViaWWAN", anything else "UNKNOWN".
  static std::string stringForNetworkStatus(int64_t status);

  // Whether monitoring is on and the internet is reachable over Wi-Fi, as
  // the source last published it: the posting gate reads this on every post,
  // so it makes no system call and takes no lock. The monitor's
  // awaitPublished() tells when a change the kernel reported is in it.
  bool isConnectedViaWifi() const;

  // Evaluates the network: sets the connection type, and on a change of
  // status the status and its name, and posts the network-change
  // notification. notification is the reachability change that prompted it,
  // null for the first evaluation; it is not looked at. Makes a monitor,
  // without starting it, when there is none.
  void reachabilityChanged(const QVNotification* notification);

  // Posts name on the default centre, with no sender and data as user info.
  void postNotificationWithDataForNotificationName(const QVValue& data, const std::string& name);

  // The monitor; null while monitoring is off.
  std::shared_ptr<QVReachability> networkMonitor() const;

  QVNetworkManager(const QVNetworkManager&) = delete;
  QVNetworkManager& operator=(const QVNetworkManager&) = delete;
  ~QVNetworkManager();

 private:
  QVNetworkManager();

  // Private state lives behind the pointer, so that it can change without
  // changing this class's layout.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
