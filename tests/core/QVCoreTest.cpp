#include "qvcore/core/QVCore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include <regex>
#include <set>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVTempFolder.h"
#include "support/QVTestModule.h"

namespace qv {
namespace {

using test::QVTestModule;

// A class known by name that is not a module.
class NotAModule : public QVObject {
 public:
  std::string className() const override { return "NotAModule"; }
};

TEST(QVCoreTest, FindsModulesByClassNameOnlyWhenTheyAreLifecycleObjects) {
  auto core = QVCore::sharedInstance();
  auto module = QVTestModule::define("Finder");
  auto plain = std::make_shared<NotAModule>();
  QVClassRegistry::shared().registerClass("NotAModule", [plain] { return plain; });

  EXPECT_EQ(core->lifecycleObjectForName("Finder"), module);
  EXPECT_EQ(core->lifecycleObjectForName("NotAModule"), nullptr);
  EXPECT_EQ(core->lifecycleObjectForName("finder"), nullptr);
  EXPECT_EQ(core->lifecycleObjectForName(""), nullptr);
  // Lookup by class does not register the module.
  EXPECT_FALSE(core->classReferences().has_value());
}

TEST(QVCoreTest, ModuleOperationsOnUnknownOrStoppedModules) {
  auto core = QVCore::sharedInstance();
  EXPECT_TRUE(core->disableModule("Nobody"));
  EXPECT_FALSE(core->startModule("Nobody"));

  auto stopped = QVTestModule::define("Stopped");
  EXPECT_TRUE(core->disableModule("Stopped"));
  EXPECT_EQ(stopped->disableCalls, 0) << "a module that is not enabled is not asked to stop";

  auto running = QVTestModule::define("Running");
  running->setEnabled(true);
  running->disableResult = false;
  EXPECT_FALSE(core->disableModule("Running"));
  EXPECT_EQ(running->disableCalls, 1);
}

TEST(QVCoreTest, StartModuleEnablesAModuleOnlyWhenItIsNotEnabled) {
  auto core = QVCore::sharedInstance();
  auto refusing = QVTestModule::define("Refusing");
  refusing->enableResult = false;
  EXPECT_FALSE(core->startModule("Refusing"));
  EXPECT_EQ(refusing->enableCalls, 1);

  auto already = QVTestModule::define("Already");
  already->setEnabled(true);
  already->enableResult = false;
  core->startModule("Already");
  EXPECT_EQ(already->enableCalls, 0);
}

TEST(QVCoreTest, EnableResetsTheRegistryAndObservesNetworkChangesWhateverItsOutcome) {
  auto core = QVCore::sharedInstance();
  EXPECT_FALSE(core->classReferences().has_value());
  EXPECT_EQ(core->currentLoggingLevel(), 0);

  core->enable();
  ASSERT_TRUE(core->classReferences().has_value());
  EXPECT_TRUE(core->classReferences()->empty());

  QVNotificationCenter::defaultCenter().post(
      "kQVEnvironmentalServiceDidPostNetworkChangeNotification");
  // An unknown network status maps to posting level 1.
  EXPECT_EQ(core->currentLoggingLevel(), 1);
}

// Failed enables tell, once a process, what was missing.
std::vector<std::string> linesOfTwoEnables() {
  std::vector<std::string> lines;
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(QVCore::sharedInstance()->enable());
  EXPECT_FALSE(QVCore::sharedInstance()->enable());
  QVLog::setSink(nullptr);
  return lines;
}

TEST(QVCoreTest, AnEnableWithoutTheCoreBundleSaysWhereItLooked) {
  test::QVTempFolder app;
  QVBundle::setMainBundlePath(app.path());
  const auto lines = linesOfTwoEnables();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], ::testing::StartsWith("QVCore: enable failed: no QVCoreSettings.bundle"));
  EXPECT_THAT(lines[0], ::testing::HasSubstr(app.path()));
  EXPECT_THAT(lines[0], ::testing::HasSubstr("share/qvcore"));
}

TEST(QVCoreTest, AnEnableWithAnEmptyCoreBundleNamesTheBundle) {
  test::QVTempFolder app;
  std::filesystem::create_directory(app.path() + "/QVCoreSettings.bundle");
  QVBundle::setMainBundlePath(app.path());
  const auto lines = linesOfTwoEnables();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "QVCore: enable failed: " + app.path() +
                          "/QVCoreSettings.bundle holds no readable QVCoreBasicConfig.plist or "
                          "QVCoreAdvancedConfig.json");
}

TEST(QVCoreTest, BatteryLevelOneWakesZeroSleepsOtherValuesDoNothing) {
  auto core = QVCore::sharedInstance();
  core->batteryLevelChanged(2);
  core->batteryLevelChanged(-1);
  EXPECT_FALSE(core->classReferences().has_value()) << "only 1 and 0 act";
  core->batteryLevelChanged(1);
  EXPECT_TRUE(core->classReferences().has_value()) << "waking runs enable, which makes a registry";

  // Items handed in early give the module a configuration, so it registers.
  auto sleeper = QVTestModule::define("Sleeper");
  core->updateConfigForModuleNameWithData("Sleeper", QVValue{{"Key", 1}});
  ASSERT_TRUE(core->startModule("Sleeper"));
  ASSERT_TRUE(core->lifecycleObjectForName("Sleeper"));
  core->batteryLevelChanged(0);
  EXPECT_FALSE(sleeper->isEnabled()) << "sleeping disables every registered module";
  EXPECT_EQ(sleeper->disableCalls, 1);
  EXPECT_FALSE(QVQueueService::sharedInstance()->isEnabled());
  EXPECT_FALSE(QVConfigService::sharedInstance()->isEnabled());
  EXPECT_EQ(core->classReferences()->count("Sleeper"), 1u) << "the registry is kept for waking";
}

TEST(QVCoreTest, SessionIdIsMadeOnceAndUuidsAreThirtyTwoUpperCaseHexDigits) {
  auto core = QVCore::sharedInstance();
  const std::string id = core->currentSessionID();
  EXPECT_EQ(core->currentSessionID(), id);
  const std::regex form("[0-9A-F]{32}");
  EXPECT_TRUE(std::regex_match(id, form)) << id;

  std::set<std::string> ids;
  for (int i = 0; i < 100; ++i) {
    const std::string uuid = core->generateUUID();
    EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    ids.insert(uuid);
  }
  EXPECT_EQ(ids.size(), 100u);
}

TEST(QVCoreTest, TakingPendingItemsLeavesAnEmptyEntry) {
  auto core = QVCore::sharedInstance();
  core->setTempConfigDict({{"M", {{"A", 1}}}, {"N", {{"B", 2}}}});
  EXPECT_EQ(core->takeTempConfigForModuleName("M"), QVValue({{"A", 1}}));
  EXPECT_EQ(core->takeTempConfigForModuleName("M"), QVValue::object());
  EXPECT_EQ(core->takeTempConfigForModuleName("Unknown"), QVValue::object());
  EXPECT_EQ(core->tempConfigDict()["N"], QVValue({{"B", 2}}));
  EXPECT_EQ(core->tempConfigDict()["M"], QVValue::object());
}

TEST(QVCoreHelperTest, NowIsWholeMillisecondsOfTheWallClock) {
  using namespace std::chrono;
  const auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  const uint64_t now = QVCoreHelper::sharedInstance()->now();
  const auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  EXPECT_GE(now, static_cast<uint64_t>(before));
  EXPECT_LE(now, static_cast<uint64_t>(after));
  EXPECT_LE(now, QVCoreHelper::sharedInstance()->now());
}

}  // namespace
}  // namespace qv
