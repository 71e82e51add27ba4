#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "queue/QVQueueFileCache.h"
#include "qvcore/queue/QVQueueService.h"

namespace qv {

class QVMessage;
class QVModuleLedger;
class QVMutableURLRequest;

// The service's private state and helpers, shared by the files that
// implement it. Helpers that go on with the flush cycle reach the service
// through owner.
struct QVQueueService::Impl {
  explicit Impl(QVQueueService& service) : owner(service) {}

  // ---- posting path -------------------------------------------------------

  // The queue of the module's class, made and filed on first use, and the
  // module's ledger; both valid for the life of the process.
  std::pair<QVQueue*, QVModuleLedger*> moduleQueueFor(
      const std::shared_ptr<QVLifecycleObject>& module);
  std::shared_ptr<QVQueue> filedQueueFor(const std::string& name,
                                         std::shared_ptr<QVLifecycleObject> module);

  // ---- flush cycle --------------------------------------------------------

  // The snapshot to send, taken and cut from the live queue in one step;
  // null when the queue holds no session.
  std::shared_ptr<QVQueue> cut(const std::shared_ptr<QVQueue>& queue);
  void appendToSendList(std::shared_ptr<QVQueue> queue);
  // Puts one message of a URL-encoded module on the send list as its own
  // entry; a message its module cannot describe is dropped and counted.
  void splitOff(const std::shared_ptr<QVMessage>& message,
                const std::shared_ptr<QVLifecycleObject>& module);
  bool hasQueuedPosts() const;
  // Whether a connection exists and has a post in flight.
  bool isConnectionBusy() const;
  // One step of continueFlush: posts the head, or reports the end of the
  // cycle when the list is empty.
  void offerHead();
  // Hands the queue to the connection; false when it was not handed over
  // (no URL, no connection, a failure before the post).
  bool postHead(const std::shared_ptr<QVQueue>& queue);
  void releaseOffer();
  // With compression on, writes the queue's JSON body while compressing it
  // on a second thread, and keeps both for the request the connection is
  // about to build (see beforeFlushingRequestForQueue).
  void prepareCompressedBody(const std::shared_ptr<QVQueue>& queue);
  // The compressed form kept for this body of this queue, taken; null when
  // none was kept for it.
  std::shared_ptr<const std::string> takeCompressedBody(const std::shared_ptr<QVQueue>& queue,
                                                        const std::string& body);

  // ---- ledger -------------------------------------------------------------

  // How many of the queue's messages its post carried; those its payload
  // left out are counted as dropped in ledger, the queue's module's.
  static uint64_t messagesPosted(const std::shared_ptr<QVQueue>& queue, QVModuleLedger& ledger);
  static std::string ledgerName(const std::shared_ptr<QVQueue>& queue);
  static QVModuleLedger& ledgerFor(const std::shared_ptr<QVQueue>& queue);
  static QVModuleLedger& ledgerFor(const std::shared_ptr<QVLifecycleObject>& module);

  // ---- disk cache ---------------------------------------------------------

  // Reads one listed cache file back onto the send list, counting what it
  // held as recovered, and as dropped when it cannot be posted.
  void recoverFile(const std::string& name, std::optional<std::string> text);

  // ---- state --------------------------------------------------------------

  QVQueueService& owner;

  std::atomic<bool> enabled{false};
  std::atomic<uint64_t> completedFlushCycles{0};
  std::atomic<uint64_t> maxPostsPerActivationCounter{0};
  std::atomic<uint64_t> maxBytesPerActivationCounter{0};
  std::atomic<uint64_t> configItemMaxPostsPerActivationCounter{0};
  std::atomic<uint64_t> configItemMaxBytesPerActivationCounter{0};

  mutable std::mutex stateMutex;
  std::shared_ptr<QVServerConnection> serverConnection;
  std::shared_ptr<QVRepeatingTimer> flushTimer;
  std::shared_ptr<QVSerialQueue> flushQueue;

  // Only grows, and a queue filed is never replaced: posting threads keep
  // the queues' addresses and find them again without the lock.
  mutable std::mutex queuesMutex;
  ModuleQueues moduleQueues;

  // Guards the send list and offering: true from the moment continueFlush
  // hands the head to the connection until that post's outcome arrives, so
  // that a flush and an outcome running at the same moment never offer two
  // heads at once.
  mutable std::mutex sendListMutex;
  SendList cachedQueues;
  bool offering = false;

  // Makes snapshot-and-flush of a module queue one step, for the terminate
  // path's flush that may run beside the dispatch queue's.
  std::mutex cutMutex;

  // The body prepareCompressedBody wrote, known by its queue and by the
  // address and length of its bytes, which the connection moves into the
  // request unchanged; and its compressed form.
  struct CompressedBody {
    const QVQueue* queue = nullptr;
    const char* bytes = nullptr;
    std::size_t size = 0;
    std::shared_ptr<const std::string> compressed;
  };
  std::mutex compressedMutex;
  CompressedBody compressed;

  QVQueueFileCache fileCache;
};

}  // namespace qv
