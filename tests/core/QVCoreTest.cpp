#include "qvcore/core/QVCore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCoreDLogAnnounceFunctionNamesLineNumbers.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVScreen.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVFieldsMessage.h"
#include "support/QVGzip.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using test::QVTestModule;

// A class known by name that is not a module.
class NotAModule : public QVObject {
 public:
  std::string className() const override { return "NotAModule"; }
};

// A host whose core settings the test writes (none until it does), so that
// enabling fails until then.
class QVCoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<QVTestModule> moduleWithConfig(const std::string& name) {
    return host_.defineModule(name, {{"PostMessageUrl", "http://x"}});
  }
  void setCoreItems(const QVValue& items) {
    host_.writeCoreConfig(items);
    core_->reloadConfigForModuleName("QVCore");
  }
  bool passes(int32_t level) {
    QVMessage message;
    message.setLogLevel(level);
    return core_->canPostMessage(&message);
  }

  test::QVTestHost host_{"com.example.core"};
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
};

TEST_F(QVCoreTest, FindsModulesByClassNameOnlyWhenTheyAreLifecycleObjects) {
  auto module = QVTestModule::define("Finder");
  auto plain = std::make_shared<NotAModule>();
  QVClassRegistry::shared().registerClass("NotAModule", [plain] { return plain; });
  EXPECT_EQ(core_->lifecycleObjectForName("Finder"), module);
  for (const char* name : {"NotAModule", "finder", ""}) {
    EXPECT_EQ(core_->lifecycleObjectForName(name), nullptr) << name;
  }
  EXPECT_FALSE(core_->classReferences().has_value()) << "lookup by class registers nothing";
}

TEST_F(QVCoreTest, ModulesAreStartedOrStoppedOnlyWhenTheyAreNot) {
  EXPECT_TRUE(core_->disableModule("Nobody"));
  EXPECT_FALSE(core_->startModule("Nobody"));
  auto stopped = QVTestModule::define("Stopped");
  EXPECT_TRUE(core_->disableModule("Stopped"));
  EXPECT_EQ(stopped->disableCalls, 0);
  auto running = QVTestModule::define("Running");
  running->setEnabled(true);
  running->disableResult = false;
  running->enableResult = false;
  EXPECT_FALSE(core_->disableModule("Running"));
  EXPECT_EQ(running->disableCalls, 1);
  core_->startModule("Running");
  EXPECT_EQ(running->enableCalls, 0);
  stopped->enableResult = false;
  EXPECT_FALSE(core_->startModule("Stopped"));
  EXPECT_EQ(stopped->enableCalls, 1);
}

TEST_F(QVCoreTest, AFailedEnableResetsTheRegistryAndStillObservesTheNetwork) {
  EXPECT_EQ(core_->currentLoggingLevel(), 0);
  EXPECT_FALSE(core_->enable());
  EXPECT_FALSE(core_->isEnabled());
  ASSERT_TRUE(core_->classReferences().has_value());
  EXPECT_TRUE(core_->classReferences()->empty());
  EXPECT_TRUE(QVConfigService::sharedInstance()->isEnabled()) << "the first step ran";
  EXPECT_EQ(QVConfigService::sharedInstance()->getConfig(core_), nullptr);
  QVNotificationCenter::defaultCenter().post(
      "kQVEnvironmentalServiceDidPostNetworkChangeNotification");
  EXPECT_EQ(core_->currentLoggingLevel(), 1) << "an unknown network maps to level 1";
}

// Failed enables tell, once a process, what was missing.
std::vector<std::string> linesOfTwoEnables(const std::string& app) {
  std::vector<std::string> lines;
  QVBundle::setMainBundlePath(app);
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(QVCore::sharedInstance()->enable());
  EXPECT_FALSE(QVCore::sharedInstance()->enable());
  QVLog::setSink(nullptr);
  return lines;
}

TEST(QVCoreEnableLogTest, AnEnableWithoutTheCoreBundleSaysWhereItLooked) {
  test::QVTempFolder app;
  const auto lines = linesOfTwoEnables(app.path());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], ::testing::StartsWith("QVCore: enable failed: no QVCoreSettings.bundle"));
  EXPECT_THAT(lines[0], ::testing::HasSubstr(app.path()));
  EXPECT_THAT(lines[0], ::testing::HasSubstr("share/qvcore"));
}

