#include <gtest/gtest.h>

#include <limits>

#include "qvcore/model/QVMessage.h"
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

TEST(QVMessageTest, JsonHoldsOnlyTheOffsetAndTheArchiveBothBaseFields) {
  QVMessage message;
  EXPECT_EQ(message.logLevel(), 1);
  EXPECT_EQ(message.toJson(), R"({"offset":0})");
  message.setLogLevel(5);
  message.setOffset(kUMax);
  EXPECT_EQ(message.toJson(), R"({"offset":18446744073709551615})");

  TapMessage tap;
  tap.setOffset(7);
  tap.setLogLevel(-7);
  tap.target = "a/b";
  EXPECT_EQ(static_cast<const QVMessage&>(tap).toJson(), R"({"offset":7,"target":"a/b"})");
  const auto data = QVKeyedArchiver::archivedDataWithRootObject(tap);
  QVKeyedUnarchiver coder(data);
  EXPECT_EQ(coder.decodeUInt64ForKey("KeyQVMessageOffset"), 7u);
  EXPECT_EQ(coder.decodeInt64ForKey("KeyQVMessageLogLevel"), -7);
  auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<TapMessage>(data);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->toJson(), tap.toJson());
  EXPECT_EQ(copy->logLevel(), -7);
}

// Unarchiving starts from zero and stops at the first value of a wrong kind.
TEST(QVMessageTest, UnarchivingStartsFromZeroAndStopsAtWrongKind) {
  struct Row {
    QVValue offset, level;
    uint64_t wantOffset;
  };
  for (const Row& row : {Row{9, nullptr, 9}, Row{"9", 4, 0}, Row{9, "4", 9}}) {
    SCOPED_TRACE(row.offset.dump() + " " + row.level.dump());
    QVKeyedArchiver archiver;
    const auto put = [&](const QVValue& value, const char* key) {
      if (value.is_string()) archiver.encodeObjectForKey(value.get<std::string>(), key);
      if (value.is_number()) archiver.encodeUInt64ForKey(value.get<uint64_t>(), key);
    };
    put(row.offset, "KeyQVMessageOffset");
    put(row.level, "KeyQVMessageLogLevel");
    auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<QVMessage>(archiver.archivedData());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->offset(), row.wantOffset);
    EXPECT_EQ(copy->logLevel(), 0);
  }
}

}  // namespace
}  // namespace qv
