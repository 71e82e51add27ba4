// Device and application facts for modules: each operation hands on the
// environmental service's answer unchanged, none included. Compression is
// handed on the same way.
#include "qvcore/core/QVCore.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/queue/QVDataCompression.h"

namespace qv {

namespace {
std::shared_ptr<QVEnvironmentalSerivce> environment() {
  return QVEnvironmentalSerivce::sharedInstance();
}
}  // namespace

int64_t QVCore::deviceTotalStorageCapacity() const {
  return environment()->deviceTotalStorageCapacity();
}

int64_t QVCore::deviceTotalStorageFreeCapacity() const {
  return environment()->deviceTotalStorageFreeCapacity();
}

uint64_t QVCore::deviceTotalMemory() const { return environment()->deviceTotalMemory(); }

uint64_t QVCore::deviceUserMemory() const { return environment()->deviceUserMemory(); }

int64_t QVCore::currentNetworkStatus() const {
  return static_cast<int64_t>(environment()->currentNetworkStatus());
}

std::string QVCore::currentNetworkReachabilityName() const {
  return environment()->currentNetworkReachabilityName();
}

std::string QVCore::currentConnectionType() const { return environment()->currentConnectionType(); }

std::string QVCore::networkCarrierName() const { return environment()->networkCarrierName(); }

std::string QVCore::networkWiFiIPAddress() const { return environment()->networkWiFiIPAddress(); }

std::string QVCore::networkIPAddress() const { return environment()->networkIPAddress(); }

std::optional<std::string> QVCore::appVersion() const { return environment()->appVersion(); }

std::string QVCore::appVersionMajorMinor() const { return environment()->appVersionMajorMinor(); }

std::optional<std::string> QVCore::appName() const { return environment()->appName(); }

std::string QVCore::deviceID() const { return environment()->deviceID(); }

int64_t QVCore::currentDeviceOrientation() const {
  return environment()->currentDeviceOrientation();
}

int64_t QVCore::currentDeviceOrientationInDegrees() const {
  return environment()->currentDeviceOrientationInDegrees();
}

int64_t QVCore::currentUIOrientation() const { return environment()->currentUIOrientation(); }

int64_t QVCore::currentUIOrientationInDegrees() const {
  return environment()->currentUIOrientationInDegrees();
}

std::string QVCore::currentOrientationName() const {
  return environment()->currentOrientationName();
}

std::pair<double, double> QVCore::currentScreenDimensions() const {
  return environment()->currentScreenDimensions();
}

float QVCore::getCurrentBatteryLevel() const { return environment()->getCurrentBatteryLevel(); }

std::string QVCore::setUserAgentFromBrowser() const {
  return environment()->setUserAgentFromBrowser();
}

std::string QVCore::getUserAgentFromBrowser() const {
  return environment()->userAgentFromBrowser();
}

bool QVCore::setQVAdvertisingId(std::optional<std::string> advertisingId) const {
  return environment()->setQVAdvertisingId(std::move(advertisingId));
}

std::optional<std::string> QVCore::getQVAdvertisingId() const {
  return environment()->vepAdvertisingIdFromCustomer();
}

std::shared_ptr<const std::string> QVCore::compressData(
    const std::shared_ptr<const std::string>& data) const {
  return QVDataCompression::compressData(data);
}

}  // namespace qv
