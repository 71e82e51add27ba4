// A session's payload entry, its text, and the two records of the client's
// environment that it carries.
#include <gtest/gtest.h>

#include <chrono>

#include "qvcore/core/QVCore.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/model/QVClientEnvironment.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVMobileEnvironment.h"
#include "qvcore/model/QVSession.h"
#include "qvcore/model/QVTestingListener.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVScreen.h"
#include "support/QVFieldsMessage.h"
#include "support/QVTempFolder.h"

namespace qv {
namespace {

using test::messageWithOffset;

// Whole milliseconds of the wall clock, as start times are written.
uint64_t now() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The entry's text with its start time and environment as null.
std::string shape(QVValue entry) {
  entry["startTime"] = entry["clientEnvironment"] = nullptr;
  return QVCoreExtensions::toJson(entry);
}

// The entry's keys in order, its messages in arrival order, the environment
// read when serialised, and only accepted messages in the test log.
TEST(QVSessionTest, PayloadEntryHasItsKeysInOrderAndItsAcceptedMessages) {
  ::setenv("QV_JSON_Logging", "1", 1);
  auto listener = QVTestingListener::create();
  const uint64_t before = now();
  QVDevice::currentDevice().setSystemName("BeforeOS");
  auto session = QVSession::initWithSessionID("S1");
  QVDevice::currentDevice().setSystemName("AfterOS");
  ASSERT_TRUE(session->addMessage(messageWithOffset(7)));
  ASSERT_TRUE(session->addMessage(messageWithOffset(3)));
  session->close();
  EXPECT_FALSE(session->addMessage(messageWithOffset(6)));

  const QVValue dict = session->jsonDictionary();
  EXPECT_EQ(dict["clientEnvironment"]["osType"], "AfterOS");
  const uint64_t start = dict["startTime"];
  EXPECT_TRUE(start >= before && start <= now()) << start;
  EXPECT_EQ(shape(dict), R"({"id":"S1","startTime":null,"clientEnvironment":null,)"
                         R"("messages":[{"offset":7},{"offset":3}],"QVCoreSessionID":")" +
                             QVCore::sharedInstance()->currentSessionID() + "\"}");
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener->getJsonStackWithFlush(false),
            QVValue::parse(R"([{"offset":7},{"offset":3}])").get<std::vector<QVValue>>());

  QVSession anonymous;
  anonymous.setCoreSessionID(std::nullopt);
  EXPECT_EQ(shape(anonymous.jsonDictionary()),
            R"({"startTime":null,"clientEnvironment":null,"messages":[]})");
  // A message that cannot describe itself ends the entry, without throwing.
  anonymous.addMessage(std::make_shared<test::QVFailingMessage>());
  EXPECT_EQ(shape(anonymous.jsonDictionary()), R"({"startTime":null,"clientEnvironment":null})");
}

// The streamed text is the tree's JSON text, byte for byte, whatever the
// members hold; what JSON cannot carry is written as null and text that is
// not UTF-8 is mended, at any depth, so one bad value never costs the
// session (and the payload) its other messages.
TEST(QVSessionTest, TextIsTheTreesJsonWithBadValuesMended) {
  const QVValue members = QVValue::parse(R"({"plain": "Home/Featured", "quote": "say \"hi\"",
    "path": "C:\\dir\\file", "escaped": "say \"hi\"\\ \t\u0001\u007F end",
    "utf8": "spring \u2014 \uD83C\uDF38", "k\"ey\u00e9": 1, "negative": -9223372036854775808,
    "unsigned": 18446744073709551615, "zero": 0, "float": 0.1, "whole": 3.0,
    "flags": [true, false, null], "nested": {"a": [1.5e300, "x\ny"], "b": {}}, "empty": ""})");
  auto session = QVSession::initWithSessionID("S\"1");
  session->addMessage(std::make_shared<test::QVFieldsMessage>(members));
  session->addMessage(std::make_shared<test::QVFieldsMessage>(QVValue::object()));
  std::string text;
  ASSERT_TRUE(session->appendJson(text));
  QVValue expected = session->jsonDictionary();
  // Read afresh at each serialisation, so taken from the text.
  expected["clientEnvironment"] = QVValue::parse(text)["clientEnvironment"];
  EXPECT_EQ(text, QVCoreExtensions::toJson(expected));

  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::pair<QVValue, QVValue> mended[] = {
      {{{"n", nan},
        {"deep", {{"n", QVValue::array({1, -nan})}}},
        {"i", std::numeric_limits<double>::infinity()},
        {"b", QVValue::binary({1, 2})}},
       {{"n", nullptr}, {"deep", {{"n", {1, nullptr}}}}, {"i", nullptr}, {"b", nullptr}}},
      {{{"s", "bad \xC3\x28"}, {"bad \xFF", 1}},
       {{"s", "bad \xEF\xBF\xBD("}, {"bad \xEF\xBF\xBD", 1}}}};
  for (const auto& [bad, written] : mended) {
    auto broken = QVSession::initWithSessionID("S\xFE");
    broken->addMessage(std::make_shared<test::QVFieldsMessage>(members));
    broken->addMessage(std::make_shared<test::QVFieldsMessage>(bad));
    std::string out;
    ASSERT_TRUE(broken->appendJson(out));
    const QVValue read = QVValue::parse(out);
    EXPECT_EQ(read["id"], "S\xEF\xBF\xBD");
    QVValue want = QVValue::array();
    for (const QVValue& fields : {members, written}) {
      want.push_back({{"offset", 0}});
      want.back().update(fields);
    }
    EXPECT_EQ(read["messages"], want) << out;
  }
}

