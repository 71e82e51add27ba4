// The flush cycle: the timer, cutting module queues onto the send list, and
// the chain of posts that the connection's outcomes drive.
#include <algorithm>
#include <exception>
#include <utility>

#include "core/QVDeliveryLedger.h"
#include "platform/host/QVSwallowed.h"
#include "queue/QVDataCompressionStream.h"
#include "queue/QVQueueServiceImpl.h"
#include "qvcore/config/QVConfigKeys.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVRepeatingTimer.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/platform/QVValue.h"
#include "qvcore/queue/QVDataCompression.h"
#include "qvcore/queue/QVQueueService.h"
#include "qvcore/queue/QVServerConnection.h"

namespace qv {

bool QVQueueService::startFlushTimer() {
  try {
    if (isManualPostingEnabled()) return true;
    auto config = QVConfigService::sharedInstance();
    if (!config->isDoPostOnIntervalsEnabled()) return false;
    const QVValue interval = config->getNumberItemForWithDefaultForModule(
        QVConfigKeys::kPostMessageTimeIntervals, 30, QVCore::sharedInstance());
    if (!QVValues::isNumber(interval)) return flushTimer() != nullptr;
    std::weak_ptr<QVQueueService> weak = weak_from_this();
    auto timer = QVRepeatingTimer::scheduledTimer(QVRunLoop::current(),
                                                  QVValues::doubleValue(interval), [weak] {
                                                    if (auto service = weak.lock())
                                                      service->asyncFlushQueues();
                                                  });
    // A timer held before is dropped without being invalidated: it keeps
    // firing, and only the newest one can be stopped.
    std::lock_guard lock(impl_->stateMutex);
    impl_->flushTimer = std::move(timer);
    return impl_->flushTimer != nullptr;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

void QVQueueService::stopFlushTimer() {
  std::shared_ptr<QVRepeatingTimer> timer;
  {
    std::lock_guard lock(impl_->stateMutex);
    timer = std::move(impl_->flushTimer);
  }
  if (timer) timer->invalidate();
}

void QVQueueService::asyncFlushQueues() {
  if (auto queue = flushDispatchQueue()) {
    queue->async([self = shared_from_this()] { self->flushQueues(); });
  }
}

void QVQueueService::flushQueues() {
  if (!flushDispatchQueue()) return;
  try {
    recoverSavedQueues();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // The files that were read are gone; the module queues are still sent.
  }
  try {
    for (const auto& [name, queue] : moduleQueues()) {
      if (!queue || queue->isEmpty()) continue;
      if (QVConfigService::sharedInstance()->isURLEncodedForModule(queue->module())) {
        flushURLQueue(queue);
      } else {
        flushQueue(queue);
      }
    }
    auto connection = serverConnection();
    if (impl_->hasQueuedPosts() && connection && !connection->isBusy()) continueFlush();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
}

std::shared_ptr<QVQueue> QVQueueService::Impl::cut(const std::shared_ptr<QVQueue>& queue) {
  if (!queue) return nullptr;
  std::lock_guard lock(cutMutex);
  // Checked again here: a flush beside this one may have cut it meanwhile.
  if (queue->isEmpty()) return nullptr;
  auto snapshot = QVQueue::initWithQueue(queue);
  queue->flush();
  return snapshot;
}

void QVQueueService::flushQueue(const std::shared_ptr<QVQueue>& queue) {
  try {
    if (auto snapshot = impl_->cut(queue)) impl_->appendToSendList(std::move(snapshot));
    if (!impl_->isConnectionBusy()) continueFlush();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
}

void QVQueueService::flushURLQueue(const std::shared_ptr<QVQueue>& queue) {
  try {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    if (!module) return;
    // Walking the snapshot, not the live queue, keeps the sessions made
    // after the cut for the next flush.
    const auto snapshot = impl_->cut(queue);
    if (!snapshot) return;
    for (const auto& [id, session] : snapshot->sessions()) {
      for (const auto& message : session->messages()) impl_->splitOff(message, module);
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
  }
}

void QVQueueService::Impl::splitOff(const std::shared_ptr<QVMessage>& message,
                                    const std::shared_ptr<QVLifecycleObject>& module) {
  std::string json;
  try {
    json = message->toJson();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // A module that cannot describe its message costs that message only.
    ledgerFor(module).addDropped(QVDropReason::kInvalidMessage, 1);
    return;
  }
  appendToSendList(QVQueue::initWithJSONAndModule(std::move(json), module));
  if (!isConnectionBusy()) owner.continueFlush();
}

void QVQueueService::continueFlush() {
  // A post that fails before it leaves (a request that cannot be built)
  // reports its outcome inside postHead, and that outcome comes back here:
  // as plain recursion, a long list of such posts would take one stack
  // frame chain per entry and overflow the thread's stack. So a call made
  // from inside another on the same thread only asks the outer one to go
  // on, and the outer one loops: the same posts in the same order, on a
  // stack of constant depth.
  struct Walk {
    const QVQueueService* service;
    bool goOn;
  };
  thread_local Walk* walking = nullptr;
  if (walking && walking->service == this) {
    walking->goOn = true;
    return;
  }
  Walk walk{this, true};
  struct Restore {
    Walk* outer;
    ~Restore() { walking = outer; }
  } restore{walking};
  walking = &walk;
  while (walk.goOn) {
    walk.goOn = false;
    impl_->offerHead();
  }
}

void QVQueueService::Impl::offerHead() {
  std::shared_ptr<QVQueue> head;
  {
    std::lock_guard lock(sendListMutex);
    // An offer made by another thread is still unresolved: its outcome goes
    // on from there. Without this, a flush and an outcome arriving together
    // would both offer a head and the loser would be failed by the busy
    // connection, and every queue after it with it.
    if (offering) return;
    if (!cachedQueues.empty()) {
      head = cachedQueues.front();
      offering = true;
    }
  }
  if (head) {
    if (!postHead(head)) releaseOffer();
    return;
  }
  ++completedFlushCycles;
  QVCore::sharedInstance()->flushCompleted();
}

void QVQueueService::flushCachedQueue(const std::shared_ptr<QVQueue>& queue) {
  impl_->postHead(queue);
}

bool QVQueueService::Impl::postHead(const std::shared_ptr<QVQueue>& queue) {
  try {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    const auto url = QVConfigService::sharedInstance()->getConfigItemForLifecycleObject(
        QVConfigKeys::kPostMessageUrl, module);
    // Without a URL the queue stays at the head, holding up every module's
    // queues behind it until the module gets one.
    if (!url || !url->is_string() || url->get_ref<const std::string&>().empty()) return false;
    auto connection = owner.serverConnection();
    if (!connection) return false;
    prepareCompressedBody(queue);
    connection->postQueueToURL(queue, url->get<std::string>());
    return true;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

void QVQueueService::Impl::releaseOffer() {
  std::lock_guard lock(sendListMutex);
  offering = false;
}

void QVQueueService::flushFinishedForQueue(const std::shared_ptr<QVQueue>& queue) {
  {
    std::lock_guard lock(impl_->sendListMutex);
    impl_->offering = false;
    SendList& list = impl_->cachedQueues;
    list.erase(std::remove(list.begin(), list.end(), queue), list.end());
  }
  continueFlush();
}

void QVQueueService::flushCompletedForQueue(const std::shared_ptr<QVQueue>& queue) {
  QVModuleLedger& ledger = Impl::ledgerFor(queue);
  ledger.addSent(Impl::messagesPosted(queue, ledger));
  flushFinishedForQueue(queue);
}

void QVQueueService::flushFailedForQueue(const std::shared_ptr<QVQueue>& queue) {
  QVModuleLedger& ledger = Impl::ledgerFor(queue);
  const uint64_t posted = Impl::messagesPosted(queue, ledger);
  ledger.addFailed(posted);
  // Not retried in this cycle: the file brings it back at the next flush.
  if (!QVConfigService::sharedInstance()->isHasToPersistLocalCacheEnabled()) {
    ledger.addDropped(QVDropReason::kCachingOff, posted);
  } else if (saveQueueToFile(queue)) {
    ledger.addCached(posted);
  } else {
    ledger.addDropped(QVDropReason::kCacheWriteFailed, posted);
  }
  flushFinishedForQueue(queue);
}

void QVQueueService::flushRejectedForQueue(const std::shared_ptr<QVQueue>& queue,
                                           const std::string& reason) {
  const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
  QVLog::log("QVCore: dropped a post of module " + (module ? module->className() : "(gone)") +
             " that can never be sent: " + reason);
  QVModuleLedger& ledger = Impl::ledgerFor(queue);
  ledger.addDropped(QVDropReason::kRequestNotBuildable, Impl::messagesPosted(queue, ledger));
  flushFinishedForQueue(queue);
}

uint64_t QVQueueService::Impl::messagesPosted(const std::shared_ptr<QVQueue>& queue,
                                              QVModuleLedger& ledger) {
  if (!queue) return 0;
  const std::size_t carried = queue->messageCount();
  const std::size_t posted = std::min(queue->messagesInPayload(), carried);
  if (posted < carried) {
    ledger.addDropped(QVDropReason::kInvalidMessage, carried - posted);
  }
  return posted;
}

std::shared_ptr<QVMutableURLRequest> QVQueueService::beforeFlushingRequestForQueue(
    const std::shared_ptr<QVMutableURLRequest>& request, const std::shared_ptr<QVQueue>& queue) {
  if (!request || !QVConfigService::sharedInstance()->isCompressPostMessageEnabled()) {
    return request;
  }
  const auto body = request->HTTPBody();
  if (!body || body->empty()) return request;
  auto compressed = impl_->takeCompressedBody(queue, *body);
  if (!compressed) compressed = QVDataCompression::compressData(body);
  // A failed compression hands back the body itself, which is not shorter.
  if (compressed && !compressed->empty() && compressed->size() < body->size()) {
    request->setHTTPBody(compressed);
    request->setValueForHTTPHeaderField(std::to_string(compressed->size()), "Content-Length");
    request->setValueForHTTPHeaderField("gzip", "Content-Encoding");
  }
  return request;
}

// Writing a large payload and deflating it take about as long each; done one
// after the other they nearly double a flush, done side by side the flush
// takes about the longer of the two. The bytes are those compressData
// would give for the body: the same text, the same stream parameters.
void QVQueueService::Impl::prepareCompressedBody(const std::shared_ptr<QVQueue>& queue) {
  {
    std::lock_guard lock(compressedMutex);
    compressed = {};
  }
  const auto config = QVConfigService::sharedInstance();
  if (!config->isCompressPostMessageEnabled() || config->isURLEncodedForModule(queue->module())) {
    return;
  }
  QVDataCompressionStream stream;
  std::string text = queue->toJson(&stream);
  // A short text lies inside the string object and moves away from its
  // address; it is compressed with the request, as any other.
  if (text.size() < QVDataCompressionStream::kChunk) {
    queue->keepPayload(std::move(text));
    return;
  }
  auto deflated = stream.finish(text);
  // A heap block moves with its text: the address stays the body's.
  CompressedBody kept{queue.get(), text.data(), text.size(), std::move(deflated)};
  queue->keepPayload(std::move(text));
  std::lock_guard lock(compressedMutex);
  compressed = std::move(kept);
}

std::shared_ptr<const std::string> QVQueueService::Impl::takeCompressedBody(
    const std::shared_ptr<QVQueue>& queue, const std::string& body) {
  CompressedBody kept;
  {
    std::lock_guard lock(compressedMutex);
    kept = std::exchange(compressed, {});
  }
  // The connection moved the very text into the request: the same bytes at
  // the same address. A module that replaced the body gets it compressed
  // anew.
  if (kept.queue != queue.get() || kept.bytes != body.data() || kept.size != body.size()) {
    return nullptr;
  }
  return std::move(kept.compressed);
}

void QVQueueService::Impl::appendToSendList(std::shared_ptr<QVQueue> queue) {
  if (!queue) return;
  std::lock_guard lock(sendListMutex);
  cachedQueues.push_back(std::move(queue));
}

bool QVQueueService::Impl::hasQueuedPosts() const {
  std::lock_guard lock(sendListMutex);
  return !cachedQueues.empty();
}

bool QVQueueService::Impl::isConnectionBusy() const {
  auto connection = owner.serverConnection();
  return connection && connection->isBusy();
}

}  // namespace qv
