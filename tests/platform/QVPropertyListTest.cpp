#include "qvcore/platform/QVPropertyList.h"

#include <gtest/gtest.h>

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

TEST(QVPropertyListTest, BothFormsReadBackEqualAndEveryTruncationIsRefused) {
  test::QVTempFolder folder;
  for (Format format : {Format::kXML, Format::kBinary}) {
    const std::string file = folder.writePlist("a.plist", sampleDictionary(), format);
    // Compared as text: equality of values takes -90 and its unsigned bits as equal.
    EXPECT_EQ(QVPropertyList::dictionaryWithContentsOfFile(file).value_or(nullptr).dump(),
              sampleDictionary().dump());
    const std::string bytes = *QVPropertyList::dataWithDictionary(sampleDictionary(), format);
    // XML that lost only what follows the root dictionary is still complete.
    const std::size_t complete = format == Format::kXML ? bytes.rfind("</dict>") : bytes.size();
    for (std::size_t n = 0; n < complete; ++n) {
      EXPECT_FALSE(QVPropertyList::dictionaryWithData(bytes.substr(0, n))) << "length " << n;
    }
  }
}

TEST(QVPropertyListTest, ReadsHandWrittenXmlWithDatesAndData) {
  const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
  <!-- a comment </dict> -->
  <key>When</key><date>2020-02-03T04:05:06Z</date>
  <key>Blob</key><data>AAEC/w==</data>
  <key>Timeout</key><real>5.5</real>
</dict></plist>)";
  EXPECT_EQ(
      QVPropertyList::dictionaryWithData(xml),
      QVValue::parse(R"({"When": "2020-02-03T04:05:06Z", "Blob": "AAEC/w==", "Timeout": 5.5})"));
}

// {"x": -90} as the platform writes it: an 8-byte big-endian integer.
const unsigned char kBinaryMinus90[] = {
    0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd1, 0x01, 0x02, 0x51, 0x78, 0x13, 0xff,
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xa6, 0x08, 0x0b, 0x0d, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x16};

TEST(QVPropertyListTest, BinaryNegativeIntegerReadsSignedAndDamageIsRefused) {
  const std::string good(reinterpret_cast<const char*>(kBinaryMinus90), sizeof kBinaryMinus90);
  EXPECT_EQ(QVPropertyList::dictionaryWithData(good).value_or(nullptr).dump(), R"({"x":-90})");
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
  auto put = [](std::string& to, uint64_t value, int bytes) {
    while (bytes--) to += static_cast<char>(value >> (8 * bytes));
  };
  std::string objects = "bplist00\x09", offsets;
  put(offsets, 8, 3);
  for (int i = 1; i < count; ++i) {
    put(offsets, objects.size(), 3);
    objects += static_cast<char>(0xa0 | refs);
    for (int r = 0; r < refs; ++r) put(objects, i - 1, 2);
  }
  std::string trailer(6, '\0');
  trailer += "\x03\x02";  // 3-byte offsets, 2-byte references
  put(trailer, count, 8);
  put(trailer, count - 1, 8);  // the root
  put(trailer, objects.size(), 8);
  return objects + offsets + trailer;
}

TEST(QVPropertyListTest, BinaryNestingAndSharingAreBounded) {
  EXPECT_EQ(QVPropertyList::propertyListWithData(nestedBinary(4, 2)),
            QVValue::parse("[[[true, true], [true, true]], [[true, true], [true, true]]]"));
  // Deep enough to overflow the stack of a recursive reader.
  EXPECT_FALSE(QVPropertyList::propertyListWithData(nestedBinary(60000, 1)));
  // 40 shared objects that would expand to 2^40 nodes.
  EXPECT_FALSE(QVPropertyList::propertyListWithData(nestedBinary(40, 2)));
}

TEST(QVPropertyListTest, MalformedMisshapenMissingOrHugeInputGivesNone) {
  // Nested deeply enough to overflow the stack of libplist's reader, and
  // still under the size limit.
  std::string deep = "<plist>";
  for (int i = 0; i < 1100000; ++i) deep += "<array>";
  for (const std::string& bad :
       {std::string("not a plist"), deep,
        std::string("<plist><dict><key>a</key><integer>1</integer></array></plist>"),
        std::string("<plist><dict><key>k\xff\xfe</key><true/></dict></plist>")}) {
    EXPECT_FALSE(QVPropertyList::dictionaryWithData(bad)) << bad.substr(0, 40);
  }
  const std::string array = "<plist><array><integer>1</integer></array></plist>";
  EXPECT_FALSE(QVPropertyList::dictionaryWithData(array));
  EXPECT_EQ(QVPropertyList::propertyListWithData(array), QVValue::parse("[1]"));

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
