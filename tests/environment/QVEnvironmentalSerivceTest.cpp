#include "qvcore/environment/QVEnvironmentalSerivce.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <regex>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVDigest.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVUserDefaults.h"
#include "support/QVFakeInterfaceAddressSource.h"
#include "support/QVTempFolder.h"

namespace qv {
namespace {

using test::QVFakeInterfaceAddressSource;
using test::QVTempFolder;

constexpr uint32_t kUp = IFF_UP | IFF_RUNNING;

// An application with its own bundle and data folder, and host-fed network
// facts, so nothing of the machine running the test leaks in.
class QVEnvironmentalSerivceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVFileSystem::setHomeDirectory(folder.makeFolder("home"));
    setInfo({{"CFBundleIdentifier", "com.example.app"}, {"CFBundleVersion", "2.10.5"}});
    QVReachabilitySource::setShared(reachability);
    QVInterfaceAddressSource::setShared(addresses);
  }
  void TearDown() override { QVInterfaceAddressSource::setShared(nullptr); }

  void setInfo(const QVValue& info) {
    folder.writePlist("App/Info.plist", info);
    QVBundle::setMainBundlePath(folder.at("App"));
  }

  std::shared_ptr<QVEnvironmentalSerivce> service = QVEnvironmentalSerivce::sharedInstance();
  QVTempFolder folder;
  std::shared_ptr<QVHostReachabilitySource> reachability =
      std::make_shared<QVHostReachabilitySource>();
  std::shared_ptr<QVFakeInterfaceAddressSource> addresses =
      std::make_shared<QVFakeInterfaceAddressSource>();
};

