// The environment service (device and application facts, addresses, the
// device id) and its monitors: the orientation manager that reports turns to
// it; the network monitor, reachability read from host-fed flags turned into
// a status and a connection type; and the lifecycle manager, over the real
// queue service and a fake HTTP session, events coming from the application
// on the main loop, whose clock is fake.
#include "qvcore/environment/QVEnvironmentalSerivce.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/un.h>

#include <atomic>
#include <regex>
#include <thread>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVApplicationLifecycleManager.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/environment/QVOrientationManager.h"
#include "qvcore/environment/QVReachability.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVDigest.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/platform/QVUserDefaults.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

using F = test::QVFakeInterfaceAddressSource;
constexpr uint32_t kUp = IFF_UP | IFF_RUNNING;

void setCoreConfiguration(const QVValue& items) {
  QVConfigService::sharedInstance()->setConfigurations(
      {{"QVCore", std::make_shared<QVValue>(items)}});
}

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
  host.reachability().setFailsToSchedule(true);
  EXPECT_FALSE(service->enable());
  EXPECT_EQ(state(), "off");
  // A failed start keeps its network monitor, which refuses a second start
  // of the manager (QVNetworkTest); enabling again starts the monitoring
  // afresh all the same, as it does while the monitoring runs.
  host.reachability().setFailsToSchedule(false);
  EXPECT_TRUE(service->enable() && service->enable());
  EXPECT_EQ(state(), "on");
  EXPECT_TRUE(service->disable());
  EXPECT_EQ(state(), "off asleep");
  EXPECT_TRUE(service->enable());
  EXPECT_EQ(state(), "on");
}

// Memory is cut to 32 bits, the battery is always full; the storage figures
// are held by the mobile environment record's test.
TEST_F(QVEnvironmentalSerivceTest, ApplicationAndDeviceFactsComeFromTheBundleAndTheDevice) {
  const std::pair<const char*, const char*> versions[] = {
      {"1.2.3", "1.2"}, {"2.10.5", "2.10"}, {"12.3", "2.3"},    {"10.4.1", "0.4"},
      {"7", "7"},       {"v.1", "v.1"},     {"build 3.", "3."}, {"", ""}};
  for (const auto& [version, majorMinor] : versions) {
    setInfo({{"CFBundleVersion", version}});
    EXPECT_EQ(service->appVersionMajorMinor(), majorMinor) << version;
  }
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
    setCoreConfiguration(
        {{"TurnOffCorrectOrientationUpdates", true}, {"DefaultOrientation", orientation}});
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
    setCoreConfiguration({{"TurnOffCorrectOrientationUpdates", on}});
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
  // Events from a host thread read the device as it is when the main loop
  // handles them, so only the last of these counts.
  std::thread([] {
    for (int64_t o : {1, 3, 2, 4}) QVDevice::currentDevice().setOrientation(o);
  }).join();
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener_->heard, (Heard{1, 3, 4}));
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

constexpr uint32_t kWiFi = 0x2;
constexpr uint32_t kCellular = 0x40002;

class QVNetworkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVReachabilitySource::setShared(source);
    QVRunLoop::main().setClock(clock);
    QVNotificationCenter::defaultCenter().addObserver(
        this, "kQVEnvironmentalServiceDidPostNetworkChangeNotification", nullptr,
        [this](const QVNotification& n) {
          EXPECT_EQ(n.sender, nullptr);
          posted.push_back(n.userInfo.value_or(QVValue()));
        });
    QVNotificationCenter::defaultCenter().addObserver(
        this, "kQVNetworkReachabilityChangedNotification", nullptr,
        [this](const QVNotification& n) { senders.push_back(n.sender); });
  }
  void TearDown() override {
    QVNotificationCenter::defaultCenter().removeObserver(this);
    QVRunLoop::main().setClock(nullptr);
    QVReachabilitySource::setShared(nullptr);
  }

  // Starts monitoring and runs past the delayed first evaluation.
  bool start() {
    const bool started = manager->startNetworkMonitoring();
    settle();
    return started;
  }
  void settle(QVClock::Duration time = 1s) {
    clock->advance(time);
    QVRunLoop::main().runUntilIdle();
  }
  void setFlags(uint32_t flags) {
    source->setFlags(flags);
    QVRunLoop::main().runUntilIdle();
  }
  void setRadio(std::optional<std::string> technology) {
    source->setRadioAccessTechnology(std::move(technology));
    QVRunLoop::main().runUntilIdle();
  }
  // What the manager answers: status, its name, the connection type, and
  // " wifi" while it reports a Wi-Fi connection.
  std::string state() {
    return std::to_string(manager->currentNetworkStatus()) + " " +
           manager->currentNetworkReachabilityName() + " " + manager->currentConnectionType() +
           (manager->isConnectedViaWifi() ? " wifi" : "");
  }
  static QVValue change(uint64_t status, const char* name) {
    return {{"keyVQNetworkStatus", status}, {"keyQVConnectionType", name}};
  }

  std::shared_ptr<QVHostReachabilitySource> source = std::make_shared<QVHostReachabilitySource>();
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  std::shared_ptr<QVNetworkManager> manager = QVNetworkManager::sharedInstance();
  std::vector<QVValue> posted;
  std::vector<const void*> senders;  // of reachability changes
};

// The first evaluation comes a second after the start; a stop keeps the last
// status, and only real changes are posted, however the radio changes the
// type.
TEST_F(QVNetworkTest, EvaluatesASecondAfterStartAndPostsOnlyStatusChanges) {
  EXPECT_EQ(state(), "0 UNKNOWN N/A");
  EXPECT_EQ(QVNetworkManager::stringForNetworkStatus(-1), "UNKNOWN");
  source->setFlags(kWiFi);
  ASSERT_TRUE(manager->startNetworkMonitoring());
  settle(1s - 1ns);
  EXPECT_EQ(state(), "0 UNKNOWN N/A wifi") << "the monitor answers at once";
  settle(1ns);
  EXPECT_EQ(state(), "2 ReachableViaWiFi Wifi wifi");
  EXPECT_TRUE(manager->stopNetworkMonitoring());
  EXPECT_TRUE(manager->stopNetworkMonitoring()) << "nothing left to stop";
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  EXPECT_EQ(state(), "2 ReachableViaWiFi Wifi") << "no longer reported as Wi-Fi";

  ASSERT_TRUE(start());
  // The answers are read by posting threads while the main loop changes them.
  std::atomic<bool> done = false;
  std::thread reader([&] {
    while (!done) EXPECT_NE(state().find("Reachable"), std::string::npos);
  });
  setFlags(kCellular);
  const std::pair<std::optional<std::string>, const char*> rows[] = {
      {"GPRS", "2G"},         {"Edge", "2G"},  {"CDMA1x", "2G"},       {"WCDMA", "3G"},
      {"HSDPA", "3G"},        {"HSUPA", "3G"}, {"CDMAEVDORev0", "3G"}, {"CDMAEVDORevA", "3G"},
      {"CDMAEVDORevB", "3G"}, {"eHRPD", "3G"}, {"LTE", "4G"},          {"NR", "WWAN"},
      {std::nullopt, "WWAN"}};
  for (const auto& [technology, type] : rows) {
    setRadio(technology ? "CTRadioAccessTechnology" + *technology : technology);
    EXPECT_EQ(state(), std::string("3 ReachableViaWWAN ") + type) << technology.value_or("none");
  }
  setRadio("");
  EXPECT_EQ(state(), "3 ReachableViaWWAN WWAN") << "empty text";
  setFlags(0);
  done = true;
  reader.join();
  EXPECT_EQ(state(), "1 NotReachable N/A");
  EXPECT_EQ(posted,
            (std::vector<QVValue>{change(2, "ReachableViaWiFi"), change(3, "ReachableViaWWAN"),
                                  change(1, "NotReachable")}));
}

