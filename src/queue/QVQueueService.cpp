#include "qvcore/queue/QVQueueService.h"

#include <array>
#include <exception>
#include <utility>

#include "core/QVDeliveryLedger.h"
#include "platform/host/QVApplicationIdentifier.h"
#include "platform/host/QVSwallowed.h"
#include "platform/runloop/QVPublished.h"
#include "queue/QVQueueServiceImpl.h"
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

QVQueueService::QVQueueService() : impl_(std::make_unique<Impl>(*this)) {}
QVQueueService::~QVQueueService() = default;

bool QVQueueService::isEnabled() const { return impl_->enabled.load(); }

void QVQueueService::setEnabled(bool enabled) { impl_->enabled.store(enabled); }

bool QVQueueService::enable() {
  auto queue = std::make_shared<QVSerialQueue>(applicationIdentifier() + ".qvcore.flush");
  auto connection = QVServerConnection::initWithDelegate(shared_from_this());
  std::shared_ptr<QVSerialQueue> previousQueue;
  {
    std::lock_guard lock(impl_->stateMutex);
    previousQueue = std::exchange(impl_->flushQueue, std::move(queue));
    impl_->serverConnection = connection;
  }
  // Outside the lock: the old queue finishes its flushes before it goes, and
  // they read the fields.
  previousQueue.reset();

  bool result = false;
  if (connection && startFlushTimer()) result = createCachedQueueFolder();
  impl_->enabled = result;
  return result;
}

bool QVQueueService::disable() {
  std::shared_ptr<QVSerialQueue> queue;
  {
    std::lock_guard lock(impl_->stateMutex);
    impl_->serverConnection.reset();
  }
  stopFlushTimer();
  {
    std::lock_guard lock(impl_->stateMutex);
    queue = std::move(impl_->flushQueue);
  }
  // Flushes already submitted still run, find no dispatch queue and return.
  queue.reset();
  impl_->enabled = false;
  return true;
}

std::pair<QVQueue*, QVModuleLedger*> QVQueueService::Impl::moduleQueueFor(
    const std::shared_ptr<QVLifecycleObject>& module) {
  const std::string name = module->className();
  if (const auto found = recentQueues.find(&owner, name); found.first) return found;
  QVQueue* queue = filedQueueFor(name, module).get();
  if (!queue) return {nullptr, nullptr};
  const std::pair found{queue, &QVDeliveryLedger::shared().module(name)};
  recentQueues.add(&owner, name, found);
  return found;
}

std::shared_ptr<QVQueue> QVQueueService::Impl::filedQueueFor(
    const std::string& name, std::shared_ptr<QVLifecycleObject> module) {
  {
    std::lock_guard lock(queuesMutex);
    auto it = moduleQueues.find(name);
    if (it != moduleQueues.end()) return it->second;
  }
  // Made outside the lock, since a new queue asks the core for its session;
  // a queue that another thread filed first wins. The module is a copy: the
  // caller's may live in a registry that the core reads again meanwhile.
  auto made = QVQueue::initForModule(module);
  std::lock_guard lock(queuesMutex);
  return moduleQueues.try_emplace(name, std::move(made)).first->second;
}

bool QVQueueService::postMessageForModuleWithSessionID(
    std::shared_ptr<QVMessage> message, const std::shared_ptr<QVLifecycleObject>& module,
    std::optional<std::string> sessionID) {
  if (!module) return false;
  const auto [queue, ledger] = impl_->moduleQueueFor(module);
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
    std::lock_guard lock(impl_->queuesMutex);
    auto it = impl_->moduleQueues.find(module->className());
    if (it != impl_->moduleQueues.end()) queue = it->second;
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
  std::lock_guard lock(impl_->queuesMutex);
  return impl_->moduleQueues;
}

QVLedgerSnapshot QVQueueService::ledgerSnapshot() const {
  QVLedgerSnapshot snapshot = QVDeliveryLedger::shared().snapshot();
  for (const auto& [name, queue] : moduleQueues()) {
    snapshot.modules[name].queued += queue->messageCount();
  }
  std::lock_guard lock(impl_->sendListMutex);
  for (std::size_t i = 0; i < impl_->cachedQueues.size(); ++i) {
    const auto& queue = impl_->cachedQueues[i];
    QVLedgerCounts& counts = snapshot.modules[Impl::ledgerName(queue)];
    // Only the head is ever handed to the connection.
    (i == 0 && impl_->offering ? counts.inFlight : counts.queued) += queue->messageCount();
  }
  return snapshot;
}

void QVQueueService::resetLedger() { QVDeliveryLedger::shared().reset(); }

std::string QVQueueService::Impl::ledgerName(const std::shared_ptr<QVQueue>& queue) {
  const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
  return module ? module->className() : "(gone)";
}

QVModuleLedger& QVQueueService::Impl::ledgerFor(const std::shared_ptr<QVQueue>& queue) {
  return QVDeliveryLedger::shared().module(ledgerName(queue));
}

QVModuleLedger& QVQueueService::Impl::ledgerFor(const std::shared_ptr<QVLifecycleObject>& module) {
  return QVDeliveryLedger::shared().module(module ? module->className() : "(gone)");
}

QVQueueService::SendList QVQueueService::cachedQueues() const {
  std::lock_guard lock(impl_->sendListMutex);
  return impl_->cachedQueues;
}

std::shared_ptr<QVServerConnection> QVQueueService::serverConnection() const {
  std::lock_guard lock(impl_->stateMutex);
  return impl_->serverConnection;
}

std::shared_ptr<QVRepeatingTimer> QVQueueService::flushTimer() const {
  std::lock_guard lock(impl_->stateMutex);
  return impl_->flushTimer;
}

std::shared_ptr<QVSerialQueue> QVQueueService::flushDispatchQueue() const {
  std::lock_guard lock(impl_->stateMutex);
  return impl_->flushQueue;
}

uint64_t QVQueueService::completedFlushCycles() const { return impl_->completedFlushCycles.load(); }

uint64_t QVQueueService::maxPostsPerActivationCounter() const {
  return impl_->maxPostsPerActivationCounter.load();
}

void QVQueueService::setMaxPostsPerActivationCounter(uint64_t value) {
  impl_->maxPostsPerActivationCounter.store(value);
}

uint64_t QVQueueService::maxBytesPerActivationCounter() const {
  return impl_->maxBytesPerActivationCounter.load();
}

void QVQueueService::setMaxBytesPerActivationCounter(uint64_t value) {
  impl_->maxBytesPerActivationCounter.store(value);
}

uint64_t QVQueueService::configItemMaxPostsPerActivationCounter() const {
  return impl_->configItemMaxPostsPerActivationCounter.load();
}

void QVQueueService::setConfigItemMaxPostsPerActivationCounter(uint64_t value) {
  impl_->configItemMaxPostsPerActivationCounter.store(value);
}

uint64_t QVQueueService::configItemMaxBytesPerActivationCounter() const {
  return impl_->configItemMaxBytesPerActivationCounter.load();
}

void QVQueueService::setConfigItemMaxBytesPerActivationCounter(uint64_t value) {
  impl_->configItemMaxBytesPerActivationCounter.store(value);
}

}  // namespace qv