TEST(QVCoreEnableLogTest, AnEnableWithAnEmptyCoreBundleNamesTheBundle) {
  test::QVTempFolder app;
  std::filesystem::create_directory(app.path() + "/QVCoreSettings.bundle");
  EXPECT_EQ(linesOfTwoEnables(app.path()),
            std::vector<std::string>{"QVCore: enable failed: " + app.path() +
                                     "/QVCoreSettings.bundle holds no readable "
                                     "QVCoreBasicConfig.plist or QVCoreAdvancedConfig.json"});
}

// Battery level 0 sleeps the system: every registered module is asked to
// stop, even after one refused, then the queue and configuration services;
// the registry is kept so that level 1 wakes the same modules. Other levels
// do nothing.
TEST_F(QVCoreTest, BatteryLevelZeroSleepsOneWakesOtherLevelsDoNothing) {
  core_->batteryLevelChanged(2);
  core_->batteryLevelChanged(-1);
  EXPECT_FALSE(core_->classReferences().has_value()) << "only 1 and 0 act";
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 3}});
  core_->batteryLevelChanged(1);
  ASSERT_TRUE(core_->isEnabled()) << "waking runs enable";
  auto first = moduleWithConfig("First");
  auto second = moduleWithConfig("Second");
  ASSERT_TRUE(core_->startModule("First") && core_->startModule("Second"));
  first->disableResult = false;

  core_->batteryLevelChanged(0);
  EXPECT_EQ(first->disableCalls, 1);
  EXPECT_EQ(second->disableCalls, 1) << "asked even after another module refused";
  EXPECT_FALSE(second->isEnabled());
  EXPECT_FALSE(QVQueueService::sharedInstance()->isEnabled());
  EXPECT_FALSE(QVConfigService::sharedInstance()->isEnabled());
  EXPECT_EQ(core_->classReferences()->size(), 2u) << "the registry is kept for waking";
  EXPECT_FALSE(core_->postMessageForModuleName(test::messageWithOffset(1), "Second"));
  EXPECT_FALSE(core_->sleepSystem()) << "the refusal is the answer";

  core_->batteryLevelChanged(1);
  EXPECT_TRUE(second->isEnabled() && first->isEnabled());
  EXPECT_TRUE(QVQueueService::sharedInstance()->isEnabled());
  EXPECT_EQ(core_->classReferences()->size(), 2u);
}

TEST_F(QVCoreTest, StartedModulesAreRegisteredOnlyWithAConfiguration) {
  auto configured = moduleWithConfig("Configured");
  auto bare = QVTestModule::define("Bare", host_.folder().makeFolder("Bare.bundle"));
  EXPECT_TRUE(core_->startModule("Configured"));
  EXPECT_FALSE(core_->classReferences()) << "no registry before the first enable";
  core_->enable();
  EXPECT_TRUE(core_->startModule("Configured"));
  EXPECT_TRUE(core_->startModule("Bare")) << "started, though not registered";
  EXPECT_TRUE(bare->isEnabled());
  auto registry = core_->classReferences();
  ASSERT_TRUE(registry);
  EXPECT_EQ(registry->size(), 1u);
  EXPECT_EQ(registry->at("Configured"), configured);
  EXPECT_EQ(core_->getConfigItemAsStringForModuleName("PostMessageUrl", "Configured"),
            QVValue("http://x"));
}

