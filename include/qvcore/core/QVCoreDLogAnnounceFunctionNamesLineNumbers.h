#pragma once

#include <cstdint>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// A hook for debug tracing. It must stay a no-op: release builds of modules
// call it on hot paths.
class QV_EXPORT QVCoreDLogAnnounceFunctionNamesLineNumbers {
 public:
  static void announceFunctionLine(const std::string& function, int64_t line);
};

}  // namespace qv
