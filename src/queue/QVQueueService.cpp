#include "qvcore/queue/QVQueueService.h"

#include <array>
#include <exception>
#include <utility>

#include "core/QVDeliveryLedger.h"
#include "platform/host/QVApplicationIdentifier.h"
#include "platform/host/QVSwallowed.h"
#include "platform/runloop/QVPublished.h"
#include "queue/QVQueueFileCache.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVRepeatingTimer.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVServerConnection.h"

namespace qv {

namespace {

// The queues a thread posted to last, by module class name, with their
// modules' ledgers. A queue, once filed, is never replaced or removed, the
// service is never destroyed and ledger entries are never removed either, so
// the addresses stay valid and the lookup needs no lock.
class RecentQueues {
 public:
  using Found = std::pair<QVQueue*, QVModuleLedger*>;

  Found find(const QVQueueService* service, const std::string& name) const {
    const Found* found = lookups_.find(service, name);
    return found ? *found : Found{nullptr, nullptr};
  }

  void add(const QVQueueService* service, const std::string& name, Found found) {
    lookups_.add(service, name, found);
  }

 private:
  QVRecentLookups<Found> lookups_;
};

thread_local RecentQueues recentQueues;

}  // namespace

QV_REGISTER_MODULE(QVQueueService);

std::shared_ptr<QVQueueService> QVQueueService::sharedInstance() {
  // Never destroyed: timers, HTTP outcomes and the crash hook may reach the
  // service while the process tears down its statics.
  static auto* instance = new std::shared_ptr<QVQueueService>(new QVQueueService);
  return *instance;
}

QVQueueService::QVQueueService() : fileCache_(std::make_unique<QVQueueFileCache>()) {}
QVQueueService::~QVQueueService() = default;

bool QVQueueService::enable() {
  auto queue = std::make_shared<QVSerialQueue>(applicationIdentifier() + ".qvcore.flush");
  auto connection = QVServerConnection::initWithDelegate(shared_from_this());
  std::shared_ptr<QVSerialQueue> previousQueue;
  {
    std::lock_guard lock(stateMutex_);
    previousQueue = std::exchange(flushQueue_, std::move(queue));
    serverConnection_ = connection;
  }
  // Outside the lock: the old queue finishes its flushes before it goes, and
  // they read the fields.
  previousQueue.reset();

  bool result = false;
  if (connection && startFlushTimer()) result = createCachedQueueFolder();
  enabled_ = result;
  return result;
}

bool QVQueueService::disable() {
  std::shared_ptr<QVSerialQueue> queue;
  {
    std::lock_guard lock(stateMutex_);
    serverConnection_.reset();
  }
  stopFlushTimer();
  {
    std::lock_guard lock(stateMutex_);
    queue = std::move(flushQueue_);
  }
  // Flushes already submitted still run, find no dispatch queue and return.
  queue.reset();
  enabled_ = false;
  return true;
}

std::pair<QVQueue*, QVModuleLedger*> QVQueueService::moduleQueueFor(
    const std::shared_ptr<QVLifecycleObject>& module) {
  const std::string name = module->className();
  if (const auto found = recentQueues.find(this, name); found.first) return found;
  QVQueue* queue = filedQueueFor(name, module).get();
  if (!queue) return {nullptr, nullptr};
  const std::pair found{queue, &QVDeliveryLedger::shared().module(name)};
  recentQueues.add(this, name, found);
  return found;
}

std::shared_ptr<QVQueue> QVQueueService::filedQueueFor(const std::string& name,
                                                       std::shared_ptr<QVLifecycleObject> module) {
  {
    std::lock_guard lock(queuesMutex_);
    auto it = moduleQueues_.find(name);
    if (it != moduleQueues_.end()) return it->second;
  }
  // Made outside the lock, since a new queue asks the core for its session;
  // a queue that another thread filed first wins. The module is a copy: the
  // caller's may live in a registry that the core reads again meanwhile.
  auto made = QVQueue::initForModule(module);
  std::lock_guard lock(queuesMutex_);
  return moduleQueues_.try_emplace(name, std::move(made)).first->second;
}

bool QVQueueService::postMessageForModuleWithSessionID(
    std::shared_ptr<QVMessage> message, const std::shared_ptr<QVLifecycleObject>& module,
    std::optional<std::string> sessionID) {
  if (!module) return false;
  const auto [queue, ledger] = moduleQueueFor(module);
  if (!queue || !queue->postMessageToSessionID(std::move(message), std::move(sessionID))) {
    return false;
  }
  ledger->addAccepted();
  return true;
}

uint64_t QVQueueService::getCurrentSessionStartTimeForModule(
    const std::shared_ptr<QVLifecycleObject>& module) const {
  if (!module) return 0;
  std::shared_ptr<QVQueue> queue;
  {
    std::lock_guard lock(queuesMutex_);
    auto it = moduleQueues_.find(module->className());
    if (it != moduleQueues_.end()) queue = it->second;
  }
  return queue ? queue->currentSessionStartTime() : 0;
}

bool QVQueueService::isManualPostingEnabled() const {
  try {
    return QVConfigService::sharedInstance()->isManualPostingEnabled();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

QVQueueService::ModuleQueues QVQueueService::moduleQueues() const {
  std::lock_guard lock(queuesMutex_);
  return moduleQueues_;
}

QVLedgerSnapshot QVQueueService::ledgerSnapshot() const {
  QVLedgerSnapshot snapshot = QVDeliveryLedger::shared().snapshot();
  for (const auto& [name, queue] : moduleQueues()) {
    snapshot.modules[name].queued += queue->messageCount();
  }
  std::lock_guard lock(sendListMutex_);
  for (std::size_t i = 0; i < cachedQueues_.size(); ++i) {
    const auto& queue = cachedQueues_[i];
    QVLedgerCounts& counts = snapshot.modules[ledgerName(queue)];
    // Only the head is ever handed to the connection.
    (i == 0 && offering_ ? counts.inFlight : counts.queued) += queue->messageCount();
  }
  return snapshot;
}

void QVQueueService::resetLedger() { QVDeliveryLedger::shared().reset(); }

std::string QVQueueService::ledgerName(const std::shared_ptr<QVQueue>& queue) {
  const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
  return module ? module->className() : "(gone)";
}

QVModuleLedger& QVQueueService::ledgerFor(const std::shared_ptr<QVQueue>& queue) {
  return QVDeliveryLedger::shared().module(ledgerName(queue));
}

QVModuleLedger& QVQueueService::ledgerFor(const std::shared_ptr<QVLifecycleObject>& module) {
  return QVDeliveryLedger::shared().module(module ? module->className() : "(gone)");
}

QVQueueService::SendList QVQueueService::cachedQueues() const {
  std::lock_guard lock(sendListMutex_);
  return cachedQueues_;
}

std::shared_ptr<QVServerConnection> QVQueueService::serverConnection() const {
  std::lock_guard lock(stateMutex_);
  return serverConnection_;
}

std::shared_ptr<QVRepeatingTimer> QVQueueService::flushTimer() const {
  std::lock_guard lock(stateMutex_);
  return flushTimer_;
}

std::shared_ptr<QVSerialQueue> QVQueueService::flushDispatchQueue() const {
  std::lock_guard lock(stateMutex_);
  return flushQueue_;
}

}  // namespace qv
