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
  std::string integers, booleans, doubles;
  const std::string big(20, '9');
  for (const char* text : {"3", " \t-12", "+7", "3abc", "abc", "", "- 3", "2.9"}) {
    integers += std::to_string(QVValues::integerValue(text)) + " ";
  }
  EXPECT_EQ(integers, "3 -12 7 3 0 0 0 2 ");
  EXPECT_EQ(QVValues::integerValue(big), INT64_MAX);
  EXPECT_EQ(QVValues::integerValue("-" + big), INT64_MIN);
  EXPECT_EQ(QVValues::integerValue(QVValue::array({3})), 0);
  for (const char* text :
       {"1", "YES", "true", "t", " +007", "-9", "0", "no", "false", "", "00", "+0.5", " x1"}) {
    booleans += QVValues::boolValue(text) ? "1" : "0";
  }
  EXPECT_EQ(booleans, "1111110000000");
  for (const char* text : {"2.5s", " -0.25", ".5", "1e3", "inf", "x"}) {
    doubles += std::to_string(QVValues::doubleValue(text)) + " ";
  }
  EXPECT_EQ(doubles, "2.500000 -0.250000 0.500000 1000.000000 0.000000 0.000000 ");
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
