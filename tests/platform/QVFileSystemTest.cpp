// Files and folders, the bundles, the user defaults kept in the home folder,
// property lists in both forms, and the keyed archives written as binary
// property lists.
#include "qvcore/platform/QVFileSystem.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "config/QVConfigTestSupport.h"
#include "qvcore/platform/QVArchiveException.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"
#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVUserDefaults.h"

namespace qv {
namespace {

using test::modeOf;

// The standard user defaults follow the home folder.
TEST(QVFileSystemTest, HomeFolderComesFromTheHostThenTheEnvironment) {
  test::QVTempFolder folder;
  QVBundle::setMainBundlePath(folder.makeFolder("App.app"));
  ::setenv("HOME", folder.at("user").c_str(), 1);
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("QVCORE_HOME");
  // Without an identifier in Info.plist, the executable's name stands in.
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("user/.local/share/qvcore_platform_tests"));
  folder.writePlist("App.app/Info.plist", {{"CFBundleIdentifier", "com.example.app"}});
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("user/.local/share/com.example.app"));
  ::setenv("XDG_DATA_HOME", "relative/data", 1);
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("user/.local/share/com.example.app"));
  ::setenv("XDG_DATA_HOME", folder.at("data").c_str(), 1);
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("data/com.example.app"));
  ::setenv("QVCORE_HOME", folder.at("qv").c_str(), 1);
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("qv"));
  QVFileSystem::setHomeDirectory(folder.at("host"));
  EXPECT_EQ(QVFileSystem::documentsDirectory(), folder.at("host/Documents"));
  QVFileSystem::setHomeDirectory("");
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("qv"));
  EXPECT_FALSE(QVFileSystem::fileExistsAtPath(folder.at("qv"))) << "asking creates nothing";

  QVUserDefaults& defaults = QVUserDefaults::standardUserDefaults();
  QVFileSystem::setHomeDirectory(folder.at("A"));
  EXPECT_TRUE(defaults.setObjectForKey("in A", "k"));
  EXPECT_TRUE(QVFileSystem::isFileAtPath(folder.at("A/Library/Preferences/com.example.app.plist")));
  QVFileSystem::setHomeDirectory(folder.at("B"));
  EXPECT_EQ(defaults.objectForKey("k"), std::nullopt);
  EXPECT_TRUE(defaults.setObjectForKey("in B", "k"));
  QVFileSystem::setHomeDirectory(folder.at("A"));
  EXPECT_EQ(defaults.objectForKey("k"), "in A");
  QVFileSystem::setHomeDirectory("");
  QVBundle::setMainBundlePath("");
}

// Paths not yet made are measured on the volume that would hold them; /proc
// is another file system, whose size must not leak into the temp folder's.
// The figures themselves are read by the mobile environment record's test.
TEST(QVFileSystemTest, CreatesFoldersAndFilesWithExactModesAndMeasuresTheirVolume) {
  test::QVTempFolder folder;
  const mode_t saved = ::umask(077);
  EXPECT_TRUE(QVFileSystem::createDirectoryAtPath(folder.at("a/b/c"), 0750));
  EXPECT_TRUE(QVFileSystem::createDirectoryAtPath(folder.at("a/b/c"), 0700));
  EXPECT_TRUE(QVFileSystem::writeAtomically(folder.at("a/f"), "x", 0640));
  ::umask(saved);
  EXPECT_EQ(modeOf(folder.at("a")), 0750u);
  EXPECT_EQ(modeOf(folder.at("a/b/c")), 0750u) << "an existing folder keeps its mode";
  EXPECT_EQ(modeOf(folder.at("a/f")), 0640u);
  EXPECT_FALSE(QVFileSystem::createDirectoryAtPath(folder.at("a/f/d"), 0700));
  const auto existing = QVFileSystem::attributesOfFileSystemForPath(folder.path());
  const auto missing = QVFileSystem::attributesOfFileSystemForPath(folder.at("not/yet/there"));
  const auto proc = QVFileSystem::attributesOfFileSystemForPath("/proc/self/absent/child");
  ASSERT_TRUE(existing && missing && proc);
  EXPECT_EQ(missing->size, existing->size);
  EXPECT_NE(proc->size, existing->size);
  EXPECT_EQ(QVFileSystem::attributesOfFileSystemForPath(""), std::nullopt);
}

