#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <type_traits>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVBundle.h"

namespace qv {
namespace {

using S = QVConfigService;

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
  // Loads the core's configuration through a stand-in named "QVCore".
  void loadCore(const std::string& bundlePath) {
    service_->unloadConfig(QVCore::sharedInstance());
    ASSERT_TRUE(service_->loadConfig(std::make_shared<test::QVTestModule>("QVCore", bundlePath)));
  }
  void loadCoreJson(const std::string& json) {
    folder_.write("QVCoreSettings.bundle/QVCoreAdvancedConfig.json", json);
    loadCore(folder_.at("QVCoreSettings.bundle"));
  }

  test::QVTempFolder folder_;
  std::shared_ptr<S> service_ = S::sharedInstance();
};

template <auto kAccessor>
QVValue read(S& service) {
  auto value = (service.*kAccessor)();
  if constexpr (std::is_same_v<decltype(value), std::optional<QVValue>>) {
    return value.value_or(nullptr);
  } else {
    return QVValue(value);
  }
}

// Every accessor with its key, its default and a value that differs from it.
struct Accessor {
  const char* key;
  QVValue (*read)(S&);
  QVValue byDefault, inFile;
};
const Accessor kAccessors[] = {
    {"ManualPostEnabled", read<&S::isManualPostingEnabled>, true, false},
    {"CompressPostMessage", read<&S::isCompressPostMessageEnabled>, true, false},
    {"CachingLevel", read<&S::cachingLevel>, 3, 1},
    {"DoPostOnIntervals", read<&S::isDoPostOnIntervalsEnabled>, true, false},
    {"HasToPersistLocalCache", read<&S::isHasToPersistLocalCacheEnabled>, true, false},
    {"LoggingLevel", read<&S::loggingLevel>, 3, 4},
    {"PostMessageLevelCellular", read<&S::postMessageLevelCellular>, 3, 1},
    {"PostMessageLevelWiFi", read<&S::postMessageLevelWifi>, 3, 2},
    {"PostMessageTimeIntervals", read<&S::postMessageTimeIntervals>, 30, 12.5},
    {"DoPostAppComesFromBackground", read<&S::isDoPostAppComesFromBackgroundEnabled>, false, true},
    {"DoPostAppGoesToBackground", read<&S::isDoPostAppGoesToBackgroundEnabled>, true, false},
    {"DoPostAppGoesToClose", read<&S::isDoPostAppGoesToCloseEnabled>, false, true},
    {"DoPostAppIsLaunched", read<&S::isDoPostAppIsLaunchedEnabled>, true, false},
    {"DoPostOnScreenChange", read<&S::isDoPostOnScreenChangeEnabled>, true, false},
    {"DynamicConfigurationEnabled", read<&S::isDynamicConfigurationEnabled>, true, false},
    {"CachedFileMaxBytesSize", read<&S::cachedFileMaxBytesSize>, 512000, 1000},
    {"PostMessageMaxBytesSize", read<&S::postMessageMaxBytesSize>, 200000, 2000},
    {"PostMessageTimeout", read<&S::postMessageTimeout>, 5, 9},
    {"CriticalBatteryLevel", read<&S::criticalBatteryLevel>, 0.2, 0.1},
    {"LibraryVersion", read<&S::libraryVersion>, nullptr, "1.0"},
    {"MessageVersion", read<&S::messageVersion>, nullptr, "2"},
    {"TurnOffCorrectOrientationUpdates", read<&S::turnOffCorrectOrientationUpdates>, false, true},
    {"DefaultOrientation", read<&S::defaultOrientation>, 0, -90}};

// Without any file and for null items every accessor answers its default.
TEST_F(QVConfigKeysTest, EveryKeyIsReadFromTheCoreFilesOrDefaults) {
  QVValue nulls = QVValue::object(), values = QVValue::object();
  for (const Accessor& a : kAccessors) {
    EXPECT_EQ(a.read(*service_), a.byDefault) << a.key;
    nulls[a.key] = nullptr;
    values[a.key] = a.inFile;
  }
  loadCoreJson(nulls.dump());
  EXPECT_FALSE(service_->getConfigItemForLifecycleObject("LoggingLevel", QVCore::sharedInstance()));
  for (const Accessor& a : kAccessors) EXPECT_EQ(a.read(*service_), a.byDefault) << a.key;
  folder_.writePlist("QVCoreSettings.bundle/QVCoreBasicConfig.plist", values,
                     QVPropertyList::Format::kBinary);
  folder_.write("QVCoreSettings.bundle/QVCoreAdvancedConfig.json", "{}");
  loadCore(folder_.at("QVCoreSettings.bundle"));
  // As text: equality of values would take -90 and its unsigned bits as equal.
  for (const Accessor& a : kAccessors) {
    EXPECT_EQ(a.read(*service_).dump(), a.inFile.dump()) << a.key;
  }
}

TEST_F(QVConfigKeysTest, MistypedItemsFallBackToTheDefaultButCompressionReadsAnyItem) {
  loadCoreJson(R"({"ManualPostEnabled": "false", "PostMessageLevelCellular": "2"})");
  EXPECT_TRUE(service_->isManualPostingEnabled());
  EXPECT_EQ(service_->postMessageLevelCellular(), 3);
  EXPECT_TRUE(service_->isCompressPostMessageEnabled());  // absent
  const std::pair<const char*, bool> cases[] = {{"0", false},          {"2", true},
                                                {R"("false")", false}, {R"(" YES")", true},
                                                {R"("-007")", true},   {"[1]", false}};
  for (const auto& [value, expected] : cases) {
    loadCoreJson(std::string(R"({"CompressPostMessage": )") + value + "}");
    EXPECT_EQ(service_->isCompressPostMessageEnabled(), expected) << value;
  }
}

// Items written as text: the raw readers (the posting gate, the lifecycle
// manager, "URLEncoded", compression) read them as the platform reads text,
// while the typed accessors keep their defaults for them (above).
TEST_F(QVConfigKeysTest, RawReadersReadTextAsThePlatformDoes) {
  const std::pair<const char*, int64_t> integers[] = {{"3", 3},    {" \t-12", -12}, {"+7", 7},
                                                      {"3abc", 3}, {"abc", 0},      {"", 0},
                                                      {"- 3", 0},  {"2.9", 2}};
  const std::string big(20, '9');
  EXPECT_EQ(QVValues::integerValue(big), INT64_MAX);
  EXPECT_EQ(QVValues::integerValue("-" + big), INT64_MIN);
  for (const auto& [text, expected] : integers) {
    EXPECT_EQ(QVValues::integerValue(text), expected) << text;
  }
  const std::pair<const char*, bool> booleans[] = {
      {"1", true},   {"YES", true},   {"true", true}, {"t", true},      {" +007", true},
      {"-9", true},  {"0", false},    {"no", false},  {"false", false}, {"", false},
      {"00", false}, {"+0.5", false}, {" x1", false}};
  for (const auto& [text, expected] : booleans) {
    EXPECT_EQ(QVValues::boolValue(text), expected) << text;
  }
  const std::pair<const char*, double> doubles[] = {{"2.5s", 2.5},   {" -0.25", -0.25}, {".5", 0.5},
                                                    {"1e3", 1000.0}, {"inf", 0.0},      {"x", 0.0}};
  for (const auto& [text, expected] : doubles) {
    EXPECT_EQ(QVValues::doubleValue(text), expected) << text;
  }
  EXPECT_EQ(QVValues::integerValue(QVValue::array({3})), 0);
}

TEST_F(QVConfigKeysTest, ExampleBundlesLoad) {
  const auto examples = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() /
                        "examples/bundles";
  loadCore((examples / "QVCoreSettings.bundle").string());
  EXPECT_EQ(service_->postMessageLevelCellular(), 2);          // From the property list.
  EXPECT_EQ(service_->libraryVersion(), QVValue("2.0.0.81"));  // From the JSON file.
  QVBundle::setMainBundlePath((examples / "ExampleApp").string());
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary()["CFBundleIdentifier"],
            "com.example.qvexample");
}

}  // namespace
}  // namespace qv
