#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The host application and the device it runs on, nested in the client
// environment of every session. A fact that cannot be had is left out.
class QV_EXPORT QVMobileEnvironment {
 public:
  QVValue jsonDictionary() const;
  std::string toJson() const;

  // The identifier of the user's first preferred language ("fr-CA").
  std::optional<std::string> localeData() const;
  std::optional<std::string> appVersion() const;
  std::optional<std::string> appName() const;
  std::string deviceModel() const;
  uint64_t totalAvailableMemory() const;
  // The file system of the application's home folder, in bytes.
  std::optional<uint64_t> totalStorage() const;
  std::optional<uint64_t> totalFreeSpace() const;
};

}  // namespace qv
