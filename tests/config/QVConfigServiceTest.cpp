#include "qvcore/config/QVConfigService.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <type_traits>
#include <vector>

#include "config/QVConfigTestSupport.h"
#include "qvcore/core/QVApplicationHelper.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVBundle.h"

namespace qv {
namespace {

using Format = QVPropertyList::Format;
using Files = std::vector<std::pair<std::string, std::string>>;
using Module = std::shared_ptr<test::QVTestModule>;
using S = QVConfigService;

std::string plist(const QVValue& dict, Format format = Format::kXML) {
  return *QVPropertyList::dataWithDictionary(dict, format);
}

// Modules with bundle folders in a temporary folder. The main bundle is an
// empty folder, so that the real core finds no settings of its own: the
// accessors read what a stand-in module named "QVCore" loads.
class QVConfigServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVBundle::setMainBundlePath(folder_.makeFolder("App"));
    QVBundle::clearSearchPaths();
  }
  void TearDown() override {
    for (const auto& m : modules_) service_->unloadConfig(m);
    QVBundle::setMainBundlePath("");
  }
  // A module whose bundle folder (none when bundle is empty) holds files.
  template <typename M = test::QVTestModule>
  std::shared_ptr<M> module(const std::string& name, const std::string& bundle,
                            const Files& files = {}) {
    for (const auto& [file, bytes] : files) folder_.write(bundle + "/" + file, bytes);
    const std::string path = bundle.empty() ? "" : folder_.makeFolder(bundle);
    auto made = std::make_shared<M>(name, path);
    modules_.push_back(made);
    return made;
  }
  // A module that saves its items, with a file of three.
  std::shared_ptr<test::QVSavingModule> saving() {
    return module<test::QVSavingModule>(
        "Saving", "S.bundle", {{"AdvancedConfig.json", R"({"A": 1, "Gone": null, "L": [1]})"}});
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
  bool set(const std::string& key, const std::optional<QVValue>& value, const Module& m) {
    return service_->setConfigItemForKeyWithValueForModule(key, value, m);
  }
  // Loads the core's configuration through a stand-in named "QVCore".
  void loadCore(const std::string& bundlePath) {
    service_->unloadConfig(QVCore::sharedInstance());
    ASSERT_TRUE(service_->loadConfig(module("QVCore", bundlePath)));
  }
  void loadCoreJson(const std::string& json) {
    folder_.write("QVCoreSettings.bundle/QVCoreAdvancedConfig.json", json);
    loadCore("QVCoreSettings.bundle");
  }

  std::shared_ptr<QVConfigService> service_ = QVConfigService::sharedInstance();
  test::QVTempFolder folder_;
  std::vector<Module> modules_;
};

// The bundle's name sets the prefix of the files read ("Brevant" for two
// names, "QVCore" for the core's, none otherwise); later files win, in either
// property-list form, and pending items win over files.
TEST_F(QVConfigServiceTest, ThePrefixChoosesTheFilesAndLaterFilesAndPendingItemsWin) {
  const auto brevant = [](Format format) {
    return Files{{"BrevantBasicConfig.plist",
                  plist({{"A", 1}, {"B", 1}, {"N", {{"x", 1}, {"y", 1}}}}, format)},
                 {"BrevantAdvancedConfig.json", R"({"A": 2, "C": 2, "N": {"x": 2}})"},
                 {"BrevantLayoutConfig.json", R"({"A": 3, "D": 3})"}};
  };
  const char* merged = R"({"A": 3, "B": 1, "N": {"x": 2}, "C": 2, "D": 4, "E": 4})";
  const std::tuple<std::string, Files, const char*> rows[] = {
      {"X/BRVResources.bundle", brevant(Format::kXML), merged},
      {"B/TestModuleResources.bundle", brevant(Format::kBinary), merged},
      {"C/QVCoreSettings.bundle",
       {{"QVCoreBasicConfig.plist", plist({{"A", 1}})},
        {"QVCoreAdvancedConfig.json", R"({"B": 2})"},
        {"QVCoreLayoutConfig.json", R"({"A": 9})"},
        {"BrevantLayoutConfig.json", R"({"A": 9})"}},
       R"({"A": 1, "B": 2, "D": 4, "E": 4})"},
      {"P/Other.bundle",
       {{"BasicConfig.plist", "<plist><dict><key>A</key><true/></dict></plist>"},
        {"AdvancedConfig.json", R"({"B": "b"})"},
        {"LayoutConfig.json", R"({"C": 1})"},
        {"BrevantAdvancedConfig.json", R"({"F": 1})"}},
       R"({"A": true, "B": "b", "D": 4, "E": 4})"}};
  for (const auto& [bundle, files, expected] : rows) {
    auto m = module(bundle.substr(0, 1), bundle, files);
    QVCore::sharedInstance()->setTempConfigDict({{m->className(), {{"D", 4}, {"E", 4}}}});
    EXPECT_EQ(config(m), QVValue::parse(expected)) << bundle;
    service_->unloadConfig(m);
    EXPECT_FALSE(item("E", m)) << "consumed by the load that applied it";
  }
  EXPECT_EQ(service_->prefixForModuleBundleName("/x/BRVResources.bundle/y"), "");
}

// Without any file nothing loads and nothing is stored.
TEST_F(QVConfigServiceTest, LoadedModuleIsNotReadAgainUntilUnloadedAndNothingLoadsNothing) {
  auto m = module("Reread", "R.bundle", {{"AdvancedConfig.json", R"({"A": 1})"}});
  ASSERT_TRUE(service_->loadConfig(m));
  folder_.write("R.bundle/AdvancedConfig.json", R"({"A": 2})");
  EXPECT_TRUE(service_->loadConfig(m));
  EXPECT_EQ(item("A", m), QVValue(1));
  service_->unloadConfig(m);
  EXPECT_EQ(item("A", m), QVValue(2));  // Loaded on demand by the read.

  auto bare = module("Bare", "");
  EXPECT_FALSE(service_->loadConfig(bare));
  EXPECT_FALSE(service_->updateConfigWithData(bare, {{"A", 1}}));
  EXPECT_FALSE(stored("Bare"));
  EXPECT_FALSE(service_->loadConfig(nullptr));
  QVCore::sharedInstance()->setTempConfigDict({{"Bare", {{"A", 1}}}});
  EXPECT_EQ(item("A", bare), QVValue(1));
}

// Each row spoils one of the two files: the other and the pending items
// still make the module's configuration. (Which property lists are refused
// is held by QVPropertyListTest; one stands for them here.)
TEST_F(QVConfigServiceTest, UnreadableOrMisshapenFilesAddNothing) {
  const std::string binary = plist({{"P", 1}}, Format::kBinary), json = R"({"J": 1})";
  for (const auto& [plistBytes, jsonBytes] :
       Files{{"<plist><dict><key>P</key>", json},  // truncated XML
             {binary, R"({"J": )"},                // malformed JSON
             {binary, "3"},                        // a bare number
             {binary, "[1, 2]"}}) {                // not a dictionary
    auto m = moduleWith(plistBytes, jsonBytes);
    QVCore::sharedInstance()->setTempConfigDict({{m->className(), {{"Q", 1}}}});
    EXPECT_EQ(config(m),
              (jsonBytes == json ? QVValue{{"J", 1}, {"Q", 1}} : QVValue{{"P", 1}, {"Q", 1}}))
        << jsonBytes;
    EXPECT_EQ(QVCore::sharedInstance()->tempConfigDict()[m->className()], QVValue::object());
  }
  auto huge = moduleWith(binary, json);
  const std::string hugeJson = huge->settingsBundlePath() + "/AdvancedConfig.json";
  ASSERT_EQ(::truncate(hugeJson.c_str(), 50L * 1024 * 1024), 0);  // Sparse: nothing is written.
  EXPECT_EQ(config(huge), QVValue({{"P", 1}}));
  // A folder named like a file counts as missing.
  EXPECT_FALSE(service_->fileExistsAtFullPath(folder_.makeFolder("D.bundle/BasicConfig.plist")));
  EXPECT_TRUE(service_->fileExistsAtFullPath(hugeJson));
  EXPECT_FALSE(service_->loadConfig(moduleWith("<plist><array/></plist>", "[]")))
      << "nothing to load";
}

// Reads load on demand, null counts as absent, updates merge without saving;
// setting an item stores strings and numbers and answers what the save did.
TEST_F(QVConfigServiceTest, ItemsAreReadOnDemandUpdatedInPlaceAndSetThroughTheModulesSave) {
  auto saver = saving();
  EXPECT_FALSE(stored("Saving"));
  EXPECT_EQ(item("A", saver), QVValue(1));
  EXPECT_TRUE(stored("Saving"));
  EXPECT_FALSE(item("Gone", saver) || item("Missing", saver));

  QVDictionaryRef live = service_->getConfig(saver);
  EXPECT_TRUE(service_->updateConfigWithData(saver, {{"A", 2}, {"B", "b"}}));
  EXPECT_EQ(item("A", saver), QVValue(2));
  EXPECT_EQ((*live)["B"], "b");  // The live dictionary changed in place.
  EXPECT_EQ(saver->saves, 0);
  EXPECT_FALSE(service_->updateConfigWithData(saver, QVValue::array()));

  // Setting an item saves, and the persisting lock is re-entrant: a save
  // that sets another item nests.
  bool nested = false;
  saver->onSave = [&] {
    if (!std::exchange(nested, true)) set("Nested", QVValue(1), saver);
  };
  EXPECT_TRUE(set("A", QVValue("x"), saver));
  EXPECT_EQ(saver->saved,
            QVValue::parse(R"({"A": "x", "Gone": null, "L": [1], "B": "b", "Nested": 1})"));
  saver->saveResult = false;
  EXPECT_FALSE(set("N", QVValue(2.5), saver));
  EXPECT_EQ(item("N", saver), QVValue(2.5));
  EXPECT_EQ(saver->saves, 3);

  // Values of other types, an empty key or no value change nothing.
  EXPECT_FALSE(set("A", QVValue::array({1}), saver) || set("", QVValue(1), saver) ||
               set("A", std::nullopt, saver));
  EXPECT_EQ(item("A", saver), QVValue("x"));
  EXPECT_EQ(saver->saves, 3);

  // Saving replaces the whole configuration, whatever the module answers.
  auto replacement = std::make_shared<QVValue>(QVValue{{"Only", 1}});
  EXPECT_FALSE(service_->saveCurrentConfigurableItemsForLifeCycleObject(replacement, saver));
  EXPECT_EQ(service_->getConfig(saver), replacement);
  EXPECT_EQ(saver->saved, *replacement);

  // A module that cannot save keeps the value but answers false.
  auto plain = module("PlainItems", "S.bundle");
  EXPECT_FALSE(set("A", QVValue(5), plain));
  EXPECT_EQ(item("A", plain), QVValue(5));
  EXPECT_FALSE(service_->saveCurrentConfigurableItemsForLifeCycleObject(replacement, plain));
  EXPECT_EQ(item("A", plain), QVValue(5));
}

TEST_F(QVConfigServiceTest, ConcurrentWritersAndReadersLoseNothing) {
  auto saver = saving();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, saver] {
      for (int i = 0; i < 200; ++i) {
        const std::string key = "k" + std::to_string(t) + "_" + std::to_string(i);
        t % 2 ? service_->updateConfigWithData(saver, {{key, i}}) : set(key, QVValue(i), saver);
        item("A", saver);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t)
    EXPECT_EQ(item("k" + std::to_string(t) + "_199", saver), QVValue(199));
  EXPECT_EQ(service_->getConfig(saver)->size(), 3u + 4 * 200);
}

template <auto kAccessor>
QVValue read(S& service) {
  auto value = (service.*kAccessor)();
  if constexpr (std::is_same_v<decltype(value), std::optional<QVValue>>) {
    return value.value_or(nullptr);
  } else {
    return QVValue(value);
  }
}

// One accessor of each kind of conversion (a flag, a whole number, a
// fraction, a negative number, a text that may be absent) with its key,
// default and a value that differs from it; the others are the same one-line
// reads of other keys. Those whose value takes effect are held there: manual
// and interval posting, compression and caching (QVQueueServiceTest,
// QVDeliveryLedgerTest), the Wi-Fi level (QVCoreTest), the to-background flag
// and the orientation item (tests/environment).
struct Accessor {
  const char* key;
  QVValue (*read)(S&);
  QVValue byDefault, inFile;
};
const Accessor kAccessors[] = {
    {"PostMessageLevelCellular", read<&S::postMessageLevelCellular>, 3, 1},
    {"DoPostAppComesFromBackground", read<&S::isDoPostAppComesFromBackgroundEnabled>, false, true},
    {"PostMessageTimeIntervals", read<&S::postMessageTimeIntervals>, 30, 12.5},
    {"CriticalBatteryLevel", read<&S::criticalBatteryLevel>, 0.2, 0.1},
    {"LibraryVersion", read<&S::libraryVersion>, nullptr, "1.0"},
    {"DefaultOrientation", read<&S::defaultOrientation>, 0, -90}};

// Without any file and for null items every accessor answers its default.
TEST_F(QVConfigServiceTest, EveryKeyIsReadFromTheCoreFilesOrDefaults) {
  QVValue nulls = QVValue::object(), values = QVValue::object();
  for (const Accessor& a : kAccessors) {
    EXPECT_EQ(a.read(*service_), a.byDefault) << a.key;
    nulls[a.key] = nullptr;
    values[a.key] = a.inFile;
  }
  loadCoreJson(nulls.dump());
  EXPECT_FALSE(
      service_->getConfigItemForLifecycleObject("DefaultOrientation", QVCore::sharedInstance()));
  for (const Accessor& a : kAccessors) EXPECT_EQ(a.read(*service_), a.byDefault) << a.key;
  folder_.writePlist("QVCoreSettings.bundle/QVCoreBasicConfig.plist", values,
                     QVPropertyList::Format::kBinary);
  folder_.write("QVCoreSettings.bundle/QVCoreAdvancedConfig.json", "{}");
  loadCore("QVCoreSettings.bundle");
  // As text: equality of values would take -90 and its unsigned bits as equal.
  for (const Accessor& a : kAccessors)
    EXPECT_EQ(a.read(*service_).dump(), a.inFile.dump()) << a.key;
}

TEST_F(QVConfigServiceTest, MistypedItemsFallBackToTheDefaultButCompressionReadsAnyItem) {
  loadCoreJson(R"({"ManualPostEnabled": "false", "PostMessageLevelCellular": "2"})");
  EXPECT_TRUE(service_->isManualPostingEnabled());
  EXPECT_EQ(service_->postMessageLevelCellular(), 3);
  EXPECT_TRUE(service_->isCompressPostMessageEnabled());  // absent
  // Text as the raw reader reads it (its rules are held below).
  const std::pair<const char*, bool> cases[] = {
      {"0", false}, {"2", true}, {R"(" YES")", true}, {"[1]", false}};
  for (const auto& [value, expected] : cases) {
    loadCoreJson(std::string(R"({"CompressPostMessage": )") + value + "}");
    EXPECT_EQ(service_->isCompressPostMessageEnabled(), expected) << value;
  }
}

// Items written as text: the raw readers (the posting gate, the lifecycle
// manager, "URLEncoded", compression) read them as the platform reads text,
// while the typed accessors keep their defaults for them (above).
TEST_F(QVConfigServiceTest, RawReadersReadTextAsThePlatformDoes) {
  std::string integers, booleans, doubles;
  const std::string big(20, '9');
  for (const char* text : {"3", " \t-12", "+7", "3abc", "abc", "", "- 3", "2.9"})
    integers += std::to_string(QVValues::integerValue(text)) + " ";
  EXPECT_EQ(integers, "3 -12 7 3 0 0 0 2 ");
  EXPECT_EQ((std::vector{QVValues::integerValue(big), QVValues::integerValue("-" + big),
                         QVValues::integerValue(QVValue::array({3}))}),
            (std::vector<int64_t>{INT64_MAX, INT64_MIN, 0}));
  for (const char* text :
       {"1", "YES", "true", "t", " +007", "-9", "0", "no", "false", "", "00", "+0.5", " x1"}) {
    booleans += QVValues::boolValue(text) ? "1" : "0";
  }
  EXPECT_EQ(booleans, "1111110000000");
  for (const char* text : {"2.5s", " -0.25", ".5", "1e3", "inf", "x"})
    doubles += std::to_string(QVValues::doubleValue(text)) + " ";
  EXPECT_EQ(doubles, "2.500000 -0.250000 0.500000 1000.000000 0.000000 0.000000 ");
}

// The core is not enabled here: readers answer their defaults, updates are
// refused, and only setConfigItemValueForModuleName keeps anything, as
// pending items that override the files when the module loads.
TEST(QVApplicationHelperTest, WhileTheCoreIsNotEnabledOnlyEarlyItemsAreKept) {
  ASSERT_FALSE(QVCore::sharedInstance()->isEnabled());
  test::QVTempFolder folder;
  folder.write("H.bundle/AdvancedConfig.json", R"({"Url": "http://file", "N": 1})");
  const std::string name = "HelperModule";
  auto module = test::QVTestModule::define(name, folder.at("H.bundle"));
  auto helper = QVApplicationHelper::sharedInstance();
  auto pending = [&] { return QVCore::sharedInstance()->tempConfigDict()[name]; };

  EXPECT_EQ(
      (QVValue{
          helper->configurationCheck(), helper->getConfigItemForModuleName("N", name).has_value(),
          helper->getBOOLconfigItemForKeyWithDefaultForModuleName("N", false, name),
          helper->getStringItemForKeyWithDefaultForModuleName("Url", "dflt", name).value_or("-"),
          helper->getNumberItemForKeyWithDefaultForModuleName("N", QVValue(9), name).value_or(0),
          helper->updateConfigWithDataForModuleName({{"N", 2}}, name)}),
      (QVValue{false, false, false, "dflt", 9, false}));
  EXPECT_TRUE(pending().is_null());

  EXPECT_FALSE(helper->setConfigItemValueForModuleName("Url", QVValue("http://a"), name) ||
               helper->setConfigItemValueForModuleName("Url", QVValue("http://b"), name) ||
               helper->setConfigItemValueForModuleName("Skipped", std::nullopt, name));
  EXPECT_EQ(pending(), QVValue::parse(R"({"Url": "http://b"})"));
  auto service = QVConfigService::sharedInstance();
  EXPECT_EQ(service->getConfigItemForLifecycleObject("Url", module), QVValue("http://b"));
  EXPECT_EQ(service->getConfigItemForLifecycleObject("N", module), QVValue(1));
  EXPECT_EQ(pending(), QVValue::object());
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
