#include "core/QVModuleRegistry.h"

#include <utility>

#include "qvcore/core/QVLifecycleObject.h"

namespace qv {

void QVModuleRegistry::reset(std::shared_ptr<const Modules> modules) {
  modules_.publish(std::move(modules));
}

void QVModuleRegistry::add(const std::string& name, std::shared_ptr<QVLifecycleObject> module) {
  modules_.update([&](const std::shared_ptr<const Modules>& current) {
    if (!current) return current;
    auto modules = std::make_shared<Modules>(*current);
    (*modules)[name] = std::move(module);
    return std::shared_ptr<const Modules>(std::move(modules));
  });
}

std::shared_ptr<const QVModuleRegistry::Modules> QVModuleRegistry::current() const {
  return modules_.current();
}

const std::shared_ptr<QVLifecycleObject>* QVModuleRegistry::findOfThread(
    const std::string& name) const {
  const Modules* modules = modules_.ofThread();
  if (!modules) return nullptr;
  const auto it = modules->find(name);
  return it == modules->end() || !it->second ? nullptr : &it->second;
}

}  // namespace qv
