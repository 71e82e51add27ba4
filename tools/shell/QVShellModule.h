#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "qvcore/core/QVLifecycleObject.h"

namespace qv::shell {

// A module class defined by a script: registered under its name, with its
// configuration in the bundle folder the script names.
class QVShellModule : public QVLifecycleObject {
 public:
  QVShellModule(std::string name, std::string bundlePath);

  // Defines (or redefines) the class called name in the class registry.
  static std::shared_ptr<QVShellModule> define(const std::string& name,
                                               const std::string& bundlePath);

  std::string className() const override { return name_; }
  bool enable() override;
  bool disable() override;
  bool isEnabled() const override { return enabled_.load(); }
  std::string settingsBundlePath() const override { return bundlePath_; }

 private:
  std::string name_;
  std::string bundlePath_;
  std::atomic<bool> enabled_{false};
};

}  // namespace qv::shell
