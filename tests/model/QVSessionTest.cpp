#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVSession.h"
#include "qvcore/model/QVTestingListener.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVFieldsMessage.h"

namespace qv {
namespace {

using test::messageWithOffset;

TEST(QVSessionTest, PayloadEntryHasItsKeysTypesAndArrivalOrder) {
  const uint64_t before = QVCoreHelper::sharedInstance()->now();
  auto session = QVSession::initWithSessionID("S1");
  ASSERT_TRUE(session->addMessage(messageWithOffset(7)));
  ASSERT_TRUE(session->addMessage(messageWithOffset(3)));

  const QVValue dict = session->jsonDictionary();
  std::vector<std::string> keys;
  for (auto it = dict.begin(); it != dict.end(); ++it) keys.push_back(it.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"id", "startTime", "clientEnvironment", "messages",
                                            "QVCoreSessionID"}));
  EXPECT_EQ(dict["id"], "S1");
  ASSERT_TRUE(dict["startTime"].is_number_integer());
  EXPECT_GE(dict["startTime"].get<uint64_t>(), before);
  EXPECT_LE(dict["startTime"].get<uint64_t>(), QVCoreHelper::sharedInstance()->now());
  EXPECT_TRUE(dict["clientEnvironment"].is_object());
  EXPECT_EQ(dict["messages"], QVValue::parse(R"([{"offset":7},{"offset":3}])"));
  EXPECT_EQ(dict["QVCoreSessionID"], QVCore::sharedInstance()->currentSessionID());
  // Each form reads the free space anew, which moves while other programs
  // write to the disk.
  const auto steady = [](QVValue entry) {
    entry["clientEnvironment"]["mobileEnvironment"].erase("freeStorage");
    return entry;
  };
  EXPECT_EQ(steady(QVValue::parse(session->toJson())), steady(dict));

  QVSession anonymous;
  anonymous.setCoreSessionID(std::nullopt);
  const QVValue bare = anonymous.jsonDictionary();
  EXPECT_FALSE(bare.contains("id"));
  EXPECT_FALSE(bare.contains("QVCoreSessionID"));
  EXPECT_EQ(bare["messages"], QVValue::array());
}

// The streamed text is the tree's JSON text, byte for byte, whatever the
// members hold; what JSON cannot carry is written as null and text that is
// not UTF-8 is mended, at any depth, so one bad value never costs the
// session (and the payload) its other messages.
TEST(QVSessionTest, TextIsTheTreesJsonWithBadValuesMended) {
  const QVValue members = {
      {"plain", "Home/Featured"},
      {"quote", "say \"hi\""},
      {"path", "C:\\dir\\file"},
      {"escaped", "say \"hi\"\\ \t\x01\x7F end"},
      {"utf8", "spring \xE2\x80\x94 \xF0\x9F\x8C\xB8"},
      {"k\"ey\xC3\xA9", 1},
      {"negative", -9223372036854775807LL - 1},
      {"unsigned", 18446744073709551615ULL},
      {"zero", 0},
      {"float", 0.1},
      {"whole", 3.0},
      {"flags", QVValue::array({true, false, nullptr})},
      {"nested", {{"a", QVValue::array({1.5e300, "x\ny"})}, {"b", QVValue::object()}}},
      {"empty", ""}};
  auto session = QVSession::initWithSessionID("S\"1");
  session->addMessage(std::make_shared<test::QVFieldsMessage>(members));
  session->addMessage(std::make_shared<test::QVFieldsMessage>(QVValue::object()));
  std::string text;
  ASSERT_TRUE(session->appendJson(text));
  QVValue expected = session->jsonDictionary();
  // Read afresh at each serialisation, so taken from the text.
  expected["clientEnvironment"] = QVValue::parse(text)["clientEnvironment"];
  EXPECT_EQ(text, QVCoreExtensions::toJson(expected));
  EXPECT_NE(text.find(R"("whole":3,)"), std::string::npos);

  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::pair<QVValue, QVValue> mended[] = {
      {{{"n", nan}}, {{"n", nullptr}}},
      {{{"deep", {{"n", QVValue::array({1, -nan})}}}}, {{"deep", {{"n", {1, nullptr}}}}}},
      {{{"i", std::numeric_limits<double>::infinity()}}, {{"i", nullptr}}},
      {{{"b", QVValue::binary({1, 2})}}, {{"b", nullptr}}},
      {{{"s", "bad \xC3\x28"}}, {{"s", "bad \xEF\xBF\xBD("}}},
      {{{"bad \xFF", 1}}, {{"bad \xEF\xBF\xBD", 1}}}};
  for (const auto& [bad, written] : mended) {
    auto broken = QVSession::initWithSessionID("S\xFE");
    broken->addMessage(std::make_shared<test::QVFieldsMessage>(members));
    broken->addMessage(std::make_shared<test::QVFieldsMessage>(bad));
    std::string out;
    ASSERT_TRUE(broken->appendJson(out));
    const QVValue read = QVValue::parse(out);
    EXPECT_EQ(read["id"], "S\xEF\xBF\xBD");
    ASSERT_EQ(read["messages"].size(), 2u);
    EXPECT_EQ(read["messages"][0]["plain"], "Home/Featured");
    QVValue expectedBad = {{"offset", read["messages"][1]["offset"]}};
    expectedBad.update(written);
    EXPECT_EQ(read["messages"][1], expectedBad) << out;
  }
}

