#include "queue/QVQueueFileCache.h"

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "platform/value/QVUtf8.h"
#include "qvcore/platform/QVFileSystem.h"

namespace qv {

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

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

std::string QVQueueFileCache::folder() {
  return QVFileSystem::stringByAppendingPathComponent(QVFileSystem::documentsDirectory(),
                                                      "QVCoreCachedQueues");
}

bool QVQueueFileCache::createFolder() {
  const std::string cache = folder();
  if (QVFileSystem::isDirectoryAtPath(cache)) return true;
  // A phone's platform guarantees the documents folder; a Linux data folder
  // may not exist yet, so it is made here, private like everything below it.
  const std::string documents = QVFileSystem::stringByDeletingLastPathComponent(cache);
  if (!documents.empty() && !QVFileSystem::createDirectoryAtPath(documents, kFolderMode)) {
    return false;
  }
  // Its parent exists now, so only the cache folder itself is made.
  return QVFileSystem::createDirectoryAtPath(cache, kFolderMode);
}

bool QVQueueFileCache::write(const std::string& moduleName, const std::string& text) {
  const std::string cache = folder();
  // The read-back never looks through a link, so nothing is written there.
  if (!QVFileSystem::isDirectoryNoFollowAtPath(cache)) return false;
  const std::string name = moduleName + "_" + timeStamp() + ".json";
  const std::string path = QVFileSystem::stringByAppendingPathComponent(cache, name);
  std::lock_guard lock(mutex_);
  return QVFileSystem::writeAtomically(path, text, kFileMode);
}

std::vector<QVQueueFileCache::File> QVQueueFileCache::takeAll() {
  const std::string cache = folder();
  std::vector<File> files;
  // Listed and emptied in one step, so that a write finishing meanwhile is
  // either read whole or left for the next read-back. A link in place of the
  // folder is not listed: what it points at is not the service's.
  std::lock_guard lock(mutex_);
  const auto entries = QVFileSystem::entriesOfFolderNoFollow(cache);
  if (!entries) return files;
  for (const auto& entry : *entries) {
    const std::string path = QVFileSystem::stringByAppendingPathComponent(cache, entry.name);
    if (entry.kind == QVFileSystem::EntryKind::kSymbolicLink) {
      // The service never writes one: the link goes, its target stays.
      QVFileSystem::removeFileNoFollow(path);
    } else if (entry.kind == QVFileSystem::EntryKind::kRegularFile) {
      files.push_back({entry.name, take(path)});
    }
  }
  return files;
}

std::optional<std::string> QVQueueFileCache::take(const std::string& path) {
  std::optional<std::string> text = QVFileSystem::contentsAtPathNoFollow(path, kMaxFileBytes);
  if (text && !isPlistSafeUtf8(*text)) text.reset();
  QVFileSystem::removeFileNoFollow(path);
  return text;
}

std::string QVQueueFileCache::moduleNameOf(const std::string& path) {
  const std::string name = lastPathComponent(path);
  return name.substr(0, name.find('_'));
}

}  // namespace qv
