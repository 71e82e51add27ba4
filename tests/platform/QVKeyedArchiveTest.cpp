#include <gtest/gtest.h>

#include "platform/archive/QVPlistNode.h"
#include "qvcore/platform/QVArchiveException.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace qv {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr uint64_t kUMax = std::numeric_limits<uint64_t>::max();

// An archivable class as a module would write one.
struct Sample : QVCoding {
  Sample() = default;
  explicit Sample(const QVKeyedUnarchiver& coder) : number(coder.decodeInt64ForKey("number")) {}
  void encodeWithCoder(QVKeyedArchiver& coder) const override {
    coder.encodeInt64ForKey(number, "number");
  }
  int64_t number = 0;
};

Bytes binaryPlistOf(plist_t node) {
  char* out = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &out, &length);
  QVPlistBuffer owned(out);
  return Bytes(out, out + length);
}

const std::string kText = "h\xC3\xA9llo \xE2\x9C\x93 \xF0\x9F\x98\x80";

// A value of each kind, and a key written twice.
Bytes sampleArchive() {
  QVKeyedArchiver archiver;
  archiver.encodeInt64ForKey(-1, "minusOne");
  archiver.encodeInt64ForKey(kMin, "min");
  archiver.encodeUInt64ForKey(kUMax, "umax");
  archiver.encodeDoubleForKey(-2.5e300, "real");
  archiver.encodeBoolForKey(true, "flag");
  archiver.encodeObjectForKey(kText, "text");
  archiver.encodeObjectForKey("plain", "ascii");
  archiver.encodeObjectForKey(std::nullopt, "absent");
  archiver.encodeInt64ForKey(7, "replaced");
  archiver.encodeInt64ForKey(8, "replaced");
  return archiver.archivedData();
}

TEST(QVKeyedArchiveTest, TypedValuesRoundTrip) {
  const Bytes data = sampleArchive();
  EXPECT_EQ(std::string(data.begin(), data.begin() + 8), "bplist00");
  QVKeyedUnarchiver coder(data);
  ASSERT_TRUE(coder.isValid());
  EXPECT_EQ(coder.decodeInt64ForKey("minusOne"), -1);
  EXPECT_EQ(coder.decodeInt64ForKey("min"), kMin);
  EXPECT_EQ(coder.decodeUInt64ForKey("umax"), kUMax);
  EXPECT_EQ(coder.decodeDoubleForKey("real"), -2.5e300);
  EXPECT_TRUE(coder.decodeBoolForKey("flag"));
  EXPECT_EQ(coder.decodeObjectForKey("text"), kText);
  EXPECT_EQ(coder.decodeInt64ForKey("replaced"), 8);
  // Integers are the stored bits, whichever signedness reads them.
  EXPECT_EQ(coder.decodeUInt64ForKey("minusOne"), kUMax);
  EXPECT_EQ(coder.decodeDoubleForKey("minusOne"), -1.0);
  // A value of another kind raises.
  EXPECT_THROW(coder.decodeInt64ForKey("text"), QVArchiveException);
  EXPECT_THROW(coder.decodeObjectForKey("flag"), QVArchiveException);
  // Absent keys read as nothing.
  EXPECT_FALSE(coder.containsValueForKey("absent"));
  EXPECT_EQ(coder.decodeObjectForKey("absent"), std::nullopt);
  EXPECT_EQ(coder.decodeUInt64ForKey("absent"), 0u);
}

TEST(QVKeyedArchiveTest, RefusesTextTheWriterWouldAlter) {
  const std::string bad[] = {"bad\xFF", std::string("nul\0in", 6), "\xED\xA0\x80", "\xC0\xAF",
                             "cut\xC3", "\xF4\x90\x80\x80"};
  for (const std::string& text : bad) {
    QVKeyedArchiver archiver;
    EXPECT_THROW(archiver.encodeObjectForKey(text, "k"), QVArchiveException);
    EXPECT_THROW(archiver.encodeInt64ForKey(1, text), QVArchiveException);
    QVKeyedUnarchiver coder(archiver.archivedData());
    EXPECT_FALSE(coder.containsValueForKey("k"));
  }
}

TEST(QVKeyedArchiveTest, RootObjectRoundTripsAndUnreadableBytesGiveNone) {
  Sample sample;
  sample.number = -7;
  auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<Sample>(
      QVKeyedArchiver::archivedDataWithRootObject(sample));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->number, -7);

  QVPlistNode array(plist_new_array());
  const std::string xml =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>number</key>"
      "<integer>1</integer></dict></plist>";
  for (const Bytes& data :
       {Bytes{}, Bytes{'h', 'i'}, Bytes(xml.begin(), xml.end()), binaryPlistOf(array.get())}) {
    EXPECT_FALSE(QVKeyedUnarchiver(data).isValid());
    EXPECT_EQ(QVKeyedUnarchiver::unarchiveObjectWithData<Sample>(data), nullptr);
  }
}

// Only the archive's own exception may come out of a damaged archive.
void decodeEverything(const Bytes& data) {
  QVKeyedUnarchiver coder(data);
  const auto quietly = [](auto decode) {
    try {
      decode();
    } catch (const QVArchiveException&) {
    }
  };
  for (const char* key : {"minusOne", "umax", "real", "flag", "text", "ascii", "replaced"}) {
    quietly([&] { coder.decodeInt64ForKey(key); });
    quietly([&] { coder.decodeDoubleForKey(key); });
    quietly([&] { coder.decodeObjectForKey(key); });
  }
}

TEST(QVKeyedArchiveTest, DamagedArchivesAreReadSafely) {
  const Bytes good = sampleArchive();
  for (size_t length = 0; length < good.size(); ++length) {
    const Bytes truncated(good.begin(), good.begin() + length);
    EXPECT_FALSE(QVKeyedUnarchiver(truncated).isValid()) << "length " << length;
    decodeEverything(truncated);
  }
  // A zero byte puts a NUL inside stored text, which libplist's own string
  // getter asserts on.
  for (size_t i = 0; i < good.size(); ++i) {
    for (uint8_t value :
         {uint8_t(good[i] ^ 0x01), uint8_t(good[i] ^ 0x80), uint8_t(~good[i]), uint8_t(0)}) {
      Bytes damaged = good;
      damaged[i] = value;
      decodeEverything(damaged);
    }
  }
}

}  // namespace
}  // namespace qv