// Without a target (an address the source cannot route, or a source that
// makes none) nothing is made, so there is no monitor to refuse a start.
TEST_F(QVNetworkTest, SecondOrFailedStartsAreRefusedAndWhatTheyLeaveBehind) {
  ASSERT_TRUE(manager->startNetworkMonitoring());
  const auto monitor = manager->networkMonitor();
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), monitor);
  EXPECT_EQ(source->scheduledTargetCount(), 1u);
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(manager.get()), 1u);
  settle();
  posted.clear();
  EXPECT_TRUE(manager->stopNetworkMonitoring());

  // A monitor that cannot be scheduled stays, so starting is refused until a
  // stop; nothing more is observed and no evaluation follows.
  source->setFailsToSchedule(true);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(manager.get()), 0u);
  source->setFailsToSchedule(false);
  EXPECT_FALSE(start());
  EXPECT_TRUE(posted.empty());
  EXPECT_TRUE(manager->stopNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), nullptr);

  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_FALSE(QVReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&local)));
  source->setFailsToCreateTargets(true);
  EXPECT_FALSE(manager->startNetworkMonitoring());
  EXPECT_EQ(manager->networkMonitor(), nullptr);
  source->setFailsToCreateTargets(false);
  EXPECT_TRUE(manager->startNetworkMonitoring());
}

// Per flags (none: unreadable): the internet target's status, the local
// Wi-Fi target's, and whether the internet target needs a connection.
TEST_F(QVNetworkTest, StatusFollowsTheFlagRulesAndTheNotifierPostsEachChange) {
  const std::pair<std::optional<uint32_t>, const char*> rows[] = {
      {0x0, "0 0"},           {0x2, "1 0"},           {0x6, "0 0 required"},
      {0x26, "1 0 required"}, {0x36, "0 0 required"}, {0xE, "1 0 required"},
      {0x1E, "0 0 required"}, {0x40002, "2 0"},       {0x40006, "2 0 required"},
      {0x40000, "0 0"},       {0x20002, "1 1"},       {0x60002, "2 1"},
      {0x20000, "0 0"},       {0x4, "0 0 required"},  {std::nullopt, "0 0"}};
  auto internet = QVReachability::reachabilityForInternetConnection();
  auto localWiFi = QVReachability::reachabilityForLocalWiFi();
  ASSERT_TRUE(internet && localWiFi);
  for (const auto& [flags, expected] : rows) {
    source->setFlags(flags);
    EXPECT_EQ(std::to_string(internet->currentReachabilityStatus()) + " " +
                  std::to_string(localWiFi->currentReachabilityStatus()) +
                  (internet->connectionRequired() ? " required" : ""),
              expected)
        << std::hex << flags.value_or(0xdead);
  }

  // A started notifier posts each change with itself as sender until
  // stopped; it does not keep its object alive, and its end stops it.
  ASSERT_TRUE(internet->startNotifier());
  source->setFlags(0x2);
  source->setRadioAccessTechnology("CTRadioAccessTechnologyLTE");
  EXPECT_TRUE(senders.empty()) << "changes arrive on the run loop, not on the setter's stack";
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(senders, (std::vector<const void*>{internet.get(), internet.get()}));

  EXPECT_TRUE(internet->stopNotifier());
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  source->setFlags(0x0);
  QVRunLoop::main().runUntilIdle();
  ASSERT_TRUE(internet->startNotifier());
  std::weak_ptr<QVReachability> weak = internet;
  source->setFlags(0x2);  // a change already on its way to the loop
  internet.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(source->scheduledTargetCount(), 0u);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(senders.size(), 2u);
}

using Event = QVApplication::LifecycleEvent;
using test::Offsets;

