#include "qvcore/core/QVCore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVFieldsMessage.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using test::QVTestModule;
using ::testing::HasSubstr;

// A class known by name that is not a module.
struct NotAModule : QVObject {
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
  // The levels of -1..3 that the gate lets through, e.g. "12".
  std::string passing() {
    std::string levels;
    for (int32_t level = -1; level <= 3; ++level) {
      QVMessage message;
      message.setLogLevel(level);
      if (core_->canPostMessage(&message)) levels += std::to_string(level);
    }
    return levels;
  }
  // The names in the registry, or "none" before there is one.
  std::string registered() {
    const auto registry = core_->classReferences();
    if (!registry) return "none";
    std::string names;
    for (const auto& [name, module] : *registry) names += name + " ";
    return names;
  }

  test::QVTestHost host_{"com.example.core"};
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
};

// Only lifecycle objects are found, and finding registers nothing; a module
// is started or stopped only when it is not already.
TEST_F(QVCoreTest, ModulesAreFoundByClassNameAndStartedOrStoppedOnlyWhenTheyAreNot) {
  auto plain = std::make_shared<NotAModule>();
  QVClassRegistry::shared().registerClass("NotAModule", [plain] { return plain; });
  auto stopped = QVTestModule::define("Stopped");
  auto running = QVTestModule::define("Running");
  EXPECT_EQ(core_->lifecycleObjectForName("Stopped"), stopped);
  for (const char* name : {"NotAModule", "stopped", ""})
    EXPECT_EQ(core_->lifecycleObjectForName(name), nullptr) << name;
  EXPECT_TRUE(core_->disableModule("Nobody") && !core_->startModule("Nobody"));
  EXPECT_TRUE(core_->disableModule("Stopped"));
  running->setEnabled(true);
  running->disableResult = running->enableResult = stopped->enableResult = false;
  EXPECT_FALSE(core_->disableModule("Running"));
  core_->startModule("Running");
  EXPECT_FALSE(core_->startModule("Stopped"));
  EXPECT_EQ((std::vector<int>{stopped->enableCalls, stopped->disableCalls, running->enableCalls,
                              running->disableCalls}),
            (std::vector<int>{1, 0, 0, 1}));
  EXPECT_EQ(registered(), "none");
}

// Failed enables tell, once a process, what was missing.
std::vector<std::string> linesOfTwoEnables(const std::string& app) {
  std::vector<std::string> lines;
  QVBundle::setMainBundlePath(app);
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(QVCore::sharedInstance()->enable() || QVCore::sharedInstance()->enable());
  QVLog::setSink(nullptr);
  return lines;
}

TEST_F(QVCoreTest, AFailedEnableSaysWhereItLookedResetsTheRegistryAndStillObservesTheNetwork) {
  EXPECT_EQ(core_->currentLoggingLevel(), 0);
  const std::string app = host_.folder().at("App");
  EXPECT_THAT(linesOfTwoEnables(app),
              ::testing::ElementsAre(::testing::AllOf(
                  ::testing::StartsWith("QVCore: enable failed: no QVCoreSettings.bundle"),
                  HasSubstr(app), HasSubstr("share/qvcore"))));
  EXPECT_FALSE(core_->isEnabled());
  EXPECT_EQ(registered(), "");
  EXPECT_TRUE(QVConfigService::sharedInstance()->isEnabled()) << "the first step ran";
  EXPECT_EQ(QVConfigService::sharedInstance()->getConfig(core_), nullptr);
  QVNotificationCenter::defaultCenter().post(
      "kQVEnvironmentalServiceDidPostNetworkChangeNotification");
  EXPECT_EQ(core_->currentLoggingLevel(), 1) << "an unknown network maps to level 1";
}

TEST(QVCoreEnableLogTest, AnEnableWithAnEmptyCoreBundleNamesTheBundle) {
  test::QVTempFolder app;
  const std::string bundle = app.makeFolder("QVCoreSettings.bundle");
  EXPECT_EQ(linesOfTwoEnables(app.path()),
            std::vector<std::string>{"QVCore: enable failed: " + bundle +
                                     " holds no readable "
                                     "QVCoreBasicConfig.plist or QVCoreAdvancedConfig.json"});
}