TEST_F(QVCoreTest, GateComparesTheLevelWithTheRawItemOfTheNetwork) {
  moduleWithConfig("Poster")->setEnabled(true);
  EXPECT_FALSE(core_->postMessageForModuleName(nullptr, "Poster"));
  // Without the item of the current network nothing passes, whatever the
  // level; the accessor's default is not what the gate uses.
  for (int32_t level : {-1, 0, 1}) EXPECT_FALSE(passes(level)) << "no files, " << level;
  setCoreItems({{"PostMessageLevelWiFi", 3}});
  for (int32_t level : {-1, 0, 1}) EXPECT_FALSE(passes(level)) << "Wi-Fi item only, " << level;
  EXPECT_EQ(QVConfigService::sharedInstance()->postMessageLevelCellular(), QVValue(3));

  // Not on Wi-Fi: the cellular item decides and the Wi-Fi item is ignored.
  setCoreItems({{"PostMessageLevelCellular", 2}, {"PostMessageLevelWiFi", 9}});
  for (int32_t level : {1, 2}) EXPECT_TRUE(passes(level)) << level;
  for (int32_t level : {0, 3, -1}) EXPECT_FALSE(passes(level)) << level;

  // A limit written as text counts as the number it starts with.
  setCoreItems({{"PostMessageLevelCellular", " 2 at most"}});
  for (int32_t level : {1, 2}) EXPECT_TRUE(passes(level)) << "text, " << level;
  EXPECT_FALSE(passes(3));
  setCoreItems({{"PostMessageLevelCellular", "all"}});
  EXPECT_FALSE(passes(1)) << "text without digits is 0";
}

// The network in effect decides which limit the gate reads and which level
// the core reports, from the change on.
TEST_F(QVCoreTest, AfterANetworkChangeTheNewNetworksLevelIsInEffect) {
  auto source = std::make_shared<QVHostReachabilitySource>();
  auto clock = std::make_shared<QVFakeClock>();
  QVReachabilitySource::setShared(source);
  QVRunLoop::main().setClock(clock);
  source->setFlags(kQVReachabilityFlagsReachable);
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 3}, {"PostMessageLevelCellular", 2}});
  ASSERT_TRUE(core_->enable());
  clock->advance(std::chrono::seconds(1));  // the first evaluation
  QVRunLoop::main().runUntilIdle();

  struct Row {
    const char* network;
    uint32_t flags;
    int32_t level;  // what the core reports
    int32_t highestPassing;
  };
  for (const Row& row :
       {Row{"Wi-Fi", kQVReachabilityFlagsReachable, 3, 3},
        Row{"cellular", kQVReachabilityFlagsReachable | kQVReachabilityFlagsIsWWAN, 2, 2},
        Row{"Wi-Fi again", kQVReachabilityFlagsReachable, 3, 3}, Row{"none", 0, 1, 2}}) {
    source->setFlags(row.flags);
    QVRunLoop::main().runUntilIdle();
    EXPECT_EQ(core_->currentLoggingLevel(), row.level) << row.network;
    EXPECT_TRUE(passes(row.highestPassing)) << row.network;
    EXPECT_FALSE(passes(row.highestPassing + 1)) << row.network;
  }
  core_->disable();
  QVRunLoop::main().setClock(nullptr);
}

TEST_F(QVCoreTest, ModuleConfigurationByName) {
  moduleWithConfig("Named");
  host_.folder().write("Named.bundle/AdvancedConfig.json", "not JSON");
  EXPECT_FALSE(core_->getConfigItemForModuleName("PostMessageUrl", "Unknown"));
  EXPECT_FALSE(core_->getConfigItemAsNumberForModuleName("PostMessageUrl", "Named"));
  EXPECT_TRUE(core_->getConfigItemAsBoolWithDefaultForModuleName("PostMessageUrl", true, "Named"));
  EXPECT_FALSE(core_->reloadConfigForModuleName("Unknown"));

  // Kept before the core is enabled, then lost again by a reload from files.
  EXPECT_FALSE(core_->updateConfigForModuleNameWithData("Named", {{"PostMessageUrl", 5}}));
  EXPECT_TRUE(core_->reloadConfigForModuleName("Named"));
  EXPECT_EQ(core_->getConfigItemAsNumberForModuleName("PostMessageUrl", "Named"), QVValue(5));
  EXPECT_TRUE(core_->reloadConfigForModuleName("Named"));
  EXPECT_EQ(core_->getConfigItemForModuleName("PostMessageUrl", "Named"), QVValue("http://x"));

  EXPECT_FALSE(core_->defaultLogLevel()) << "no default applied";
  EXPECT_EQ(core_->loggingLevel(), QVValue(3));
  setCoreItems({{"LoggingLevel", 4}});
  EXPECT_EQ(core_->defaultLogLevel(), QVValue(4));
}

