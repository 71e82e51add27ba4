#include "qvcore/platform/QVClassRegistry.h"

#include <map>
#include <mutex>
#include <shared_mutex>

namespace qv {

struct QVClassRegistry::Impl {
  mutable std::shared_mutex mutex_;
  std::map<std::string, InstanceFactory, std::less<>> classes_;
};

QVClassRegistry::QVClassRegistry() : impl_(std::make_unique<Impl>()) {}

QVClassRegistry::~QVClassRegistry() = default;

QVClassRegistry& QVClassRegistry::shared() {
  // Never destroyed: registrations run during static initialisation and
  // lookups may run during static destruction.
  static auto* registry = new QVClassRegistry;
  return *registry;
}

void QVClassRegistry::registerClass(const std::string& name, InstanceFactory sharedInstance) {
  std::unique_lock lock(impl_->mutex_);
  impl_->classes_[name] = std::move(sharedInstance);
}

std::shared_ptr<QVObject> QVClassRegistry::sharedInstanceOfClass(const std::string& name) const {
  InstanceFactory factory;
  {
    std::shared_lock lock(impl_->mutex_);
    auto it = impl_->classes_.find(name);
    if (it == impl_->classes_.end()) return nullptr;
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
