#include "qvcore/model/QVMobileEnvironment.h"

#include <gtest/gtest.h>

#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVFileSystem.h"
#include "support/QVTempFolder.h"

namespace qv {
namespace {

using test::QVTempFolder;

class QVMobileEnvironmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVFileSystem::setHomeDirectory(folder.makeFolder("home"));
    folder.writePlist("App/Info.plist", {{"CFBundleVersion", "3.1"}, {"CFBundleIdentifier", "x"}});
    QVBundle::setMainBundlePath(folder.at("App"));
  }
  QVTempFolder folder;
};

TEST_F(QVMobileEnvironmentTest, FactsOfTheApplicationAndDeviceWithAbsentOnesLeftOut) {
  auto& device = QVDevice::currentDevice();
  device.setPreferredLanguages({"fr-CA", "en-US"});
  device.setModel("Board 9");
  device.setPhysicalMemory(6ull << 30);

  const QVValue record = QVMobileEnvironment().jsonDictionary();
  EXPECT_EQ(record["locale"], "fr-CA");
  EXPECT_EQ(record["language"], "français (Canada)");
  EXPECT_EQ(record["deviceId"], QVEnvironmentalSerivce::sharedInstance()->deviceID());
  EXPECT_EQ(record["advertisingId"], "N/A");
  EXPECT_EQ(record["manufacturer"], "Apple Inc.");
  EXPECT_EQ(record["appVersion"], "3.1");
  EXPECT_FALSE(record.contains("appName")) << "the bundle has no CFBundleName";
  EXPECT_EQ(record["deviceModel"], "Board 9");
  EXPECT_EQ(record["orientationType"], "UNKNOWN");
  EXPECT_EQ(record["totalMemory"], 6ull << 30) << "the whole figure, not cut to 32 bits";
  EXPECT_GT(record["totalStorage"].get<uint64_t>(), 0u);
  EXPECT_LE(record["freeStorage"].get<uint64_t>(), record["totalStorage"].get<uint64_t>());

  QVEnvironmentalSerivce::sharedInstance()->setVepAdvertisingIdFromCustomer(std::nullopt);
  EXPECT_FALSE(QVMobileEnvironment().jsonDictionary().contains("advertisingId"));
}

TEST_F(QVMobileEnvironmentTest, LanguageIsNamedInItsOwnLocale) {
  struct Case {
    const char* locale;
    const char* language;
  };
  for (const Case& c : {Case{"de-DE", "Deutsch (Deutschland)"}, Case{"ja-JP", "日本語 (日本)"},
                        Case{"en_GB", "English (United Kingdom)"}}) {
    QVDevice::currentDevice().setPreferredLanguages({c.locale});
    const QVValue record = QVMobileEnvironment().jsonDictionary();
    EXPECT_EQ(record["locale"], c.locale);
    EXPECT_EQ(record["language"], c.language) << c.locale;
  }
}

}  // namespace
}  // namespace qv
