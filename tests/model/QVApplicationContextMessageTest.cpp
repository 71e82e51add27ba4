#include <gtest/gtest.h>

#include <limits>

#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVApplicationContextMessage.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace qv {
namespace {

using Message = QVApplicationContextMessage;
using Bytes = std::vector<uint8_t>;
constexpr uint64_t kUMax = std::numeric_limits<uint64_t>::max();

uint64_t now() { return QVCoreHelper::sharedInstance()->now(); }

std::shared_ptr<Message> fullMessage(int64_t type, uint64_t setDate) {
  return Message::
      initWithTypeNameReferrerKlassNameReferrerKlassNameCurrentScreenIdCurrentScreenIdSetDatePreviousScreenIdPreviousScreenIdSetDate(
          type, "Home", "Launch", "HomeView", "LaunchView", 11, setDate, 10, kUMax);
}

std::shared_ptr<Message> unarchive(const Bytes& data) {
  return QVKeyedUnarchiver::unarchiveObjectWithData<Message>(data);
}

void expectInitBase(const Message& m) {
  EXPECT_EQ(m.offset(), 0u);
  EXPECT_EQ(m.logLevel(), 1);
  EXPECT_EQ(m.toJson(), R"({"offset":0})");
}

// A module's message: the context initialisers, with a JSON form of its own.
class ScreenMessage : public Message {
 public:
  using Message::Message;
  QVValue jsonDictionary() const override {
    QVValue dict = Message::jsonDictionary();
    dict["screen"] = name().value_or("");
    return dict;
  }
};

// Only the full initialiser stamps the current screen's date, and only for
// a type other than 0; the base fields keep their starting values.
TEST(QVApplicationContextMessageTest, OnlyTheFullInitialiserStampsANonZeroType) {
  auto three = Message::initWithTypeNameReferrer(3, "Home", std::nullopt);
  expectInitBase(*three);
  EXPECT_EQ(three->referrer(), std::nullopt);
  EXPECT_EQ(three->klassName(), "");
  EXPECT_EQ(three->currentScreenIdSetDate(), 0u);
  auto five = Message::initWithTypeNameReferrerKlassNameReferrerKlassName(-2, "A", "B", "C", "D");
  EXPECT_EQ(five->klassName(), "C");
  EXPECT_EQ(five->referrerKlassName(), "D");
  EXPECT_EQ(five->currentScreenIdSetDate(), 0u);

  const uint64_t before = now();
  auto stamped = fullMessage(3, 5);
  const ScreenMessage subclass(4, "Cart", "Home", "CartView", "HomeView", 2, 5, 1, 9);
  const uint64_t after = now();
  expectInitBase(*stamped);
  for (uint64_t date : {stamped->currentScreenIdSetDate(), subclass.currentScreenIdSetDate()}) {
    EXPECT_GE(date, before);
    EXPECT_LE(date, after);
  }
  EXPECT_EQ(stamped->currentScreenId(), 11u);
  EXPECT_EQ(stamped->previousScreenIdSetDate(), kUMax);
  EXPECT_EQ(fullMessage(0, 5)->currentScreenIdSetDate(), 5u);
  EXPECT_EQ(QVValue::parse(subclass.toJson()), (QVValue{{"offset", 0}, {"screen", "Cart"}}));
}

TEST(QVApplicationContextMessageTest, TimeSinceStartIsUnsignedDifference) {
  Message message;
  uint64_t before = now();
  message.setCurrentScreenIdSetDate(before - 1000);
  uint64_t elapsed = message.timeSinceStart();
  EXPECT_GE(elapsed, 1000u);
  EXPECT_LE(elapsed, now() - before + 1000);

  message.setCurrentScreenIdSetDate(kUMax);  // now - max wraps to now + 1
  before = now();
  elapsed = message.timeSinceStart();
  EXPECT_GE(elapsed, before + 1);
  EXPECT_LE(elapsed, now() + 1);
}

TEST(QVApplicationContextMessageTest, ArchiveCarriesContextButNotBaseFields) {
  auto message = fullMessage(0, 5);
  message->setContextType(std::numeric_limits<int64_t>::min());
  message->setName(
      "\xC3\x9C"
      "bersicht");
  message->setReferrer(std::nullopt);
  message->setOffset(42);
  message->setLogLevel(9);
  const Bytes data = QVKeyedArchiver::archivedDataWithRootObject(*message);

  QVKeyedUnarchiver coder(data);
  EXPECT_FALSE(coder.containsValueForKey("KeyQVMessageOffset"));
  EXPECT_FALSE(coder.containsValueForKey("KeyQVMessageLogLevel"));
  EXPECT_EQ(coder.decodeUInt64ForKey("KeyQVApplicaitonContextPreviousScreenIdSetDate"), kUMax);
  EXPECT_FALSE(coder.containsValueForKey("KeyQVApplicationContextPreviousScreenIdSetDate"));

  auto copy = unarchive(data);
  ASSERT_NE(copy, nullptr);
  expectInitBase(*copy);
  EXPECT_EQ(copy->contextType(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(copy->name(),
            "\xC3\x9C"
            "bersicht");
  EXPECT_EQ(copy->referrer(), std::nullopt);
  EXPECT_EQ(copy->klassName(), "HomeView");
  EXPECT_EQ(copy->referrerKlassName(), "LaunchView");
  EXPECT_EQ(copy->currentScreenId(), 11u);
  EXPECT_EQ(copy->currentScreenIdSetDate(), 5u);
  EXPECT_EQ(copy->previousScreenId(), 10u);
  EXPECT_EQ(copy->previousScreenIdSetDate(), kUMax);
}

TEST(QVApplicationContextMessageTest, ArchivingAndUnarchivingStopAtTheFaultyKey) {
  auto refused = fullMessage(0, 5);
  refused->setReferrer("bad\xFF");
  QVKeyedUnarchiver coder(QVKeyedArchiver::archivedDataWithRootObject(*refused));
  EXPECT_TRUE(coder.containsValueForKey(KeyQVApplicationContextName));
  EXPECT_FALSE(coder.containsValueForKey(KeyQVApplicationContextReferrer));
  EXPECT_FALSE(coder.containsValueForKey(KeyQVApplicationContextKlassName));

  QVKeyedArchiver archiver;
  fullMessage(0, 5)->encodeWithCoder(archiver);
  archiver.encodeUInt64ForKey(1, KeyQVApplicationContextReferrer);
  auto partial = unarchive(archiver.archivedData());
  ASSERT_NE(partial, nullptr);
  EXPECT_EQ(partial->name(), "Home");
  EXPECT_EQ(partial->referrer(), std::nullopt);
  EXPECT_EQ(partial->klassName(), std::nullopt);
  EXPECT_EQ(partial->previousScreenIdSetDate(), 0u);
}

}  // namespace
}  // namespace qv