// The cache's reads, listings and deletions never go through a link put in
// place of a file or folder, even when the name was checked a moment before.
TEST(QVFileSystemTest, NoFollowCallsRefuseLinksAndLeaveTheirTargets) {
  test::QVTempFolder folder;
  ASSERT_TRUE(QVFileSystem::createDirectoryAtPath(folder.at("real"), 0700));
  ASSERT_TRUE(QVFileSystem::writeAtomically(folder.at("real/f"), "x", 0600));
  ASSERT_EQ(::symlink(folder.at("real/f").c_str(), folder.at("file link").c_str()), 0);
  ASSERT_EQ(::symlink(folder.at("real").c_str(), folder.at("folder link").c_str()), 0);
  EXPECT_EQ(QVFileSystem::contentsAtPathNoFollow(folder.at("file link"), 10), std::nullopt);
  EXPECT_EQ(QVFileSystem::entriesOfFolderNoFollow(folder.at("folder link")), std::nullopt);
  EXPECT_FALSE(QVFileSystem::isDirectoryNoFollowAtPath(folder.at("folder link")));
  EXPECT_TRUE(QVFileSystem::removeFileNoFollow(folder.at("file link")));
  EXPECT_EQ(QVFileSystem::contentsAtPath(folder.at("file link"), 10), std::nullopt);
  EXPECT_EQ(QVFileSystem::contentsAtPath(folder.at("real/f"), 10), "x");
}

TEST(QVUserDefaultsTest, ValuesSurviveInPrivateFilesAndDamagedFilesAreReplaced) {
  test::QVTempFolder folder;
  const std::string path = folder.at("home/Library/Preferences/app.plist");
  const QVValue nested = {{"list", {1, "two", true}}, {"n", -90}};
  const mode_t saved = ::umask(0);
  {
    QVUserDefaults defaults(path);
    EXPECT_EQ(defaults.objectForKey("Brevant.UDID"), std::nullopt);
    EXPECT_FALSE(QVFileSystem::fileExistsAtPath(path)) << "reading must create nothing";
    EXPECT_TRUE(defaults.setObjectForKey("ABC-123", "Brevant.UDID"));
    EXPECT_TRUE(defaults.setObjectForKey(nested, "nested"));
    EXPECT_TRUE(defaults.removeObjectForKey("never there"));
    // A property list cannot hold null: refused whole, nothing else changes.
    EXPECT_FALSE(defaults.setObjectForKey({{"a", nullptr}}, "nested"));
    EXPECT_EQ(defaults.objectForKey("nested"), nested);
  }
  ::umask(saved);
  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_EQ(modeOf(folder.at("home/Library/Preferences")), 0700u);
  EXPECT_EQ(modeOf(folder.at("home")), 0700u);
  QVUserDefaults reopened(path);
  EXPECT_EQ(reopened.objectForKey("Brevant.UDID"), "ABC-123");
  EXPECT_EQ(reopened.objectForKey("nested"), nested);

  // Damaged or unreadable files start empty and are replaced; a fifo is not
  // a regular file: refused unread, without blocking.
  folder.write("junk.plist", "\x01junk");
  folder.write("array.plist", "<plist version=\"1.0\"><array><string>x</string></array></plist>");
  ASSERT_EQ(::mkfifo(folder.at("fifo.plist").c_str(), 0600), 0);
  for (const char* name : {"junk.plist", "array.plist", "fifo.plist"}) {
    SCOPED_TRACE(name);
    QVUserDefaults defaults(folder.at(name));
    EXPECT_EQ(defaults.objectForKey("x"), std::nullopt);
    EXPECT_TRUE(defaults.setObjectForKey("fresh", "k"));
    EXPECT_EQ(QVUserDefaults(folder.at(name)).objectForKey("k"), "fresh");
  }
}

