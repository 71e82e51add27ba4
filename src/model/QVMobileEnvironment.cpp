#include "qvcore/model/QVMobileEnvironment.h"

#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVLocale.h"

namespace qv {

namespace {

std::optional<QVValue> present(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  return QVValue(*text);
}

std::optional<QVValue> present(const std::optional<uint64_t>& number) {
  if (!number) return std::nullopt;
  return QVValue(*number);
}

std::optional<QVFileSystemAttributes> homeFileSystem() {
  return QVFileSystem::attributesOfFileSystemForPath(QVFileSystem::homeDirectory());
}

}  // namespace

QVValue QVMobileEnvironment::jsonDictionary() const {
  auto environment = QVEnvironmentalSerivce::sharedInstance();
  const auto locale = localeData();
  QVValue dict = QVValue::object();
  QVValues::setValueForKey(dict, "locale", present(locale));
  if (locale) {
    QVValues::setValueForKey(dict, "language", QVLocale::displayNameOfIdentifierInItself(*locale));
  }
  QVValues::setValueForKey(dict, "deviceId", environment->deviceID());
  QVValues::setValueForKey(dict, "advertisingId",
                           present(environment->vepAdvertisingIdFromCustomer()));
  QVValues::setValueForKey(dict, "manufacturer", "Apple Inc.");
  QVValues::setValueForKey(dict, "appVersion", present(appVersion()));
  QVValues::setValueForKey(dict, "appName", present(appName()));
  QVValues::setValueForKey(dict, "deviceModel", deviceModel());
  QVValues::setValueForKey(dict, "orientationType", environment->currentOrientationName());
  QVValues::setValueForKey(dict, "totalMemory", totalAvailableMemory());
  QVValues::setValueForKey(dict, "totalStorage", present(totalStorage()));
  QVValues::setValueForKey(dict, "freeStorage", present(totalFreeSpace()));
  return dict;
}

std::string QVMobileEnvironment::toJson() const {
  return QVCoreExtensions::toJson(jsonDictionary());
}

std::optional<std::string> QVMobileEnvironment::localeData() const {
  const auto languages = QVDevice::currentDevice().preferredLanguages();
  if (languages.empty()) return std::nullopt;
  return languages.front();
}

std::optional<std::string> QVMobileEnvironment::appVersion() const {
  return QVEnvironmentalSerivce::sharedInstance()->appVersion();
}

std::optional<std::string> QVMobileEnvironment::appName() const {
  return QVEnvironmentalSerivce::sharedInstance()->appName();
}

std::string QVMobileEnvironment::deviceModel() const { return QVDevice::currentDevice().model(); }

uint64_t QVMobileEnvironment::totalAvailableMemory() const {
  return QVDevice::currentDevice().physicalMemory();
}

std::optional<uint64_t> QVMobileEnvironment::totalStorage() const {
  const auto attributes = homeFileSystem();
  if (!attributes) return std::nullopt;
  return attributes->size;
}

std::optional<uint64_t> QVMobileEnvironment::totalFreeSpace() const {
  const auto attributes = homeFileSystem();
  if (!attributes) return std::nullopt;
  return attributes->freeSize;
}

}  // namespace qv
