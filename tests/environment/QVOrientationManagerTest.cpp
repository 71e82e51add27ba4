#include "qvcore/environment/QVOrientationManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVScreen.h"

namespace qv {
namespace {

using M = QVOrientationManager;

// The angle tables as the contract lists them: a row per device orientation
// 0..6, a column per interface orientation 0..4; unlisted pairs are 0.
// clang-format off
constexpr int64_t kDeviceDegrees[7][5] = {
    // interface: unknown, portrait, upside down, landscape right, landscape left
    {0,   0, 0,   0,   0},  // unknown
    {0,   0, 0,   0, 180},  // portrait
    {0, 180, 0, 180,   0},  // portrait upside down
    {0,  90, 0,  90, -90},  // landscape left
    {0, -90, 0, -90,  90},  // landscape right
    {0,   0, 0,   0,   0},  // face up
    {0,   0, 0,   0,   0}}; // face down
constexpr int64_t kUIDegrees[7][5] = {
    {0,   0, 0,   0,   0},
    {0,   0, 0, -90,  90},
    {0, 180, 0,  90, -90},
    {0,  90, 0,   0, 180},
    {0, -90, 0, 180,   0},
    {0,   0, 0,   0,   0},
    {0,   0, 0,   0,   0}};
// clang-format on

struct Listener : QVOrientationManagerDelegate {
  bool qvOrientationChanged(int64_t deviceOrientation) override {
    heard.push_back(deviceOrientation);
    return true;
  }
  std::vector<int64_t> heard;
};

class QVOrientationManagerTest : public ::testing::Test {
 protected:
  // One orientation event from the host, handled as on a device.
  static void turn(int64_t deviceOrientation, int64_t uiOrientation = 1) {
    QVApplication::sharedApplication().setStatusBarOrientation(uiOrientation);
    QVDevice::currentDevice().setOrientation(deviceOrientation);
    QVRunLoop::main().runUntilIdle();
  }
  static void setTurnOff(bool on) {
    QVConfigService::sharedInstance()->setConfigurations(
        {{"QVCore", std::make_shared<QVValue>(QVValue{{"TurnOffCorrectOrientationUpdates", on}})}});
  }

  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  std::shared_ptr<M> manager_ = M::initWithDelegate(listener_);
};

// The screen's dimensions are the main screen's (on Linux 0 x 0 points).
TEST_F(QVOrientationManagerTest, TablesGiveTheListedAnglesAndNamesAndTheScreenItsSize) {
  for (int64_t device = 0; device <= 6; ++device) {
    for (int64_t ui = 0; ui <= 4; ++ui) {
      SCOPED_TRACE(testing::Message() << "device " << device << ", interface " << ui);
      EXPECT_EQ(M::getAdjustedDeviceOrientationAndUIOrientation(device, ui),
                kDeviceDegrees[device][ui]);
      EXPECT_EQ(M::getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(device, ui),
                kUIDegrees[device][ui]);
    }
  }
  EXPECT_EQ(M::getAdjustedDeviceOrientationAndUIOrientation(3, 7), 0);
  EXPECT_EQ(M::getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(-1, 1), 0);
  const std::vector<std::string> names = {"UNKNOWN",   "PORTRAIT", "PORTRAIT", "LANDSCAPE",
                                          "LANDSCAPE", "FLAT",     "FLAT",     "UNKNOWN"};
  for (int64_t code = 0; code <= 7; ++code) EXPECT_EQ(M::getOrientationName(code), names[code]);
  EXPECT_EQ(M::getOrientationName(-1), "UNKNOWN");
  EXPECT_EQ(QVScreen::mainScreen()->scale(), 1.0);
  QVScreen::setMainScreen(375, 667, 2.0);
  EXPECT_EQ(manager_->currentScreenDimensions(), std::make_pair(375.0, 667.0));
  QVScreen::removeMainScreen();
  EXPECT_EQ(manager_->currentScreenDimensions(), std::make_pair(0.0, 0.0));
}

TEST_F(QVOrientationManagerTest, ReportsTurnsButNotRepeatsOrFlatOrUnknown) {
  turn(1, 3);  // not generating yet: no event
  EXPECT_TRUE(manager_->startMonitoringOrientationChanges());
  EXPECT_TRUE(manager_->orientationMonitoringRunning());
  // The start reads both orientations: portrait under landscape right.
  EXPECT_EQ(manager_->currentUIOrientationInDegrees(), -90);

  turn(1);  // first event after a start: reported even though unchanged
  turn(1);
  turn(5);
  turn(1);  // back from lying flat: the same as before, so no report
  EXPECT_EQ(listener_->heard, (std::vector<int64_t>{1}));
  turn(6, 4);
  turn(0, 4);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1);  // flat and unknown are not stored

