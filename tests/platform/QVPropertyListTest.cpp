#include "qvcore/platform/QVPropertyList.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "config/QVConfigTestSupport.h"

namespace qv {
namespace {

using Format = QVPropertyList::Format;

QVValue sampleDictionary() {
  return QVValue::parse(R"({
    "DefaultOrientation": -90, "Big": 9007199254740993, "Level": 3, "Ratio": 0.25,
    "On": true, "Off": false, "Name": "Grüße ✓",
    "List": [1, "two", [3], {"four": 4}], "Nested": {"Inner": {"Deep": "yes"}}, "Empty": {}
  })");
}

class QVPropertyListFormatTest : public ::testing::TestWithParam<Format> {};

TEST_P(QVPropertyListFormatTest, WrittenFileReadsBackEqual) {
  test::QVTempFolder folder;
  const std::string file = folder.writePlist("a.plist", sampleDictionary(), GetParam());
  const std::optional<QVValue> read = QVPropertyList::dictionaryWithContentsOfFile(file);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, sampleDictionary());
  EXPECT_EQ((*read)["DefaultOrientation"].get<int64_t>(), -90);
}

TEST_P(QVPropertyListFormatTest, EveryTruncationIsRefusedWithoutCrashing) {
  const std::string bytes = *QVPropertyList::dataWithDictionary(sampleDictionary(), GetParam());
  // XML that lost only what follows the root dictionary is still complete.
  const std::size_t complete = GetParam() == Format::kXML ? bytes.rfind("</dict>") : bytes.size();
  for (std::size_t n = 0; n < complete; ++n) {
    EXPECT_FALSE(QVPropertyList::dictionaryWithData(bytes.substr(0, n))) << "length " << n;
  }
}

INSTANTIATE_TEST_SUITE_P(BothForms, QVPropertyListFormatTest,
                         ::testing::Values(Format::kXML, Format::kBinary), [](const auto& info) {
                           return info.param == Format::kXML ? "XML" : "Binary";
                         });

TEST(QVPropertyListTest, ReadsHandWrittenXmlWithDatesAndData) {
  const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <!-- a comment </dict> -->
  <key>DefaultOrientation</key><integer>-90</integer>
  <key>When</key><date>2020-02-03T04:05:06Z</date>
  <key>Blob</key><data>AAEC/w==</data>
  <key>Timeout</key><real>5.5</real>
</dict>
</plist>)";
  const std::optional<QVValue> dict = QVPropertyList::dictionaryWithData(xml);
  ASSERT_TRUE(dict);
  EXPECT_EQ((*dict)["DefaultOrientation"], -90);
  EXPECT_EQ((*dict)["When"], "2020-02-03T04:05:06Z");
  EXPECT_EQ((*dict)["Blob"], "AAEC/w==");
  EXPECT_EQ((*dict)["Timeout"], 5.5);
}

// {"x": -90} as the platform writes it: an 8-byte big-endian integer.
const unsigned char kBinaryMinus90[] = {
    0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd1, 0x01, 0x02, 0x51, 0x78, 0x13, 0xff,
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xa6, 0x08, 0x0b, 0x0d, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x16};

std::string binaryMinus90() {
  return std::string(reinterpret_cast<const char*>(kBinaryMinus90), sizeof kBinaryMinus90);
}

TEST(QVPropertyListTest, BinaryNegativeIntegerReadsSigned) {
  const std::optional<QVValue> dict = QVPropertyList::dictionaryWithData(binaryMinus90());
  ASSERT_TRUE(dict);
  EXPECT_EQ(*dict, QVValue::parse(R"({"x": -90})"));
}

TEST(QVPropertyListTest, DamagedBinaryIsRefused) {
  const std::string good = binaryMinus90();
  const std::size_t trailer = good.size() - 32;
  auto patched = [&](std::size_t at, unsigned char byte) {
    std::string bytes = good;
    bytes[at] = static_cast<char>(byte);
    return bytes;
  };
  // Offset table offset past the end, an object offset past the table, a
  // reference to an object that does not exist, a root index out of range,
  // zero-sized offsets, a dictionary that contains itself, and a key that
  // holds a NUL (on which libplist would abort).
  for (const std::string& bad :
       {patched(trailer + 31, 0xff), patched(0x16, 0x40), patched(0x0a, 0x07),
        patched(trailer + 23, 0x05), patched(trailer + 6, 0x00), patched(0x0a, 0x00),
        patched(0x0c, 0x00)}) {
    EXPECT_FALSE(QVPropertyList::dictionaryWithData(bad));
  }
}

