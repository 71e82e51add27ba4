#include "qvcore/environment/QVEnvironmentalSerivce.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "environment/QVEnvironmentalSerivceImpl.h"
#include "platform/host/QVSwallowed.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVApplicationLifecycleManager.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/environment/QVOrientationManager.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVDigest.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVUUID.h"
#include "qvcore/platform/QVUserDefaults.h"

namespace qv {

namespace {

const char* const kDeviceIDChangeNotification =
    "kBRVApplicationHelperDidPostDeviceIDChangeNotification";
const char* const kDeviceIDKey = "keyBRVDeviceID";
const char* const kOrientationChangeNotification =
    "kQVEnvironmentalServiceDidPostOrientationChangeNotification";
const char* const kUDIDKey = "Brevant.UDID";

// Second-level hardware names of the memory figures.
constexpr uint32_t kPhysicalMemory = 5;
constexpr uint32_t kUserMemory = 6;

std::optional<std::string> infoString(const char* key) {
  const QVValue info = QVBundle::mainBundle()->infoDictionary();
  auto it = info.find(key);
  if (it == info.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

// The first match of "\d\.[^.]*": one digit, a dot, then everything up to the
// next dot. Only one digit is taken before the dot, by design.
std::string firstDigitDotRun(const std::string& version) {
  for (size_t i = 0; i + 1 < version.size(); ++i) {
    if (std::isdigit(static_cast<unsigned char>(version[i])) && version[i + 1] == '.') {
      const size_t end = version.find('.', i + 2);
      return version.substr(i, end == std::string::npos ? std::string::npos : end - i);
    }
  }
  return version;
}

std::optional<QVFileSystemAttributes> homeFileSystem() {
  return QVFileSystem::attributesOfFileSystemForPath(QVFileSystem::homeDirectory());
}

}  // namespace

std::shared_ptr<QVEnvironmentalSerivce> QVEnvironmentalSerivce::sharedInstance() {
  // Never destroyed: the core and the crash hook may reach it at exit.
  static auto* instance = [] {
    auto* service = new std::shared_ptr<QVEnvironmentalSerivce>(new QVEnvironmentalSerivce);
    // The orientation manager holds the service weakly, so it is made once
    // the service is owned by its shared pointer.
    (*service)->impl_->orientationManager = QVOrientationManager::initWithDelegate(
        std::weak_ptr<QVOrientationManagerDelegate>(*service));
    (*service)->impl_->networkManager = QVNetworkManager::sharedInstance();
    return service;
  }();
  return *instance;
}

QVEnvironmentalSerivce::QVEnvironmentalSerivce() : impl_(std::make_unique<Impl>()) {}

QVEnvironmentalSerivce::~QVEnvironmentalSerivce() { removeAsDeviceIDObserver(); }

namespace {

// The network manager refuses a second start while it holds a monitor, and
// it may still hold one here: after an earlier enable, after the core slept
// (which leaves this service running), or because its first evaluation,
// due a second after a start, ran after a stop and made one. A refused start
// would leave the core unable to enable again, so the monitor is stopped and
// started afresh.
bool restartMonitoringNetworkStatus(QVEnvironmentalSerivce& service) {
  service.stopMonitoringNetworkStatus();
  return service.startMonitoringNetworkStatus();
}

// Each start adds the lifecycle observations again; after two enables every
// event would flush twice and termination would save every queue twice, so
// its messages would be sent twice at the next start.
bool restartMonitoringApplicationChanges(QVEnvironmentalSerivce& service) {
  service.stopMonitoringApplicationChanges();
  return service.startMonitoringApplicationChanges();
}

}  // namespace

// Enabling again, from either state, rebuilds the monitoring rather than
// adding to it: the two functions above say why.
bool QVEnvironmentalSerivce::enable() {
  QVNotificationCenter::defaultCenter().removeObserver(this);
  bool enabled = restartMonitoringNetworkStatus(*this);
  if (enabled) enabled = startMonitoringOrientationChanges();
  if (enabled) enabled = restartMonitoringApplicationChanges(*this);
  impl_->enabled = enabled;
  impl_->sleepModeActive = false;
  if (enabled) addAsDeviceIDObserver();
  return enabled;
}

bool QVEnvironmentalSerivce::isEnabled() const { return impl_->enabled.load(); }

bool QVEnvironmentalSerivce::isSleepModeActive() const { return impl_->sleepModeActive.load(); }

bool QVEnvironmentalSerivce::disable() {
  const bool stopped = sleepSystem();
  impl_->enabled = !stopped;
  return stopped;
}

bool QVEnvironmentalSerivce::sleepSystem() {
  // Application monitoring stops only after the network monitor stopped;
  // orientation monitoring stops in every case.
  const bool stopped = stopMonitoringNetworkStatus() && stopMonitoringApplicationChanges();
  stopMonitoringOrientationChanges();
  impl_->sleepModeActive = true;
  removeAsDeviceIDObserver();
  return stopped;
}

// Device identity

std::string QVEnvironmentalSerivce::deviceID() {
  std::lock_guard lock(impl_->deviceIDMutex);
  if (auto id = currentDeviceID()) return *id;
  return generateDeviceId();
}

std::string QVEnvironmentalSerivce::generateDeviceId() {
  if (auto id = currentDeviceID()) return *id;
  // An absent part counts as empty text.
  std::string seed = generateUDID().value_or("") + infoString("CFBundleIdentifier").value_or("");
  seed = seed.substr(0, seed.find('\0'));
  std::string id = QVDigest::md5HexString(seed);
  setCurrentDeviceID(id);
  return id;
}

std::optional<std::string> QVEnvironmentalSerivce::generateUDID() {
  std::optional<std::string> udid;
  try {
    auto& defaults = QVUserDefaults::standardUserDefaults();
    if (auto stored = defaults.objectForKey(kUDIDKey); stored && stored->is_string()) {
      return stored->get<std::string>();
    }
    udid = QVUUID::randomUUIDString();
    defaults.setObjectForKey(*udid, kUDIDKey);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
  return udid;
}

void QVEnvironmentalSerivce::addAsDeviceIDObserver() {
  QVNotificationCenter::defaultCenter().addObserver(
      this, kDeviceIDChangeNotification, nullptr,
      [this](const QVNotification& n) { deviceIDChanged(n); });
}

void QVEnvironmentalSerivce::removeAsDeviceIDObserver() {
  QVNotificationCenter::defaultCenter().removeObserver(this, kDeviceIDChangeNotification, nullptr);
}

void QVEnvironmentalSerivce::deviceIDChanged(const QVNotification& notification) {
  if (!notification.userInfo || !notification.userInfo->is_object()) return;
  auto it = notification.userInfo->find(kDeviceIDKey);
  if (it == notification.userInfo->end() || !it->is_string()) return;
  auto id = it->get<std::string>();
  if (id.empty()) return;
  std::lock_guard lock(impl_->deviceIDMutex);
  setCurrentDeviceID(std::move(id));
}

std::optional<std::string> QVEnvironmentalSerivce::currentDeviceID() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->currentDeviceID;
}

void QVEnvironmentalSerivce::setCurrentDeviceID(std::optional<std::string> deviceID) {
  std::lock_guard lock(impl_->mutex);
  impl_->currentDeviceID = std::move(deviceID);
}

// Application facts

std::optional<std::string> QVEnvironmentalSerivce::appName() const {
  return infoString("CFBundleName");
}

std::optional<std::string> QVEnvironmentalSerivce::appVersion() const {
  return infoString("CFBundleVersion");
}

std::string QVEnvironmentalSerivce::appVersionMajorMinor() const {
  return firstDigitDotRun(appVersion().value_or(""));
}

uint64_t QVEnvironmentalSerivce::applicationState() const {
  const auto state = QVApplication::sharedApplication().applicationState();
  if (!state || *state < 0 || *state > 2) return 0;
  return static_cast<uint64_t>(*state) + 1;
}

// Storage, memory, battery

int64_t QVEnvironmentalSerivce::deviceTotalStorageCapacity() const {
  const auto attributes = homeFileSystem();
  return attributes ? static_cast<int64_t>(attributes->size) : 0;
}

int64_t QVEnvironmentalSerivce::deviceTotalStorageFreeCapacity() const {
  const auto attributes = homeFileSystem();
  return attributes ? static_cast<int64_t>(attributes->freeSize) : 0;
}

uint64_t QVEnvironmentalSerivce::deviceTotalMemory() const { return getSysInfo(kPhysicalMemory); }

uint64_t QVEnvironmentalSerivce::deviceUserMemory() const { return getSysInfo(kUserMemory); }

// The figure is read into four bytes, so sizes of 4 GiB and more wrap.
uint64_t QVEnvironmentalSerivce::getSysInfo(uint32_t typeSpecifier) {
  const auto& device = QVDevice::currentDevice();
  uint64_t value = 0;
  if (typeSpecifier == kPhysicalMemory) value = device.physicalMemory();
  if (typeSpecifier == kUserMemory) value = device.userMemory();
  return static_cast<uint32_t>(value);
}

// The platform's level is asked for and deliberately not used: consumers
// need the field, not its value.
float QVEnvironmentalSerivce::getCurrentBatteryLevel() const {
  (void)QVDevice::currentDevice().batteryLevel();
  return 100.0f;
}

// User agent and advertising identifier

std::string QVEnvironmentalSerivce::setUserAgentFromBrowser() {
  std::lock_guard lock(impl_->mutex);
  if (impl_->userAgentFromBrowser.empty()) {
    impl_->userAgentFromBrowser = QVApplication::sharedApplication().userAgent();
  }
  return impl_->userAgentFromBrowser;
}

std::string QVEnvironmentalSerivce::userAgentFromBrowser() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->userAgentFromBrowser;
}

void QVEnvironmentalSerivce::setUserAgentFromBrowser(std::string userAgent) {
  std::lock_guard lock(impl_->mutex);
  impl_->userAgentFromBrowser = std::move(userAgent);
}

bool QVEnvironmentalSerivce::setQVAdvertisingId(std::optional<std::string> advertisingId) {
  setVepAdvertisingIdFromCustomer(advertisingId ? std::move(advertisingId) : "N/A");
  return true;
}

std::optional<std::string> QVEnvironmentalSerivce::vepAdvertisingIdFromCustomer() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->vepAdvertisingIdFromCustomer;
}

void QVEnvironmentalSerivce::setVepAdvertisingIdFromCustomer(
    std::optional<std::string> advertisingId) {
  std::lock_guard lock(impl_->mutex);
  impl_->vepAdvertisingIdFromCustomer = std::move(advertisingId);
}

bool QVEnvironmentalSerivce::postNotificationForKeyValueName(const std::string& key,
                                                             const QVValue& value,
                                                             const std::string& name) {
  QVValue userInfo = QVValue::object();
  userInfo[key] = value;
  QVNotificationCenter::defaultCenter().post(name, nullptr, std::move(userInfo));
  return true;
}

// Orientation

bool QVEnvironmentalSerivce::startMonitoringOrientationChanges() {
  return impl_->orientationManager->startMonitoringOrientationChanges();
}

bool QVEnvironmentalSerivce::stopMonitoringOrientationChanges() {
  return impl_->orientationManager->stopMonitoringOrientationChanges();
}

int64_t QVEnvironmentalSerivce::currentUIOrientation() const {
  return impl_->orientationManager->currentUIOrientation();
}

int64_t QVEnvironmentalSerivce::currentUIOrientationInDegrees() const {
  return impl_->orientationManager->currentUIOrientationInDegrees();
}

int64_t QVEnvironmentalSerivce::currentDeviceOrientation() const {
  return impl_->orientationManager->currentDeviceOrientation();
}

int64_t QVEnvironmentalSerivce::currentDeviceOrientationInDegrees() const {
  return impl_->orientationManager->currentDeviceOrientationInDegrees();
}

std::pair<double, double> QVEnvironmentalSerivce::currentScreenDimensions() const {
  return impl_->orientationManager->currentScreenDimensions();
}

std::string QVEnvironmentalSerivce::currentOrientationName() const {
  return QVOrientationManager::getOrientationName(currentDeviceOrientation());
}

// With corrections turned off, the configured default orientation (in
// degrees) stands in for what the device reported.
bool QVEnvironmentalSerivce::qvOrientationChanged(int64_t deviceOrientation) {
  auto config = QVConfigService::sharedInstance();
  int64_t reported = deviceOrientation;
  if (config->turnOffCorrectOrientationUpdates()) {
    const double degrees = QVValues::doubleValue(config->defaultOrientation());
    if (degrees == 0) reported = 1;
    if (degrees == 90) reported = 3;
    if (degrees == 180) reported = 2;
    if (degrees == -90) reported = 4;
  }
  postNotificationForKeyValueName("keyQVDeviceOrientation", reported,
                                  kOrientationChangeNotification);
  return true;
}

// Network status

bool QVEnvironmentalSerivce::startMonitoringNetworkStatus() {
  return impl_->networkManager->startNetworkMonitoring();
}

bool QVEnvironmentalSerivce::stopMonitoringNetworkStatus() {
  return impl_->networkManager->stopNetworkMonitoring();
}

std::string QVEnvironmentalSerivce::stringForNetworkStatus(int64_t status) const {
  return impl_->networkManager->stringForNetworkStatus(status);
}

bool QVEnvironmentalSerivce::isConnectedViaWifi() const {
  return impl_->networkManager->isConnectedViaWifi();
}

uint64_t QVEnvironmentalSerivce::currentNetworkStatus() const {
  return impl_->networkManager->currentNetworkStatus();
}

std::string QVEnvironmentalSerivce::currentNetworkReachabilityName() const {
  return impl_->networkManager->currentNetworkReachabilityName();
}

std::string QVEnvironmentalSerivce::currentConnectionType() const {
  return impl_->networkManager->currentConnectionType();
}

// Application lifecycle: the lifecycle manager joins the service with the
// queue service, which it flushes; until then there is nothing to watch.
bool QVEnvironmentalSerivce::startMonitoringApplicationChanges() {
  auto manager = impl_->applicationManager.load();
  if (!manager) {
    // Two first starts at once keep the one manager that was stored first.
    auto made = QVApplicationLifecycleManager::init();
    manager = impl_->applicationManager.compare_exchange_strong(manager, made) ? made : manager;
  }
  return manager->startMonitoringApplicationChanges();
}

bool QVEnvironmentalSerivce::stopMonitoringApplicationChanges() {
  auto manager = impl_->applicationManager.load();
  return manager ? manager->stopMonitoringApplicationChanges() : true;
}

}  // namespace qv
