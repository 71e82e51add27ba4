#include "qvcore/platform/QVDevice.h"

#include <atomic>
#include <mutex>

#include "platform/host/QVLinuxSystem.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

namespace {

constexpr int64_t kLastDeviceOrientation = 6;  // face down

std::string orDefault(const std::string& hostValue, const std::string& linuxValue) {
  return hostValue.empty() ? linuxValue : hostValue;
}

}  // namespace

struct QVDevice::Impl {
  std::atomic<int64_t> orientation_{0};
  std::atomic<int64_t> generatingNotifications_{0};
  std::atomic<float> batteryLevel_{-1.0f};
  std::atomic<uint64_t> physicalMemory_{0};
  std::atomic<uint64_t> userMemory_{0};

  // Guards the host's texts below.
  mutable std::mutex mutex_;
  std::string systemName_;
  std::string systemVersion_;
  std::string model_;
  std::vector<std::string> preferredLanguages_;
};

QVDevice::QVDevice() : impl_(std::make_unique<Impl>()) {}

QVDevice::~QVDevice() = default;

QVDevice& QVDevice::currentDevice() {
  // Never destroyed: tasks still queued on the main loop refer to it.
  static auto* device = new QVDevice;
  return *device;
}

int64_t QVDevice::orientation() const { return impl_->orientation_.load(); }

void QVDevice::setOrientation(int64_t orientation) {
  const bool known = orientation >= 0 && orientation <= kLastDeviceOrientation;
  impl_->orientation_.store(known ? orientation : 0);
  if (isGeneratingDeviceOrientationNotifications()) postOrientationDidChange();
}

void QVDevice::postOrientationDidChange() {
  // Observers expect orientation events on the main thread, whichever thread
  // the host reports from.
  QVRunLoop::main().post([this] {
    QVNotificationCenter::defaultCenter().post(UIDeviceOrientationDidChangeNotification, this);
  });
}

bool QVDevice::isGeneratingDeviceOrientationNotifications() const {
  return impl_->generatingNotifications_.load() > 0;
}

void QVDevice::beginGeneratingDeviceOrientationNotifications() {
  ++impl_->generatingNotifications_;
}

void QVDevice::endGeneratingDeviceOrientationNotifications() {
  // An unmatched end is ignored rather than owed by the next begin.
  int64_t count = impl_->generatingNotifications_.load();
  while (count > 0 && !impl_->generatingNotifications_.compare_exchange_weak(count, count - 1)) {
  }
}

std::string QVDevice::systemName() const {
  std::lock_guard lock(impl_->mutex_);
  return orDefault(impl_->systemName_, orDefault(QVLinuxSystem::uname().sysname, "Linux"));
}

void QVDevice::setSystemName(std::string name) {
  std::lock_guard lock(impl_->mutex_);
  impl_->systemName_ = std::move(name);
}

std::string QVDevice::systemVersion() const {
  std::lock_guard lock(impl_->mutex_);
  return orDefault(impl_->systemVersion_, QVLinuxSystem::uname().release);
}

void QVDevice::setSystemVersion(std::string version) {
  std::lock_guard lock(impl_->mutex_);
  impl_->systemVersion_ = std::move(version);
}

std::string QVDevice::model() const {
  {
    std::lock_guard lock(impl_->mutex_);
    if (!impl_->model_.empty()) return impl_->model_;
  }
  // Read once: the board does not change, and /sys may be slow to answer.
  static const std::string linuxModel =
      orDefault(QVLinuxSystem::hardwareModel(), QVLinuxSystem::uname().machine);
  return linuxModel;
}

void QVDevice::setModel(std::string model) {
  std::lock_guard lock(impl_->mutex_);
  impl_->model_ = std::move(model);
}

float QVDevice::batteryLevel() const { return impl_->batteryLevel_.load(); }

void QVDevice::setBatteryLevel(float level) { impl_->batteryLevel_.store(level); }

std::vector<std::string> QVDevice::preferredLanguages() const {
  {
    std::lock_guard lock(impl_->mutex_);
    if (!impl_->preferredLanguages_.empty()) return impl_->preferredLanguages_;
  }
  // Read on every call: it is cheap, and a change the host makes to the
  // environment shows at once.
  return QVLinuxSystem::languagesFromEnvironment();
}

void QVDevice::setPreferredLanguages(std::vector<std::string> languages) {
  std::lock_guard lock(impl_->mutex_);
  impl_->preferredLanguages_ = std::move(languages);
}

uint64_t QVDevice::physicalMemory() const {
  if (uint64_t bytes = impl_->physicalMemory_.load()) return bytes;
  static const uint64_t linuxBytes = QVLinuxSystem::physicalMemory();
  return linuxBytes;
}

void QVDevice::setPhysicalMemory(uint64_t bytes) { impl_->physicalMemory_.store(bytes); }

uint64_t QVDevice::userMemory() const {
  if (uint64_t bytes = impl_->userMemory_.load()) return bytes;
  return QVLinuxSystem::availableMemory();
}

void QVDevice::setUserMemory(uint64_t bytes) { impl_->userMemory_.store(bytes); }

}  // namespace qv
