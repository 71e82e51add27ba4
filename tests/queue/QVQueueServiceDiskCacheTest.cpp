// The files of unsent queues and the terminate path, over a fake HTTP session
// and real files in a temporary data folder.
#include <sys/stat.h>

#include <functional>
#include <map>
#include <regex>
#include <stdexcept>

#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/model/QVQueue.h"
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
  // Modes must not depend on the umask.
  void SetUp() override {
    QVQueueServiceTestBase::SetUp();
    previousMask_ = ::umask(0);
  }
  void TearDown() override {
    ::umask(previousMask_);
    QVQueueServiceTestBase::TearDown();
  }
  std::string cacheFolder() const { return service->cachedQueuesDirectory(); }

 private:
  mode_t previousMask_ = 0;
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

TEST_F(QVQueueServiceDiskCacheTest, RecoveryDeletesEveryFileAndKeepsThoseOfKnownModules) {
  auto alpha = defineModule("Alpha");
  service->recoverSavedQueues();
  EXPECT_FALSE(QVFileSystem::fileExistsAtPath(cacheFolder())) << "no folder: nothing happens";
  EXPECT_FALSE(service->saveQueueToFile(QVQueue::initWithJSONAndModule("{}", alpha)));

  ASSERT_TRUE(service->createCachedQueueFolder());
  for (const auto& [name, text] :
       std::map<std::string, std::string>{{"Alpha_2.000000.json", R"({"n":2})"},
                                          {"Alpha_1.000000.json", R"({"n":1})"},
                                          {"Alpha_3.000000.json", "\xff\xfe"},  // not UTF-8
                                          {"queue.json", "{}"},
                                          {"Ghost_1.000000.json", "{}"}}) {
    folder.write("home/Documents/QVCoreCachedQueues/" + name, text);
  }
  service->recoverSavedQueues();
  EXPECT_TRUE(namesIn(cacheFolder()).empty());
  const auto recovered = service->cachedQueues();
  ASSERT_EQ(recovered.size(), 2u);
  EXPECT_EQ(recovered[0]->toJson(), R"({"n":1})");
  EXPECT_EQ(recovered[1]->toJson(), R"({"n":2})");
  EXPECT_EQ(recovered[1]->module(), alpha);
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