// Pixels are the points times the density, each the float nearest to it
// written as its shortest decimal (0.1 and 333.3 are not floats).
TEST(QVClientEnvironmentTest, ScreenInPixelsAndPointsWithTheDeviceFactsInKeyOrder) {
  QVDevice::currentDevice().setSystemName("TestOS");
  QVDevice::currentDevice().setSystemVersion("17.1");
  const std::pair<std::array<double, 3>, std::string> rows[] = {
      {{375, 667, 2.0},
       R"("width":750,"deviceWidth":375,"height":1334,"deviceHeight":667,"orientation":0,)"
       R"("pixelDensity":2,"mobileEnvironment":{)"},
      {{333.3, 100.1, 3.0},
       R"("width":999.9,"deviceWidth":333.3,"height":300.3,"deviceHeight":100.1,)"
       R"("orientation":0,"pixelDensity":3,"mob)"}};
  for (const auto& [screen, figures] : rows) {
    QVScreen::setMainScreen(screen[0], screen[1], screen[2]);
    const std::string expected = R"({"osType":"TestOS","osVersion":"17.1",)" + figures;
    EXPECT_EQ(QVClientEnvironment().toJson().substr(0, expected.size()), expected);
  }
  QVScreen::removeMainScreen();
  EXPECT_EQ(QVClientEnvironment().screenResolution(), QVRect{});
  EXPECT_EQ(QVClientEnvironment().pixelDensity(), 1.0);
}

// The record in key order, less the storage figures that move; absent facts
// are left out.
TEST(QVMobileEnvironmentTest, FactsOfTheApplicationAndDeviceWithAbsentOnesLeftOut) {
  test::QVTempFolder folder;
  QVFileSystem::setHomeDirectory(folder.makeFolder("home"));
  folder.writePlist("App/Info.plist", {{"CFBundleVersion", "3.1"}, {"CFBundleIdentifier", "x"}});
  QVBundle::setMainBundlePath(folder.at("App"));
  QVDevice::currentDevice().setModel("Board 9");
  QVDevice::currentDevice().setPhysicalMemory(6ull << 30);  // the whole figure, not cut to 32 bits
  QVValue expected = QVValue::parse(R"({"locale": null, "language": null, "deviceId": null,
      "advertisingId": "N/A", "manufacturer": "Apple Inc.", "appVersion": "3.1",
      "deviceModel": "Board 9", "orientationType": "UNKNOWN", "totalMemory": 6442450944})");
  expected["deviceId"] = QVEnvironmentalSerivce::sharedInstance()->deviceID();
  for (const auto& [locale, language] :
       {std::pair{"ja-JP", "日本語 (日本)"}, {"en_GB", "English (United Kingdom)"}}) {
    QVDevice::currentDevice().setPreferredLanguages({locale, "en-US"});
    QVValue record = QVMobileEnvironment().jsonDictionary();
    const uint64_t total = record["totalStorage"], free = record["freeStorage"];
    EXPECT_TRUE(total > 0 && free <= total) << free << " of " << total;
    record.erase("totalStorage"), record.erase("freeStorage");
    expected["locale"] = locale, expected["language"] = language;
    EXPECT_EQ(record, expected);
  }
  QVEnvironmentalSerivce::sharedInstance()->setVepAdvertisingIdFromCustomer(std::nullopt);
  EXPECT_FALSE(QVMobileEnvironment().jsonDictionary().contains("advertisingId"));
}

}  // namespace
}  // namespace qv