constexpr const char* kToBackground = "DoPostAppGoesToBackground";
constexpr const char* kFromBackground = "DoPostAppComesFromBackground";
constexpr const char* kLaunched = "DoPostAppIsLaunched";
constexpr const char* kClose = "DoPostAppGoesToClose";

class QVApplicationLifecycleManagerTest : public test::QVQueueServiceTestBase {
 protected:
  void SetUp() override {
    QVQueueServiceTestBase::SetUp();
    QVRunLoop::main().setClock(clock);
    QVLog::setSink([this](const std::string& line) { logged.push_back(line); });
  }
  void TearDown() override {
    QVLog::setSink(nullptr);
    QVRunLoop::main().setClock(nullptr);
    QVQueueServiceTestBase::TearDown();
  }

  // The core's items, bodies left plain.
  void setCoreItems(QVValue items) {
    items["CompressPostMessage"] = false;
    setItems("QVCore", items);
  }
  void deliver(Event event) {
    app.postLifecycleEvent(event);
    QVRunLoop::main().runUntilIdle();
  }
  void advance(QVClock::Duration step) {
    clock->advance(step);
    QVRunLoop::main().runUntilIdle();
    service->flushDispatchQueue()->sync([] {});  // lets a flush it started finish
  }
  size_t tasks() { return app.backgroundTaskNames().size(); }

  QVApplication& app = QVApplication::sharedApplication();
  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  std::shared_ptr<QVApplicationLifecycleManager> manager = QVApplicationLifecycleManager::init();
  std::vector<std::string> logged;  // written on the main thread only
};

TEST_F(QVApplicationLifecycleManagerTest, ObservesWhatTheConfigurationAsksForAtStart) {
  auto& center = QVNotificationCenter::defaultCenter();
  const auto observed = [&](QVValue items, int starts = 1) {
    setCoreItems(std::move(items));
    for (int i = 0; i < starts; ++i) EXPECT_TRUE(manager->startMonitoringApplicationChanges());
    const size_t count = center.observationCount(&*manager);
    EXPECT_TRUE(manager->stopMonitoringApplicationChanges());
    EXPECT_EQ(center.observationCount(&*manager), 0u);
    return count;
  };
  EXPECT_EQ(observed({{kToBackground, true}, {kFromBackground, false}}), 1u);
  EXPECT_EQ(observed(QVValue::object()), 1u) << "background on by default, the rest off";
  EXPECT_EQ(observed({{kFromBackground, true}, {kLaunched, 1}, {kClose, true}}, 2), 8u)
      << "a second start observes everything twice";
  // Raw items are read as the platform reads text; the background item
  // through its accessor, which ignores text.
  EXPECT_EQ(observed({{kToBackground, "0"}, {kFromBackground, "YES"}, {kLaunched, " 1"}}), 3u);
  EXPECT_EQ(observed({{kToBackground, false}, {kClose, "no"}}), 0u);
}

// That the expiry tells the modules that asked and what reaches the server
// is held by the shell's test over a real server.
TEST_F(QVApplicationLifecycleManagerTest,
       BackgroundQueuesAreSentWhenTheGrantedTimeRunsOutIfATaskIsGranted) {
  ASSERT_TRUE(service->enable());
  post(defineModule("Alpha"), 7);
  setCoreItems({{kToBackground, true}});
  manager->startMonitoringApplicationChanges();
  app.setBackgroundTimeRemaining(12.5);

  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(app.backgroundTaskNames(), std::vector<std::string>{"BRVPostInBackground"});
  EXPECT_TRUE(manager->isBackgroundPostingRunning()) << "set at once";
  advance(1h);
  EXPECT_EQ(session->taskCount(), 0u) << "nothing is sent while time is left";

  // The expiry waits on the main thread for the post in flight; a server
  // answers it from elsewhere.
  std::thread server([s = session] {
    if (s->waitForTasks(1)) s->completeWithStatus(0, 200);
  });
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  server.join();
  EXPECT_EQ(logged, std::vector<std::string>{"Background Time:12.500000"});
  EXPECT_EQ(session->taskCount(), 1u);
  EXPECT_FALSE(manager->isBackgroundPostingRunning());
  EXPECT_EQ(tasks(), 0u) << "the task was ended";

  setCoreItems({{kToBackground, false}});  // read again at each event
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 0u);

  // A refused task leaves the flag set, and nothing runs at the expiry.
  setCoreItems({{kToBackground, true}});
  app.setRefusesBackgroundTasks(true);
  deliver(Event::kDidEnterBackground);
  app.expireBackgroundTasks();
  QVRunLoop::main().runUntilIdle();
  EXPECT_TRUE(manager->isBackgroundPostingRunning());
  EXPECT_EQ(logged.size(), 1u);
  manager->stopMonitoringApplicationChanges();
  EXPECT_FALSE(manager->isBackgroundPostingRunning());
}

