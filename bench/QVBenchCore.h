#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVTestHost.h"
#include "support/QVTestModule.h"

namespace qv::bench {

// The core enabled as an application would have it, on Wi-Fi as the host
// reports it, with its files in a temporary folder and manual posting on, so
// that no timer flushes while a benchmark measures. Modules are the tests'
// module class with a settings bundle of their own.
class QVBenchCore {
 public:
  // With hostReachability off, reachability is the system's own (netlink),
  // as on a Linux host that reports nothing itself.
  explicit QVBenchCore(bool compress = false, bool hostReachability = true)
      : host_("com.example.bench", hostReachability) {
    host_.writeCoreConfig({{"PostMessageLevelWiFi", 3},
                           {"PostMessageLevelCellular", 3},
                           {"ManualPostEnabled", true},
                           {"HasToPersistLocalCache", false},
                           {"CompressPostMessage", compress},
                           {"PostMessageTimeout", 30}});
    if (!core_->enable()) throw std::runtime_error("the core did not start");
  }
  ~QVBenchCore() { core_->disable(); }
  QVBenchCore(const QVBenchCore&) = delete;
  QVBenchCore& operator=(const QVBenchCore&) = delete;

  // Defines, configures and starts a module; items go to its settings bundle.
  std::shared_ptr<test::QVTestModule> addModule(const std::string& name, QVValue items) {
    auto module = host_.defineModule(name, items);
    if (!core_->enableModule(name)) throw std::runtime_error("module did not start: " + name);
    return module;
  }

  void setCompression(bool on) {
    core_->updateConfigForModuleNameWithData("QVCore", {{"CompressPostMessage", on}});
  }

  // The module's live queue (made by the first post).
  std::shared_ptr<QVQueue> liveQueue(const std::string& name) const {
    const auto queues = QVQueueService::sharedInstance()->moduleQueues();
    const auto it = queues.find(name);
    return it == queues.end() ? nullptr : it->second;
  }

  // Drops everything queued for the module, outside any measurement.
  void emptyQueue(const std::string& name) const {
    if (auto queue = liveQueue(name)) queue->flush();
  }

  const std::shared_ptr<QVCore>& core() const { return core_; }

 private:
  test::QVTestHost host_;
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
};

}  // namespace qv::bench
