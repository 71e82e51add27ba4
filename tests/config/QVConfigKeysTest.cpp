#include <gtest/gtest.h>

#include <filesystem>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVBundle.h"

namespace qv {
namespace {

using Format = QVPropertyList::Format;

// The accessors read the configuration stored under "QVCore". A stand-in
// module of that name loads it here from a temporary "QVCoreSettings.bundle",
// so these tests do not depend on where the core finds its bundle; the main
// bundle is an empty folder, so the real core finds none.
class QVConfigKeysTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVBundle::setMainBundlePath(folder_.makeFolder("App"));
    QVBundle::clearSearchPaths();
    service_->unloadConfig(QVCore::sharedInstance());
  }
  void TearDown() override {
    service_->unloadConfig(QVCore::sharedInstance());
    QVBundle::setMainBundlePath("");
  }
  void writeCorePlist(const QVValue& dict, Format format = Format::kXML) {
    folder_.writePlist("QVCoreSettings.bundle/QVCoreBasicConfig.plist", dict, format);
  }
  void writeCoreJson(const std::string& text) {
    folder_.write("QVCoreSettings.bundle/QVCoreAdvancedConfig.json", text);
  }
  void loadCore() {
    service_->unloadConfig(QVCore::sharedInstance());
    auto standIn =
        std::make_shared<test::QVTestModule>("QVCore", folder_.at("QVCoreSettings.bundle"));
    ASSERT_TRUE(service_->loadConfig(standIn));
  }

  test::QVTempFolder folder_;
  std::shared_ptr<QVConfigService> service_ = QVConfigService::sharedInstance();
};

// Every accessor with its key, its default and a value that differs from it.
struct Accessor {
  const char* key;
  QVValue (*read)(QVConfigService&);
  QVValue byDefault, inFile;
};
using S = QVConfigService&;
const Accessor kAccessors[] = {
    {"ManualPostEnabled", [](S s) { return QVValue(s.isManualPostingEnabled()); }, true, false},
    {"CompressPostMessage", [](S s) { return QVValue(s.isCompressPostMessageEnabled()); }, true,
     false},
    {"CachingLevel", [](S s) { return s.cachingLevel(); }, 3, 1},
    {"DoPostOnIntervals", [](S s) { return QVValue(s.isDoPostOnIntervalsEnabled()); }, true, false},
    {"HasToPersistLocalCache", [](S s) { return QVValue(s.isHasToPersistLocalCacheEnabled()); },
     true, false},
    {"LoggingLevel", [](S s) { return s.loggingLevel(); }, 3, 4},
    {"PostMessageLevelCellular", [](S s) { return s.postMessageLevelCellular(); }, 3, 1},
    {"PostMessageLevelWiFi", [](S s) { return s.postMessageLevelWifi(); }, 3, 2},
    {"PostMessageTimeIntervals", [](S s) { return s.postMessageTimeIntervals(); }, 30, 12.5},
    {"DoPostAppComesFromBackground",
     [](S s) { return QVValue(s.isDoPostAppComesFromBackgroundEnabled()); }, false, true},
    {"DoPostAppGoesToBackground",
     [](S s) { return QVValue(s.isDoPostAppGoesToBackgroundEnabled()); }, true, false},
    {"DoPostAppGoesToClose", [](S s) { return QVValue(s.isDoPostAppGoesToCloseEnabled()); }, false,
     true},
    {"DoPostAppIsLaunched", [](S s) { return QVValue(s.isDoPostAppIsLaunchedEnabled()); }, true,
     false},
    {"DoPostOnScreenChange", [](S s) { return QVValue(s.isDoPostOnScreenChangeEnabled()); }, true,
     false},
    {"DynamicConfigurationEnabled", [](S s) { return QVValue(s.isDynamicConfigurationEnabled()); },
     true, false},
    {"CachedFileMaxBytesSize", [](S s) { return s.cachedFileMaxBytesSize(); }, 512000, 1000},
    {"PostMessageMaxBytesSize", [](S s) { return s.postMessageMaxBytesSize(); }, 200000, 2000},
    {"PostMessageTimeout", [](S s) { return s.postMessageTimeout(); }, 5, 9},
    {"CriticalBatteryLevel", [](S s) { return s.criticalBatteryLevel(); }, 0.2, 0.1},
    {"LibraryVersion", [](S s) { return s.libraryVersion().value_or(nullptr); }, nullptr, "1.0"},
    {"MessageVersion", [](S s) { return s.messageVersion().value_or(nullptr); }, nullptr, "2"},
    {"TurnOffCorrectOrientationUpdates",
     [](S s) { return QVValue(s.turnOffCorrectOrientationUpdates()); }, false, true},
    {"DefaultOrientation", [](S s) { return s.defaultOrientation(); }, 0, -90},
};

