// The files of unsent queues, and the terminate path that gives the last
// posts time to end.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "core/QVDeliveryLedger.h"
#include "platform/host/QVSwallowed.h"
#include "queue/QVCacheFileCheck.h"
#include "queue/QVQueueFileCache.h"
#include "queue/QVQueueServiceImpl.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"
#include "qvcore/queue/QVServerConnection.h"

namespace qv {

std::string QVQueueService::cachedQueuesDirectory() const { return QVQueueFileCache::folder(); }

bool QVQueueService::createCachedQueueFolder() { return QVQueueFileCache::createFolder(); }

bool QVQueueService::saveModuleQueueToFile(const std::shared_ptr<QVQueue>& queue) {
  const std::shared_ptr<QVQueue> snapshot = impl_->cut(queue);
  if (!snapshot) return false;
  if (saveQueueToFile(snapshot)) {
    QVModuleLedger& ledger = Impl::ledgerFor(snapshot);
    ledger.addCached(Impl::messagesPosted(snapshot, ledger));
    return true;
  }
  impl_->appendToSendList(snapshot);
  return false;
}

bool QVQueueService::saveQueueToFile(const std::shared_ptr<QVQueue>& queue) {
  try {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    if (!module) return false;
    const std::string json = queue->toJson();
    return !json.empty() && impl_->fileCache.write(module->className(), json);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

void QVQueueService::recoverSavedQueues() {
  for (auto& file : impl_->fileCache.takeAll()) {
    impl_->recoverFile(file.name, std::move(file.text));
  }
}

// Files of unknown modules, unreadable ones, and texts that are not what
// saveQueueToFile writes are gone already: dropped, never posted. Each is
// counted under the module its name gives, as recovered and dropped, so
// that the ledger balances whichever process cached it.
void QVQueueService::Impl::recoverFile(const std::string& name, std::optional<std::string> text) {
  const auto module = owner.moduleFromFilePath(name);
  QVModuleLedger& ledger = QVDeliveryLedger::shared().module(
      module ? module->className() : QVQueueFileCache::moduleNameOf(name));
  const bool urlEncoded = QVConfigService::sharedInstance()->isURLEncodedForModule(module);
  if (text && module) {
    if (const auto messages = cachedQueueMessageCount(*text, urlEncoded)) {
      ledger.addRecovered(*messages);
      appendToSendList(QVQueue::initWithJSONAndModule(std::move(*text), module, *messages));
      return;
    }
  }
  // What a file that is no queue held cannot be known: it counts as one.
  const std::size_t held = text ? cachedQueueMessageCount(*text, true).value_or(1) : 1;
  const uint64_t lost = std::max<std::size_t>(held, 1);
  ledger.addRecovered(lost);
  ledger.addDropped(module ? QVDropReason::kCacheFileUnreadable : QVDropReason::kUnknownModule,
                    lost);
}

std::shared_ptr<QVLifecycleObject> QVQueueService::moduleFromFilePath(
    const std::string& path) const {
  try {
    return QVCore::sharedInstance()->lifecycleObjectForName(QVQueueFileCache::moduleNameOf(path));
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return nullptr;
  }
}

std::optional<std::string> QVQueueService::recoverDataAtPath(const std::string& path) {
  return QVQueueFileCache::take(path);
}

void QVQueueService::flushBRVApplicationWillTerminateQueues() {
  for (const auto& [name, queue] : moduleQueues()) {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    auto* observer = dynamic_cast<QVAppTerminationObserver*>(module.get());
    if (!observer) continue;
    try {
      observer->brvAppWillTerminate();
    } catch (const std::exception& e) {
      noteSwallowed(__func__, e);
      // One module's failure does not keep the others from being told.
    }
  }
  try {
    flushQueues();
    // Waits for the post in flight to end; the posts after it start from
    // the callback thread on their own.
    for (auto connection = serverConnection(); connection && connection->isBusy();
         connection = serverConnection()) {
      QVRunLoop::current().runFor(std::chrono::milliseconds(100));
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
}

}  // namespace qv
