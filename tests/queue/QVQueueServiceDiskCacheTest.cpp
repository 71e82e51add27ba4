// The files of unsent queues and the terminate path, over a fake HTTP session
// and real files in a temporary data folder.
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>

#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using test::namesIn;
using test::Offsets;
using test::offsetsIn;

mode_t permissionsOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class TerminatingModule : public test::QVTestModule, public QVAppTerminationObserver {
 public:
  using QVTestModule::QVTestModule;
  void brvAppWillTerminate() override { onTerminate(); }
  std::function<void()> onTerminate;
};

class QVQueueServiceDiskCacheTest : public test::QVQueueServiceTestBase {
 protected:
  ~QVQueueServiceDiskCacheTest() override { ::umask(mask_); }
  std::string cacheFolder() const { return service->cachedQueuesDirectory(); }
  std::string cache(const std::string& name, const std::string& text) {
    return folder.write("home/Documents/QVCoreCachedQueues/" + name, text);
  }

  const mode_t mask_ = ::umask(0);  // modes must not depend on the umask
};

TEST_F(QVQueueServiceDiskCacheTest, AFailedQueueIsCachedPrivatelyAndSentFirstAtTheNextFlush) {
  auto alpha = defineModule("Alpha");
  ASSERT_TRUE(service->enable());
  EXPECT_EQ(permissionsOf(QVFileSystem::documentsDirectory()), 0700u);
  EXPECT_EQ(permissionsOf(cacheFolder()), 0700u);
  post(alpha, 1);
  service->flushQueues();
  session->completeWithStatus(0, 500);
  const auto names = namesIn(cacheFolder());
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(Alpha_\d+\.\d{6}\.json)"))) << names[0];
  const std::string file = cacheFolder() + "/" + names[0];
  const std::string saved = QVFileSystem::contentsAtPath(file, 1 << 20).value_or("");
  EXPECT_EQ(offsetsIn(saved), Offsets{1});
  EXPECT_EQ(permissionsOf(file), 0600u);

  post(defineModule("Beta"), 2);
  service->flushQueues();
  ASSERT_EQ(session->taskCount(), 2u);
  EXPECT_EQ(body(1), saved) << "sent as saved, before the module queues";
  EXPECT_TRUE(namesIn(cacheFolder()).empty());
  setItems("QVCore", {{"HasToPersistLocalCache", false}});
  session->completeWithStatus(1, 404);
  session->completeWithStatus(2, 404);
  EXPECT_TRUE(namesIn(cacheFolder()).empty()) << "not persisted when switched off";
}

std::string queueText(int serialNumber) {
  return R"({"messageVersion":"6.0.0.0","serialNumber":)" + std::to_string(serialNumber) +
         R"(,"sessions":[]})";
}

TEST_F(QVQueueServiceDiskCacheTest, RecoveryDeletesEveryFileAndKeepsOnlyQueuesOfKnownModules) {
  auto alpha = defineModule("Alpha");
  auto url = defineModule(
      "Url", QVValue{{"PostMessageUrl", "http://collector.test/u"}, {"URLEncoded", true}});
  service->recoverSavedQueues();
  EXPECT_FALSE(QVFileSystem::fileExistsAtPath(cacheFolder())) << "no folder: nothing happens";
  EXPECT_FALSE(service->saveQueueToFile(QVQueue::initWithJSONAndModule("{}", alpha)));

  ASSERT_TRUE(service->createCachedQueueFolder());
  // Not UTF-8, no module name, an unknown module, and (from Alpha_4) not what
  // the service writes: never posted. A URL-encoded module leaves one message
  // a post.
  const std::pair<const char*, std::string> files[] = {
      {"Alpha_2", queueText(2)},      {"Alpha_1", queueText(1)},
      {"Alpha_3", "\xff\xfe"},        {"queue", queueText(9)},
      {"Ghost_1", queueText(9)},      {"Alpha_4", R"({"n":4})"},
      {"Alpha_5", "[1,2]"},           {"Alpha_6", "plain text"},
      {"Alpha_7", R"({"offset":7})"}, {"Alpha_8", queueText(8) + "}"},
      {"Url_1", R"({"offset":1})"},   {"Url_2", R"({"n":2})"}};
  for (const auto& [name, text] : files) cache(name + std::string(".000000.json"), text);
  service->recoverSavedQueues();
  EXPECT_TRUE(namesIn(cacheFolder()).empty());
  std::vector<std::string> recovered;
  for (const auto& queue : service->cachedQueues()) recovered.push_back(queue->toJson());
  EXPECT_EQ(recovered, (std::vector<std::string>{queueText(1), queueText(2), R"({"offset":1})"}));
  EXPECT_EQ(service->cachedQueues().at(1)->module(), alpha);
  EXPECT_EQ(service->cachedQueues().at(2)->module(), url);
}