TEST_F(QVConfigKeysTest, DefaultsWithoutAnyFileAndForNullItems) {
  for (const Accessor& a : kAccessors) EXPECT_EQ(a.read(*service_), a.byDefault) << a.key;
  QVValue nulls = QVValue::object();
  for (const Accessor& a : kAccessors) nulls[a.key] = nullptr;
  writeCoreJson(nulls.dump());
  loadCore();
  EXPECT_FALSE(service_->getConfigItemForLifecycleObject("LoggingLevel", QVCore::sharedInstance()));
  for (const Accessor& a : kAccessors) EXPECT_EQ(a.read(*service_), a.byDefault) << a.key;
}

TEST_F(QVConfigKeysTest, EveryKeyIsReadFromTheCoreFiles) {
  QVValue values = QVValue::object();
  for (const Accessor& a : kAccessors) values[a.key] = a.inFile;
  writeCorePlist(values, Format::kBinary);
  loadCore();
  for (const Accessor& a : kAccessors) EXPECT_EQ(a.read(*service_), a.inFile) << a.key;
}

TEST_F(QVConfigKeysTest, MistypedItemsFallBackToTheDefault) {
  writeCoreJson(R"({"ManualPostEnabled": "false", "PostMessageLevelCellular": "2",
    "PostMessageTimeout": [1], "DoPostAppGoesToClose": "true"})");
  loadCore();
  EXPECT_TRUE(service_->isManualPostingEnabled());
  EXPECT_EQ(service_->postMessageLevelCellular(), 3);
  EXPECT_EQ(service_->postMessageTimeout(), 5);
  EXPECT_FALSE(service_->isDoPostAppGoesToCloseEnabled());
}

TEST_F(QVConfigKeysTest, CompressionReadsAnyItemsBooleanValue) {
  const std::pair<const char*, bool> cases[] = {
      {R"({"CompressPostMessage": 0})", false},
      {R"({"CompressPostMessage": 2})", true},
      {R"({"CompressPostMessage": "false"})", false},
      {R"({"CompressPostMessage": " YES"})", true},
      {R"({"CompressPostMessage": "-007"})", true},
      {R"({"CompressPostMessage": [1]})", false},
      {R"({"Other": 1})", true},
  };
  for (const auto& [json, expected] : cases) {
    writeCoreJson(json);
    loadCore();
    EXPECT_EQ(service_->isCompressPostMessageEnabled(), expected) << json;
  }
}

TEST_F(QVConfigKeysTest, TypedReadersOnAnyModule) {
  folder_.write("M.bundle/AdvancedConfig.json", R"({"On": 1, "Text": "1", "Num": 7})");
  auto m = std::make_shared<test::QVTestModule>("TypedModule", folder_.at("M.bundle"));
  EXPECT_TRUE(service_->getConfigItemAsBoolWithDefaultForModuleName("On", false, m));
  EXPECT_FALSE(service_->getConfigItemAsBoolWithDefaultForModuleName("Text", false, m));
  EXPECT_TRUE(service_->getConfigItemAsBoolWithDefaultForModuleName("On", true, nullptr));
  EXPECT_EQ(service_->getNumberItemForWithDefaultForModule("Num", 1, m), 7);
  EXPECT_EQ(service_->getNumberItemForWithDefaultForModule("Text", 1, m), 1);
  EXPECT_EQ(service_->getNumberItemForWithDefaultForModule("Num", 1, nullptr), 1);
}

TEST_F(QVConfigKeysTest, ExampleBundlesLoad) {
  const auto examples = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() /
                        "examples/bundles";
  auto standIn =
      std::make_shared<test::QVTestModule>("QVCore", (examples / "QVCoreSettings.bundle").string());
  ASSERT_TRUE(service_->loadConfig(standIn));
  EXPECT_EQ(service_->postMessageLevelCellular(), 2);          // From the property list.
  EXPECT_EQ(service_->libraryVersion(), QVValue("2.0.0.81"));  // From the JSON file.
  QVBundle::setMainBundlePath((examples / "ExampleApp").string());
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary()["CFBundleIdentifier"],
            "com.example.qvexample");
}

}  // namespace
}  // namespace qv
