#include <gtest/gtest.h>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVNotificationCenter.h"

namespace qv {
namespace {

using test::QVTestModule;

// The core's own settings come from "QVCoreSettings.bundle" in the main
// bundle; each test writes the files it needs.
class QVCoreConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { QVBundle::setMainBundlePath(folder_.makeFolder("App")); }
  void TearDown() override { QVBundle::setMainBundlePath(""); }

  void writeCoreConfig(const std::string& json) {
    folder_.write("App/QVCoreSettings.bundle/QVCoreAdvancedConfig.json", json);
  }
  std::shared_ptr<QVTestModule> moduleWithConfig(const std::string& name) {
    folder_.write(name + ".bundle/AdvancedConfig.json", R"({"PostMessageUrl": "http://x"})");
    return QVTestModule::define(name, folder_.at(name + ".bundle"));
  }

  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
  test::QVTempFolder folder_;
};

TEST_F(QVCoreConfigTest, EnableWithoutCoreFilesFailsYetObservesTheNetwork) {
  EXPECT_FALSE(core_->enable());
  EXPECT_FALSE(core_->isEnabled());
  EXPECT_TRUE(QVConfigService::sharedInstance()->isEnabled()) << "the first step ran";
  EXPECT_EQ(QVConfigService::sharedInstance()->getConfig(core_), nullptr);
  QVNotificationCenter::defaultCenter().post(
      "kQVEnvironmentalServiceDidPostNetworkChangeNotification");
  EXPECT_EQ(core_->currentLoggingLevel(), 1);
}

TEST_F(QVCoreConfigTest, StartedModulesAreRegisteredOnlyWithAConfiguration) {
  auto configured = moduleWithConfig("Configured");
  auto bare = QVTestModule::define("Bare", folder_.makeFolder("Bare.bundle"));

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

TEST_F(QVCoreConfigTest, SleepAsksEveryRegisteredModuleAndStopsTheConfigurationService) {
  auto first = moduleWithConfig("First");
  auto second = moduleWithConfig("Second");
  core_->enable();
  ASSERT_TRUE(core_->startModule("First"));
  ASSERT_TRUE(core_->startModule("Second"));
  first->disableResult = false;

  EXPECT_FALSE(core_->sleepSystem());
  EXPECT_EQ(first->disableCalls, 1);
  EXPECT_EQ(second->disableCalls, 1) << "asked even after another module failed";
  EXPECT_FALSE(second->isEnabled());
  EXPECT_FALSE(QVConfigService::sharedInstance()->isEnabled());
  EXPECT_EQ(core_->classReferences()->size(), 2u) << "sleeping keeps the registry";
}

TEST_F(QVCoreConfigTest, GateComparesTheLevelWithTheRawItemOfTheNetwork) {
  moduleWithConfig("Poster")->setEnabled(true);
  EXPECT_FALSE(core_->postMessageForModuleName(nullptr, "Poster"));
  QVMessage message;
  const auto passes = [&](int32_t level) {
    message.setLogLevel(level);
    return core_->canPostMessage(&message);
  };
  // Without the item of the current network nothing passes, whatever the
  // level; the accessor's default is not what the gate uses.
  for (int32_t level : {-1, 0, 1}) EXPECT_FALSE(passes(level)) << "no files, " << level;
  writeCoreConfig(R"({"PostMessageLevelWiFi": 3})");
  ASSERT_TRUE(core_->reloadConfigForModuleName("QVCore"));
  for (int32_t level : {-1, 0, 1}) EXPECT_FALSE(passes(level)) << "Wi-Fi item only, " << level;
  EXPECT_EQ(QVConfigService::sharedInstance()->postMessageLevelCellular(), QVValue(3));

  // Not on Wi-Fi: the cellular item decides and the Wi-Fi item is ignored.
  writeCoreConfig(R"({"PostMessageLevelCellular": 2, "PostMessageLevelWiFi": 9})");
  ASSERT_TRUE(core_->reloadConfigForModuleName("QVCore"));
  for (int32_t level : {1, 2}) EXPECT_TRUE(passes(level)) << level;
  for (int32_t level : {0, 3, -1}) EXPECT_FALSE(passes(level)) << level;

  // A limit written as text counts as the number it starts with.
  writeCoreConfig(R"({"PostMessageLevelCellular": " 2 at most"})");
  ASSERT_TRUE(core_->reloadConfigForModuleName("QVCore"));
  for (int32_t level : {1, 2}) EXPECT_TRUE(passes(level)) << "text, " << level;
  EXPECT_FALSE(passes(3));
  writeCoreConfig(R"({"PostMessageLevelCellular": "all"})");
  ASSERT_TRUE(core_->reloadConfigForModuleName("QVCore"));
  EXPECT_FALSE(passes(1)) << "text without digits is 0";
}

TEST_F(QVCoreConfigTest, ModuleConfigurationByName) {
  moduleWithConfig("Named");
  folder_.write("Named.bundle/BasicConfig.plist", "not a plist");
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
  writeCoreConfig(R"({"LoggingLevel": 4})");
  EXPECT_TRUE(core_->reloadConfigForModuleName("QVCore"));
  EXPECT_EQ(core_->defaultLogLevel(), QVValue(4));
}

}  // namespace
}  // namespace qv
