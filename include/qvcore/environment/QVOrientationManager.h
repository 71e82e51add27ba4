#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "qvcore/QVExport.h"
#include "qvcore/environment/QVOrientationManagerDelegate.h"

namespace qv {

// Follows the orientation of the device and of the user interface, turns
// each pair into an angle for the device and one for the interface, and tells
// its delegate when the device turns upright or sideways to a new
// orientation. Lying flat or an unknown orientation is not a turn.
//
// Device orientation events come as QVDevice notifications on the main run
// loop, where the manager handles them. The readers may be called from any
// thread: each reading is an atomic, read one at a time.
class QV_EXPORT QVOrientationManager : public std::enable_shared_from_this<QVOrientationManager> {
 public:
  // A stopped manager holding the orientations of this moment.
  static std::shared_ptr<QVOrientationManager> initWithDelegate(
      std::weak_ptr<QVOrientationManagerDelegate> delegate);
  ~QVOrientationManager();

  std::weak_ptr<QVOrientationManagerDelegate> delegate() const;
  void setDelegate(std::weak_ptr<QVOrientationManagerDelegate> delegate);

  // Always true. Switches the device's orientation notifications on when
  // they are off, takes fresh readings and observes the device. The
  // notifications stay on after a stop: others may rely on them.
  bool startMonitoringOrientationChanges();
  // Observes the device's orientation notifications, replacing any earlier
  // observation of this manager, so there is never more than one.
  void startListeningToOrientationNotifications();
  // Always true. Stops observing; the last readings stay readable.
  bool stopMonitoringOrientationChanges();
  // Started and the device generates orientation notifications.
  bool orientationMonitoringRunning() const;

  // Reads both orientations afresh and forgets the last accepted one, so
  // the next turn is reported whatever it is.
  void resetOrientationValues();
  // Handles one device orientation notification.
  void orientationDidChange();
  // Tells the delegate, if it is still there.
  void notifyDeviceOrienationChanged(int64_t deviceOrientation);

  // "PORTRAIT", "LANDSCAPE", "FLAT" or "UNKNOWN".
  static std::string getOrientationName(int64_t deviceOrientation);
  // Width and height in points of the main screen's bounds, as the platform
  // gives them whatever the orientation; (0, 0) without a main screen.
  std::pair<double, double> currentScreenDimensions() const;

  // Degrees of the device and of the interface for a pair of device and
  // interface orientation codes; 0 for a pair the tables do not list.
  static int64_t getAdjustedDeviceOrientationAndUIOrientation(int64_t deviceOrientation,
                                                              int64_t uiOrientation);
  static int64_t getAdjustedUIOrientationForDeviceOrientationAndUIOrientation(
      int64_t deviceOrientation, int64_t uiOrientation);

  int64_t currentDeviceOrientation() const;
  int64_t currentUIOrientation() const;
  int64_t currentDeviceOrientationInDegrees() const;
  int64_t currentUIOrientationInDegrees() const;

  QVOrientationManager(const QVOrientationManager&) = delete;
  QVOrientationManager& operator=(const QVOrientationManager&) = delete;

 private:
  struct Impl;

  explicit QVOrientationManager(std::weak_ptr<QVOrientationManagerDelegate> delegate);

  void storeReadings(int64_t deviceOrientation, int64_t uiOrientation);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