// Only the folder's own regular files are read, posted or deleted.
TEST_F(QVQueueServiceDiskCacheTest, RecoveryNeverFollowsALinkNorTouchesSpecialOrHugeEntries) {
  auto alpha = defineModule("Alpha");
  const std::string outside = folder.write("outside/Alpha_1.000000.json", queueText(1));
  folder.write("outside/inner/Alpha_2.000000.json", queueText(2));
  // The cache folder is a link to a folder elsewhere: nothing there is
  // read, deleted or written.
  folder.makeFolder("home/Documents");
  std::filesystem::create_directory_symlink(folder.at("outside"), cacheFolder());
  service->recoverSavedQueues();
  EXPECT_FALSE(service->saveQueueToFile(QVQueue::initWithJSONAndModule(queueText(3), alpha)));
  EXPECT_TRUE(service->cachedQueues().empty());
  EXPECT_EQ(namesIn(folder.at("outside")),
            (std::vector<std::string>{"Alpha_1.000000.json", "inner"}));
  EXPECT_TRUE(QVFileSystem::isFileAtPath(folder.at("outside/inner/Alpha_2.000000.json")));

  std::filesystem::remove(cacheFolder());
  ASSERT_TRUE(service->createCachedQueueFolder());
  const std::string cache = cacheFolder() + "/";
  std::filesystem::create_symlink(outside, cache + "Alpha_1.000000.json");
  ASSERT_EQ(::mkfifo((cache + "Alpha_2.000000.json").c_str(), 0600), 0);
  cache("Alpha_3.000000.json/Alpha_4.000000.json", queueText(4));
  // Too large to be a queue, though its text would pass: deleted unread.
  std::string huge = queueText(5);
  huge.resize((65u << 20), ' ');
  cache("Alpha_5.000000.json", huge);
  huge.clear();
  cache("Alpha_6.000000.json", queueText(6));
  service->recoverSavedQueues();

  const auto recovered = service->cachedQueues();
  ASSERT_EQ(recovered.size(), 1u);
  EXPECT_EQ(recovered[0]->toJson(), queueText(6));
  EXPECT_EQ(namesIn(cacheFolder()),
            (std::vector<std::string>{"Alpha_2.000000.json", "Alpha_3.000000.json"}))
      << "the link is gone, the FIFO and the folder stay";
  EXPECT_EQ(QVFileSystem::contentsAtPath(outside, 1 << 10), queueText(1)) << "the target stays";
  EXPECT_TRUE(QVFileSystem::isFileAtPath(cache + "Alpha_3.000000.json/Alpha_4.000000.json"));
}

// A payload that can never become a request is dropped with a log line; a
// post that fails for a reason that may pass is kept for the next flush.
TEST_F(QVQueueServiceDiskCacheTest, AnUnbuildablePayloadIsDroppedAndLoggedNotCached) {
  std::vector<std::string> lines;
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  auto url = defineModule(
      "Url", QVValue{{"PostMessageUrl", "http://collector.test/u"}, {"URLEncoded", true}});
  // The module may fix its URL at run time: a space in it is not final.
  auto spaced = defineModule(
      "Spaced", QVValue{{"PostMessageUrl", "http://collector.test/a b"}, {"URLEncoded", true}});
  ASSERT_TRUE(service->enable());
  for (const char* text : {"[1,2]", "not JSON", "{}"}) {
    service->flushCachedQueue(QVQueue::initWithJSONAndModule(text, url));
  }
  EXPECT_TRUE(namesIn(cacheFolder()).empty()) << "never cached";
  EXPECT_EQ(session->taskCount(), 0u);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("Url"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("not a JSON dictionary"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("not JSON"), std::string::npos) << lines[1];

  service->flushCachedQueue(QVQueue::initWithJSONAndModule(R"({"offset":1})", spaced));
  EXPECT_EQ(namesIn(cacheFolder()).size(), 1u) << "kept for the next flush";
  EXPECT_EQ(lines.size(), 3u);
  QVLog::setSink(nullptr);
}

TEST_F(QVQueueServiceDiskCacheTest,
       TerminatePathTellsModulesThenReturnsOnlyOnceTheConnectionIdles) {
  auto failing = defineModule<TerminatingModule>("Failing");
  auto telling = defineModule<TerminatingModule>("Telling");
  failing->onTerminate = [] { throw std::runtime_error("one module's failure"); };
  telling->onTerminate = [&] { post(telling, 2); };  // saved when told: in this flush
  ASSERT_TRUE(service->enable());
  service->flushBRVApplicationWillTerminateQueues();  // nothing in flight: returns at once

  post(failing, 0);
  service->moduleQueues().at("Failing")->flush();
  post(telling, 1);
  // Runs only if the terminate path turns the main loop while it waits.
  QVRunLoop::main().post([&] { session->completeWithStatus(0, 200); });
  service->flushBRVApplicationWillTerminateQueues();
  ASSERT_EQ(session->taskCount(), 1u);
  EXPECT_EQ(offsetsIn(body(0)), (Offsets{1, 2}));
  EXPECT_FALSE(service->serverConnection()->isBusy());
}

}  // namespace
}  // namespace qv
