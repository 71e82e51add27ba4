#include "qvcore/queue/QVQueueService.h"

#include <array>
#include <exception>
#include <utility>

#include "platform/QVApplicationIdentifier.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVRepeatingTimer.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVServerConnection.h"

namespace qv {

namespace {

// The queues a thread posted to last, by module class name. A queue, once
// filed, is never replaced or removed, and the service is never destroyed,
// so the addresses stay valid and the lookup needs no lock.
class RecentQueues {
 public:
  QVQueue* find(const QVQueueService* service, const std::string& name) const {
    for (const auto& entry : entries_) {
      if (entry.queue && entry.service == service && entry.name == name) return entry.queue;
    }
    return nullptr;
  }

  void add(const QVQueueService* service, const std::string& name, QVQueue* queue) {
    entries_[next_] = {service, name, queue};
    next_ = (next_ + 1) % entries_.size();
  }

 private:
  struct Entry {
    const QVQueueService* service = nullptr;
    std::string name;
    QVQueue* queue = nullptr;
  };
  std::array<Entry, 4> entries_;
  std::size_t next_ = 0;
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

QVQueueService::QVQueueService() = default;
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

QVQueue* QVQueueService::moduleQueueFor(const std::shared_ptr<QVLifecycleObject>& module) {
  const std::string name = module->className();
  if (QVQueue* queue = recentQueues.find(this, name)) return queue;
  QVQueue* queue = filedQueueFor(name, module).get();
  if (queue) recentQueues.add(this, name, queue);
  return queue;
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
  QVQueue* queue = moduleQueueFor(module);
  return queue && queue->postMessageToSessionID(std::move(message), std::move(sessionID));
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
  } catch (const std::exception&) {
    return false;
  }
}

QVQueueService::ModuleQueues QVQueueService::moduleQueues() const {
  std::lock_guard lock(queuesMutex_);
  return moduleQueues_;
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
