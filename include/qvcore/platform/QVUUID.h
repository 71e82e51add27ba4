#pragma once

#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// Random (version 4) UUIDs from libuuid.
class QV_EXPORT QVUUID {
 public:
  // The canonical text: 36 characters, upper-case hexadecimal with hyphens.
  static std::string randomUUIDString();
};

}  // namespace qv
