#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/platform/QVClassRegistry.h"

namespace qv::test {

// A module whose answers a test sets, registered in the class registry under
// its name so that the core finds it as it finds a module library's class.
class QVTestModule : public QVLifecycleObject {
 public:
  QVTestModule(std::string name, std::string bundlePath)
      : name_(std::move(name)), bundlePath_(std::move(bundlePath)) {}

  // Creates the module and registers its class under name.
  static std::shared_ptr<QVTestModule> define(const std::string& name,
                                              const std::string& bundlePath = "") {
    auto module = std::make_shared<QVTestModule>(name, bundlePath);
    QVClassRegistry::shared().registerClass(name, [module] { return module; });
    return module;
  }

  std::string className() const override { return name_; }
  bool enable() override {
    ++enableCalls;
    if (enableResult) enabled_ = true;
    return enableResult;
  }
  bool disable() override {
    ++disableCalls;
    if (disableResult) enabled_ = false;
    return disableResult;
  }
  bool isEnabled() const override { return enabled_.load(); }
  std::string settingsBundlePath() const override { return bundlePath_; }

  std::atomic<bool> enableResult{true};
  std::atomic<bool> disableResult{true};
  std::atomic<int> enableCalls{0};
  std::atomic<int> disableCalls{0};
  void setEnabled(bool enabled) { enabled_ = enabled; }

 private:
  std::string name_;
  std::string bundlePath_;
  std::atomic<bool> enabled_{false};
};

}  // namespace qv::test
