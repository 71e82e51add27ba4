#include "qvcore/environment/QVOrientationManager.h"

#include <atomic>
#include <mutex>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVScreen.h"

namespace qv {

namespace {

struct DegreesRow {
  int64_t deviceOrientation;
  int64_t uiOrientation;
  int64_t degrees;
};

// The angles are part of what the payloads promise, listed pair by pair.
// They are irregular (device portrait under a landscape-right interface is 0
// for the device but -90 for the interface), so they stay data rather than a
// formula that would smooth them out. Each pair appears at most once.
constexpr DegreesRow kDeviceDegrees[] = {
    {0, 1, 0},   {1, 1, 0},   {1, 3, 0},   {2, 4, 0},   {3, 1, 90},  {3, 3, 90},  {4, 4, 90},
    {1, 4, 180}, {2, 1, 180}, {2, 3, 180}, {3, 4, -90}, {4, 1, -90}, {4, 3, -90},
};

constexpr DegreesRow kUIDegrees[] = {
    {1, 1, 0},   {4, 4, 0},   {3, 3, 0},   {3, 1, 90},  {1, 4, 90},  {2, 3, 90},
    {4, 3, 180}, {2, 1, 180}, {3, 4, 180}, {1, 3, -90}, {4, 1, -90}, {2, 4, -90},
};

template <std::size_t N>
int64_t degreesFor(const DegreesRow (&table)[N], int64_t deviceOrientation, int64_t uiOrientation) {
  for (const DegreesRow& row : table) {
    if (row.deviceOrientation == deviceOrientation && row.uiOrientation == uiOrientation) {
      return row.degrees;
    }
  }
  return 0;
}

// Unknown, face up and face down say nothing about which way the user looks.
bool saysNothingAboutTheView(int64_t deviceOrientation) {
  return deviceOrientation == 0 || deviceOrientation == 5 || deviceOrientation == 6;
}

}  // namespace

std::shared_ptr<QVOrientationManager> QVOrientationManager::initWithDelegate(
    std::weak_ptr<QVOrientationManagerDelegate> delegate) {
  std::shared_ptr<QVOrientationManager> manager(new QVOrientationManager(std::move(delegate)));
  manager->resetOrientationValues();
  return manager;
}

struct QVOrientationManager::Impl {
  explicit Impl(std::weak_ptr<QVOrientationManagerDelegate> delegate)
      : delegate_(std::move(delegate)) {}

