#include "support/QVTestModule.h"

#include "qvcore/platform/QVClassRegistry.h"

namespace qv::test {

QVTestModule::QVTestModule(std::string name, std::string bundlePath)
    : name_(std::move(name)), bundlePath_(std::move(bundlePath)) {}

std::shared_ptr<QVTestModule> QVTestModule::define(const std::string& name,
                                                   const std::string& bundlePath) {
  auto module = std::make_shared<QVTestModule>(name, bundlePath);
  QVClassRegistry::shared().registerClass(name, [module] { return module; });
  return module;
}

bool QVTestModule::enable() {
  ++enableCalls;
  if (enableResult) enabled_ = true;
  return enableResult;
}

bool QVTestModule::disable() {
  ++disableCalls;
  if (disableResult) enabled_ = false;
  return disableResult;
}

}  // namespace qv::test
