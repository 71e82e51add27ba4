#include "QVShellModule.h"

#include "qvcore/platform/QVClassRegistry.h"

namespace qv::shell {

QVShellModule::QVShellModule(std::string name, std::string bundlePath)
    : name_(std::move(name)), bundlePath_(std::move(bundlePath)) {}

std::shared_ptr<QVShellModule> QVShellModule::define(const std::string& name,
                                                     const std::string& bundlePath) {
  auto module = std::make_shared<QVShellModule>(name, bundlePath);
  QVClassRegistry::shared().registerClass(name, [module] { return module; });
  return module;
}

bool QVShellModule::enable() {
  enabled_ = true;
  return true;
}

bool QVShellModule::disable() {
  enabled_ = false;
  return true;
}

}  // namespace qv::shell
