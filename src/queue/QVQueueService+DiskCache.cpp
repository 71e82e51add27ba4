// The files of unsent queues, and the terminate path that gives the last
// posts time to end.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/QVDeliveryLedger.h"
#include "platform/QVUtf8.h"
#include "queue/QVCacheFileCheck.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"
#include "qvcore/queue/QVServerConnection.h"

namespace qv {

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

// A file larger than this is no queue the service wrote: dropped unread.
constexpr std::size_t kMaxCacheFileBytes = 64u << 20;

// Seconds since 1970 with six decimals, as the file name carries them. Each
// call gets a later microsecond than the one before, so that two failures
// within one microsecond never share a name and the second file never
// replaces the first.
std::string timeStamp() {
  using namespace std::chrono;
  static std::atomic<int64_t> last{0};
  const int64_t now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
  int64_t previous = last.load();
  int64_t micros = 0;
  do {
    micros = std::max(now, previous + 1);
  } while (!last.compare_exchange_weak(previous, micros));
  char text[64];
  std::snprintf(text, sizeof text, "%f", static_cast<double>(micros) / 1e6);
  return text;
}

std::string lastPathComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string QVQueueService::cachedQueuesDirectory() const {
  return QVFileSystem::stringByAppendingPathComponent(QVFileSystem::documentsDirectory(),
                                                      "QVCoreCachedQueues");
}

bool QVQueueService::createCachedQueueFolder() {
  const std::string folder = cachedQueuesDirectory();
  if (QVFileSystem::isDirectoryAtPath(folder)) return true;
  // A phone's platform guarantees the documents folder; a Linux data folder
  // may not exist yet, so it is made here, private like everything below it.
  const std::string documents = QVFileSystem::stringByDeletingLastPathComponent(folder);
  if (!documents.empty() && !QVFileSystem::createDirectoryAtPath(documents, kFolderMode)) {
    return false;
  }
  // Its parent exists now, so only the cache folder itself is made.
  return QVFileSystem::createDirectoryAtPath(folder, kFolderMode);
}

bool QVQueueService::saveModuleQueueToFile(const std::shared_ptr<QVQueue>& queue) {
  const std::shared_ptr<QVQueue> snapshot = cut(queue);
  if (!snapshot) return false;
  if (saveQueueToFile(snapshot)) {
    ledgerFor(snapshot).addCached(messagesPosted(snapshot));
    return true;
  }
  appendToSendList(snapshot);
  return false;
}

bool QVQueueService::saveQueueToFile(const std::shared_ptr<QVQueue>& queue) {
  try {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    if (!module) return false;
    const std::string json = queue->toJson();
    if (json.empty()) return false;
    const std::string folder = cachedQueuesDirectory();
    if (!QVFileSystem::isDirectoryNoFollowAtPath(folder)) return false;
    const std::string name = module->className() + "_" + timeStamp() + ".json";
    const std::string path = QVFileSystem::stringByAppendingPathComponent(folder, name);
    std::lock_guard lock(cacheMutex_);
    return QVFileSystem::writeAtomically(path, json, kFileMode);
  } catch (const std::exception&) {
    return false;
  }
}

void QVQueueService::recoverSavedQueues() {
  const std::string folder = cachedQueuesDirectory();
  std::vector<std::pair<std::string, std::optional<std::string>>> files;
  {
    // Listed and emptied in one step, so that a write finishing meanwhile
    // is either read whole or left for the next flush. A link in place of
    // the folder is not listed: what it points at is not the service's.
    std::lock_guard lock(cacheMutex_);
    const auto entries = QVFileSystem::entriesOfFolderNoFollow(folder);
    if (!entries) return;
    for (const auto& entry : *entries) {
      const std::string path = QVFileSystem::stringByAppendingPathComponent(folder, entry.name);
      if (entry.kind == QVFileSystem::EntryKind::kSymbolicLink) {
        // The service never writes one: the link goes, its target stays.
        QVFileSystem::removeFileNoFollow(path);
      } else if (entry.kind == QVFileSystem::EntryKind::kRegularFile) {
        files.emplace_back(entry.name, recoverDataAtPath(path));
      }
      // Folders, FIFOs and devices are not the service's to read or delete.
    }
  }
  for (auto& [name, text] : files) recoverFile(name, std::move(text));
}

// Files of unknown modules, unreadable ones, and texts that are not what
// saveQueueToFile writes are gone already: dropped, never posted. Each is
// counted under the module its name gives, as recovered and dropped, so
// that the ledger balances whichever process cached it.
void QVQueueService::recoverFile(const std::string& name, std::optional<std::string> text) {
  const auto module = moduleFromFilePath(name);
  const std::optional<std::size_t> messages =
      text && module ? cachedQueueMessageCount(
                           *text, QVConfigService::sharedInstance()->isURLEncodedForModule(module))
                     : std::nullopt;
  const std::string ledgerName = module ? module->className() : name.substr(0, name.find('_'));
  QVModuleLedger& ledger = QVDeliveryLedger::shared().module(ledgerName);
  if (!messages) {
    // What a file that is no queue held cannot be known: it counts as one.
    std::optional<std::size_t> found;
    if (text) found = cachedQueueMessageCount(*text, true);
    const uint64_t lost = std::max<std::size_t>(found.value_or(1), 1);
    ledger.addRecovered(lost);
    ledger.addDropped(module ? QVDropReason::kCacheFileUnreadable : QVDropReason::kUnknownModule,
                      lost);
    return;
  }
  ledger.addRecovered(*messages);
  appendToSendList(QVQueue::initWithJSONAndModule(std::move(*text), module, *messages));
}

std::shared_ptr<QVLifecycleObject> QVQueueService::moduleFromFilePath(
    const std::string& path) const {
  try {
    const std::string name = lastPathComponent(path);
    return QVCore::sharedInstance()->lifecycleObjectForName(name.substr(0, name.find('_')));
  } catch (const std::exception&) {
    return nullptr;
  }
}

std::optional<std::string> QVQueueService::recoverDataAtPath(const std::string& path) {
  std::optional<std::string> text = QVFileSystem::contentsAtPathNoFollow(path, kMaxCacheFileBytes);
  if (text && !isPlistSafeUtf8(*text)) text.reset();
  QVFileSystem::removeFileNoFollow(path);
  return text;
}

void QVQueueService::flushBRVApplicationWillTerminateQueues() {
  for (const auto& [name, queue] : moduleQueues()) {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    auto* observer = dynamic_cast<QVAppTerminationObserver*>(module.get());
    if (!observer) continue;
    try {
      observer->brvAppWillTerminate();
    } catch (const std::exception&) {
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
  } catch (const std::exception&) {
  }
}

}  // namespace qv
