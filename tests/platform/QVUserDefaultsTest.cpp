#include "qvcore/platform/QVUserDefaults.h"

#include <gtest/gtest.h>

#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFileSystem.h"
#include "support/QVTempFolder.h"

namespace qv {
namespace {

using test::modeOf;

TEST(QVUserDefaultsTest, ValuesSurviveInAFreshInstanceAndPrivateFilesWhateverTheUmask) {
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
    EXPECT_TRUE(defaults.setObjectForKey(1, "gone"));
    EXPECT_TRUE(defaults.removeObjectForKey("gone"));
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
  EXPECT_EQ(reopened.objectForKey("gone"), std::nullopt);
}

TEST(QVUserDefaultsTest, DamagedOrUnreadableFilesStartEmptyAndAreReplaced) {
  test::QVTempFolder folder;
  folder.write("junk.plist", "\x01junk");
  folder.write("array.plist", "<plist version=\"1.0\"><array><string>x</string></array></plist>");
  // Not a regular file: refused unread, without blocking.
  ASSERT_EQ(::mkfifo(folder.at("fifo.plist").c_str(), 0600), 0);
  for (const char* name : {"junk.plist", "array.plist", "fifo.plist"}) {
    SCOPED_TRACE(name);
    QVUserDefaults defaults(folder.at(name));
    EXPECT_EQ(defaults.objectForKey("x"), std::nullopt);
    EXPECT_TRUE(defaults.setObjectForKey("fresh", "k"));
    EXPECT_EQ(QVUserDefaults(folder.at(name)).objectForKey("k"), "fresh");
  }
}

TEST(QVUserDefaultsTest, StandardDefaultsFollowTheHomeFolder) {
  test::QVTempFolder folder;
  QVBundle::setMainBundlePath(folder.makeFolder("App.app"));
  folder.writePlist("App.app/Info.plist", {{"CFBundleIdentifier", "com.example.app"}},
                    QVPropertyList::Format::kXML);
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

}  // namespace
}  // namespace qv
