// A Linux host that keeps what it queued when it is stopped: the core saves
// every queue at termination ("DoPostAppGoesToClose"), and the termination
// hooks make SIGTERM, SIGINT, SIGHUP and a normal exit count as termination.
// Run it, then press Ctrl-C (or kill it): the queue is in
// $QVCORE_HOME/Documents/QVCoreCachedQueues, sent at the next start's flush.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVRunLoop.h"

namespace {

class HooksExampleModule : public qv::QVLifecycleObject {
 public:
  static std::shared_ptr<HooksExampleModule> sharedInstance() {
    static auto instance = std::make_shared<HooksExampleModule>();
    return instance;
  }
  std::string className() const override { return "HooksExampleModule"; }
  bool enable() override { return enabled_ = true; }
  bool disable() override { return !(enabled_ = false); }
  bool isEnabled() const override { return enabled_; }
  std::string settingsBundlePath() const override { return ""; }

 private:
  bool enabled_ = false;
};

QV_REGISTER_MODULE(HooksExampleModule);

}  // namespace

int main(int argc, char** argv) {
  const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/collect";
  auto core = qv::QVCore::sharedInstance();
  // Items handed in before enable wait for their module's load.
  core->updateConfigForModuleNameWithData("QVCore", {{"DoPostAppGoesToClose", true}});
  core->updateConfigForModuleNameWithData("HooksExampleModule", {{"PostMessageUrl", url}});
  if (!core->enable() || !core->enableModule("HooksExampleModule")) return 1;
  // After the host's own signal handlers, so that the hooks chain to them.
  if (!qv::QVCore::installTerminationHooks()) return 1;

  auto message = std::make_shared<qv::QVMessage>();
  message->setOffset(1);
  message->setLogLevel(1);
  core->postMessageForModuleName(message, "HooksExampleModule");
  std::printf("pid %d: one message queued; stop me with Ctrl-C or kill\n", ::getpid());
  std::fflush(stdout);
  qv::QVRunLoop::main().run();
  return 0;
}