// An unreadable or misshapen Info.plist reads as empty; resources come from
// the main bundle before the search path.
TEST(QVBundleTest, InfoAndResourcesComeFromTheMainBundleBeforeTheSearchPath) {
  test::QVTempFolder app;
  QVBundle::setMainBundlePath(app.makeFolder("App"));
  const auto find = [](const std::string& name, const std::string& type) {
    return QVBundle::mainBundle()->pathForResourceOfType(name, type);
  };
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), QVValue::object());
  const QVValue info = {{"CFBundleName", "QVExample"}, {"CFBundleVersion", "1.2.3"}};
  app.writePlist("App/Info.plist", info, QVPropertyList::Format::kBinary);
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), info);
  app.write("App/Info.plist", "<plist><array/></plist>");
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), QVValue::object());

  const std::string first = app.makeFolder("Shared1/Module.bundle");
  app.makeFolder("Shared2/Module.bundle");
  app.write("Shared2/notes.txt", "x");
  QVBundle::setSearchPaths({app.at("Missing"), app.at("Shared1")});
  QVBundle::addSearchPath(app.at("Shared2"));
  EXPECT_EQ(find("Module", "bundle"), first);
  EXPECT_EQ(find("notes", "txt"), app.at("Shared2/notes.txt"));
  EXPECT_EQ(find("Absent", "bundle") + find("", "bundle"), "");
  app.makeFolder("Shared1/QVCoreSettings.bundle");
  const std::string own = app.makeFolder("App/QVCoreSettings.bundle");
  EXPECT_EQ(QVBundle::coreSettingsBundlePath(), own);
  QVBundle::clearSearchPaths();
  EXPECT_EQ(find("notes", "txt"), "");
  QVBundle::setMainBundlePath("");
}

using Format = QVPropertyList::Format;
using Bytes = std::vector<uint8_t>;
constexpr uint64_t kUMax = std::numeric_limits<uint64_t>::max();

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

// {"x": -90} as the platform writes it: an 8-byte big-endian integer. The
// objects (a dictionary, its key, the integer), their offsets, and the
// trailer: 1-byte offsets and references, 3 objects, root 0, table at 0x16.
const std::string kBinaryMinus90 = "bplist00\xd1\x01\x02\x51x\x13\xff\xff\xff\xff\xff\xff\xff\xa6" +
                                   std::string("\x08\x0b\x0d") + std::string(6, '\0') + "\x01\x01" +
                                   std::string(7, '\0') + "\x03" + std::string(15, '\0') + "\x16";

TEST(QVPropertyListTest, BinaryInputReadsSignedAndRefusesDamageDepthAndSharing) {
  const std::string& good = kBinaryMinus90;
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

// Negative, extreme and text values, absent keys, a wrong kind that stops a
// class's decoding, and a whole object are held by the message tests.
TEST(QVKeyedArchiveTest, TypedValuesRoundTrip) {
  QVKeyedArchiver archiver;
  archiver.encodeInt64ForKey(-1, "minusOne");
  archiver.encodeDoubleForKey(-2.5e300, "real");
  archiver.encodeBoolForKey(true, "flag");
  archiver.encodeObjectForKey("plain", "text");
  archiver.encodeObjectForKey(std::nullopt, "absent");
  archiver.encodeInt64ForKey(7, "replaced");
  archiver.encodeInt64ForKey(8, "replaced");
  QVKeyedUnarchiver coder(archiver.archivedData());
  ASSERT_TRUE(coder.isValid());
  EXPECT_EQ(coder.decodeDoubleForKey("real"), -2.5e300);
  EXPECT_TRUE(coder.decodeBoolForKey("flag"));
  EXPECT_EQ(coder.decodeInt64ForKey("replaced"), 8) << "a key written twice keeps the last";
  // Integers are the stored bits, whichever signedness reads them.
  EXPECT_EQ(coder.decodeUInt64ForKey("minusOne"), kUMax);
  EXPECT_EQ(coder.decodeDoubleForKey("minusOne"), -1.0);
  // A value of another kind raises.
  EXPECT_THROW(coder.decodeInt64ForKey("text"), QVArchiveException);
  EXPECT_THROW(coder.decodeObjectForKey("flag"), QVArchiveException);
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

// Not a binary property list, or not a dictionary at its root.
TEST(QVKeyedArchiveTest, UnreadableBytesGiveNone) {
  struct Any {
    explicit Any(const QVKeyedUnarchiver&) {}
  };
  const std::string array = nestedBinary(2, 1);  // [true]
  const std::string xml =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>number</key>"
      "<integer>1</integer></dict></plist>";
  for (const Bytes& data : {Bytes{}, Bytes{'h', 'i'}, Bytes(xml.begin(), xml.end()),
                            Bytes(array.begin(), array.end())}) {
    EXPECT_FALSE(QVKeyedUnarchiver(data).isValid());
    EXPECT_EQ(QVKeyedUnarchiver::unarchiveObjectWithData<Any>(data), nullptr);
  }
}

}  // namespace
}  // namespace qv
