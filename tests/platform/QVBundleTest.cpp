#include "qvcore/platform/QVBundle.h"

#include <gtest/gtest.h>

#include "config/QVConfigTestSupport.h"

namespace qv {
namespace {

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
  std::string find(const std::string& name, const std::string& type) {
    return QVBundle::mainBundle()->pathForResourceOfType(name, type);
  }
  test::QVTempFolder app_;
};

TEST_F(QVBundleTest, InfoDictionaryOfMainBundleOrEmpty) {
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), QVValue::object());
  const QVValue info = {{"CFBundleName", "QVExample"}, {"CFBundleVersion", "1.2.3"}};
  app_.writePlist("App/Info.plist", info, QVPropertyList::Format::kBinary);
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), info);
  app_.write("App/Info.plist", "<plist><array/></plist>");
  EXPECT_EQ(QVBundle::mainBundle()->infoDictionary(), QVValue::object());
}

TEST_F(QVBundleTest, ResourcesComeFromTheMainBundleBeforeTheSearchPath) {
  const std::string first = app_.makeFolder("Shared1/Module.bundle");
  app_.makeFolder("Shared2/Module.bundle");
  app_.write("Shared2/notes.txt", "x");
  QVBundle::setSearchPaths({app_.at("Missing"), app_.at("Shared1")});
  QVBundle::addSearchPath(app_.at("Shared2"));

  EXPECT_EQ(find("Module", "bundle"), first);
  EXPECT_EQ(find("notes", "txt"), app_.at("Shared2/notes.txt"));
  EXPECT_EQ(find("Absent", "bundle"), "");
  EXPECT_EQ(find("", "bundle"), "");
  app_.makeFolder("Shared1/QVCoreSettings.bundle");
  const std::string own = app_.makeFolder("App/QVCoreSettings.bundle");
  EXPECT_EQ(QVBundle::coreSettingsBundlePath(), own);

  QVBundle::clearSearchPaths();
  EXPECT_EQ(find("notes", "txt"), "");
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

}  // namespace
}  // namespace qv
