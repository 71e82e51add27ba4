#include <gtest/gtest.h>

#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVApplicationContextMessage.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace qv {
namespace {

using Message = QVApplicationContextMessage;
constexpr uint64_t kUMax = std::numeric_limits<uint64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

uint64_t now() { return QVCoreHelper::sharedInstance()->now(); }

std::shared_ptr<Message> fullMessage(int64_t type, uint64_t setDate) {
  return Message::
      initWithTypeNameReferrerKlassNameReferrerKlassNameCurrentScreenIdCurrentScreenIdSetDatePreviousScreenIdPreviousScreenIdSetDate(
          type, "Home", "Launch", "HomeView", "LaunchView", 11, setDate, 10, kUMax);
}

std::shared_ptr<Message> unarchive(const std::vector<uint8_t>& data) {
  return QVKeyedUnarchiver::unarchiveObjectWithData<Message>(data);
}

// Every field and the JSON text, so that messages are compared whole.
QVValue fields(const Message& m) {
  const auto text = [](const auto& s) { return s ? QVValue(*s) : QVValue(); };
  return {m.offset(),           m.logLevel(),
          m.toJson(),           m.contextType(),
          text(m.name()),       text(m.referrer()),
          text(m.klassName()),  text(m.referrerKlassName()),
          m.currentScreenId(),  m.currentScreenIdSetDate(),
          m.previousScreenId(), m.previousScreenIdSetDate()};
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
  const char* json = R"({"offset":0})";
  EXPECT_EQ(fields(*Message::initWithTypeNameReferrer(3, "Home", std::nullopt)),
            (QVValue{0, 1, json, 3, "Home", nullptr, "", "", 0, 0, 0, 0}));
  EXPECT_EQ(
      fields(*Message::initWithTypeNameReferrerKlassNameReferrerKlassName(-2, "A", "B", "C", "D")),
      (QVValue{0, 1, json, -2, "A", "B", "C", "D", 0, 0, 0, 0}));
  EXPECT_EQ(fields(*fullMessage(0, 5)),
            (QVValue{0, 1, json, 0, "Home", "Launch", "HomeView", "LaunchView", 11, 5, 10, kUMax}));

  uint64_t before = now();
  auto stamped = fullMessage(3, 5);
  const ScreenMessage subclass(4, "Cart", "Home", "CartView", "HomeView", 2, 5, 1, 9);
  const uint64_t after = now();
  for (uint64_t date : {stamped->currentScreenIdSetDate(), subclass.currentScreenIdSetDate()})
    EXPECT_TRUE(date >= before && date <= after) << date;
  EXPECT_EQ(QVValue::parse(subclass.toJson()), (QVValue{{"offset", 0}, {"screen", "Cart"}}));

  // The time since the set date is the unsigned difference.
  before = now();
  stamped->setCurrentScreenIdSetDate(before - 1000);
  const uint64_t ago = stamped->timeSinceStart();
  EXPECT_TRUE(ago >= 1000 && ago <= now() - before + 1000) << ago;
  stamped->setCurrentScreenIdSetDate(kUMax);  // now - max wraps to now + 1
  before = now();
  const uint64_t wrapped = stamped->timeSinceStart();
  EXPECT_TRUE(wrapped >= before + 1 && wrapped <= now() + 1) << wrapped;
}

// The archive holds the context fields (the last under its historical
// spelling) but not the base ones; a field that cannot be written or read
// ends the archiving or unarchiving there.
TEST(QVApplicationContextMessageTest, ArchiveCarriesContextNotBaseFieldsAndStopsAtAFaultyKey) {
  auto message = fullMessage(0, 5);
  message->setContextType(kMin);
  message->setName("Übersicht");
  message->setReferrer(std::nullopt);
  message->setOffset(42);
  message->setLogLevel(9);
  const auto data = QVKeyedArchiver::archivedDataWithRootObject(*message);
  QVKeyedUnarchiver coder(data);
  for (const char* key : {"KeyQVMessageOffset", "KeyQVMessageLogLevel",
                          "KeyQVApplicationContextPreviousScreenIdSetDate"}) {
    EXPECT_FALSE(coder.containsValueForKey(key)) << key;
  }
  EXPECT_EQ(coder.decodeUInt64ForKey("KeyQVApplicaitonContextPreviousScreenIdSetDate"), kUMax);
  message->setOffset(0);
  message->setLogLevel(1);
  auto copy = unarchive(data);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(fields(*copy), fields(*message));

  message->setReferrer("bad\xFF");
  QVKeyedUnarchiver refused(QVKeyedArchiver::archivedDataWithRootObject(*message));
  EXPECT_TRUE(refused.containsValueForKey(KeyQVApplicationContextName));
  EXPECT_FALSE(refused.containsValueForKey(KeyQVApplicationContextReferrer));
  EXPECT_FALSE(refused.containsValueForKey(KeyQVApplicationContextKlassName));

  QVKeyedArchiver archiver;
  fullMessage(0, 5)->encodeWithCoder(archiver);
  archiver.encodeUInt64ForKey(1, KeyQVApplicationContextReferrer);
  auto partial = unarchive(archiver.archivedData());
  ASSERT_NE(partial, nullptr);
  EXPECT_EQ(fields(*partial),
            (QVValue{0, 1, R"({"offset":0})", 0, "Home", nullptr, nullptr, nullptr, 0, 0, 0, 0}));
}

}  // namespace
}  // namespace qv
