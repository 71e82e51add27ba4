#pragma once

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Optional operation of a module: persists the module's changed
// configuration. The configuration service probes for it with dynamic_cast
// before a change made through it is reported as saved.
//
// Threads: called on the thread that made the change (setConfigItem...,
// updateConfig..., QVCore's configuration setters), with the configuration
// service's save lock held: changes on other threads wait until it returns,
// reads do not. It may block to write, and it may read or change the
// configuration on its own thread (the lock is recursive), but it must not
// wait for another thread that changes configuration, which would wait for
// it in turn. A std::exception thrown here makes the change unsaved (false).
class QV_EXPORT QVConfigurationSaver {
 public:
  virtual ~QVConfigurationSaver() = default;
  // items is the module's whole current configuration; true when saved.
  virtual bool saveCurrentConfigurableItems(const QVValue& items) = 0;
};

}  // namespace qv
