// The files of unsent queues, and the terminate path that gives the last
// posts time to end.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/QVUtf8.h"
#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"
#include "qvcore/queue/QVServerConnection.h"

namespace qv {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

// Seconds since 1970 with six decimals, as the file name carries them.
std::string timeStamp() {
  using namespace std::chrono;
  const auto micros = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
  char text[64];
  std::snprintf(text, sizeof text, "%f", static_cast<double>(micros) / 1e6);
  return text;
}

std::string lastPathComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The entries of folder in name order; none when it cannot be listed.
std::optional<std::vector<std::string>> entryNames(const std::string& folder) {
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return std::nullopt;
  std::vector<std::string> names;
  for (const fs::directory_iterator end; it != end; it.increment(ec)) {
    if (ec) break;
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
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

bool QVQueueService::saveQueueToFile(const std::shared_ptr<QVQueue>& queue) {
  try {
    const std::shared_ptr<QVLifecycleObject> module = queue ? queue->module() : nullptr;
    if (!module) return false;
    const std::string json = queue->toJson();
    if (json.empty()) return false;
    const std::string name = module->className() + "_" + timeStamp() + ".json";
    const std::string path =
        QVFileSystem::stringByAppendingPathComponent(cachedQueuesDirectory(), name);
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
    // is either read whole or left for the next flush.
    std::lock_guard lock(cacheMutex_);
    const auto names = entryNames(folder);
    if (!names) return;
    for (const auto& name : *names) {
      files.emplace_back(
          name, recoverDataAtPath(QVFileSystem::stringByAppendingPathComponent(folder, name)));
    }
  }
  // Files of unknown modules, or unreadable ones, are gone already: dropped.
  for (auto& [name, text] : files) {
    auto module = moduleFromFilePath(name);
    if (module && text) appendToSendList(QVQueue::initWithJSONAndModule(std::move(*text), module));
  }
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
  std::optional<std::string> text =
      QVFileSystem::contentsAtPath(path, std::numeric_limits<std::size_t>::max());
  if (text && !isPlistSafeUtf8(*text)) text.reset();
  std::error_code ec;
  fs::remove_all(path, ec);
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