// Battery level 0 sleeps the system: every registered module is asked to
// stop, even after one refused, then the queue and configuration services;
// the registry is kept so that level 1 wakes the same modules. Other levels
// do nothing.
TEST_F(QVCoreTest, BatteryLevelZeroSleepsOneWakesOtherLevelsDoNothing) {
  core_->batteryLevelChanged(2);
  EXPECT_EQ(registered(), "none") << "only 1 and 0 act";
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 3}});
  core_->batteryLevelChanged(1);
  ASSERT_TRUE(core_->isEnabled()) << "waking runs enable";
  auto first = moduleWithConfig("First");
  auto second = moduleWithConfig("Second");
  ASSERT_TRUE(core_->startModule("First") && core_->startModule("Second"));
  // Enabled or not: the queue and configuration services, then the modules.
  const auto state = [&] {
    std::string bits;
    for (bool on :
         {QVQueueService::sharedInstance()->isEnabled(),
          QVConfigService::sharedInstance()->isEnabled(), first->isEnabled(), second->isEnabled()})
      bits += on ? "1" : "0";
    return bits + " " + registered();
  };
  core_->batteryLevelChanged(-1);
  EXPECT_EQ(state(), "1111 First Second ") << "only 1 and 0 act";
  first->disableResult = false;

  core_->batteryLevelChanged(0);
  EXPECT_EQ(first->disableCalls + second->disableCalls, 2) << "asked after another refused";
  EXPECT_EQ(state(), "0010 First Second ") << "the registry is kept for waking";
  EXPECT_FALSE(core_->postMessageForModuleName(test::messageWithOffset(1), "Second"));
  EXPECT_FALSE(core_->sleepSystem()) << "the refusal is the answer";
  core_->batteryLevelChanged(1);
  EXPECT_EQ(state(), "1111 First Second ");
}

TEST_F(QVCoreTest, StartedModulesAreRegisteredOnlyWithAConfiguration) {
  auto configured = moduleWithConfig("Configured");
  auto bare = QVTestModule::define("Bare", host_.folder().makeFolder("Bare.bundle"));
  EXPECT_TRUE(core_->startModule("Configured"));
  EXPECT_EQ(registered(), "none") << "no registry before the first enable";
  core_->enable();
  EXPECT_TRUE(core_->startModule("Configured"));
  EXPECT_TRUE(core_->startModule("Bare") && bare->isEnabled()) << "started, not registered";
  EXPECT_EQ(core_->classReferences(), (QVCore::ModuleRegistry{{"Configured", configured}}));
  EXPECT_EQ(core_->getConfigItemAsStringForModuleName("PostMessageUrl", "Configured"),
            QVValue("http://x"));
}

// The gate reads the raw item of the current network (cellular, as no network
// is known before the core is enabled), a text limit counting as the number
// it starts with; without that item nothing passes, whatever the accessor's
// default says.
TEST_F(QVCoreTest, GateComparesTheLevelWithTheRawItemOfTheNetwork) {
  moduleWithConfig("Poster")->setEnabled(true);
  EXPECT_FALSE(core_->postMessageForModuleName(nullptr, "Poster"));
  EXPECT_EQ(passing(), "") << "no files";
  const std::pair<QVValue, const char*> rows[] = {
      {{{"PostMessageLevelWiFi", 3}}, ""},
      {{{"PostMessageLevelCellular", 2}, {"PostMessageLevelWiFi", 9}}, "12"},
      {{{"PostMessageLevelCellular", " 2 at most"}}, "12"},
      {{{"PostMessageLevelCellular", "all"}}, ""}};
  for (const auto& [items, levels] : rows) {
    setCoreItems(items);
    EXPECT_EQ(passing(), levels) << items;
  }
}