  // The last device orientation accepted by orientationDidChange; 0 after a
  // reset.
  std::atomic<int64_t> previousOrientation_{0};
  std::atomic<bool> started_{false};
  mutable std::mutex delegateMutex_;
  std::weak_ptr<QVOrientationManagerDelegate> delegate_;
  std::atomic<int64_t> currentDeviceOrientation_{0};
  std::atomic<int64_t> currentUIOrientation_{0};
  std::atomic<int64_t> currentUIOrientationInDegrees_{0};
  std::atomic<int64_t> currentDeviceOrientationInDegrees_{0};
};

QVOrientationManager::QVOrientationManager(std::weak_ptr<QVOrientationManagerDelegate> delegate)
    : impl_(std::make_unique<Impl>(std::move(delegate))) {}

QVOrientationManager::~QVOrientationManager() {
  // The registration is keyed by this address; a later object at the same
  // address must not inherit it.
  QVNotificationCenter::defaultCenter().removeObserver(this);
}

std::weak_ptr<QVOrientationManagerDelegate> QVOrientationManager::delegate() const {
  std::lock_guard lock(impl_->delegateMutex_);
  return impl_->delegate_;
}

void QVOrientationManager::setDelegate(std::weak_ptr<QVOrientationManagerDelegate> delegate) {
  std::lock_guard lock(impl_->delegateMutex_);
  impl_->delegate_ = std::move(delegate);
}

bool QVOrientationManager::startMonitoringOrientationChanges() {
  QVDevice& device = QVDevice::currentDevice();
  if (!device.isGeneratingDeviceOrientationNotifications()) {
    device.beginGeneratingDeviceOrientationNotifications();
  }
  resetOrientationValues();
  startListeningToOrientationNotifications();
  impl_->started_.store(true);
  return true;
}

void QVOrientationManager::startListeningToOrientationNotifications() {
  QVNotificationCenter& center = QVNotificationCenter::defaultCenter();
  center.removeObserver(this, UIDeviceOrientationDidChangeNotification, nullptr);
  // The handler holds the manager only while it runs, so dropping the last
  // owner never races a notification in flight.
  center.addObserver(this, UIDeviceOrientationDidChangeNotification, nullptr,
                     [weak = weak_from_this()](const QVNotification&) {
                       if (auto self = weak.lock()) self->orientationDidChange();
                     });
}

bool QVOrientationManager::stopMonitoringOrientationChanges() {
  QVNotificationCenter::defaultCenter().removeObserver(
      this, UIDeviceOrientationDidChangeNotification, nullptr);
  impl_->started_.store(false);
  return true;
}

bool QVOrientationManager::orientationMonitoringRunning() const {
  return QVDevice::currentDevice().isGeneratingDeviceOrientationNotifications() &&
         impl_->started_.load();
}

void QVOrientationManager::resetOrientationValues() {
  storeReadings(QVDevice::currentDevice().orientation(),
                QVApplication::sharedApplication().statusBarOrientation());
  impl_->previousOrientation_.store(0);
}

void QVOrientationManager::orientationDidChange() {
  if (QVConfigService::sharedInstance()->turnOffCorrectOrientationUpdates()) return;
  const int64_t orientation = QVDevice::currentDevice().orientation();
  if (orientation == impl_->previousOrientation_.load()) return;
  // Not remembered either: turning back after lying flat is no change.
  if (saysNothingAboutTheView(orientation)) return;
  impl_->previousOrientation_.store(orientation);
  storeReadings(orientation, QVApplication::sharedApplication().statusBarOrientation());
  notifyDeviceOrienationChanged(impl_->currentDeviceOrientation_.load());
}

void QVOrientationManager::notifyDeviceOrienationChanged(int64_t deviceOrientation) {
  if (std::shared_ptr<QVOrientationManagerDelegate> delegate = this->delegate().lock()) {
    delegate->qvOrientationChanged(deviceOrientation);
  }
}

std::string QVOrientationManager::getOrientationName(int64_t deviceOrientation) {
  switch (deviceOrientation) {
    case 1:
    case 2:
      return "PORTRAIT";
    case 3:
    case 4:
      return "LANDSCAPE";
    case 5:
    case 6:
      return "FLAT";
    default:
      return "UNKNOWN";
  }
}

std::pair<double, double> QVOrientationManager::currentScreenDimensions() const {
  std::shared_ptr<QVScreen> screen = QVScreen::mainScreen();
  if (!screen) return {0.0, 0.0};
  const QVRect bounds = screen->bounds();
  return {bounds.width, bounds.height};
}

int64_t QVOrientationManager::getAdjustedDeviceOrientationAndUIOrientation(
    int64_t deviceOrientation, int64_t uiOrientation) {
  return degreesFor(kDeviceDegrees, deviceOrientation, uiOrientation);
}

int64_t QVOrientationManager::getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(
    int64_t deviceOrientation, int64_t uiOrientation) {
  return degreesFor(kUIDegrees, deviceOrientation, uiOrientation);
}

int64_t QVOrientationManager::currentDeviceOrientation() const {
  return impl_->currentDeviceOrientation_.load();
}

int64_t QVOrientationManager::currentUIOrientation() const {
  return impl_->currentUIOrientation_.load();
}

int64_t QVOrientationManager::currentDeviceOrientationInDegrees() const {
  return impl_->currentDeviceOrientationInDegrees_.load();
}

int64_t QVOrientationManager::currentUIOrientationInDegrees() const {
  return impl_->currentUIOrientationInDegrees_.load();
}

void QVOrientationManager::storeReadings(int64_t deviceOrientation, int64_t uiOrientation) {
  impl_->currentDeviceOrientation_.store(deviceOrientation);
  impl_->currentUIOrientation_.store(uiOrientation);
  impl_->currentDeviceOrientationInDegrees_.store(
      getAdjustedDeviceOrientationAndUIOrientation(deviceOrientation, uiOrientation));
  impl_->currentUIOrientationInDegrees_.store(
      getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(deviceOrientation,
                                                                   uiOrientation));
}

}  // namespace qv