TEST_F(QVCoreTest, IdsAreMadeOnceAndAreThirtyTwoUpperCaseHexDigits) {
  const std::string id = core_->currentSessionID();
  EXPECT_EQ(core_->currentSessionID(), id);
  const std::regex form("[0-9A-F]{32}");
  EXPECT_TRUE(std::regex_match(id, form)) << id;
  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    const std::string uuid = core_->generateUUID();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    ids.insert(uuid);
  }
  EXPECT_EQ(ids.size(), 100u);
}

TEST_F(QVCoreTest, TakingPendingItemsLeavesAnEmptyEntry) {
  core_->setTempConfigDict({{"M", {{"A", 1}}}, {"N", {{"B", 2}}}});
  EXPECT_EQ(core_->takeTempConfigForModuleName("M"), QVValue({{"A", 1}}));
  EXPECT_EQ(core_->takeTempConfigForModuleName("M"), QVValue::object());
  EXPECT_EQ(core_->takeTempConfigForModuleName("Unknown"), QVValue::object());
  EXPECT_EQ(core_->tempConfigDict()["N"], QVValue({{"B", 2}}));
  EXPECT_EQ(core_->tempConfigDict()["M"], QVValue::object());
}

// The facade answers what the environmental service answers, through the
// differently named targets too.
TEST_F(QVCoreTest, DeviceFactsAreTheEnvironmentalServicesAnswers) {
  auto environment = QVEnvironmentalSerivce::sharedInstance();
  QVScreen::setMainScreen(320, 480, 2);
  QVDevice::currentDevice().setPhysicalMemory(123456);
  EXPECT_TRUE(core_->setQVAdvertisingId("ad-7"));
  EXPECT_EQ(environment->vepAdvertisingIdFromCustomer(), "ad-7");
  EXPECT_TRUE(core_->setQVAdvertisingId(std::nullopt));
  EXPECT_EQ(core_->getQVAdvertisingId(), "N/A");
  environment->setVepAdvertisingIdFromCustomer(std::nullopt);
  EXPECT_EQ(core_->getQVAdvertisingId(), std::nullopt);

  EXPECT_EQ(core_->getUserAgentFromBrowser(), "") << "reading never asks the platform";
  const std::string agent = core_->setUserAgentFromBrowser();
  EXPECT_FALSE(agent.empty());
  EXPECT_EQ(core_->getUserAgentFromBrowser(), agent);
  environment->setUserAgentFromBrowser(std::string("Custom/1"));
  EXPECT_EQ(core_->setUserAgentFromBrowser(), "Custom/1") << "a stored agent is not asked again";

  EXPECT_EQ(core_->currentScreenDimensions(), (std::pair<double, double>{320, 480}));
  EXPECT_EQ(core_->deviceTotalMemory(), 123456u);
  EXPECT_EQ(core_->deviceID(), environment->deviceID());
  EXPECT_EQ(core_->currentNetworkReachabilityName(), "UNKNOWN");
  EXPECT_EQ(core_->currentConnectionType(), "N/A");
  EXPECT_EQ(core_->currentOrientationName(), "UNKNOWN");
  EXPECT_EQ(core_->getCurrentBatteryLevel(), 100.0f);
  const auto compressed = core_->compressData(std::make_shared<const std::string>(4096, 'a'));
  ASSERT_TRUE(compressed);
  EXPECT_EQ(test::gunzip(*compressed), std::string(4096, 'a'));
  QVCoreDLogAnnounceFunctionNamesLineNumbers::announceFunctionLine(__func__, __LINE__);
}

TEST(QVCoreHelperTest, NowIsWholeMillisecondsOfTheWallClock) {
  using namespace std::chrono;
  const auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  const uint64_t now = QVCoreHelper::sharedInstance()->now();
  const auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  EXPECT_GE(now, static_cast<uint64_t>(before));
  EXPECT_LE(now, static_cast<uint64_t>(after));
}

}  // namespace
}  // namespace qv
