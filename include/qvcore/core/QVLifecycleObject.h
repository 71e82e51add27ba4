#pragma once

#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVObject.h"

namespace qv {

// What every module's main class and every core service implements. A module
// class also offers a static sharedInstance() and is made known to the core by
// QV_REGISTER_MODULE. Optional operations live in interfaces of their own
// (QVHttpHeadersProvider and its siblings) and are probed with dynamic_cast.
class QV_EXPORT QVLifecycleObject : public QVObject {
 public:
  virtual bool enable() = 0;
  virtual bool disable() = 0;
  virtual bool isEnabled() const = 0;
  // The folder of the object's configuration files; empty when it has none.
  virtual std::string settingsBundlePath() const = 0;
};

}  // namespace qv
