#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "qvcore/environment/QVEnvironmentalSerivce.h"

namespace qv {

// The service's private state, shared by the files that implement it.
struct QVEnvironmentalSerivce::Impl {
  std::atomic<bool> sleepModeActive{false};
  std::atomic<bool> enabled{false};
  std::shared_ptr<QVOrientationManager> orientationManager;
  std::shared_ptr<QVNetworkManager> networkManager;
  // Null until the first start of application monitoring; set once.
  std::atomic<std::shared_ptr<QVApplicationLifecycleManager>> applicationManager;

  // Guards the strings below; never held while other code runs.
  mutable std::mutex mutex;
  std::optional<std::string> networkIPAddressStr;
  std::string userAgentFromBrowser;
  std::optional<std::string> vepAdvertisingIdFromCustomer = "N/A";
  std::optional<std::string> currentDeviceID;
  // Serialises the first generation of the identifier with a module's change.
  std::mutex deviceIDMutex;
};

}  // namespace qv
