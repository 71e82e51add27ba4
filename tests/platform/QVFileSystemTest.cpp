#include "qvcore/platform/QVFileSystem.h"

#include <gtest/gtest.h>

#include "qvcore/platform/QVBundle.h"
#include "support/QVTempFolder.h"

namespace qv {
namespace {

TEST(QVFileSystemTest, HomeFolderComesFromTheHostThenTheEnvironment) {
  test::QVTempFolder folder;
  QVBundle::setMainBundlePath(folder.makeFolder("App.app"));
  ::setenv("HOME", folder.at("user").c_str(), 1);
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("QVCORE_HOME");
  // Without an identifier in Info.plist, the executable's name stands in.
  EXPECT_EQ(QVFileSystem::homeDirectory(), folder.at("user/.local/share/qvcore_platform_tests"));

  folder.writePlist("App.app/Info.plist", {{"CFBundleIdentifier", "com.example.app"}},
                    QVPropertyList::Format::kXML);
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
  QVBundle::setMainBundlePath("");
}

TEST(QVFileSystemTest, CreatesFoldersAndWritesFilesWithExactModes) {
  test::QVTempFolder folder;
  using test::modeOf;
  const mode_t saved = ::umask(077);
  EXPECT_TRUE(QVFileSystem::createDirectoryAtPath(folder.at("a/b/c"), 0750));
  EXPECT_TRUE(QVFileSystem::createDirectoryAtPath(folder.at("a/b/c"), 0700));
  EXPECT_TRUE(QVFileSystem::writeAtomically(folder.at("a/f"), "x", 0640));
  ::umask(saved);
  EXPECT_EQ(modeOf(folder.at("a")), 0750u);
  EXPECT_EQ(modeOf(folder.at("a/b/c")), 0750u) << "an existing folder keeps its mode";
  EXPECT_EQ(modeOf(folder.at("a/f")), 0640u);
  EXPECT_FALSE(QVFileSystem::createDirectoryAtPath(folder.at("a/f/d"), 0700));
}

TEST(QVFileSystemTest, PathsNotYetMadeAreMeasuredOnTheVolumeThatWouldHoldThem) {
  test::QVTempFolder folder;
  const auto existing = QVFileSystem::attributesOfFileSystemForPath(folder.path());
  const auto missing = QVFileSystem::attributesOfFileSystemForPath(folder.at("not/yet/there"));
  ASSERT_TRUE(existing && missing);
  EXPECT_GT(existing->size, 0u);
  EXPECT_LE(existing->freeSize, existing->size);
  EXPECT_EQ(missing->size, existing->size);
  // /proc is another file system; its size must not leak into the temp folder's.
  const auto proc = QVFileSystem::attributesOfFileSystemForPath("/proc/self/absent/child");
  ASSERT_TRUE(proc);
  EXPECT_NE(proc->size, existing->size);
  EXPECT_EQ(QVFileSystem::attributesOfFileSystemForPath(""), std::nullopt);
}

}  // namespace
}  // namespace qv
