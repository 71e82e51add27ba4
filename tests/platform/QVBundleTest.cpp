#include "qvcore/platform/QVBundle.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "config/QVConfigTestSupport.h"
#include "qvcore/platform/QVFileSystem.h"

namespace qv {
namespace {

using Format = QVPropertyList::Format;

class QVBundleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVBundle::setMainBundlePath(app_.makeFolder("App"));
    QVBundle::clearSearchPaths();
  }
  void TearDown() override {
    QVBundle::setMainBundlePath("");
    QVBundle::clearSearchPaths();
  }
  test::QVTempFolder app_;
};

TEST_F(QVBundleTest, InfoDictionaryOfMainBundleInBothForms) {
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), QVValue::object());
  const QVValue info = {{"CFBundleName", "QVExample"},
                        {"CFBundleVersion", "1.2.3"},
                        {"CFBundleIdentifier", "com.example.qvexample"}};
  for (Format format : {Format::kXML, Format::kBinary}) {
    app_.writePlist("App/Info.plist", info, format);
    EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), info);
  }
  app_.write("App/Info.plist", "<plist><array/></plist>");
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), QVValue::object());
}

TEST_F(QVBundleTest, ResourcesComeFromTheMainBundleBeforeTheSearchPath) {
  const std::string first = app_.makeFolder("Shared1/Module.bundle");
  app_.makeFolder("Shared2/Module.bundle");
  app_.write("Shared2/notes.txt", "x");
  QVBundle::setSearchPaths({app_.at("Missing"), app_.at("Shared1")});
  QVBundle::addSearchPath(app_.at("Shared2"));

  EXPECT_EQ(QVBundle::mainBundle()->pathForResourceOfType("Module", "bundle"), first);
  EXPECT_EQ(QVBundle::mainBundle()->pathForResourceOfType("notes", "txt"),
            app_.at("Shared2/notes.txt"));
  const std::string own = app_.makeFolder("App/Module.bundle");
  EXPECT_EQ(QVBundle::mainBundle()->pathForResourceOfType("Module", "bundle"), own);
  EXPECT_EQ(QVBundle::mainBundle()->pathForResourceOfType("Absent", "bundle"), "");
  EXPECT_EQ(QVBundle::mainBundle()->pathForResourceOfType("", "bundle"), "");

  QVBundle::clearSearchPaths();
  EXPECT_EQ(QVBundle::mainBundle()->pathForResourceOfType("notes", "txt"), "");
}

TEST_F(QVBundleTest, CoreSettingsBundlePrefersTheMainBundle) {
  EXPECT_EQ(QVBundle::coreSettingsBundlePath(), "");
  const std::string shared = app_.makeFolder("Shared/QVCoreSettings.bundle");
  QVBundle::addSearchPath(app_.at("Shared"));
  EXPECT_EQ(QVBundle::coreSettingsBundlePath(), shared);
  const std::string own = app_.makeFolder("App/QVCoreSettings.bundle");
  EXPECT_EQ(QVBundle::coreSettingsBundlePath(), own);
}

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
    // Read once: later changes of the environment are not seen.
    ::setenv("QVCORE_BUNDLE_PATH", "/elsewhere", 1);
    return ok && QVBundle::searchPaths().size() == 2;
  });
}

TEST(QVBundleEnvironmentTest, MainBundleDefaultsToTheExecutablesFolder) {
  test::expectInFreshProcess([] {
    ::unsetenv("QVCORE_MAIN_BUNDLE");
    char exe[4096] = {};
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    return n > 0 && QVBundle::mainBundlePath() ==
                        QVFileSystem::stringByDeletingLastPathComponent(std::string(exe, n));
  });
}

}  // namespace
}  // namespace qv
