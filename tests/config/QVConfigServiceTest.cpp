#include "qvcore/config/QVConfigService.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "config/QVConfigTestSupport.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVBundle.h"

namespace qv {
namespace {

using Format = QVPropertyList::Format;
using test::QVTestModule;

class QVConfigLoadTest : public ::testing::Test {
 protected:
  std::shared_ptr<QVConfigService> service_ = QVConfigService::sharedInstance();
  test::QVTempFolder folder_;

  void TearDown() override {
    for (const auto& m : modules_) service_->unloadConfig(m);
  }
  std::shared_ptr<QVTestModule> module(const std::string& name, const std::string& bundle) {
    modules_.push_back(
        std::make_shared<QVTestModule>(name, bundle.empty() ? "" : folder_.makeFolder(bundle)));
    return modules_.back();
  }
  std::vector<std::shared_ptr<QVTestModule>> modules_;
  std::optional<QVValue> item(const std::string& key, const std::shared_ptr<QVTestModule>& m) {
    return service_->getConfigItemForLifecycleObject(key, m);
  }
  bool stored(const std::string& name) { return service_->configurations().count(name) != 0; }
};

class QVConfigPrecedenceTest : public QVConfigLoadTest,
                               public ::testing::WithParamInterface<Format> {};

TEST_P(QVConfigPrecedenceTest, LaterFilesAndPendingItemsWin) {
  for (const char* bundle : {"BRVResources.bundle", "TestModuleResources.bundle"}) {
    const std::string name = std::string("Mod") + bundle;
    auto m = module(name, bundle);
    folder_.writePlist(std::string(bundle) + "/BrevantBasicConfig.plist",
                       {{"A", 1}, {"B", 1}, {"N", {{"x", 1}, {"y", 1}}}}, GetParam());
    folder_.write(std::string(bundle) + "/BrevantAdvancedConfig.json",
                  R"({"A": 2, "C": 2, "N": {"x": 2}})");
    folder_.write(std::string(bundle) + "/BrevantLayoutConfig.json", R"({"A": 3, "D": 3})");
    QVCore::sharedInstance()->setTempConfigDict({{name, {{"D", 4}, {"E", 4}}}});

    ASSERT_TRUE(service_->loadConfig(m));
    EXPECT_EQ(*service_->getConfig(m),
              QVValue::parse(R"({"A": 3, "B": 1, "N": {"x": 2}, "C": 2, "D": 4, "E": 4})"));

    // Pending items are consumed by the load that applied them.
    service_->unloadConfig(m);
    EXPECT_FALSE(stored(name));
    ASSERT_TRUE(service_->loadConfig(m));
    EXPECT_EQ(item("D", m), QVValue(3));
    EXPECT_FALSE(item("E", m));
  }
}

INSTANTIATE_TEST_SUITE_P(BothPlistForms, QVConfigPrecedenceTest,
                         ::testing::Values(Format::kXML, Format::kBinary), [](const auto& info) {
                           return info.param == Format::kXML ? "XML" : "Binary";
                         });

TEST_F(QVConfigLoadTest, PrefixDecidesWhichFilesAreRead) {
  auto core = module("CoreLike", "Settings/QVCoreSettings.bundle");
  folder_.writePlist("Settings/QVCoreSettings.bundle/QVCoreBasicConfig.plist", {{"A", 1}},
                     Format::kXML);
  folder_.write("Settings/QVCoreSettings.bundle/QVCoreAdvancedConfig.json", R"({"B": 2})");
  folder_.write("Settings/QVCoreSettings.bundle/QVCoreLayoutConfig.json", R"({"A": 9})");
  folder_.write("Settings/QVCoreSettings.bundle/BrevantLayoutConfig.json", R"({"A": 9})");
  ASSERT_TRUE(service_->loadConfig(core));
  EXPECT_EQ(*service_->getConfig(core), QVValue::parse(R"({"A": 1, "B": 2})"));

  auto plain = module("Plain", "Other.bundle");
  folder_.write("Other.bundle/BasicConfig.plist",
                "<plist><dict><key>A</key><true/></dict></plist>");
  folder_.write("Other.bundle/AdvancedConfig.json", R"({"B": "b"})");
  folder_.write("Other.bundle/LayoutConfig.json", R"({"C": 1})");
  folder_.write("Other.bundle/BrevantAdvancedConfig.json", R"({"D": 1})");
  ASSERT_TRUE(service_->loadConfig(plain));
  EXPECT_EQ(*service_->getConfig(plain), QVValue::parse(R"({"A": true, "B": "b"})"));

  EXPECT_EQ(service_->prefixForModuleBundleName("/x/BRVResources.bundle"), "Brevant");
  EXPECT_EQ(service_->prefixForModuleBundleName("/x/QVCoreSettings.bundle"), "QVCore");
  EXPECT_EQ(service_->prefixForModuleBundleName("/x/BRVResources.bundle/y"), "");
}

TEST_F(QVConfigLoadTest, LoadedModuleIsNotReadAgainUntilUnloaded) {
  auto m = module("Reread", "R.bundle");
  folder_.write("R.bundle/AdvancedConfig.json", R"({"A": 1})");
  ASSERT_TRUE(service_->loadConfig(m));
  folder_.write("R.bundle/AdvancedConfig.json", R"({"A": 2})");
  EXPECT_TRUE(service_->loadConfig(m));
  EXPECT_EQ(item("A", m), QVValue(1));
  service_->unloadConfig(m);
  EXPECT_EQ(item("A", m), QVValue(2));  // Loaded on demand by the read.
}

TEST_F(QVConfigLoadTest, NothingToLoadFailsAndStoresNothing) {
  auto bare = module("Bare", "");
  EXPECT_FALSE(service_->loadConfig(bare));
  EXPECT_FALSE(service_->getConfig(bare));
  EXPECT_FALSE(stored("Bare"));
  EXPECT_FALSE(service_->updateConfigWithData(bare, {{"A", 1}}));
  EXPECT_FALSE(stored("Bare"));
  EXPECT_FALSE(service_->loadConfig(nullptr));

  QVCore::sharedInstance()->setTempConfigDict({{"Bare", {{"A", 1}}}});
  EXPECT_TRUE(service_->loadConfig(bare));
  EXPECT_EQ(item("A", bare), QVValue(1));
}

TEST_F(QVConfigLoadTest, FolderNamedLikeAFileCountsAsMissing) {
  auto m = module("Dirs", "D.bundle");
  folder_.makeFolder("D.bundle/BasicConfig.plist");
  folder_.write("D.bundle/AdvancedConfig.json", R"({"A": 1})");
  EXPECT_FALSE(service_->fileExistsAtFullPath(folder_.at("D.bundle/BasicConfig.plist")));
  EXPECT_TRUE(service_->fileExistsAtFullPath(folder_.at("D.bundle/AdvancedConfig.json")));
  EXPECT_EQ(service_->plistConfigForBundle(folder_.at("D.bundle")), QVValue::object());
  ASSERT_TRUE(service_->loadConfig(m));
  EXPECT_EQ(*service_->getConfig(m), QVValue::parse(R"({"A": 1})"));
}

TEST_F(QVConfigLoadTest, UnreadableFilesAddNothing) {
  const std::string binary = *QVPropertyList::dataWithDictionary({{"P", 1}}, Format::kBinary);
  const std::string goodJson = R"({"J": 1})";
  struct Case {
    std::string plist, json;
    QVValue expected;
  };
  const Case cases[] = {
      {binary.substr(0, binary.size() - 5), goodJson, {{"J", 1}}},  // truncated binary
      {"<plist><dict><key>P</key>", goodJson, {{"J", 1}}},          // truncated XML
      {binary, R"({"J": )", {{"P", 1}}},                            // malformed JSON
      {binary, "{\"J\": \"\xff\xfe\"}", {{"P", 1}}},                // not UTF-8
      {binary, "3", {{"P", 1}}},                                    // a bare number
  };
  int n = 0;
  for (const Case& c : cases) {
    const std::string bundle = "U" + std::to_string(n) + ".bundle";
    auto m = module("Unreadable" + std::to_string(n++), bundle);
    folder_.write(bundle + "/BasicConfig.plist", c.plist);
    folder_.write(bundle + "/AdvancedConfig.json", c.json);
    ASSERT_TRUE(service_->loadConfig(m)) << bundle;
    EXPECT_EQ(*service_->getConfig(m), c.expected) << bundle;
  }
  EXPECT_FALSE(service_->jsonConfigForBundle(folder_.at("U2.bundle")));
  EXPECT_EQ(service_->jsonConfigForBundle(folder_.at("Nowhere.bundle")), QVValue::object());
}

TEST_F(QVConfigLoadTest, HugeFileIsIgnored) {
  auto m = module("Huge", "H.bundle");
  folder_.writePlist("H.bundle/BasicConfig.plist", {{"A", 1}}, Format::kBinary);
  const std::string json = folder_.write("H.bundle/AdvancedConfig.json", R"({"A": 2})");
  ASSERT_EQ(::truncate(json.c_str(), 50L * 1024 * 1024), 0);  // Sparse: nothing is written.
  ASSERT_TRUE(service_->loadConfig(m));
  EXPECT_EQ(item("A", m), QVValue(1));
}

TEST_F(QVConfigLoadTest, TopLevelThatIsNotADictionaryFailsTheLoad) {
  const std::pair<std::string, std::string> files[] = {
      {"AdvancedConfig.json", "[1, 2]"},
      {"BasicConfig.plist", "<plist><array><true/></array></plist>"},
  };
  int n = 0;
  for (const auto& [file, text] : files) {
    const std::string bundle = "T" + std::to_string(n) + ".bundle";
    const std::string name = "Misshapen" + std::to_string(n++);
    auto m = module(name, bundle);
    folder_.writePlist(bundle + "/BasicConfig.plist", {{"A", 1}}, Format::kXML);
    folder_.write(bundle + "/AdvancedConfig.json", R"({"A": 1})");
    folder_.write(bundle + "/" + file, text);  // Replaces one of the good files.
    QVCore::sharedInstance()->setTempConfigDict({{name, {{"P", 1}}}});
    EXPECT_FALSE(service_->loadConfig(m)) << file;
    EXPECT_FALSE(stored(name)) << file;
    // The pending items wait for a load that succeeds.
    EXPECT_EQ(QVCore::sharedInstance()->tempConfigDict()[name], QVValue::parse(R"({"P": 1})"));
  }
}

TEST(QVConfigServiceSingletonTest, FirstUseLoadsTheServicesOwnConfiguration) {
  test::expectInFreshProcess([] {
    test::QVTempFolder folder;
    folder.write("App/QVCoreSettings.bundle/QVCoreAdvancedConfig.json", R"({"LoggingLevel": 1})");
    QVBundle::setMainBundlePath(folder.at("App"));
    auto service = QVConfigService::sharedInstance();
    const auto configurations = service->configurations();
    auto it = configurations.find("QVConfigService");
    return service == QVConfigService::sharedInstance() && it != configurations.end() &&
           *it->second == QVValue::parse(R"({"LoggingLevel": 1})");
  });
}

}  // namespace
}  // namespace qv
