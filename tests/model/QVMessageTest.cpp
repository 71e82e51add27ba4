#include "qvcore/model/QVMessage.h"

#include <gtest/gtest.h>

#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"
#include "support/QVFieldsMessage.h"

namespace qv {
namespace {

constexpr uint64_t kUMax = UINT64_MAX;

// The JSON text holds the offset and a subclass's fields, never the log
// level; the archive holds both base fields.
TEST(QVMessageTest, JsonHoldsOnlyTheOffsetAndTheArchiveBothBaseFields) {
  QVMessage message;
  EXPECT_EQ(message.logLevel(), 1);
  EXPECT_EQ(message.toJson(), R"({"offset":0})");
  message.setLogLevel(-7);
  message.setOffset(kUMax);
  EXPECT_EQ(message.toJson(), R"({"offset":18446744073709551615})");
  EXPECT_EQ(test::QVFieldsMessage(QVValue{{"target", "a/b"}}).toJson(),
            R"({"offset":0,"target":"a/b"})");

  const auto data = QVKeyedArchiver::archivedDataWithRootObject(message);
  QVKeyedUnarchiver coder(data);
  EXPECT_EQ(coder.decodeUInt64ForKey("KeyQVMessageOffset"), kUMax);
  EXPECT_EQ(coder.decodeInt64ForKey("KeyQVMessageLogLevel"), -7);
  auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<QVMessage>(data);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->offset(), kUMax);
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
