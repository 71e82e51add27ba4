#include <gtest/gtest.h>

#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVCoreDLogAnnounceFunctionNamesLineNumbers.h"
#include "qvcore/environment/QVEnvironmentalSerivce.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVScreen.h"
#include "support/QVGzip.h"

namespace qv {
namespace {

// The facade answers what the environmental service answers, through the
// differently named targets too.
TEST(QVCoreDeviceInfoTest, FactsAreTheEnvironmentalServicesAnswers) {
  auto core = QVCore::sharedInstance();
  auto environment = QVEnvironmentalSerivce::sharedInstance();
  QVScreen::setMainScreen(320, 480, 2);
  QVDevice::currentDevice().setPhysicalMemory(123456);

  EXPECT_TRUE(core->setQVAdvertisingId("ad-7"));
  EXPECT_EQ(environment->vepAdvertisingIdFromCustomer(), "ad-7");
  EXPECT_TRUE(core->setQVAdvertisingId(std::nullopt));
  EXPECT_EQ(core->getQVAdvertisingId(), "N/A");
  environment->setVepAdvertisingIdFromCustomer(std::nullopt);
  EXPECT_EQ(core->getQVAdvertisingId(), std::nullopt);

  EXPECT_EQ(core->getUserAgentFromBrowser(), "") << "reading never asks the platform";
  const std::string agent = core->setUserAgentFromBrowser();
  EXPECT_FALSE(agent.empty());
  EXPECT_EQ(core->getUserAgentFromBrowser(), agent);
  environment->setUserAgentFromBrowser(std::string("Custom/1"));
  EXPECT_EQ(core->setUserAgentFromBrowser(), "Custom/1") << "a stored agent is not asked again";

  EXPECT_EQ(core->currentScreenDimensions(), (std::pair<double, double>{320, 480}));
  EXPECT_EQ(core->deviceTotalMemory(), 123456u);
  EXPECT_EQ(core->deviceID(), environment->deviceID());
  EXPECT_EQ(core->currentNetworkStatus(), 0);
  EXPECT_EQ(core->currentNetworkReachabilityName(), "UNKNOWN");
  EXPECT_EQ(core->currentConnectionType(), "N/A");
  EXPECT_EQ(core->currentOrientationName(), "UNKNOWN");
  EXPECT_EQ(core->getCurrentBatteryLevel(), 100.0f);
  EXPECT_EQ(core->networkCarrierName(), "Carrier");

  const auto compressed = core->compressData(std::make_shared<const std::string>(4096, 'a'));
  ASSERT_TRUE(compressed);
  EXPECT_EQ(test::gunzip(*compressed), std::string(4096, 'a'));

  QVCoreDLogAnnounceFunctionNamesLineNumbers::announceFunctionLine(__func__, __LINE__);
}

}  // namespace
}  // namespace qv