// The network in effect decides which limit the gate reads and which level
// the core reports, from the change on.
TEST_F(QVCoreTest, AfterANetworkChangeTheNewNetworksLevelIsInEffect) {
  auto source = std::make_shared<QVHostReachabilitySource>();
  auto clock = std::make_shared<QVFakeClock>();
  QVReachabilitySource::setShared(source);
  QVRunLoop::main().setClock(clock);
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 3}, {"PostMessageLevelCellular", 2}});
  const uint32_t wiFi = kQVReachabilityFlagsReachable, wwan = wiFi | kQVReachabilityFlagsIsWWAN;
  source->setFlags(wiFi);
  ASSERT_TRUE(core_->enable());
  clock->advance(std::chrono::seconds(1));  // the first evaluation
  // Per network: the level the core reports, and the levels that pass.
  const std::tuple<const char*, uint32_t, const char*> rows[] = {
      {"Wi-Fi", wiFi, "3 123"}, {"cellular", wwan, "2 12"}, {"none", 0, "1 12"}};
  for (const auto& [network, flags, expected] : rows) {
    source->setFlags(flags);
    QVRunLoop::main().runUntilIdle();
    EXPECT_EQ(std::to_string(core_->currentLoggingLevel()) + " " + passing(), expected) << network;
  }
  core_->disable();
  QVRunLoop::main().setClock(nullptr);
}

TEST_F(QVCoreTest, ModuleConfigurationByName) {
  moduleWithConfig("Named");
  host_.folder().write("Named.bundle/AdvancedConfig.json", "not JSON");
  EXPECT_FALSE(core_->getConfigItemForModuleName("PostMessageUrl", "Unknown") ||
               core_->getConfigItemAsNumberForModuleName("PostMessageUrl", "Named") ||
               core_->reloadConfigForModuleName("Unknown"));
  EXPECT_TRUE(core_->getConfigItemAsBoolWithDefaultForModuleName("PostMessageUrl", true, "Named"));

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

// Taking a module's pending items leaves an empty entry.
TEST_F(QVCoreTest, IdsAreMadeOnceAndPendingItemsAreTakenOnce) {
  std::set<std::string> ids{core_->currentSessionID(), core_->currentSessionID()};
  for (int i = 0; i < 100; ++i) ids.insert(core_->generateUUID());
  EXPECT_EQ(ids.size(), 101u);
  for (const auto& id : ids) EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{32}"))) << id;

  core_->setTempConfigDict({{"M", {{"A", 1}}}, {"N", {{"B", 2}}}});
  EXPECT_EQ(core_->takeTempConfigForModuleName("M"), QVValue({{"A", 1}}));
  EXPECT_EQ(core_->takeTempConfigForModuleName("M"), QVValue::object());
  EXPECT_EQ(core_->takeTempConfigForModuleName("Unknown"), QVValue::object());
  EXPECT_EQ(core_->tempConfigDict(), QVValue::parse(R"({"M": {}, "N": {"B": 2}})"));
}

// The facade's own answers; its plain forwards to the environmental service
// are not repeated here.
TEST_F(QVCoreTest, AdvertisingIdAndUserAgentAreKeptByTheEnvironmentalService) {
  auto environment = QVEnvironmentalSerivce::sharedInstance();
  EXPECT_TRUE(core_->setQVAdvertisingId(std::nullopt));
  EXPECT_EQ(core_->getQVAdvertisingId(), "N/A");

  EXPECT_EQ(core_->getUserAgentFromBrowser(), "") << "reading never asks the platform";
  const std::string agent = core_->setUserAgentFromBrowser();
  EXPECT_FALSE(agent.empty());
  EXPECT_EQ(core_->getUserAgentFromBrowser(), agent);
  environment->setUserAgentFromBrowser(std::string("Custom/1"));
  EXPECT_EQ(core_->setUserAgentFromBrowser(), "Custom/1") << "a stored agent is not asked again";
}

}  // namespace
}  // namespace qv
