#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"

namespace qv {

// Posted on the main run loop, with the device as sender, for each
// orientation the host reports while the device generates orientation
// notifications.
inline constexpr char UIDeviceOrientationDidChangeNotification[] =
    "UIDeviceOrientationDidChangeNotification";

// The device the process runs on. Linux answers what it knows (system name
// and version, model, memory, languages from the locale); the host feeds what
// it cannot know (orientation, battery) and may replace any answer. Setting
// an empty value (empty text or list, 0 bytes) goes back to the Linux answer.
// Every operation is safe from any thread.
class QV_EXPORT QVDevice {
 public:
  // The one device. Never destroyed.
  static QVDevice& currentDevice();

  // 0 unknown, 1 portrait, 2 portrait upside down, 3 landscape left,
  // 4 landscape right, 5 face up, 6 face down. Linux alone knows none: 0.
  int64_t orientation() const;
  // One orientation event from the host. Each call is an event, a repeated
  // code included; consumers decide what a change is. A code outside 0..6
  // is stored as 0, so that no made-up code reaches the payloads.
  void setOrientation(int64_t orientation);

  // Calls nest: notifications stop when every begin has had its end.
  bool isGeneratingDeviceOrientationNotifications() const;
  void beginGeneratingDeviceOrientationNotifications();
  void endGeneratingDeviceOrientationNotifications();

  // uname's sysname and release ("Linux", "6.1.0-18-amd64").
  std::string systemName() const;
  void setSystemName(std::string name);
  std::string systemVersion() const;
  void setSystemVersion(std::string version);
  // The product name of the board (DMI, or the device tree), else uname's
  // machine ("x86_64").
  std::string model() const;
  void setModel(std::string model);

  // 0.0 to 1.0; -1.0 when unknown, as it is until the host tells.
  float batteryLevel() const;
  void setBatteryLevel(float level);

  // Language tags, most preferred first ("fr-CA"); never empty. Linux takes
  // those of LANGUAGE (a colon list), or when it names none, of the first set
  // of LC_ALL, LC_MESSAGES and LANG ("fr_CA.UTF-8" gives "fr-CA"). "C" and
  // "POSIX" name no language; with none found the answer is {"en-US"}, the
  // language of the C locale's messages.
  std::vector<std::string> preferredLanguages() const;
  void setPreferredLanguages(std::vector<std::string> languages);

  // Bytes of RAM the kernel manages.
  uint64_t physicalMemory() const;
  void setPhysicalMemory(uint64_t bytes);
  // Bytes that user processes can have without swapping (MemAvailable), the
  // Linux counterpart of memory the kernel has not wired for itself. It
  // moves with the load, so it is read anew on every call.
  uint64_t userMemory() const;
  void setUserMemory(uint64_t bytes);

  QVDevice(const QVDevice&) = delete;
  QVDevice& operator=(const QVDevice&) = delete;

 private:
  struct Impl;

  QVDevice();
  ~QVDevice();

  void postOrientationDidChange();

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
