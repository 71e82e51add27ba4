// Uses the installed headers and library: a module registered by name, with
// the registration macro in a program of its own. With QVCONSUMER_URL set, it
// also enables the core from the installed default settings (no files of its
// own) and posts one message there.
#include <qvcore/core/QVCore.h>
#include <qvcore/model/QVMessage.h>
#include <qvcore/platform/QVClassRegistry.h>
#include <qvcore/platform/QVRunLoop.h>
#include <qvcore/queue/QVQueueService.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

class ConsumerModule : public qv::QVLifecycleObject {
 public:
  static std::shared_ptr<ConsumerModule> sharedInstance() {
    static auto instance = std::make_shared<ConsumerModule>();
    return instance;
  }
  std::string className() const override { return "ConsumerModule"; }
  bool enable() override { return enabled_ = true; }
  bool disable() override { return !(enabled_ = false); }
  bool isEnabled() const override { return enabled_; }
  std::string settingsBundlePath() const override { return ""; }

 private:
  bool enabled_ = false;
};

QV_REGISTER_MODULE(ConsumerModule);

int fail(const char* why) {
  std::fprintf(stderr, "qvcore-consumer: %s\n", why);
  return 1;
}

// The core enabled with nothing but the installed package: the module's
// address is handed in before, the core's items come from share/qvcore.
int postOneMessage(const char* url) {
  auto core = qv::QVCore::sharedInstance();
  core->updateConfigForModuleNameWithData("ConsumerModule", {{"PostMessageUrl", url}});
  if (!core->enable()) return fail("the core did not enable from the installed settings");
  if (!core->enableModule("ConsumerModule")) return fail("the module did not enable");
  auto message = std::make_shared<qv::QVMessage>();
  message->setOffset(4242);
  if (!core->postMessageForModuleName(message, "ConsumerModule")) return fail("post refused");
  core->flushQueues();
  auto queues = qv::QVQueueService::sharedInstance();
  const bool flushed = qv::QVRunLoop::main().runUntil(
      [&] { return queues->completedFlushCycles() > 0; }, std::chrono::seconds(30));
  if (!flushed) return fail("the flush did not end");
  std::puts("qvcore-consumer: posted");
  return 0;
}

}  // namespace

int main() {
  auto core = qv::QVCore::sharedInstance();
  if (core->lifecycleObjectForName("ConsumerModule") != ConsumerModule::sharedInstance())
    return fail("the module is not found by its class name");
  std::puts("qvcore-consumer: ok");
  const char* url = std::getenv("QVCONSUMER_URL");
  return url && *url ? postOneMessage(url) : 0;
}
