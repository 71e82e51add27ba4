// Files and folders, the bundles, and the user defaults kept in the home
// folder.
#include "qvcore/platform/QVFileSystem.h"

#include <gtest/gtest.h>

#include "config/QVConfigTestSupport.h"
#include "qvcore/platform/QVBundle.h"
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
  EXPECT_EQ(QVFileSystem::documentsDirectory(), folder.at("qv/Documents"));
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
  EXPECT_GT(existing->size, 0u);
  EXPECT_LE(existing->freeSize, existing->size);
  EXPECT_EQ(missing->size, existing->size);
  EXPECT_NE(proc->size, existing->size);
  EXPECT_EQ(QVFileSystem::attributesOfFileSystemForPath(""), std::nullopt);
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

// Read once: later changes of the environment are not seen.
TEST(QVBundleEnvironmentTest, EnvironmentIsReadAtFirstUse) {
  test::expectInFreshProcess([] {
    test::QVTempFolder folder;
    const std::string main = folder.makeFolder("Main");
    folder.makeFolder("A/QVCoreSettings.bundle");
    folder.makeFolder("B");
    ::setenv("QVCORE_MAIN_BUNDLE", main.c_str(), 1);
    ::setenv("QVCORE_BUNDLE_PATH", (folder.at("B") + "::" + folder.at("A")).c_str(), 1);
    const bool ok =
        QVBundle::mainBundlePath() == main &&
        QVBundle::searchPaths() == std::vector<std::string>{folder.at("B"), folder.at("A")} &&
        QVBundle::coreSettingsBundlePath() == folder.at("A/QVCoreSettings.bundle");
    ::setenv("QVCORE_BUNDLE_PATH", "/elsewhere", 1);
    return ok && QVBundle::searchPaths().size() == 2;
  });
}

}  // namespace
}  // namespace qv
