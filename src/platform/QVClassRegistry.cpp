#include "qvcore/platform/QVClassRegistry.h"

#include <mutex>

namespace qv {

QVClassRegistry& QVClassRegistry::shared() {
  // Never destroyed: registrations run during static initialisation and
  // lookups may run during static destruction.
  static auto* registry = new QVClassRegistry;
  return *registry;
}

void QVClassRegistry::registerClass(const std::string& name, InstanceFactory sharedInstance) {
  std::unique_lock lock(mutex_);
  classes_[name] = std::move(sharedInstance);
}

std::shared_ptr<QVObject> QVClassRegistry::sharedInstanceOfClass(const std::string& name) const {
  InstanceFactory factory;
  {
    std::shared_lock lock(mutex_);
    auto it = classes_.find(name);
    if (it == classes_.end()) return nullptr;
    factory = it->second;
  }
  // Called outside the lock: a factory may itself look classes up.
  return factory ? factory() : nullptr;
}

detail::QVClassRegistration::QVClassRegistration(const char* name,
                                                 QVClassRegistry::InstanceFactory sharedInstance) {
  QVClassRegistry::shared().registerClass(name, std::move(sharedInstance));
}

}  // namespace qv