// A binary list of count objects: object 0 is true, object i an array that
// refers refs times to object i-1.
std::string nestedBinary(int count, int refs) {
  std::string bytes = "bplist00";
  std::string offsets;
  for (int i = 0; i < count; ++i) {
    offsets += static_cast<char>(bytes.size() >> 16);
    offsets += static_cast<char>(bytes.size() >> 8);
    offsets += static_cast<char>(bytes.size());
    if (i == 0) {
      bytes += '\x09';
      continue;
    }
    bytes += static_cast<char>(0xa0 | refs);
    for (int r = 0; r < refs; ++r) {
      bytes += static_cast<char>((i - 1) >> 8);
      bytes += static_cast<char>(i - 1);
    }
  }
  const std::size_t table = bytes.size();
  bytes += offsets;
  std::string trailer(32, '\0');
  trailer[6] = 3;
  trailer[7] = 2;
  trailer[14] = static_cast<char>(count >> 8);
  trailer[15] = static_cast<char>(count);
  trailer[22] = static_cast<char>((count - 1) >> 8);
  trailer[23] = static_cast<char>(count - 1);
  trailer[29] = static_cast<char>(table >> 16);
  trailer[30] = static_cast<char>(table >> 8);
  trailer[31] = static_cast<char>(table);
  return bytes + trailer;
}

TEST(QVPropertyListTest, BinaryNestingAndSharingAreBounded) {
  const std::optional<QVValue> shallow = QVPropertyList::propertyListWithData(nestedBinary(4, 2));
  EXPECT_EQ(shallow,
            QVValue::parse("[[[true, true], [true, true]], [[true, true], [true, true]]]"));
  // Deep enough to overflow the stack of a recursive reader.
  EXPECT_FALSE(QVPropertyList::propertyListWithData(nestedBinary(60000, 1)));
  // 40 shared objects that would expand to 2^40 nodes.
  EXPECT_FALSE(QVPropertyList::propertyListWithData(nestedBinary(40, 2)));
}

TEST(QVPropertyListTest, MalformedOrMisshapenInputGivesNone) {
  // Nested deeply enough to overflow the stack of libplist's reader, and
  // still under the size limit.
  std::string deep = "<plist>";
  for (int i = 0; i < 1100000; ++i) deep += "<array>";
  const std::string nonUtf8 = "<plist><dict><key>k\xff\xfe</key><true/></dict></plist>";
  for (const std::string& bad :
       {std::string(), std::string("not a plist"), std::string("<plist><dict><key>a</key>"),
        std::string("<plist><dict><key>a</key><integer>1</integer></array></plist>"), deep, nonUtf8,
        std::string("bplist00")}) {
    EXPECT_FALSE(QVPropertyList::dictionaryWithData(bad)) << bad.substr(0, 40);
  }
  const std::string array = "<plist><array><integer>1</integer></array></plist>";
  EXPECT_FALSE(QVPropertyList::dictionaryWithData(array));
  EXPECT_EQ(QVPropertyList::propertyListWithData(array), QVValue::parse("[1]"));
}

TEST(QVPropertyListTest, FilesThatAreMissingFoldersOrHugeGiveNone) {
  test::QVTempFolder folder;
  EXPECT_FALSE(QVPropertyList::dictionaryWithContentsOfFile(folder.at("missing.plist")));
  EXPECT_FALSE(QVPropertyList::dictionaryWithContentsOfFile(folder.makeFolder("dir.plist")));
  // 50 MB of which nothing is written: sparse, and refused before reading.
  const std::string huge = folder.write("huge.plist", "<plist><dict></dict></plist>");
  ASSERT_EQ(::truncate(huge.c_str(), 50L * 1024 * 1024), 0);
  EXPECT_FALSE(QVPropertyList::dictionaryWithContentsOfFile(huge));
}

}  // namespace
}  // namespace qv
