#pragma once

#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// Root of the classes that are looked up by name at run time. A module is
// known everywhere by its class name, which className() gives.
class QV_EXPORT QVObject {
 public:
  virtual ~QVObject() = default;
  virtual std::string className() const = 0;
};

}  // namespace qv
