#pragma once

#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVObject.h"

namespace qv {

// What every module's main class and every core service implements. A module
// class also offers a static sharedInstance() and is made known to the core by
// QV_REGISTER_MODULE. Optional operations live in interfaces of their own
// (QVHttpHeadersProvider and its siblings) and are probed with dynamic_cast.
//
// Threads: the core calls enable and disable on whichever thread asks it to
// (enableModule, disableModule, sleep and wake, a battery report, disable),
// with no lock of its own held; two such calls may overlap when the host
// makes them on two threads. isEnabled is asked on every post, on every
// posting thread: it must be safe from any thread, never block and cost
// little (an atomic flag). className (QVObject) must be constant: posting
// threads, the flush and the delivery ledger all file the module under it.
class QV_EXPORT QVLifecycleObject : public QVObject {
 public:
  virtual bool enable() = 0;
  virtual bool disable() = 0;
  virtual bool isEnabled() const = 0;
  // The folder of the object's configuration files; empty when it has none.
  // Asked when the configuration is loaded, on the thread that loads it.
  virtual std::string settingsBundlePath() const = 0;
};

}  // namespace qv
