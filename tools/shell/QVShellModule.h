#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/platform/QVValue.h"

namespace qv::shell {

// What a script asks of a module class: its name, its settings bundle, and
// which optional module operations it implements.
struct QVShellModuleOptions {
  std::string name;
  std::string bundlePath;
  // Set: the class provides these headers for every post of its queue.
  std::optional<QVValue> headers;
  bool savesConfig = false;
  bool handlesExceptions = false;
  bool observesTermination = false;
};

// A module class defined by a script, registered under its name. The core
// probes optional operations with dynamic_cast, so define() makes an object
// of a class that derives from exactly the interfaces asked for; this base
// holds what every such class shares.
class QVShellModule : public QVLifecycleObject {
 public:
  // Defines (or redefines) the class called options.name in the class
  // registry; its single instance is the object answered.
  static std::shared_ptr<QVShellModule> define(const QVShellModuleOptions& options);

  std::string className() const override { return options_.name; }
  bool enable() override;
  bool disable() override;
  bool isEnabled() const override { return enabled_.load(); }
  std::string settingsBundlePath() const override { return options_.bundlePath; }

 protected:
  explicit QVShellModule(const QVShellModuleOptions& options) : options_(options) {}

 private:
  const QVShellModuleOptions options_;
  std::atomic<bool> enabled_{false};
};

}  // namespace qv::shell
