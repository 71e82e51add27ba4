// The two records of the client's environment that every session carries.
#include <gtest/gtest.h>

#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVClientEnvironment.h"
#include "qvcore/model/QVMobileEnvironment.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVScreen.h"
#include "support/QVTempFolder.h"

namespace qv {
namespace {

// Pixels are the points times the density, each the float nearest to it
// written as its shortest decimal (0.1 and 333.3 are not floats).
TEST(QVClientEnvironmentTest, ScreenInPixelsAndPointsWithTheDeviceFactsInKeyOrder) {
  QVDevice::currentDevice().setSystemName("TestOS");
  QVDevice::currentDevice().setSystemVersion("17.1");
  const std::string facts = R"({"osType":"TestOS","osVersion":"17.1",)";
  const std::pair<std::array<double, 3>, std::string> rows[] = {
      {{375, 667, 2.0},
       R"("width":750,"deviceWidth":375,"height":1334,"deviceHeight":667,)"
       R"("orientation":0,"pixelDensity":2,"mobileEnvironment":{)"},
      {{333.3, 100.1, 3.0},
       R"("width":999.9,"deviceWidth":333.3,"height":300.3,)"
       R"("deviceHeight":100.1,"orientation":0,"pixelDensity":3,"mob)"}};
  for (const auto& [screen, figures] : rows) {
    QVScreen::setMainScreen(screen[0], screen[1], screen[2]);
    const std::string json = QVClientEnvironment().toJson();
    EXPECT_EQ(json.substr(0, facts.size() + figures.size()), facts + figures);
  }
  QVScreen::removeMainScreen();
  EXPECT_EQ(QVClientEnvironment().screenResolution(), QVRect{});
  EXPECT_EQ(QVClientEnvironment().pixelDensity(), 1.0);
}

TEST(QVMobileEnvironmentTest, FactsOfTheApplicationAndDeviceWithAbsentOnesLeftOut) {
  test::QVTempFolder folder;
  QVFileSystem::setHomeDirectory(folder.makeFolder("home"));
  folder.writePlist("App/Info.plist", {{"CFBundleVersion", "3.1"}, {"CFBundleIdentifier", "x"}});
  QVBundle::setMainBundlePath(folder.at("App"));
  auto& device = QVDevice::currentDevice();
  device.setModel("Board 9");
  device.setPhysicalMemory(6ull << 30);  // the whole figure, not cut to 32 bits
  // The record, in key order, less the storage figures that move.
  const auto steady = [](QVValue record) {
    const uint64_t total = record["totalStorage"], free = record["freeStorage"];
    EXPECT_TRUE(total > 0 && free <= total) << free << " of " << total;
    record.erase("totalStorage"), record.erase("freeStorage");
    return record;
  };
  for (const auto& [locale, language] : {std::pair{"fr-CA", "français (Canada)"},
                                         {"de-DE", "Deutsch (Deutschland)"},
                                         {"ja-JP", "日本語 (日本)"},
                                         {"en_GB", "English (United Kingdom)"}}) {
    device.setPreferredLanguages({locale, "en-US"});
    EXPECT_EQ(steady(QVMobileEnvironment().jsonDictionary()),
              (QVValue{{"locale", locale},
                       {"language", language},
                       {"deviceId", QVEnvironmentalSerivce::sharedInstance()->deviceID()},
                       {"advertisingId", "N/A"},
                       {"manufacturer", "Apple Inc."},
                       {"appVersion", "3.1"},
                       {"deviceModel", "Board 9"},
                       {"orientationType", "UNKNOWN"},
                       {"totalMemory", 6ull << 30}}));
  }
  QVEnvironmentalSerivce::sharedInstance()->setVepAdvertisingIdFromCustomer(std::nullopt);
  EXPECT_FALSE(QVMobileEnvironment().jsonDictionary().contains("advertisingId"));
}

}  // namespace
}  // namespace qv
