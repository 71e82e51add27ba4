#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/runloop/QVPublished.h"

namespace qv {

class QVLifecycleObject;

// The core's registry of started modules, by class name. It is replaced
// whole, never changed in place, so that posting threads look a module up in
// their own copy without a lock; see QVPublished.
class QVModuleRegistry {
 public:
  using Modules = std::map<std::string, std::shared_ptr<QVLifecycleObject>>;

  // Replaces the registry: an empty one at enable, none after a disable.
  void reset(std::shared_ptr<const Modules> modules);
  // Records a started module. Before the first enable and after a full
  // disable there is no registry, and the module is not recorded anywhere.
  void add(const std::string& name, std::shared_ptr<QVLifecycleObject> module);
  // The registry now; none when there is none.
  std::shared_ptr<const Modules> current() const;

  // The module as registered in the calling thread's copy of the registry;
  // valid until that thread reads the registry again.
  const std::shared_ptr<QVLifecycleObject>* findOfThread(const std::string& name) const;

 private:
  QVPublished<const Modules> modules_;
};

}  // namespace qv