// What was saved at termination is no longer queued, so a process that lives
// on sends it once, from the files.
TEST_F(QVApplicationLifecycleManagerTest, ReturningFlushesAtOnceActiveASecondLaterCloseSaves) {
  ASSERT_TRUE(service->enable());
  setCoreItems({{kFromBackground, true}, {kLaunched, true}, {kClose, true}});
  manager->startMonitoringApplicationChanges();
  auto module = defineModule("Alpha");
  post(module, 1);
  deliver(Event::kWillEnterForeground);
  advance(0s);
  ASSERT_EQ(session->taskCount(), 1u);
  session->completeWithStatus(0, 200);

  post(module, 2);
  deliver(Event::kDidBecomeActive);
  advance(999ms);
  EXPECT_EQ(session->taskCount(), 1u) << "not before a second has passed";
  advance(1ms);
  ASSERT_EQ(session->taskCount(), 2u);
  EXPECT_EQ(test::offsetsIn(body(1)), Offsets{2});
  session->completeWithStatus(1, 200);
  for (const auto& each : {module, defineModule("Beta"), defineModule("Gamma")}) post(each, 3);
  advance(1h);
  EXPECT_EQ(session->taskCount(), 2u) << "one event, one flush";

  deliver(Event::kWillTerminate);
  advance(1h);
  std::string modules;  // the text before "_" of each file name
  for (const auto& name : test::namesIn(service->cachedQueuesDirectory())) {
    modules += name.substr(0, name.find('_')) + " ";
  }
  EXPECT_EQ(modules, "Alpha Beta Gamma ");
  EXPECT_EQ(session->taskCount(), 2u);
  for (const auto& [name, queue] : service->moduleQueues()) EXPECT_TRUE(queue->isEmpty()) << name;
}

TEST_F(QVApplicationLifecycleManagerTest, StoppingNeedsNoStartAndTheServiceKeepsOneManager) {
  EXPECT_TRUE(manager->stopMonitoringApplicationChanges());
  auto environment = QVEnvironmentalSerivce::sharedInstance();
  EXPECT_TRUE(environment->stopMonitoringApplicationChanges()) << "no manager yet";
  setCoreItems({{kToBackground, true}});
  EXPECT_TRUE(environment->startMonitoringApplicationChanges() &&
              environment->startMonitoringApplicationChanges());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 2u) << "two starts, each event handled twice";
  // One stop ends both observations: both starts reached the same manager.
  EXPECT_TRUE(environment->stopMonitoringApplicationChanges());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 2u);

  // Enabling the service rebuilds the observations rather than adding to
  // them, however often it runs.
  QVReachabilitySource::setShared(std::make_shared<QVHostReachabilitySource>());
  ASSERT_TRUE(environment->enable() && environment->enable());
  deliver(Event::kDidEnterBackground);
  EXPECT_EQ(tasks(), 3u) << "one enable's worth";
  EXPECT_TRUE(environment->disable());
  QVReachabilitySource::setShared(nullptr);
}

}  // namespace
}  // namespace qv
