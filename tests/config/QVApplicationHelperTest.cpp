#include "qvcore/core/QVApplicationHelper.h"

#include <gtest/gtest.h>

#include "config/QVConfigTestSupport.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"

namespace qv {
namespace {

// The core is not enabled here: readers answer their defaults and only
// setConfigItemValueForModuleName keeps anything, as pending items.
class QVApplicationHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(QVCore::sharedInstance()->isEnabled());
    folder_.write("H.bundle/AdvancedConfig.json", R"({"PostMessageUrl": "http://file", "N": 1})");
    module_ = test::QVTestModule::define("HelperModule", folder_.at("H.bundle"));
  }
  QVValue pending() { return QVCore::sharedInstance()->tempConfigDict()["HelperModule"]; }

  std::shared_ptr<QVApplicationHelper> helper_ = QVApplicationHelper::sharedInstance();
  test::QVTempFolder folder_;
  std::shared_ptr<test::QVTestModule> module_;
};

TEST_F(QVApplicationHelperTest, ReadersAnswerDefaultsWhileTheCoreIsNotEnabled) {
  EXPECT_FALSE(helper_->configurationCheck());
  EXPECT_FALSE(helper_->getConfigItemForModuleName("N", "HelperModule"));
  EXPECT_TRUE(helper_->getBOOLconfigItemForKeyWithDefaultForModuleName("N", true, "HelperModule"));
  EXPECT_FALSE(
      helper_->getBOOLconfigItemForKeyWithDefaultForModuleName("N", false, "HelperModule"));
  EXPECT_EQ(helper_->getStringItemForKeyWithDefaultForModuleName("PostMessageUrl", "dflt",
                                                                 "HelperModule"),
            "dflt");
  EXPECT_FALSE(helper_->getStringItemForKeyWithDefaultForModuleName("PostMessageUrl", std::nullopt,
                                                                    "HelperModule"));
  EXPECT_EQ(helper_->getNumberItemForKeyWithDefaultForModuleName("N", QVValue(9), "HelperModule"),
            QVValue(9));
}

TEST_F(QVApplicationHelperTest, UpdateIsRefusedAndNothingIsKept) {
  EXPECT_FALSE(helper_->updateConfigWithDataForModuleName({{"N", 2}}, "HelperModule"));
  EXPECT_TRUE(pending().is_null());
}

TEST_F(QVApplicationHelperTest, EarlyItemsWaitAndOverrideTheFiles) {
  EXPECT_FALSE(helper_->setConfigItemValueForModuleName("PostMessageUrl", QVValue("http://a"),
                                                        "HelperModule"));
  EXPECT_FALSE(helper_->setConfigItemValueForModuleName("PostMessageUrl", QVValue("http://b"),
                                                        "HelperModule"));
  EXPECT_FALSE(helper_->setConfigItemValueForModuleName("Extra", QVValue(1), "HelperModule"));
  EXPECT_FALSE(helper_->setConfigItemValueForModuleName("Skipped", std::nullopt, "HelperModule"));
  EXPECT_EQ(pending(), QVValue::parse(R"({"PostMessageUrl": "http://b", "Extra": 1})"));

  auto service = QVConfigService::sharedInstance();
  EXPECT_EQ(service->getConfigItemForLifecycleObject("PostMessageUrl", module_),
            QVValue("http://b"));
  EXPECT_EQ(service->getConfigItemForLifecycleObject("N", module_), QVValue(1));
  EXPECT_EQ(pending(), QVValue::object());
}

}  // namespace
}  // namespace qv
