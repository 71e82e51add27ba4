#include "qvcore/model/QVClientEnvironment.h"

#include <gtest/gtest.h>

#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVScreen.h"

namespace qv {
namespace {

std::vector<std::string> keysOf(const QVValue& dict) {
  std::vector<std::string> keys;
  for (const auto& item : dict.items()) keys.push_back(item.key());
  return keys;
}

TEST(QVClientEnvironmentTest, ScreenInPixelsAndPointsWithTheDeviceFacts) {
  QVScreen::setMainScreen(375, 667, 2.0);
  QVDevice::currentDevice().setSystemName("TestOS");
  QVDevice::currentDevice().setSystemVersion("17.1");

  const QVValue record = QVClientEnvironment().jsonDictionary();
  EXPECT_EQ(keysOf(record), (std::vector<std::string>{"osType", "osVersion", "width", "deviceWidth",
                                                      "height", "deviceHeight", "orientation",
                                                      "pixelDensity", "mobileEnvironment"}));
  EXPECT_EQ(record["osType"], "TestOS");
  EXPECT_EQ(record["osVersion"], "17.1");
  EXPECT_EQ(record["width"], 750);
  EXPECT_EQ(record["deviceWidth"], 375);
  EXPECT_EQ(record["height"], 1334);
  EXPECT_EQ(record["deviceHeight"], 667);
  EXPECT_EQ(record["pixelDensity"], 2);
  EXPECT_EQ(record["orientation"], 0);
  EXPECT_TRUE(record["mobileEnvironment"].is_object());
}

TEST(QVClientEnvironmentTest, ScreenFiguresAreSinglePrecision) {
  // 0.1 and 333.3 are not floats; the record carries the float nearest to
  // each product, written as its shortest decimal.
  QVScreen::setMainScreen(333.3, 100.1, 3.0);
  const std::string json = QVClientEnvironment().toJson();
  for (const char* figure : {"\"width\":999.9,", "\"deviceWidth\":333.3,", "\"height\":300.3,",
                             "\"deviceHeight\":100.1,", "\"pixelDensity\":3,"}) {
    EXPECT_NE(json.find(figure), std::string::npos) << figure << " in " << json;
  }

  QVScreen::removeMainScreen();
  EXPECT_EQ(QVClientEnvironment().screenResolution(), QVRect{});
  EXPECT_EQ(QVClientEnvironment().pixelDensity(), 1.0);
}

}  // namespace
}  // namespace qv
