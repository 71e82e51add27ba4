#include "qvcore/environment/QVNetworkManager.h"

#include <chrono>
#include <optional>
#include <string_view>

#include "qvcore/environment/QVReachability.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVReachabilitySource.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {
namespace {

// The first evaluation waits this long, so that the platform has settled
// the flags it reports right after a notifier starts.
constexpr std::chrono::seconds kFirstEvaluationDelay{1};

struct RadioType {
  std::string_view technology;
  const char* type;
};

constexpr RadioType kRadioTypes[] = {
    {"CTRadioAccessTechnologyGPRS", "2G"},         {"CTRadioAccessTechnologyEdge", "2G"},
    {"CTRadioAccessTechnologyCDMA1x", "2G"},       {"CTRadioAccessTechnologyWCDMA", "3G"},
    {"CTRadioAccessTechnologyHSDPA", "3G"},        {"CTRadioAccessTechnologyHSUPA", "3G"},
    {"CTRadioAccessTechnologyCDMAEVDORev0", "3G"}, {"CTRadioAccessTechnologyCDMAEVDORevA", "3G"},
    {"CTRadioAccessTechnologyCDMAEVDORevB", "3G"}, {"CTRadioAccessTechnologyeHRPD", "3G"},
    {"CTRadioAccessTechnologyLTE", "4G"},
};

// "WWAN" refined by the radio in use; a radio outside the table leaves it.
std::string cellularConnectionType() {
  const auto technology = QVReachabilitySource::shared()->currentRadioAccessTechnology();
  if (technology) {
    for (const auto& row : kRadioTypes) {
      if (row.technology == *technology) return row.type;
    }
  }
  return "WWAN";
}

}  // namespace

std::shared_ptr<QVNetworkManager> QVNetworkManager::sharedInstance() {
  // Never destroyed: the delayed evaluation and observers may reach it while
  // the process exits.
  static auto* instance = new std::shared_ptr<QVNetworkManager>(new QVNetworkManager);
  return *instance;
}

bool QVNetworkManager::startNetworkMonitoring() {
  std::weak_ptr<QVNetworkManager> weak = weak_from_this();
  bool ok = false;
  {
    std::lock_guard lock(monitorMutex_);
    if (networkMonitor_) return false;
    QVNotificationCenter::defaultCenter().addObserver(this, kQVReachabilityChangedNotification,
                                                      nullptr,
                                                      [weak](const QVNotification& notification) {
                                                        if (auto self = weak.lock())
                                                          self->reachabilityChanged(&notification);
                                                      });
    networkMonitor_ = QVReachability::reachabilityForInternetConnection();
    monitorGeneration_.fetch_add(1, std::memory_order_release);
    ok = networkMonitor_ && networkMonitor_->startNotifier();
  }
  if (ok) {
    QVRunLoop::main().postAfter(
        kFirstEvaluationDelay, [self = shared_from_this()] { self->reachabilityChanged(nullptr); });
  } else {
    // Outside the lock: removal waits for calls under way, which take it.
    QVNotificationCenter::defaultCenter().removeObserver(this, kQVReachabilityChangedNotification,
                                                         nullptr);
  }
  return ok;
}

bool QVNetworkManager::stopNetworkMonitoring() {
  std::lock_guard lock(monitorMutex_);
  if (!networkMonitor_) return true;
  const bool stopped = networkMonitor_->stopNotifier();
  networkMonitor_.reset();
  monitorGeneration_.fetch_add(1, std::memory_order_release);
  return stopped;
}

uint64_t QVNetworkManager::currentNetworkStatus() const { return currentNetStatus_.load(); }

std::string QVNetworkManager::currentNetworkReachabilityName() const {
  std::lock_guard lock(statusMutex_);
  return currentNetworkReachName_;
}

std::string QVNetworkManager::currentConnectionType() const {
  std::lock_guard lock(statusMutex_);
  return currentConnectType_;
}

std::string QVNetworkManager::stringForNetworkStatus(int64_t status) {
  switch (status) {
    case QVReachability::NotReachable:
      return "NotReachable";
    case QVReachability::ReachableViaWiFi:
      return "ReachableViaWiFi";
    case QVReachability::ReachableViaWWAN:
      return "ReachableViaWWAN";
    default:
      return "UNKNOWN";
  }
}

bool QVNetworkManager::isConnectedViaWifi() const {
  const QVReachability* monitor = monitorOfThread();
  return monitor && monitor->publishedReachabilityStatus() == QVReachability::ReachableViaWiFi;
}

// The gate asks for Wi-Fi on every post: each thread keeps the monitor it
// read last and takes the lock only when the generation moved, so that
// posting threads share neither the lock nor the monitor's reference count.
// The pointer is valid until the thread reads again.
const QVReachability* QVNetworkManager::monitorOfThread() const {
  struct Seen {
    const QVNetworkManager* manager = nullptr;
    uint64_t generation = 0;
    std::shared_ptr<QVReachability> monitor;
  };
  thread_local Seen seen;
  const uint64_t now = monitorGeneration_.load(std::memory_order_acquire);
  if (seen.manager != this || seen.generation != now) {
    std::shared_ptr<QVReachability> current;
    {
      std::lock_guard lock(monitorMutex_);
      current = networkMonitor_;
      seen.generation = monitorGeneration_.load(std::memory_order_relaxed);
    }
    seen.manager = this;
    // The monitor replaced is let go outside the lock: its destructor stops
    // its notifier.
    seen.monitor.swap(current);
  }
  return seen.monitor.get();
}

std::shared_ptr<QVReachability> QVNetworkManager::networkMonitor() const {
  std::lock_guard lock(monitorMutex_);
  return networkMonitor_;
}

std::shared_ptr<QVReachability> QVNetworkManager::monitorMadeIfMissing() {
  std::lock_guard lock(monitorMutex_);
  if (!networkMonitor_) {
    networkMonitor_ = QVReachability::reachabilityForInternetConnection();
    monitorGeneration_.fetch_add(1, std::memory_order_release);
  }
  return networkMonitor_;
}

void QVNetworkManager::setConnectType(std::string type) {
  std::lock_guard lock(statusMutex_);
  currentConnectType_ = std::move(type);
}

void QVNetworkManager::reachabilityChanged(const QVNotification*) {
  const auto monitor = monitorMadeIfMissing();
  const int64_t status =
      monitor ? monitor->currentReachabilityStatus() : QVReachability::NotReachable;
  uint64_t managerStatus = 1;
  if (status == QVReachability::ReachableViaWiFi) {
    setConnectType("Wifi");
    managerStatus = 2;
  } else if (status == QVReachability::ReachableViaWWAN) {
    setConnectType(cellularConnectionType());
    managerStatus = 3;
  } else {
    setConnectType("N/A");
  }
  std::optional<QVValue> userInfo;
  {
    std::lock_guard lock(statusMutex_);
    // An unchanged status posts nothing; the type above stays updated.
    if (managerStatus == currentNetStatus_.load()) return;
    currentNetStatus_.store(managerStatus);
    currentNetworkReachName_ = stringForNetworkStatus(status);
    userInfo = QVValue::object(
        {{kKeyVQNetworkStatus, managerStatus}, {kKeyQVConnectionType, currentNetworkReachName_}});
  }
  postNotificationWithDataForNotificationName(
      *userInfo, kQVEnvironmentalServiceDidPostNetworkChangeNotification);
}

void QVNetworkManager::postNotificationWithDataForNotificationName(const QVValue& data,
                                                                   const std::string& name) {
  QVNotificationCenter::defaultCenter().post(name, nullptr, data);
}

}  // namespace qv
