#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"

namespace qv {
namespace {

using test::QVSavingModule;
using test::QVTestModule;

class QVConfigItemsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_.write("S.bundle/AdvancedConfig.json", R"({"A": 1, "Gone": null, "L": [1]})");
    saving_ = std::make_shared<QVSavingModule>("Saving", folder_.at("S.bundle"));
    plain_ = std::make_shared<QVTestModule>("PlainItems", folder_.at("S.bundle"));
  }
  void TearDown() override {
    service_->unloadConfig(saving_);
    service_->unloadConfig(plain_);
  }
  std::optional<QVValue> item(const std::string& key, const QVConfigService::ModuleRef& m) {
    return service_->getConfigItemForLifecycleObject(key, m);
  }

  std::shared_ptr<QVConfigService> service_ = QVConfigService::sharedInstance();
  test::QVTempFolder folder_;
  std::shared_ptr<QVSavingModule> saving_;
  std::shared_ptr<QVTestModule> plain_;
};

TEST_F(QVConfigItemsTest, ReadsLoadOnDemandAndNullIsAbsent) {
  EXPECT_EQ(service_->configurations().count("Saving"), 0u);
  EXPECT_EQ(item("A", saving_), QVValue(1));
  EXPECT_EQ(service_->configurations().count("Saving"), 1u);
  EXPECT_FALSE(item("Gone", saving_));
  EXPECT_FALSE(item("Missing", saving_));
  EXPECT_EQ(service_->getConfig(saving_),
            service_->currentConfigurableItemsForLifecycleObject(saving_));
}

TEST_F(QVConfigItemsTest, UpdateMergesInMemoryWithoutSaving) {
  QVDictionaryRef live = service_->getConfig(saving_);
  EXPECT_TRUE(service_->updateConfigWithData(saving_, {{"A", 2}, {"B", "b"}}));
  EXPECT_EQ(item("A", saving_), QVValue(2));
  EXPECT_EQ((*live)["B"], "b");  // The live dictionary changed in place.
  EXPECT_EQ(saving_->saves, 0);
  EXPECT_FALSE(service_->updateConfigWithData(saving_, QVValue::array()));
}

TEST_F(QVConfigItemsTest, SetItemStoresStringsAndNumbersAndAnswersTheSave) {
  EXPECT_TRUE(service_->setConfigItemForKeyWithValueForModule("A", QVValue("x"), saving_));
  EXPECT_EQ(saving_->saved, QVValue::parse(R"({"A": "x", "Gone": null, "L": [1]})"));
  saving_->saveResult = false;
  EXPECT_FALSE(service_->setConfigItemForKeyWithValueForModule("N", QVValue(2.5), saving_));
  EXPECT_EQ(item("N", saving_), QVValue(2.5));
  EXPECT_EQ(saving_->saves, 2);

  // Values of other types, an empty key or no value change nothing.
  EXPECT_FALSE(service_->setConfigItemForKeyWithValueForModule("A", QVValue::array({1}), saving_));
  EXPECT_FALSE(service_->setConfigItemForKeyWithValueForModule("", QVValue(1), saving_));
  EXPECT_FALSE(service_->setConfigItemForKeyWithValueForModule("A", std::nullopt, saving_));
  EXPECT_EQ(item("A", saving_), QVValue("x"));
  EXPECT_EQ(saving_->saves, 2);
}

TEST_F(QVConfigItemsTest, ModuleThatCannotSaveKeepsTheValueButAnswersFalse) {
  EXPECT_FALSE(service_->setConfigItemForKeyWithValueForModule("A", QVValue(5), plain_));
  EXPECT_EQ(item("A", plain_), QVValue(5));
  auto replacement = std::make_shared<QVValue>(QVValue{{"Only", 1}});
  EXPECT_FALSE(service_->saveCurrentConfigurableItemsForLifeCycleObject(replacement, plain_));
  EXPECT_EQ(item("A", plain_), QVValue(5));
}

TEST_F(QVConfigItemsTest, SaveReplacesTheWholeConfiguration) {
  auto replacement = std::make_shared<QVValue>(QVValue{{"Only", 1}});
  EXPECT_TRUE(service_->saveCurrentConfigurableItemsForLifeCycleObject(replacement, saving_));
  EXPECT_EQ(service_->getConfig(saving_), replacement);
  EXPECT_FALSE(item("A", saving_));
  EXPECT_EQ(saving_->saved, *replacement);
}

TEST_F(QVConfigItemsTest, ModuleMayChangeItsConfigurationWhileSaving) {
  // The persisting lock is re-entrant: a save that sets another item nests.
  saving_->onSave = [this] {
    saving_->onSave = nullptr;
    service_->setConfigItemForKeyWithValueForModule("Nested", QVValue(1), saving_);
  };
  EXPECT_TRUE(service_->setConfigItemForKeyWithValueForModule("A", QVValue(2), saving_));
  EXPECT_EQ(item("Nested", saving_), QVValue(1));
  EXPECT_EQ(saving_->saves, 2);
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
          service_->setConfigItemForKeyWithValueForModule(key, QVValue(i), saving_);
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

}  // namespace
}  // namespace qv
