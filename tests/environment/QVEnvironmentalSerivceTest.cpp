// The environment service (device and application facts, addresses, the
// device id) and the orientation manager that reports turns to it.
#include "qvcore/environment/QVEnvironmentalSerivce.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <atomic>
#include <regex>
#include <thread>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/environment/QVOrientationManager.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVDigest.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVUserDefaults.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using F = test::QVFakeInterfaceAddressSource;
constexpr uint32_t kUp = IFF_UP | IFF_RUNNING;

// An application with its own bundle and data folder, and host-fed network
// facts, so nothing of the machine running the test leaks in.
class QVEnvironmentalSerivceTest : public ::testing::Test {
 protected:
  void setInfo(const QVValue& info) { host.folder().writePlist("App/Info.plist", info); }
  // "on" or "off", and " asleep" while sleep mode is active.
  std::string state() {
    return std::string(service->isEnabled() ? "on" : "off") +
           (service->isSleepModeActive() ? " asleep" : "");
  }

  test::QVTestHost host{"com.example.app"};
  std::shared_ptr<QVEnvironmentalSerivce> service = QVEnvironmentalSerivce::sharedInstance();
};

// Only a non-empty text id sent while the service is enabled replaces it.
TEST_F(QVEnvironmentalSerivceTest, DeviceIdIsTheStoredUuidsDigestUntilAModuleSuppliesOne) {
  EXPECT_EQ(QVDigest::md5HexString(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(QVDigest::md5HexString("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  // Bytes after a zero byte count.
  EXPECT_NE(QVDigest::md5HexString(std::string("abc\0d", 5)), QVDigest::md5HexString("abc"));
  const std::string id = service->deviceID();
  const auto udid = QVUserDefaults::standardUserDefaults().objectForKey("Brevant.UDID");
  ASSERT_TRUE(udid && udid->is_string());
  const std::regex uuid("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}");
  EXPECT_TRUE(std::regex_match(udid->get<std::string>(), uuid));
  EXPECT_EQ(id, QVDigest::md5HexString(udid->get<std::string>() + "com.example.app"));

  ASSERT_TRUE(service->enable());
  const auto post = [](std::optional<QVValue> userInfo) {
    QVNotificationCenter::defaultCenter().post(
        "kBRVApplicationHelperDidPostDeviceIDChangeNotification", nullptr, std::move(userInfo));
  };
  post(std::nullopt);
  post(QVValue{{"other", "x"}});
  for (const QVValue& bad : {QVValue(""), QVValue(42)}) post(QVValue{{"keyBRVDeviceID", bad}});
  EXPECT_EQ(service->deviceID(), id);
  post(QVValue{{"keyBRVDeviceID", "module-id"}});
  EXPECT_EQ(service->deviceID(), "module-id");
  ASSERT_TRUE(service->disable());
  post(QVValue{{"keyBRVDeviceID", "after-stop"}});
  EXPECT_EQ(service->deviceID(), "module-id") << "a stopped service no longer listens";
}

// A fresh process sees only what an earlier one left on disk. The child
// processes re-run this test from its start, so the home folder is handed to
// them through the environment.
TEST_F(QVEnvironmentalSerivceTest, DeviceIdSurvivesARestartUntilTheStoredUuidIsRemoved) {
  const char* inherited = std::getenv("QVTEST_SHARED_HOME");
  const std::string home = inherited ? inherited : host.folder().makeFolder("shared");
  ::setenv("QVTEST_SHARED_HOME", home.c_str(), 1);
  QVFileSystem::setHomeDirectory(home);
  // Only the parent asks here: a child that asked first would keep its answer.
  const std::string first = inherited ? "" : service->deviceID();
  const std::string path = home + "/id.txt";
  auto idInFreshProcess = [&](bool removeUuid) {
    test::expectInFreshProcess([&] {
      if (removeUuid) QVUserDefaults::standardUserDefaults().removeObjectForKey("Brevant.UDID");
      return QVFileSystem::writeAtomically(path, service->deviceID());
    });
    return QVFileSystem::contentsAtPath(path, 64).value_or("");
  };
  EXPECT_EQ(idInFreshProcess(false), first);
  const std::string renewed = idInFreshProcess(true);
  EXPECT_NE(renewed, first);
  EXPECT_TRUE(std::regex_match(renewed, std::regex("[0-9a-f]{32}"))) << renewed;
}

TEST_F(QVEnvironmentalSerivceTest, EnableStopsAtTheFirstMonitorThatFailsAndDisableInvertsSleep) {
  EXPECT_EQ(service->settingsBundlePath(), "");
  host.reachability().setFailsToSchedule(true);
  EXPECT_FALSE(service->enable());
  EXPECT_EQ(state(), "off");
  // A failed start keeps its network monitor, which refuses a second start
  // of the manager; enabling again starts the monitoring afresh all the
  // same, as it does while the monitoring runs.
  host.reachability().setFailsToSchedule(false);
  auto network = QVNetworkManager::sharedInstance();
  EXPECT_FALSE(network->startNetworkMonitoring());
  EXPECT_TRUE(service->enable() && service->enable());
  EXPECT_FALSE(network->startNetworkMonitoring());
  EXPECT_EQ(state(), "on");
  EXPECT_TRUE(service->disable());
  EXPECT_EQ(state(), "off asleep");
  EXPECT_TRUE(service->enable());
  EXPECT_EQ(state(), "on");
}

// Memory is cut to 32 bits, the battery is always full.
TEST_F(QVEnvironmentalSerivceTest, ApplicationAndDeviceFactsComeFromTheBundleAndTheDevice) {
  const std::pair<const char*, const char*> versions[] = {
      {"1.2.3", "1.2"}, {"2.10.5", "2.10"}, {"12.3", "2.3"},    {"10.4.1", "0.4"},
      {"7", "7"},       {"v.1", "v.1"},     {"build 3.", "3."}, {"", ""}};
  for (const auto& [version, majorMinor] : versions) {
    setInfo({{"CFBundleVersion", version}, {"CFBundleName", "Demo"}});
    EXPECT_EQ(service->appVersionMajorMinor(), majorMinor) << version;
    EXPECT_EQ(service->appVersion(), version);
  }
  EXPECT_EQ(service->appName(), "Demo");
  setInfo(QVValue::object());
  EXPECT_EQ(service->appName(), std::nullopt);
  EXPECT_EQ(service->appVersionMajorMinor(), "");

  auto& device = QVDevice::currentDevice();
  device.setPhysicalMemory((5ull << 30) + 123);
  device.setUserMemory(3ull << 30);
  device.setBatteryLevel(0.25f);
  EXPECT_EQ(service->deviceTotalMemory(), (1ull << 30) + 123);
  EXPECT_EQ(service->deviceUserMemory(), 3ull << 30);
  EXPECT_EQ(QVEnvironmentalSerivce::getSysInfo(7), 0u);
  EXPECT_EQ(service->getCurrentBatteryLevel(), 100.0f);
  EXPECT_GT(service->deviceTotalStorageCapacity(), 0);
  EXPECT_LE(service->deviceTotalStorageFreeCapacity(), service->deviceTotalStorageCapacity());
}

// Up interfaces give their addresses (the last of each family, read from a
// four-byte offset); the Wi-Fi address is en0's last IPv4, up or down. The
// preferred address, asked again while "Unknown" and kept once found, is
// checked on real links by the netlink and shell tests.
TEST_F(QVEnvironmentalSerivceTest, AddressesOfTheInterfacesAsTheHostListsThem) {
  F& addresses = host.addresses();
  EXPECT_EQ(service->networkWiFiIPAddress(), "");
  addresses.setEntries({F::entry("lo", "127.0.0.1", kUp | IFF_LOOPBACK)});
  EXPECT_EQ(service->getIPAddressesDict(), std::nullopt);

  addresses.setEntries({F::entry("lo", "127.0.0.1", kUp | IFF_LOOPBACK),
                        F::entry("en0", "192.168.1.10", kUp), F::entry("en0", "192.168.1.11", kUp),
                        F::entry("en0", "fe80::1", kUp, 0x01020304),
                        F::entry("en0", "192.168.1.20", 0), F::entry("pdp_ip0", "10.0.0.8", 0),
                        F::entry("en1", "192.168.2.1", kUp), F::entry("en2", "", kUp)});
  // The IPv6 text is read from the flow information on: 01020304 fe80 0 ...
  EXPECT_EQ(service->getIPAddressesDict(), (QVValue{{"en0/ipv4", "192.168.1.11"},
                                                    {"en0/ipv6", "102:304:fe80::"},
                                                    {"en1/ipv4", "192.168.2.1"}}));
  EXPECT_EQ(service->networkWiFiIPAddress(), "192.168.1.20");
  EXPECT_EQ(service->networkCarrierName(), "Carrier");
  addresses.setFails(true);
  EXPECT_EQ(service->networkWiFiIPAddress(), "");
}

TEST_F(QVEnvironmentalSerivceTest, OrientationNotificationMapsTheDefaultWhenCorrectionsAreOff) {
  std::vector<int64_t> posted;
  QVNotificationCenter::defaultCenter().addObserver(
      this, "kQVEnvironmentalServiceDidPostOrientationChangeNotification", nullptr,
      [&](const QVNotification& n) { posted.push_back(n.userInfo->at("keyQVDeviceOrientation")); });
  EXPECT_TRUE(service->qvOrientationChanged(4));
  const std::pair<QVValue, int64_t> rows[] = {{0, 1},   {90, 3}, {180, 2},
                                              {-90, 4}, {45, 1}, {"90", 1}};
  for (const auto& [orientation, expected] : rows) {
    QVConfigService::sharedInstance()->setConfigurations(
        {{"QVCore", std::make_shared<QVValue>(QVValue{{"TurnOffCorrectOrientationUpdates", true},
                                                      {"DefaultOrientation", orientation}})}});
    service->qvOrientationChanged(1);
  }
  EXPECT_EQ(posted, (std::vector<int64_t>{4, 1, 3, 2, 4, 1, 1}));
  QVNotificationCenter::defaultCenter().removeObserver(this);
}

using M = QVOrientationManager;
using Heard = std::vector<int64_t>;

// The rule behind both angle tables: a standing device (1..4) has an angle
// (0, 180, 90, -90) which the interface orientation turns (a column of
// turn, by interface 0..4), wrapped into (-180, 180]. Unknown and upside-down
// interfaces, and flat or unknown devices, give 0.
int64_t expectedDegrees(int64_t device, int64_t ui, const int64_t (&turn)[5]) {
  const int64_t angle[] = {0, 0, 180, 90, -90};
  if (device < 1 || device > 4 || ui == 0 || ui == 2) return 0;
  const int64_t degrees = angle[device] + turn[ui];
  return degrees > 180 ? degrees - 360 : degrees <= -180 ? degrees + 360 : degrees;
}

struct Listener : QVOrientationManagerDelegate {
  bool qvOrientationChanged(int64_t deviceOrientation) override {
    heard.push_back(deviceOrientation);
    return true;
  }
  Heard heard;
};

class QVOrientationManagerTest : public ::testing::Test {
 protected:
  // One orientation event from the host, handled as on a device.
  static void turn(int64_t deviceOrientation, int64_t uiOrientation = 1) {
    QVApplication::sharedApplication().setStatusBarOrientation(uiOrientation);
    QVDevice::currentDevice().setOrientation(deviceOrientation);
    QVRunLoop::main().runUntilIdle();
  }
  static void setTurnOff(bool on) {
    QVConfigService::sharedInstance()->setConfigurations(
        {{"QVCore", std::make_shared<QVValue>(QVValue{{"TurnOffCorrectOrientationUpdates", on}})}});
  }

  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  std::shared_ptr<M> manager_ = M::initWithDelegate(listener_);
};

// The screen's dimensions are the main screen's: on Linux 0 x 0 points until
// the host sets them (QVShellTest's platform events set them).
TEST_F(QVOrientationManagerTest, TablesGiveTheListedAnglesAndNamesAndTheScreenItsSize) {
  for (int64_t device = -1; device <= 7; ++device) {
    for (int64_t ui = 0; ui <= 5; ++ui) {
      SCOPED_TRACE(testing::Message() << "device " << device << ", interface " << ui);
      EXPECT_EQ(M::getAdjustedDeviceOrientationAndUIOrientation(device, ui),
                ui == 5 ? 0 : expectedDegrees(device, ui, {0, 0, 0, 0, 180}));
      EXPECT_EQ(M::getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(device, ui),
                ui == 5 ? 0 : expectedDegrees(device, ui, {0, 0, 0, -90, 90}));
    }
  }
  const std::vector<std::string> names = {"UNKNOWN",  "UNKNOWN",   "PORTRAIT",
                                          "PORTRAIT", "LANDSCAPE", "LANDSCAPE",
                                          "FLAT",     "FLAT",      "UNKNOWN"};
  for (int64_t code = -1; code <= 7; ++code)
    EXPECT_EQ(M::getOrientationName(code), names[code + 1]);
  EXPECT_EQ(manager_->currentScreenDimensions(), std::make_pair(0.0, 0.0));
}

TEST_F(QVOrientationManagerTest, ReportsTurnsButNotRepeatsFlatUnknownOrWhileTurnedOff) {
  turn(1, 3);  // not generating yet: no event
  EXPECT_TRUE(manager_->startMonitoringOrientationChanges());
  EXPECT_TRUE(manager_->orientationMonitoringRunning());
  // The start reads both orientations: portrait under landscape right.
  EXPECT_EQ(manager_->currentUIOrientationInDegrees(), -90);
  // The first event after a start is reported even though unchanged; back
  // from lying flat is the same as before, so no report.
  for (int64_t device : {1, 1, 5, 1}) turn(device);
  EXPECT_EQ(listener_->heard, Heard{1});
  turn(6, 4);
  turn(0, 4);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1);  // flat and unknown are not stored
  setTurnOff(true);
  turn(3, 3);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1) << "every event ignored";
  setTurnOff(false);
  turn(3, 3);
  EXPECT_EQ(listener_->heard, (Heard{1, 3}));
  EXPECT_EQ(manager_->currentUIOrientation(), 3);
  EXPECT_EQ(manager_->currentDeviceOrientationInDegrees(), 90);
  EXPECT_EQ(manager_->currentUIOrientationInDegrees(), 0);
}

// The manager keeps neither its delegate nor, once gone, its observation.
TEST_F(QVOrientationManagerTest, StartStopRestartAndGoneDelegatesKeepOneObservation) {
  manager_->startMonitoringOrientationChanges();
  manager_->startMonitoringOrientationChanges();
  manager_->startListeningToOrientationNotifications();
  turn(2);
  EXPECT_EQ(listener_->heard, Heard{2});
  EXPECT_TRUE(manager_->stopMonitoringOrientationChanges());
  EXPECT_FALSE(manager_->orientationMonitoringRunning());
  EXPECT_TRUE(QVDevice::currentDevice().isGeneratingDeviceOrientationNotifications());
  turn(4, 4);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 2);  // last reading stays

  // A restart forgets the last accepted orientation.
  manager_->startMonitoringOrientationChanges();
  EXPECT_EQ(manager_->currentDeviceOrientationInDegrees(), 90);
  turn(4, 4);
  EXPECT_EQ(listener_->heard, (Heard{2, 4}));
  QVDevice::currentDevice().endGeneratingDeviceOrientationNotifications();
  EXPECT_FALSE(manager_->orientationMonitoringRunning()) << "the device stopped generating";
  manager_->startMonitoringOrientationChanges();
  std::weak_ptr<Listener> gone = listener_;
  listener_.reset();
  EXPECT_TRUE(gone.expired());
  turn(1);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1);
  auto next = std::make_shared<Listener>();
  manager_->setDelegate(next);
  turn(2);
  const void* key = manager_.get();
  manager_.reset();
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(key), 0u);
  turn(3);
  EXPECT_EQ(next->heard, Heard{2});
}

TEST_F(QVOrientationManagerTest, HostThreadsReportAndReadWhileTheMainLoopHandles) {
  manager_->startMonitoringOrientationChanges();
  std::atomic<bool> reading = true;
  std::thread reader([&] {
    while (reading) (void)manager_->currentDeviceOrientationInDegrees();
  });
  std::thread([] {
    for (int64_t o : {1, 3, 2, 4}) QVDevice::currentDevice().setOrientation(o);
  }).join();
  // Every event reads the device as it is now, so only the last one counts.
  QVRunLoop::main().runUntilIdle();
  reading = false;
  reader.join();
  EXPECT_EQ(listener_->heard, Heard{4});
}

}  // namespace
}  // namespace qv
