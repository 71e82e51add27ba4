#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "qvcore/QVExport.h"
#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/environment/QVOrientationManagerDelegate.h"
#include "qvcore/platform/QVNotification.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

class QVApplicationLifecycleManager;
class QVNetworkManager;
class QVOrientationManager;

// The one place where the framework asks the device and the host application
// for facts: identity, application name and version, storage, memory,
// battery, user agent and advertising identifier, and, through the managers it
// holds, network status, addresses and orientation. The core starts it with
// enable and forwards the device-fact operations of modules to it.
class QV_EXPORT QVEnvironmentalSerivce
    : public QVLifecycleObject,
      public QVOrientationManagerDelegate,
      public std::enable_shared_from_this<QVEnvironmentalSerivce> {
 public:
  static std::shared_ptr<QVEnvironmentalSerivce> sharedInstance();

  // QVLifecycleObject
  std::string className() const override { return "QVEnvironmentalSerivce"; }
  // Callable again from either state: the network and application
  // monitoring are stopped and started afresh, so that nothing left by an
  // earlier enable makes this one fail or doubles what it observes.
  bool enable() override;
  // A successful stop leaves the service disabled; a failed one leaves it
  // enabled.
  bool disable() override;
  bool isEnabled() const override;
  std::string settingsBundlePath() const override { return ""; }
  bool sleepSystem();
  bool isSleepModeActive() const;

  // Device identity. The identifier is the lower-case hex MD5 of the
  // installation's UUID ("Brevant.UDID" in the user defaults) followed by the
  // application's bundle identifier, unless a module supplied its own.
  std::string deviceID();
  std::string generateDeviceId();
  std::optional<std::string> generateUDID();
  void addAsDeviceIDObserver();
  void removeAsDeviceIDObserver();
  void deviceIDChanged(const QVNotification& notification);
  std::optional<std::string> currentDeviceID() const;
  void setCurrentDeviceID(std::optional<std::string> deviceID);

  // Application facts from the main bundle's Info.plist.
  std::optional<std::string> appName() const;
  std::optional<std::string> appVersion() const;
  std::string appVersionMajorMinor() const;
  // 1 active, 2 inactive, 3 background, 0 unknown.
  uint64_t applicationState() const;

  // Storage of the file system that holds the application's home folder
  // (0 when unknown), memory figures cut to 32 bits, battery always 100.
  int64_t deviceTotalStorageCapacity() const;
  int64_t deviceTotalStorageFreeCapacity() const;
  uint64_t deviceTotalMemory() const;
  uint64_t deviceUserMemory() const;
  static uint64_t getSysInfo(uint32_t typeSpecifier);
  float getCurrentBatteryLevel() const;

  // Browser user agent: asked of the platform once, then kept.
  std::string setUserAgentFromBrowser();
  std::string userAgentFromBrowser() const;
  void setUserAgentFromBrowser(std::string userAgent);

  // Advertising identifier handed in by the host; "N/A" until then.
  bool setQVAdvertisingId(std::optional<std::string> advertisingId);
  std::optional<std::string> vepAdvertisingIdFromCustomer() const;
  void setVepAdvertisingIdFromCustomer(std::optional<std::string> advertisingId);

  bool postNotificationForKeyValueName(const std::string& key, const QVValue& value,
                                       const std::string& name);

  // Orientation, through the orientation manager.
  bool startMonitoringOrientationChanges();
  bool stopMonitoringOrientationChanges();
  int64_t currentUIOrientation() const;
  int64_t currentUIOrientationInDegrees() const;
  int64_t currentDeviceOrientation() const;
  int64_t currentDeviceOrientationInDegrees() const;
  std::pair<double, double> currentScreenDimensions() const;
  std::string currentOrientationName() const;
  bool qvOrientationChanged(int64_t deviceOrientation) override;
  // Never assigned in this version: 0, 0 and none.
  int64_t startingDeviceOrientation() const { return 0; }
  int64_t startingUIOrientation() const { return 0; }
  std::optional<std::string> startingOrientationName() const { return std::nullopt; }

  // Network status, through the network manager.
  bool startMonitoringNetworkStatus();
  bool stopMonitoringNetworkStatus();
  std::string stringForNetworkStatus(int64_t status) const;
  bool isConnectedViaWifi() const;
  uint64_t currentNetworkStatus() const;
  std::string currentNetworkReachabilityName() const;
  std::string currentConnectionType() const;

  // The device's own addresses and carrier.
  std::string networkIPAddress();
  std::optional<QVValue> getIPAddressesDict() const;
  std::string networkWiFiIPAddress() const;
  std::string networkCarrierName() const { return "Carrier"; }

  // Application lifecycle events, through the lifecycle manager, made by the
  // first start and kept for good. Stopping before any start answers true.
  bool startMonitoringApplicationChanges();
  bool stopMonitoringApplicationChanges();

  QVEnvironmentalSerivce(const QVEnvironmentalSerivce&) = delete;
  QVEnvironmentalSerivce& operator=(const QVEnvironmentalSerivce&) = delete;
  ~QVEnvironmentalSerivce() override;

 private:
  QVEnvironmentalSerivce();

  // Private state lives behind the pointer, so that it can change without
  // changing this class's layout.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
