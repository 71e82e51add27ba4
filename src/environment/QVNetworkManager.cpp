#include "qvcore/environment/QVNetworkManager.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string_view>

#include "platform/runloop/QVPublished.h"
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

struct QVNetworkManager::Impl {
  // Read on every post, through each thread's copy.
  QVPublished<QVReachability> monitor;

  // The status is read without a lock; it changes only together with the
  // name, under statusMutex, so that a change is posted once.
  std::atomic<uint64_t> currentNetStatus{0};
  mutable std::mutex statusMutex;
  std::string currentNetworkReachName = "UNKNOWN";  // guarded by statusMutex
  std::string currentConnectType = "N/A";           // guarded by statusMutex

  void setConnectType(std::string type) {
    std::lock_guard lock(statusMutex);
    currentConnectType = std::move(type);
  }
};

QVNetworkManager::QVNetworkManager() : impl_(std::make_unique<Impl>()) {}
QVNetworkManager::~QVNetworkManager() = default;

std::shared_ptr<QVNetworkManager> QVNetworkManager::sharedInstance() {
  // Never destroyed: the delayed evaluation and observers may reach it while
  // the process exits.
  static auto* instance = new std::shared_ptr<QVNetworkManager>(new QVNetworkManager);
  return *instance;
}

bool QVNetworkManager::startNetworkMonitoring() {
  std::weak_ptr<QVNetworkManager> weak = weak_from_this();
  bool refused = false;
  bool ok = false;
  impl_->monitor.update([&](const std::shared_ptr<QVReachability>& current) {
    refused = current != nullptr;
    if (refused) return current;
    QVNotificationCenter::defaultCenter().addObserver(this, kQVReachabilityChangedNotification,
                                                      nullptr,
                                                      [weak](const QVNotification& notification) {
                                                        if (auto self = weak.lock())
                                                          self->reachabilityChanged(&notification);
                                                      });
    auto monitor = QVReachability::reachabilityForInternetConnection();
    ok = monitor && monitor->startNotifier();
    return monitor;
  });
  if (refused) return false;
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
  bool stopped = true;
  // The monitor dropped goes outside the lock: its destructor stops its
  // notifier.
  impl_->monitor.update([&stopped](const std::shared_ptr<QVReachability>& current) {
    if (current) stopped = current->stopNotifier();
    return std::shared_ptr<QVReachability>();
  });
  return stopped;
}

uint64_t QVNetworkManager::currentNetworkStatus() const { return impl_->currentNetStatus.load(); }

std::string QVNetworkManager::currentNetworkReachabilityName() const {
  std::lock_guard lock(impl_->statusMutex);
  return impl_->currentNetworkReachName;
}

std::string QVNetworkManager::currentConnectionType() const {
  std::lock_guard lock(impl_->statusMutex);
  return impl_->currentConnectType;
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

// The gate asks for Wi-Fi on every post: each thread reads the monitor from
// its own copy, so that posting threads share neither the lock nor the
// monitor's reference count.
bool QVNetworkManager::isConnectedViaWifi() const {
  const QVReachability* monitor = impl_->monitor.ofThread();
  return monitor && monitor->publishedReachabilityStatus() == QVReachability::ReachableViaWiFi;
}

std::shared_ptr<QVReachability> QVNetworkManager::networkMonitor() const {
  return impl_->monitor.current();
}

void QVNetworkManager::reachabilityChanged(const QVNotification*) {
  const auto monitor = impl_->monitor.update([](const std::shared_ptr<QVReachability>& current) {
    return current ? current : QVReachability::reachabilityForInternetConnection();
  });
  const int64_t status =
      monitor ? monitor->currentReachabilityStatus() : QVReachability::NotReachable;
  uint64_t managerStatus = 1;
  if (status == QVReachability::ReachableViaWiFi) {
    impl_->setConnectType("Wifi");
    managerStatus = 2;
  } else if (status == QVReachability::ReachableViaWWAN) {
    impl_->setConnectType(cellularConnectionType());
    managerStatus = 3;
  } else {
    impl_->setConnectType("N/A");
  }
  std::optional<QVValue> userInfo;
  {
    std::lock_guard lock(impl_->statusMutex);
    // An unchanged status posts nothing; the type above stays updated.
    if (managerStatus == impl_->currentNetStatus.load()) return;
    impl_->currentNetStatus.store(managerStatus);
    impl_->currentNetworkReachName = stringForNetworkStatus(status);
    userInfo = QVValue::object({{kKeyVQNetworkStatus, managerStatus},
                                {kKeyQVConnectionType, impl_->currentNetworkReachName}});
  }
  postNotificationWithDataForNotificationName(
      *userInfo, kQVEnvironmentalServiceDidPostNetworkChangeNotification);
}

void QVNetworkManager::postNotificationWithDataForNotificationName(const QVValue& data,
                                                                   const std::string& name) {
  QVNotificationCenter::defaultCenter().post(name, nullptr, data);
}

}  // namespace qv
