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
using Files = std::vector<std::pair<std::string, std::string>>;
using Module = std::shared_ptr<test::QVTestModule>;

std::string plist(const QVValue& dict, Format format = Format::kXML) {
  return *QVPropertyList::dataWithDictionary(dict, format);
}

class QVConfigLoadTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const auto& m : modules_) service_->unloadConfig(m);
  }
  // A module whose bundle folder (none when bundle is empty) holds files.
  Module module(const std::string& name, const std::string& bundle, const Files& files = {}) {
    for (const auto& [file, bytes] : files) folder_.write(bundle + "/" + file, bytes);
    const std::string path = bundle.empty() ? "" : folder_.makeFolder(bundle);
    return modules_.emplace_back(std::make_shared<test::QVTestModule>(name, path));
  }
  // A module of its own with these two files.
  Module moduleWith(const std::string& plist, const std::string& json) {
    const std::string name = "M" + std::to_string(modules_.size());
    return module(name, name + ".bundle",
                  {{"BasicConfig.plist", plist}, {"AdvancedConfig.json", json}});
  }
  QVValue config(const Module& m) {
    QVDictionaryRef config = service_->getConfig(m);
    return config ? *config : QVValue();
  }
  std::optional<QVValue> item(const std::string& key, const Module& m) {
    return service_->getConfigItemForLifecycleObject(key, m);
  }
  bool stored(const std::string& name) { return service_->configurations().count(name) != 0; }

  std::shared_ptr<QVConfigService> service_ = QVConfigService::sharedInstance();
  test::QVTempFolder folder_;
  std::vector<Module> modules_;
};

TEST_F(QVConfigLoadTest, LaterFilesAndPendingItemsWinInBothPlistForms) {
  for (Format format : {Format::kXML, Format::kBinary}) {
    for (const char* bundle : {"BRVResources.bundle", "TestModuleResources.bundle"}) {
      const std::string name = std::string(format == Format::kXML ? "X" : "B") + bundle;
      auto m = module(name, name + "/" + bundle,
                      {{"BrevantBasicConfig.plist",
                        plist({{"A", 1}, {"B", 1}, {"N", {{"x", 1}, {"y", 1}}}}, format)},
                       {"BrevantAdvancedConfig.json", R"({"A": 2, "C": 2, "N": {"x": 2}})"},
                       {"BrevantLayoutConfig.json", R"({"A": 3, "D": 3})"}});
      QVCore::sharedInstance()->setTempConfigDict({{name, {{"D", 4}, {"E", 4}}}});
      EXPECT_EQ(config(m),
                QVValue::parse(R"({"A": 3, "B": 1, "N": {"x": 2}, "C": 2, "D": 4, "E": 4})"));
      // Pending items are consumed by the load that applied them.
      service_->unloadConfig(m);
      EXPECT_EQ(item("D", m), QVValue(3));
      EXPECT_FALSE(item("E", m));
    }
  }
}

TEST_F(QVConfigLoadTest, PrefixDecidesWhichFilesAreRead) {
  auto core = module("CoreLike", "Settings/QVCoreSettings.bundle",
                     {{"QVCoreBasicConfig.plist", plist({{"A", 1}})},
                      {"QVCoreAdvancedConfig.json", R"({"B": 2})"},
                      {"QVCoreLayoutConfig.json", R"({"A": 9})"},
                      {"BrevantLayoutConfig.json", R"({"A": 9})"}});
  EXPECT_EQ(config(core), QVValue::parse(R"({"A": 1, "B": 2})"));
  auto plain = module("Plain", "Other.bundle",
                      {{"BasicConfig.plist", "<plist><dict><key>A</key><true/></dict></plist>"},
                       {"AdvancedConfig.json", R"({"B": "b"})"},
                       {"LayoutConfig.json", R"({"C": 1})"},
                       {"BrevantAdvancedConfig.json", R"({"D": 1})"}});
  EXPECT_EQ(config(plain), QVValue::parse(R"({"A": true, "B": "b"})"));
  EXPECT_EQ(service_->prefixForModuleBundleName("/x/BRVResources.bundle/y"), "");
}

TEST_F(QVConfigLoadTest, LoadedModuleIsNotReadAgainUntilUnloaded) {
  auto m = module("Reread", "R.bundle", {{"AdvancedConfig.json", R"({"A": 1})"}});
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
  EXPECT_FALSE(service_->updateConfigWithData(bare, {{"A", 1}}));
  EXPECT_FALSE(stored("Bare"));
  EXPECT_FALSE(service_->loadConfig(nullptr));
  QVCore::sharedInstance()->setTempConfigDict({{"Bare", {{"A", 1}}}});
  EXPECT_EQ(item("A", bare), QVValue(1));
}

TEST_F(QVConfigLoadTest, UnreadableOrMisshapenFilesAddNothing) {
  const std::string binary = plist({{"P", 1}}, Format::kBinary);
  std::string badTable = binary;
  badTable.back() = '\xff';  // The offset table lies past the end.
  const std::string json = R"({"J": 1})";
  for (const auto& [plistBytes, jsonBytes] :
       Files{{binary.substr(0, binary.size() - 5), json},  // truncated binary
             {badTable, json},
             {"<plist><dict><key>P</key>", json},  // truncated XML
             {binary, R"({"J": )"},                // malformed JSON
             {binary, "{\"J\": \"\xff\xfe\"}"},    // not UTF-8
             {binary, "3"}}) {                     // a bare number
    const QVValue expected = jsonBytes == json ? QVValue{{"J", 1}} : QVValue{{"P", 1}};
    EXPECT_EQ(config(moduleWith(plistBytes, jsonBytes)), expected) << jsonBytes;
  }
  auto huge = moduleWith(binary, json);
  const std::string hugeJson = huge->settingsBundlePath() + "/AdvancedConfig.json";
  ASSERT_EQ(::truncate(hugeJson.c_str(), 50L * 1024 * 1024), 0);  // Sparse: nothing is written.
  EXPECT_EQ(config(huge), QVValue({{"P", 1}}));

  // A folder named like a file counts as missing.
  EXPECT_FALSE(service_->fileExistsAtFullPath(folder_.makeFolder("D.bundle/BasicConfig.plist")));
  EXPECT_TRUE(service_->fileExistsAtFullPath(hugeJson));

  // Well formed but not a dictionary at the top: the other file and the
  // pending items still make the module's configuration.
  for (const auto& [plistBytes, jsonBytes] :
       Files{{binary, "[1, 2]"}, {"<plist><array><true/></array></plist>", json}}) {
    auto m = moduleWith(plistBytes, jsonBytes);
    QVCore::sharedInstance()->setTempConfigDict({{m->className(), {{"Q", 1}}}});
    EXPECT_TRUE(service_->loadConfig(m)) << jsonBytes;
    const QVValue expected =
        jsonBytes == json ? QVValue{{"J", 1}, {"Q", 1}} : QVValue{{"P", 1}, {"Q", 1}};
    EXPECT_EQ(config(m), expected) << jsonBytes;
    EXPECT_EQ(QVCore::sharedInstance()->tempConfigDict()[m->className()], QVValue::object());
  }
  EXPECT_FALSE(service_->loadConfig(moduleWith("<plist><array/></plist>", "[]")))
      << "nothing to load";
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
