// Feeds arbitrary bytes to the queue service as the files of unsent queues
// ("<module>_<time>.json" in the cache folder), for a module posting JSON
// (compressed) and one posting URL-encoded GETs, and fails both posts so that
// the queues are written back. Besides not crashing, hanging or leaking:
// only UTF-8 text is ever read back, a file read back for the JSON module is
// sent exactly as it was stored and stored again unchanged, and whatever is
// stored again is the text as it was read (a URL-encoded payload that can
// never make a request may be dropped instead).

#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/value/QVUtf8.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVHttpSession.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVFakeHttpSession.h"
#include "support/QVGzip.h"
#include "support/QVTestModule.h"

namespace {

namespace fs = std::filesystem;
using qv::test::QVFakeHttpSession;

// Sorted, so the JSON module's file is read, and posted, first.
constexpr const char* kJsonModule = "FuzzJSON";
constexpr const char* kUrlModule = "FuzzURL";

// A data folder in memory when there is one: the cache writes are synced.
std::string makeHome() {
  for (const char* parent : {"/dev/shm", "/tmp"}) {
    std::string pattern = std::string(parent) + "/qvcore-fuzz-cache.XXXXXX";
    if (::mkdtemp(pattern.data())) return pattern;
  }
  __builtin_trap();
}

struct Setup {
  std::string home = makeHome();
  std::shared_ptr<qv::QVQueueService> service = qv::QVQueueService::sharedInstance();

  Setup() {
    qv::QVFileSystem::setHomeDirectory(home);
    qv::test::QVTestModule::define(kJsonModule);
    qv::test::QVTestModule::define(kUrlModule);
    auto items = [](qv::QVValue value) { return std::make_shared<qv::QVValue>(std::move(value)); };
    qv::QVConfigService::sharedInstance()->setConfigurations(
        {{"QVCore", items({{"CompressPostMessage", true}, {"HasToPersistLocalCache", true}})},
         {kJsonModule, items({{"PostMessageUrl", "http://127.0.0.1:9/json"}})},
         {kUrlModule,
          items({{"PostMessageUrl", "http://127.0.0.1:9/url"}, {"URLEncoded", true}})}});
    qv::QVHttpSession::setShared(std::make_shared<QVFakeHttpSession>());
    if (!service->enable()) __builtin_trap();
    ::atexit([] {
      std::error_code ec;
      fs::remove_all(qv::QVFileSystem::homeDirectory(), ec);
    });
  }

  std::string folder() const { return service->cachedQueuesDirectory(); }

  void writeFile(const std::string& module, const std::string& bytes) const {
    std::ofstream(folder() + "/" + module + "_1.000000.json", std::ios::binary) << bytes;
  }

  // The files of the cache folder, removed, in name order.
  std::vector<std::pair<std::string, std::string>> takeFiles() const {
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto& entry : fs::directory_iterator(folder())) {
      const std::string path = entry.path().string();
      files.emplace_back(entry.path().filename().string(),
                         qv::QVFileSystem::contentsAtPath(path, SIZE_MAX).value_or(""));
      fs::remove(path);
    }
    std::sort(files.begin(), files.end());
    return files;
  }
};

// The JSON post carries the stored text, gzipped or as it is.
void checkJsonPost(const QVFakeHttpSession::Task& task, const std::string& text) {
  if (!task.upload || !task.body) __builtin_trap();
  const bool gzipped = task.request.valueForHTTPHeaderField("Content-Encoding") == "gzip";
  const std::optional<std::string> sent = gzipped ? qv::test::gunzip(*task.body) : *task.body;
  if (sent != text) __builtin_trap();
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// What is stored again is the text unchanged, once a module at most; the
// JSON module's file comes back exactly when it was read back and sent.
void checkStoredAgain(const std::vector<std::pair<std::string, std::string>>& files,
                      const std::string& text, bool jsonSent) {
  size_t json = 0;
  size_t url = 0;
  for (const auto& [name, stored] : files) {
    if (stored != text) __builtin_trap();
    json += startsWith(name, std::string(kJsonModule) + "_");
    url += startsWith(name, std::string(kUrlModule) + "_");
  }
  if (json + url != files.size() || url > 1 || json != (jsonSent ? 1u : 0u)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Setup setup;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  auto session = std::make_shared<QVFakeHttpSession>();
  qv::QVHttpSession::setShared(session);
  setup.writeFile(kJsonModule, bytes);
  setup.writeFile(kUrlModule, bytes);

  setup.service->flushQueues();
  if (!qv::isPlistSafeUtf8(bytes)) {
    // Unreadable files are dropped, and nothing is sent.
    if (session->taskCount() != 0 || !setup.takeFiles().empty()) __builtin_trap();
    return 0;
  }
  // A text that is not shaped like a queue the service wrote is dropped
  // unsent; the JSON module's, if read back, is posted first.
  const bool jsonSent = session->taskCount() >= 1 && session->task(0).upload;
  if (jsonSent) {
    checkJsonPost(session->task(0), bytes);
    session->completeWithStatus(0, 500);
  }
  // Then the URL-encoded one, a GET, or dropped or failed at once.
  const size_t getAt = jsonSent ? 1 : 0;
  if (session->taskCount() == getAt + 1) {
    if (session->task(getAt).upload) __builtin_trap();
    session->completeWithStatus(getAt, 500);
  }
  if (session->taskCount() > getAt + 1 || !setup.service->cachedQueues().empty()) {
    __builtin_trap();
  }
  checkStoredAgain(setup.takeFiles(), bytes, jsonSent);
  return 0;
}