TEST(QVSessionTest, ClientEnvironmentIsReadWhenSerialised) {
  QVDevice::currentDevice().setSystemName("BeforeOS");
  auto session = QVSession::initWithSessionID("S1");
  QVDevice::currentDevice().setSystemName("AfterOS");
  EXPECT_EQ(session->jsonDictionary()["clientEnvironment"]["osType"], "AfterOS");
}

TEST(QVSessionTest, FailingMessageEndsTheEntryWithoutThrowing) {
  auto session = QVSession::initWithSessionID("S1");
  session->addMessage(std::make_shared<test::QVFailingMessage>());
  const QVValue dict = session->jsonDictionary();
  EXPECT_TRUE(dict.contains("clientEnvironment"));
  EXPECT_FALSE(dict.contains("messages"));
}

// Adders race with the close; whatever was accepted is serialised, nothing
// refused is.
TEST(QVSessionTest, AddsRacingWithCloseAreEitherKeptOrRefused) {
  auto session = QVSession::initWithSessionID("S1");
  std::atomic<int> accepted{0};
  std::vector<std::thread> adders;
  for (int t = 0; t < 4; ++t) {
    adders.emplace_back([&, t] {
      for (uint64_t i = 0; i < 2000; ++i) {
        if (session->addMessage(messageWithOffset(t * 10000 + i))) ++accepted;
      }
    });
  }
  while (session->messageCount() < 100) std::this_thread::yield();
  session->close();
  const QVValue closedForm = session->jsonSerializedMessages();
  for (auto& adder : adders) adder.join();
  EXPECT_FALSE(session->addMessage(messageWithOffset(1)));
  EXPECT_EQ(closedForm.size(), static_cast<size_t>(accepted.load()));
  EXPECT_EQ(session->jsonSerializedMessages(), closedForm);
}

TEST(QVSessionTest, AcceptedMessagesReachTheTestLog) {
  setenv("QV_JSON_Logging", "1", 1);
  auto listener = QVTestingListener::create();
  auto session = QVSession::initWithSessionID("S1");
  session->addMessage(messageWithOffset(5));
  session->close();
  session->addMessage(messageWithOffset(6));
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener->getJsonStackWithFlush(false),
            std::vector<QVValue>{QVValue::parse(R"({"offset":5})")});
}

}  // namespace
}  // namespace qv