TEST_F(QVEnvironmentalSerivceTest, DeviceIdIsTheDigestOfTheStoredUuidAndTheBundleIdentifier) {
  const std::string id = service->deviceID();
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{32}"))) << id;
  EXPECT_EQ(service->deviceID(), id);

  const auto udid = QVUserDefaults::standardUserDefaults().objectForKey("Brevant.UDID");
  ASSERT_TRUE(udid && udid->is_string());
  EXPECT_TRUE(std::regex_match(udid->get<std::string>(),
                               std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}")));
  EXPECT_EQ(id, QVDigest::md5HexString(udid->get<std::string>() + "com.example.app"));
}

// A fresh process sees only what an earlier one left on disk. The child
// processes re-run this test from its start, so the home folder is handed to
// them through the environment.
TEST_F(QVEnvironmentalSerivceTest, DeviceIdSurvivesARestartUntilTheStoredUuidIsRemoved) {
  const char* inherited = std::getenv("QVTEST_SHARED_HOME");
  const std::string home = inherited ? inherited : folder.makeFolder("shared");
  ::setenv("QVTEST_SHARED_HOME", home.c_str(), 1);
  QVFileSystem::setHomeDirectory(home);
  // Only the parent asks here: a child that asked first would keep its answer.
  const std::string first = inherited ? "" : service->deviceID();

  auto idInFreshProcess = [&](bool removeUuid) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const std::string path = home + "/id.txt";
    EXPECT_EXIT(
        {
          auto& defaults = QVUserDefaults::standardUserDefaults();
          if (removeUuid) defaults.removeObjectForKey("Brevant.UDID");
          std::string id = QVEnvironmentalSerivce::sharedInstance()->deviceID();
          std::exit(QVFileSystem::writeAtomically(path, id) ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    return QVFileSystem::contentsAtPath(path, 64).value_or("");
  };
  EXPECT_EQ(idInFreshProcess(false), first);
  const std::string renewed = idInFreshProcess(true);
  EXPECT_NE(renewed, first);
  EXPECT_EQ(renewed.size(), 32u);
}

TEST_F(QVEnvironmentalSerivceTest, AModuleMaySupplyTheDeviceIdWhileTheServiceIsEnabled) {
  reachability->setFlags(0x2);
  ASSERT_TRUE(service->enable());
  auto post = [](std::optional<QVValue> userInfo) {
    QVNotificationCenter::defaultCenter().post(
        "kBRVApplicationHelperDidPostDeviceIDChangeNotification", nullptr, std::move(userInfo));
  };
  const std::string generated = service->deviceID();
  post(std::nullopt);
  post(QVValue{{"keyBRVDeviceID", ""}});
  post(QVValue{{"keyBRVDeviceID", 42}});
  post(QVValue{{"other", "x"}});
  EXPECT_EQ(service->deviceID(), generated);

  post(QVValue{{"keyBRVDeviceID", "module-id"}});
  EXPECT_EQ(service->deviceID(), "module-id");

  ASSERT_TRUE(service->disable());
  post(QVValue{{"keyBRVDeviceID", "after-stop"}});
  EXPECT_EQ(service->deviceID(), "module-id") << "a stopped service no longer listens";
}

TEST_F(QVEnvironmentalSerivceTest, EnableStopsAtTheFirstMonitorThatFailsAndDisableInvertsSleep) {
  EXPECT_EQ(service->settingsBundlePath(), "");
  reachability->setFailsToSchedule(true);
  EXPECT_FALSE(service->enable());
  EXPECT_FALSE(service->isEnabled());
  EXPECT_FALSE(service->isSleepModeActive());

  // A failed start keeps its network monitor, which refuses a second start
  // of the manager; enabling again starts the monitoring afresh all the
  // same, as it does while the monitoring runs.
  reachability->setFailsToSchedule(false);
  auto network = QVNetworkManager::sharedInstance();
  EXPECT_FALSE(network->startNetworkMonitoring());
  EXPECT_TRUE(service->enable());
  EXPECT_TRUE(service->enable());
  EXPECT_FALSE(network->startNetworkMonitoring());
  EXPECT_TRUE(service->isEnabled());
  EXPECT_TRUE(service->disable());
  EXPECT_FALSE(service->isEnabled());
  EXPECT_TRUE(service->isSleepModeActive());

  EXPECT_TRUE(service->enable());
  EXPECT_TRUE(service->isEnabled());
  EXPECT_FALSE(service->isSleepModeActive());
  EXPECT_TRUE(service->disable());
  EXPECT_FALSE(service->isEnabled());
}

TEST_F(QVEnvironmentalSerivceTest, ApplicationFactsComeFromTheMainBundle) {
  struct Case {
    const char* version;
    const char* majorMinor;
  };
  for (const Case& c :
       {Case{"1.2.3", "1.2"}, Case{"2.10.5", "2.10"}, Case{"12.3", "2.3"}, Case{"10.4.1", "0.4"},
        Case{"7", "7"}, Case{"v.1", "v.1"}, Case{"build 3.", "3."}, Case{"", ""}}) {
    setInfo({{"CFBundleVersion", c.version}, {"CFBundleName", "Demo"}});
    EXPECT_EQ(service->appVersionMajorMinor(), c.majorMinor) << c.version;
    EXPECT_EQ(service->appVersion(), c.version);
  }
  EXPECT_EQ(service->appName(), "Demo");
  setInfo(QVValue::object());
  EXPECT_EQ(service->appName(), std::nullopt);
  EXPECT_EQ(service->appVersionMajorMinor(), "");
}

TEST_F(QVEnvironmentalSerivceTest, MemoryIsCutToThirtyTwoBitsAndBatteryIsAlwaysFull) {
  auto& device = QVDevice::currentDevice();
  device.setPhysicalMemory((5ull << 30) + 123);
  device.setUserMemory(3ull << 30);
  EXPECT_EQ(service->deviceTotalMemory(), (1ull << 30) + 123);
  EXPECT_EQ(service->deviceUserMemory(), 3ull << 30);
  EXPECT_EQ(QVEnvironmentalSerivce::getSysInfo(7), 0u);

  device.setBatteryLevel(0.25f);
  EXPECT_EQ(service->getCurrentBatteryLevel(), 100.0f);

  EXPECT_GT(service->deviceTotalStorageCapacity(), 0);
  EXPECT_LE(service->deviceTotalStorageFreeCapacity(), service->deviceTotalStorageCapacity());
}

TEST_F(QVEnvironmentalSerivceTest, AddressesOfUpInterfacesWithTheirFourByteOffset) {
  addresses->setEntries({QVFakeInterfaceAddressSource::ipv4("lo", "127.0.0.1", kUp | IFF_LOOPBACK),
                         QVFakeInterfaceAddressSource::ipv4("en0", "192.168.1.10", kUp),
                         QVFakeInterfaceAddressSource::ipv4("en0", "192.168.1.11", kUp),
                         QVFakeInterfaceAddressSource::ipv6("en0", "fe80::1", kUp, 0x01020304),
                         QVFakeInterfaceAddressSource::ipv4("pdp_ip0", "10.0.0.7", 0),
                         QVFakeInterfaceAddressSource::withoutAddress("en1", kUp)});
  const auto dict = service->getIPAddressesDict();
  ASSERT_TRUE(dict);
  // The IPv6 text is read from the flow information on: 01020304 fe80 0 ...
  EXPECT_EQ(*dict, (QVValue{{"en0/ipv4", "192.168.1.11"}, {"en0/ipv6", "102:304:fe80::"}}));
  EXPECT_EQ(service->networkCarrierName(), "Carrier");
}

TEST_F(QVEnvironmentalSerivceTest, PreferredAddressIsKeptOnceFoundAndUnknownIsRetried) {
  addresses->setEntries(
      {QVFakeInterfaceAddressSource::ipv4("lo", "127.0.0.1", kUp | IFF_LOOPBACK)});
  EXPECT_EQ(service->getIPAddressesDict(), std::nullopt);
  EXPECT_EQ(service->networkIPAddress(), "Unknown");

  addresses->setEntries({QVFakeInterfaceAddressSource::ipv4("pdp_ip0", "10.0.0.7", kUp)});
  EXPECT_EQ(service->networkIPAddress(), "10.0.0.7");

  addresses->setEntries({QVFakeInterfaceAddressSource::ipv4("pdp_ip0", "10.0.0.8", kUp),
                         QVFakeInterfaceAddressSource::ipv4("en0", "192.168.1.10", kUp)});
  EXPECT_EQ(service->networkIPAddress(), "10.0.0.7") << "looked up once per process";

  addresses->setFails(true);
  EXPECT_EQ(service->networkIPAddress(), "10.0.0.7");
}

TEST_F(QVEnvironmentalSerivceTest, WiFiAddressIsTheLastIPv4OfEn0UpOrDown) {
  EXPECT_EQ(service->networkWiFiIPAddress(), "");
  addresses->setEntries({QVFakeInterfaceAddressSource::ipv4("en0", "192.168.1.10", kUp),
                         QVFakeInterfaceAddressSource::ipv4("en0", "192.168.1.20", 0),
                         QVFakeInterfaceAddressSource::ipv4("en1", "192.168.2.1", kUp)});
  EXPECT_EQ(service->networkWiFiIPAddress(), "192.168.1.20");
  EXPECT_EQ(service->getIPAddressesDict(),
            (QVValue{{"en0/ipv4", "192.168.1.10"}, {"en1/ipv4", "192.168.2.1"}}));
  addresses->setFails(true);
  EXPECT_EQ(service->networkWiFiIPAddress(), "");
}

TEST_F(QVEnvironmentalSerivceTest, OrientationNotificationMapsTheDefaultWhenCorrectionsAreOff) {
  std::vector<int64_t> posted;
  int token;
  QVNotificationCenter::defaultCenter().addObserver(
      &token, "kQVEnvironmentalServiceDidPostOrientationChangeNotification", nullptr,
      [&](const QVNotification& n) { posted.push_back(n.userInfo->at("keyQVDeviceOrientation")); });

  EXPECT_TRUE(service->qvOrientationChanged(4));
  EXPECT_EQ(posted, std::vector<int64_t>{4});

  struct Case {
    QVValue defaultOrientation;
    int64_t expected;
  };
  for (const Case& c :
       {Case{0, 1}, Case{90, 3}, Case{180, 2}, Case{-90, 4}, Case{45, 1}, Case{"90", 1}}) {
    QVConfigService::sharedInstance()->setConfigurations(
        {{"QVCore",
          std::make_shared<QVValue>(QVValue{{"TurnOffCorrectOrientationUpdates", true},
                                            {"DefaultOrientation", c.defaultOrientation}})}});
    posted.clear();
    service->qvOrientationChanged(1);
    EXPECT_EQ(posted, std::vector<int64_t>{c.expected}) << c.defaultOrientation;
  }
  QVNotificationCenter::defaultCenter().removeObserver(&token);
}

}  // namespace
}  // namespace qv
