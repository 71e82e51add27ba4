#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVApplicationHelper.h"
#include "qvcore/core/QVCore.h"

namespace qv {
namespace {

using ModuleRef = QVConfigService::ModuleRef;

class QVConfigItemsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.write("S.bundle/AdvancedConfig.json", R"({"A": 1, "Gone": null, "L": [1]})");
    saving_ = std::make_shared<test::QVSavingModule>("Saving", folder_.at("S.bundle"));
  }
  void TearDown() override { service_->unloadConfig(saving_); }
  std::optional<QVValue> item(const std::string& key, const ModuleRef& m) {
    return service_->getConfigItemForLifecycleObject(key, m);
  }
  bool set(const std::string& key, const std::optional<QVValue>& value, const ModuleRef& m) {
    return service_->setConfigItemForKeyWithValueForModule(key, value, m);
  }

  std::shared_ptr<QVConfigService> service_ = QVConfigService::sharedInstance();
  test::QVTempFolder folder_;
  std::shared_ptr<test::QVSavingModule> saving_;
};

TEST_F(QVConfigItemsTest, ReadsLoadOnDemandNullIsAbsentAndUpdatesMergeWithoutSaving) {
  EXPECT_EQ(service_->configurations().count("Saving"), 0u);
  EXPECT_EQ(item("A", saving_), QVValue(1));
  EXPECT_EQ(service_->configurations().count("Saving"), 1u);
  EXPECT_FALSE(item("Gone", saving_));
  EXPECT_FALSE(item("Missing", saving_));

  QVDictionaryRef live = service_->getConfig(saving_);
  EXPECT_TRUE(service_->updateConfigWithData(saving_, {{"A", 2}, {"B", "b"}}));
  EXPECT_EQ(item("A", saving_), QVValue(2));
  EXPECT_EQ((*live)["B"], "b");  // The live dictionary changed in place.
  EXPECT_EQ(saving_->saves, 0);
  EXPECT_FALSE(service_->updateConfigWithData(saving_, QVValue::array()));
}

TEST_F(QVConfigItemsTest, SetItemStoresStringsAndNumbersAndAnswersTheModulesSave) {
  // The persisting lock is re-entrant: a save that sets another item nests.
  saving_->onSave = [this] {
    saving_->onSave = nullptr;
    set("Nested", QVValue(1), saving_);
  };
  EXPECT_TRUE(set("A", QVValue("x"), saving_));
  EXPECT_EQ(saving_->saved, QVValue::parse(R"({"A": "x", "Gone": null, "L": [1], "Nested": 1})"));
  saving_->saveResult = false;
  EXPECT_FALSE(set("N", QVValue(2.5), saving_));
  EXPECT_EQ(item("N", saving_), QVValue(2.5));
  EXPECT_EQ(saving_->saves, 3);

  // Values of other types, an empty key or no value change nothing.
  EXPECT_FALSE(set("A", QVValue::array({1}), saving_));
  EXPECT_FALSE(set("", QVValue(1), saving_));
  EXPECT_FALSE(set("A", std::nullopt, saving_));
  EXPECT_EQ(item("A", saving_), QVValue("x"));
  EXPECT_EQ(saving_->saves, 3);

  // Saving replaces the whole configuration, whatever the module answers.
  auto replacement = std::make_shared<QVValue>(QVValue{{"Only", 1}});
  EXPECT_FALSE(service_->saveCurrentConfigurableItemsForLifeCycleObject(replacement, saving_));
  EXPECT_EQ(service_->getConfig(saving_), replacement);
  EXPECT_EQ(saving_->saved, *replacement);

  // A module that cannot save keeps the value but answers false.
  auto plain = std::make_shared<test::QVTestModule>("PlainItems", folder_.at("S.bundle"));
  EXPECT_FALSE(set("A", QVValue(5), plain));
  EXPECT_EQ(item("A", plain), QVValue(5));
  EXPECT_FALSE(service_->saveCurrentConfigurableItemsForLifeCycleObject(replacement, plain));
  EXPECT_EQ(item("A", plain), QVValue(5));
  service_->unloadConfig(plain);
}

TEST_F(QVConfigItemsTest, ConcurrentWritersAndReadersLoseNothing) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 200; ++i) {
        const std::string key = "k" + std::to_string(t) + "_" + std::to_string(i);
        if (t % 2) {
          service_->updateConfigWithData(saving_, {{key, i}});
        } else {
          set(key, QVValue(i), saving_);
        }
        item("A", saving_);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(item("k" + std::to_string(t) + "_199", saving_), QVValue(199));
  }
  EXPECT_EQ(service_->getConfig(saving_)->size(), 3u + 4 * 200);
}

// The core is not enabled here: readers answer their defaults, updates are
// refused, and only setConfigItemValueForModuleName keeps anything, as
// pending items that override the files when the module loads.
TEST(QVApplicationHelperTest, WhileTheCoreIsNotEnabledOnlyEarlyItemsAreKept) {
  ASSERT_FALSE(QVCore::sharedInstance()->isEnabled());
  test::QVTempFolder folder;
  folder.write("H.bundle/AdvancedConfig.json", R"({"Url": "http://file", "N": 1})");
  auto module = test::QVTestModule::define("HelperModule", folder.at("H.bundle"));
  auto helper = QVApplicationHelper::sharedInstance();
  auto pending = [] { return QVCore::sharedInstance()->tempConfigDict()["HelperModule"]; };

  EXPECT_FALSE(helper->configurationCheck());
  EXPECT_FALSE(helper->getConfigItemForModuleName("N", "HelperModule"));
  EXPECT_FALSE(helper->getBOOLconfigItemForKeyWithDefaultForModuleName("N", false, "HelperModule"));
  EXPECT_EQ(helper->getStringItemForKeyWithDefaultForModuleName("Url", "dflt", "HelperModule"),
            "dflt");
  EXPECT_EQ(helper->getNumberItemForKeyWithDefaultForModuleName("N", QVValue(9), "HelperModule"),
            QVValue(9));
  EXPECT_FALSE(helper->updateConfigWithDataForModuleName({{"N", 2}}, "HelperModule"));
  EXPECT_TRUE(pending().is_null());

  EXPECT_FALSE(helper->setConfigItemValueForModuleName("Url", QVValue("http://a"), "HelperModule"));
  EXPECT_FALSE(helper->setConfigItemValueForModuleName("Url", QVValue("http://b"), "HelperModule"));
  EXPECT_FALSE(helper->setConfigItemValueForModuleName("Skipped", std::nullopt, "HelperModule"));
  EXPECT_EQ(pending(), QVValue::parse(R"({"Url": "http://b"})"));
  auto service = QVConfigService::sharedInstance();
  EXPECT_EQ(service->getConfigItemForLifecycleObject("Url", module), QVValue("http://b"));
  EXPECT_EQ(service->getConfigItemForLifecycleObject("N", module), QVValue(1));
  EXPECT_EQ(pending(), QVValue::object());
}

}  // namespace
}  // namespace qv
