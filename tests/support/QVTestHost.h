#pragma once

#include <map>
#include <memory>
#include <string>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVReachabilityFlags.h"
#include "support/QVFakeInterfaceAddressSource.h"
#include "support/QVTempFolder.h"
#include "support/QVTestModule.h"

namespace qv::test {

// The host application around a core that a test or a benchmark runs whole:
// a main bundle ("App") whose Info.plist names bundleIdentifier, a data
// folder ("home"), a network the host reports as reachable (or, with
// hostReachability off, the system's own netlink answer), and fixed
// interface addresses. All of it is undone when the object goes; disabling
// the core is left to its owner, which knows when its servers stop.
class QVTestHost {
 public:
  explicit QVTestHost(const std::string& bundleIdentifier, bool hostReachability = true) {
    folder_.writePlist("App/Info.plist", {{"CFBundleIdentifier", bundleIdentifier}});
    QVBundle::setMainBundlePath(folder_.at("App"));
    QVFileSystem::setHomeDirectory(folder_.at("home"));
    if (hostReachability) {
      reachability_->setFlags(kQVReachabilityFlagsReachable);
      QVReachabilitySource::setShared(reachability_);
      QVInterfaceAddressSource::setShared(addresses_);
    }
  }
  ~QVTestHost() {
    QVInterfaceAddressSource::setShared(nullptr);
    QVReachabilitySource::setShared(nullptr);
    QVFileSystem::setHomeDirectory("");
    QVBundle::setMainBundlePath("");
  }

  QVTempFolder& folder() { return folder_; }
  // The host-fed network, for tests that change what it reports.
  QVHostReachabilitySource& reachability() { return *reachability_; }
  QVFakeInterfaceAddressSource& addresses() { return *addresses_; }

  // The core's settings, read from its settings bundle in the main bundle.
  void writeCoreConfig(const QVValue& items) {
    folder_.writePlist("App/QVCoreSettings.bundle/QVCoreBasicConfig.plist", items);
  }

  // Registers the module class name, its settings bundle holding items.
  std::shared_ptr<QVTestModule> defineModule(const std::string& name, const QVValue& items) {
    const std::string bundle = name + ".bundle";
    folder_.writePlist(bundle + "/BasicConfig.plist", items);
    return QVTestModule::define(name, folder_.at(bundle));
  }

  // Enables the shared core with those settings and the modules (name to
  // settings), each enabled; false when any of that fails.
  bool startCore(const QVValue& coreItems, const std::map<std::string, QVValue>& modules) {
    writeCoreConfig(coreItems);
    for (const auto& [name, items] : modules) defineModule(name, items);
    auto core = QVCore::sharedInstance();
    bool enabled = core->enable();
    for (const auto& entry : modules) enabled = enabled && core->enableModule(entry.first);
    return enabled;
  }

 private:
  QVTempFolder folder_;
  std::shared_ptr<QVHostReachabilitySource> reachability_ =
      std::make_shared<QVHostReachabilitySource>();
  std::shared_ptr<QVFakeInterfaceAddressSource> addresses_ =
      std::make_shared<QVFakeInterfaceAddressSource>();
};

}  // namespace qv::test
