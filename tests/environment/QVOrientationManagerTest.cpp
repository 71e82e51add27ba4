#include "qvcore/environment/QVOrientationManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/platform/QVApplication.h"
#include "qvcore/platform/QVDevice.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {
namespace {

using M = QVOrientationManager;
using Heard = std::vector<int64_t>;

// The rule behind both angle tables: a standing device (1..4) has an angle
// (0, 180, 90, -90) which the interface orientation turns (a column of
// turn, by interface 0..4), wrapped into (-180, 180]. Unknown and upside-down
// interfaces, and flat or unknown devices, give 0.
int64_t expectedDegrees(int64_t device, int64_t ui, const int64_t (&turn)[5]) {
  const int64_t angle[] = {0, 0, 180, 90, -90};
  if (device < 1 || device > 4 || ui == 0 || ui == 2) return 0;
  const int64_t degrees = angle[device] + turn[ui];
  return degrees > 180 ? degrees - 360 : degrees <= -180 ? degrees + 360 : degrees;
}

struct Listener : QVOrientationManagerDelegate {
  bool qvOrientationChanged(int64_t deviceOrientation) override {
    heard.push_back(deviceOrientation);
    return true;
  }
  Heard heard;
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

// The screen's dimensions are the main screen's: on Linux 0 x 0 points until
// the host sets them (QVShellTest's platform events set them).
TEST_F(QVOrientationManagerTest, TablesGiveTheListedAnglesAndNamesAndTheScreenItsSize) {
  for (int64_t device = -1; device <= 7; ++device) {
    for (int64_t ui = 0; ui <= 5; ++ui) {
      SCOPED_TRACE(testing::Message() << "device " << device << ", interface " << ui);
      EXPECT_EQ(M::getAdjustedDeviceOrientationAndUIOrientation(device, ui),
                ui == 5 ? 0 : expectedDegrees(device, ui, {0, 0, 0, 0, 180}));
      EXPECT_EQ(M::getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(device, ui),
                ui == 5 ? 0 : expectedDegrees(device, ui, {0, 0, 0, -90, 90}));
    }
  }
  const std::vector<std::string> names = {"UNKNOWN",  "UNKNOWN",   "PORTRAIT",
                                          "PORTRAIT", "LANDSCAPE", "LANDSCAPE",
                                          "FLAT",     "FLAT",      "UNKNOWN"};
  for (int64_t code = -1; code <= 7; ++code)
    EXPECT_EQ(M::getOrientationName(code), names[code + 1]);
  EXPECT_EQ(manager_->currentScreenDimensions(), std::make_pair(0.0, 0.0));
}

TEST_F(QVOrientationManagerTest, ReportsTurnsButNotRepeatsFlatUnknownOrWhileTurnedOff) {
  turn(1, 3);  // not generating yet: no event
  EXPECT_TRUE(manager_->startMonitoringOrientationChanges());
  EXPECT_TRUE(manager_->orientationMonitoringRunning());
  // The start reads both orientations: portrait under landscape right.
  EXPECT_EQ(manager_->currentUIOrientationInDegrees(), -90);
  // The first event after a start is reported even though unchanged; back
  // from lying flat is the same as before, so no report.
  for (int64_t device : {1, 1, 5, 1}) turn(device);
  EXPECT_EQ(listener_->heard, Heard{1});
  turn(6, 4);
  turn(0, 4);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1);  // flat and unknown are not stored
  setTurnOff(true);
  turn(3, 3);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1) << "every event ignored";
  setTurnOff(false);
  turn(3, 3);
  EXPECT_EQ(listener_->heard, (Heard{1, 3}));
  EXPECT_EQ(manager_->currentUIOrientation(), 3);
  EXPECT_EQ(manager_->currentDeviceOrientationInDegrees(), 90);
  EXPECT_EQ(manager_->currentUIOrientationInDegrees(), 0);
}

// The manager keeps neither its delegate nor, once gone, its observation.
TEST_F(QVOrientationManagerTest, StartStopRestartAndGoneDelegatesKeepOneObservation) {
  manager_->startMonitoringOrientationChanges();
  manager_->startMonitoringOrientationChanges();
  manager_->startListeningToOrientationNotifications();
  turn(2);
  EXPECT_EQ(listener_->heard, Heard{2});
  EXPECT_TRUE(manager_->stopMonitoringOrientationChanges());
  EXPECT_FALSE(manager_->orientationMonitoringRunning());
  EXPECT_TRUE(QVDevice::currentDevice().isGeneratingDeviceOrientationNotifications());
  turn(4, 4);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 2);  // last reading stays

  // A restart forgets the last accepted orientation.
  manager_->startMonitoringOrientationChanges();
  EXPECT_EQ(manager_->currentDeviceOrientationInDegrees(), 90);
  turn(4, 4);
  EXPECT_EQ(listener_->heard, (Heard{2, 4}));
  QVDevice::currentDevice().endGeneratingDeviceOrientationNotifications();
  EXPECT_FALSE(manager_->orientationMonitoringRunning()) << "the device stopped generating";
  manager_->startMonitoringOrientationChanges();
  std::weak_ptr<Listener> gone = listener_;
  listener_.reset();
  EXPECT_TRUE(gone.expired());
  turn(1);
  EXPECT_EQ(manager_->currentDeviceOrientation(), 1);
  auto next = std::make_shared<Listener>();
  manager_->setDelegate(next);
  turn(2);
  const void* key = manager_.get();
  manager_.reset();
  EXPECT_EQ(QVNotificationCenter::defaultCenter().observationCount(key), 0u);
  turn(3);
  EXPECT_EQ(next->heard, Heard{2});
}

TEST_F(QVOrientationManagerTest, HostThreadsReportAndReadWhileTheMainLoopHandles) {
  manager_->startMonitoringOrientationChanges();
  std::atomic<bool> reading = true;
  std::thread reader([&] {
    while (reading) (void)manager_->currentDeviceOrientationInDegrees();
  });
  std::thread([] {
    for (int64_t o : {1, 3, 2, 4}) QVDevice::currentDevice().setOrientation(o);
  }).join();
  // Every event reads the device as it is now, so only the last one counts.
  QVRunLoop::main().runUntilIdle();
  reading = false;
  reader.join();
  EXPECT_EQ(listener_->heard, Heard{4});
}

}  // namespace
}  // namespace qv
