#include "qvcore/platform/QVDevice.h"

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

QVDevice& QVDevice::currentDevice() {
  // Never destroyed: tasks still queued on the main loop refer to it.
  static auto* device = new QVDevice;
  return *device;
}

int64_t QVDevice::orientation() const { return orientation_.load(); }

void QVDevice::setOrientation(int64_t orientation) {
  const bool known = orientation >= 0 && orientation <= kLastDeviceOrientation;
  orientation_.store(known ? orientation : 0);
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
  return generatingNotifications_.load() > 0;
}

void QVDevice::beginGeneratingDeviceOrientationNotifications() { ++generatingNotifications_; }

void QVDevice::endGeneratingDeviceOrientationNotifications() {
  // An unmatched end is ignored rather than owed by the next begin.
  int64_t count = generatingNotifications_.load();
  while (count > 0 && !generatingNotifications_.compare_exchange_weak(count, count - 1)) {
  }
}

std::string QVDevice::systemName() const {
  std::lock_guard lock(mutex_);
  return orDefault(systemName_, orDefault(QVLinuxSystem::uname().sysname, "Linux"));
}

void QVDevice::setSystemName(std::string name) {
  std::lock_guard lock(mutex_);
  systemName_ = std::move(name);
}

std::string QVDevice::systemVersion() const {
  std::lock_guard lock(mutex_);
  return orDefault(systemVersion_, QVLinuxSystem::uname().release);
}

void QVDevice::setSystemVersion(std::string version) {
  std::lock_guard lock(mutex_);
  systemVersion_ = std::move(version);
}

std::string QVDevice::model() const {
  {
    std::lock_guard lock(mutex_);
    if (!model_.empty()) return model_;
  }
  // Read once: the board does not change, and /sys may be slow to answer.
  static const std::string linuxModel =
      orDefault(QVLinuxSystem::hardwareModel(), QVLinuxSystem::uname().machine);
  return linuxModel;
}

void QVDevice::setModel(std::string model) {
  std::lock_guard lock(mutex_);
  model_ = std::move(model);
}

float QVDevice::batteryLevel() const { return batteryLevel_.load(); }

void QVDevice::setBatteryLevel(float level) { batteryLevel_.store(level); }

std::vector<std::string> QVDevice::preferredLanguages() const {
  {
    std::lock_guard lock(mutex_);
    if (!preferredLanguages_.empty()) return preferredLanguages_;
  }
  // Read on every call: it is cheap, and a change the host makes to the
  // environment shows at once.
  return QVLinuxSystem::languagesFromEnvironment();
}

void QVDevice::setPreferredLanguages(std::vector<std::string> languages) {
  std::lock_guard lock(mutex_);
  preferredLanguages_ = std::move(languages);
}

uint64_t QVDevice::physicalMemory() const {
  if (uint64_t bytes = physicalMemory_.load()) return bytes;
  static const uint64_t linuxBytes = QVLinuxSystem::physicalMemory();
  return linuxBytes;
}

void QVDevice::setPhysicalMemory(uint64_t bytes) { physicalMemory_.store(bytes); }

uint64_t QVDevice::userMemory() const {
  if (uint64_t bytes = userMemory_.load()) return bytes;
  return QVLinuxSystem::availableMemory();
}

void QVDevice::setUserMemory(uint64_t bytes) { userMemory_.store(bytes); }

}  // namespace qv
