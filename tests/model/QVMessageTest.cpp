#include <gtest/gtest.h>

#include <limits>

#include "qvcore/model/QVMessage.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace qv {
namespace {

constexpr uint64_t kUMax = std::numeric_limits<uint64_t>::max();

// A module's message, built the way modules build theirs.
class TapMessage : public QVMessage {
 public:
  TapMessage() = default;
  explicit TapMessage(const QVKeyedUnarchiver& coder)
      : QVMessage(coder), target(coder.decodeObjectForKey("target")) {}
  QVValue jsonDictionary() const override {
    QVValue dict = QVMessage::jsonDictionary();
    dict["target"] = target.value_or("");
    return dict;
  }
  void encodeWithCoder(QVKeyedArchiver& coder) const override {
    QVMessage::encodeWithCoder(coder);
    coder.encodeObjectForKey(target, "target");
  }
  std::optional<std::string> target;
};

std::shared_ptr<QVMessage> unarchive(const QVKeyedArchiver& archiver) {
  return QVKeyedUnarchiver::unarchiveObjectWithData<QVMessage>(archiver.archivedData());
}

TEST(QVMessageTest, JsonHoldsOnlyTheOffset) {
  QVMessage message;
  EXPECT_EQ(message.offset(), 0u);
  EXPECT_EQ(message.logLevel(), 1);
  EXPECT_EQ(message.toJson(), R"({"offset":0})");

  message.setOffset(kUMax);
  message.setLogLevel(5);
  EXPECT_EQ(message.toJson(), R"({"offset":18446744073709551615})");

  auto tap = std::make_shared<TapMessage>();
  tap->setOffset(7);
  tap->target = "a/b";
  std::shared_ptr<QVMessage> base = tap;
  EXPECT_EQ(base->toJson(), R"({"offset":7,"target":"a/b"})");
}

TEST(QVMessageTest, ArchiveRoundTripsBaseAndSubclassFields) {
  TapMessage tap;
  tap.setOffset(kUMax);
  tap.setLogLevel(-7);
  tap.target = "button";
  const auto data = QVKeyedArchiver::archivedDataWithRootObject(tap);

  QVKeyedUnarchiver coder(data);
  EXPECT_EQ(coder.decodeUInt64ForKey("KeyQVMessageOffset"), kUMax);
  EXPECT_EQ(coder.decodeInt64ForKey("KeyQVMessageLogLevel"), -7);

  auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<TapMessage>(data);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->offset(), kUMax);
  EXPECT_EQ(copy->logLevel(), -7);
  EXPECT_EQ(copy->target, "button");
}

TEST(QVMessageTest, UnarchivingStartsFromZeroAndStopsAtWrongKind) {
  QVKeyedArchiver offsetOnly;
  offsetOnly.encodeUInt64ForKey(9, KeyQVMessageOffset);
  auto message = unarchive(offsetOnly);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(message->offset(), 9u);
  EXPECT_EQ(message->logLevel(), 0);

  QVKeyedArchiver badOffset;
  badOffset.encodeObjectForKey("9", KeyQVMessageOffset);
  badOffset.encodeInt64ForKey(4, KeyQVMessageLogLevel);
  EXPECT_EQ(unarchive(badOffset)->logLevel(), 0);

  QVKeyedArchiver badLevel;
  badLevel.encodeUInt64ForKey(9, KeyQVMessageOffset);
  badLevel.encodeObjectForKey("4", KeyQVMessageLogLevel);
  auto partial = unarchive(badLevel);
  EXPECT_EQ(partial->offset(), 9u);
  EXPECT_EQ(partial->logLevel(), 0);
}

}  // namespace
}  // namespace qv