  turn(3, 3);
  EXPECT_EQ(listener_->heard, (std::vector<int64_t>{1, 3}));
  EXPECT_EQ(manager_->currentUIOrientation(), 3);
  EXPECT_EQ(manager_->currentDeviceOrientationInDegrees(), 90);
  EXPECT_EQ(manager_->currentUIOrientationInDegrees(), 0);
}

TEST_F(QVOrientationManagerTest, TurnOffCorrectOrientationUpdatesIgnoresEveryEvent) {
  manager_->startMonitoringOrientationChanges();
  setTurnOff(true);
  turn(3, 3);
  EXPECT_TRUE(listener_->heard.empty());
  EXPECT_EQ(manager_->currentDeviceOrientation(), 0);
  setTurnOff(false);
  turn(3, 3);  // the ignored event left nothing behind to compare with
  EXPECT_EQ(listener_->heard, (std::vector<int64_t>{3}));
}

TEST_F(QVOrientationManagerTest, StartStopAndRestartKeepOneObservation) {
  manager_->startMonitoringOrientationChanges();
  manager_->startMonitoringOrientationChanges();
  manager_->startListeningToOrientationNotifications();
  turn(2);
  EXPECT_EQ(listener_->heard, (std::vector<int64_t>{2}));

  EXPECT_TRUE(manager_->stopMonitoringOrientationChanges());
  EXPECT_FALSE(manager_->orientationMonitoringRunning());
  EXPECT_TRUE(QVDevice::currentDevice().isGeneratingDeviceOrientationNotifications());
  turn(4, 4);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 2);  // last reading stays

  // A restart forgets the last accepted orientation.
  manager_->startMonitoringOrientationChanges();
  EXPECT_EQ(manager_->currentDeviceOrientationInDegrees(), 90);
  turn(4, 4);
  EXPECT_EQ(listener_->heard, (std::vector<int64_t>{2, 4}));
  QVDevice::currentDevice().endGeneratingDeviceOrientationNotifications();
  EXPECT_FALSE(manager_->orientationMonitoringRunning());
}

TEST_F(QVOrientationManagerTest, GoneDelegatesAndManagersAreLeftAlone) {
  manager_->startMonitoringOrientationChanges();
  std::weak_ptr<Listener> gone = listener_;
  listener_.reset();
  EXPECT_TRUE(gone.expired());  // the manager does not keep it alive
  turn(1);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1);

  auto next = std::make_shared<Listener>();
  manager_->setDelegate(next);
  turn(2);
  EXPECT_EQ(next->heard, (std::vector<int64_t>{2}));

  const void* key = manager_.get();
  manager_.reset();
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(key), 0u);
  turn(3);
  EXPECT_EQ(next->heard, (std::vector<int64_t>{2}));
}

TEST_F(QVOrientationManagerTest, HostThreadsReportAndReadWhileTheMainLoopHandles) {
  manager_->startMonitoringOrientationChanges();
  std::atomic<bool> reading = true;
  std::thread reader([&] {
    while (reading) (void)manager_->currentDeviceOrientationInDegrees();
  });
  std::thread host([] {
    for (int64_t o : {1, 3, 2, 4}) QVDevice::currentDevice().setOrientation(o);
  });
  host.join();
  // Every event reads the device as it is now, so only the last one counts.
  QVRunLoop::main().runUntilIdle();
  reading = false;
  reader.join();
  EXPECT_EQ(listener_->heard, (std::vector<int64_t>{4}));
}

}  // namespace
}  // namespace qv
