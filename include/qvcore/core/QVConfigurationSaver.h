#pragma once

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Optional operation of a module: persists the module's changed
// configuration. The configuration service probes for it with dynamic_cast
// before a change made through it is reported as saved.
class QV_EXPORT QVConfigurationSaver {
 public:
  virtual ~QVConfigurationSaver() = default;
  // items is the module's whole current configuration; true when saved.
  virtual bool saveCurrentConfigurableItems(const QVValue& items) = 0;
};

}  // namespace qv
