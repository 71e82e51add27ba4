// Posting, the timer, the flush cycle, the files of unsent queues and the
// terminate path, over a fake HTTP session whose tasks the tests end by hand
// and real files in a temporary data folder.
#include "qvcore/queue/QVQueueService.h"

#include <chrono>
#include <filesystem>
#include <regex>

#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVRepeatingTimer.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::namesIn;

class TerminatingModule : public test::QVTestModule, public QVAppTerminationObserver {
 public:
  using QVTestModule::QVTestModule;
  void brvAppWillTerminate() override { onTerminate(); }
  std::function<void()> onTerminate;
};

class QVQueueServiceTest : public test::QVQueueServiceTestBase {
 protected:
  std::string cacheFolder() const { return service->cachedQueuesDirectory(); }
  std::string cache(const std::string& name, const std::string& text) {
    return folder.write("home/Documents/QVCoreCachedQueues/" + name, text);
  }
  // Each post so far as "URL offsets|".
  std::string posts() {
    std::string out;
    for (size_t i = 0; i < session->taskCount(); ++i) {
      out += session->task(i).request.URL();
      for (uint64_t offset : test::offsetsIn(body(i))) out += " " + std::to_string(offset);
      out += "|";
    }
    return out;
  }
};

TEST_F(QVQueueServiceTest, AFlushDuringAPostOnlyAppendsAndOnlyAnEmptiedListReportsTheEnd) {
  auto module = defineModule("Alpha");
  ASSERT_TRUE(service->enable());
  post(module, 1);
  service->flushQueues();
  post(module, 2);
  service->flushQueues();
  EXPECT_EQ(posts(), "http://collector.test/Alpha 1|") << "the second cut waits behind the first";
  session->completeWithStatus(0, 200);
  EXPECT_EQ(posts(), "http://collector.test/Alpha 1|http://collector.test/Alpha 2|");
  EXPECT_EQ(service->completedFlushCycles(), 0u);
  setItems("QVCore", {{"HasToPersistLocalCache", false}});
  session->completeWithStatus(1, 500);
  EXPECT_TRUE(service->cachedQueues().empty()) << "a failure leaves the list all the same";
  EXPECT_EQ(service->completedFlushCycles(), 1u);

  service->flushQueues();
  EXPECT_EQ(service->completedFlushCycles(), 1u) << "a flush with nothing to send reports nothing";
}

TEST_F(QVQueueServiceTest, AModuleWithoutAUrlHoldsUpEveryQueueBehindIt) {
  auto blocker = defineModule("Blocker", QVValue::object());
  ASSERT_TRUE(service->enable());
  post(blocker, 1);
  service->flushQueues();
  post(defineModule("Other"), 2);
  service->flushQueues();
  EXPECT_EQ(posts(), "");
  EXPECT_EQ(service->cachedQueues().size(), 2u);

  QVConfigService::sharedInstance()->updateConfigWithData(blocker,
                                                          {{"PostMessageUrl", "http://c.test/b"}});
  service->flushQueues();
  session->completeWithStatus(0, 200);
  EXPECT_EQ(posts(), "http://c.test/b 1|http://collector.test/Other 2|");
}

TEST_F(QVQueueServiceTest, UrlEncodedQueuesPostEachMessageInSessionThenMessageOrder) {
  auto module =
      defineModule("Encoded", {{{"PostMessageUrl", "http://c.test/e"}, {"URLEncoded", true}}});
  ASSERT_TRUE(service->enable());
  post(module, 1, "first");
  post(module, 2, "second");
  post(module, 3, "first");
  service->flushQueues();
  EXPECT_EQ(service->cachedQueues().size(), 3u);
  EXPECT_EQ(posts(), "http://c.test/e?offset=1|") << "one at a time";
  for (size_t i = 0; i < 3; ++i) session->completeWithStatus(i, 200);
  EXPECT_EQ(posts(), "http://c.test/e?offset=1|http://c.test/e?offset=3|http://c.test/e?offset=2|");
  EXPECT_EQ(service->completedFlushCycles(), 1u);
}

TEST_F(QVQueueServiceTest, TheTimerRunsOnlyForIntervalPostingAndFlushesOnTheEnablingLoop) {
  auto module = defineModule("Alpha");
  ASSERT_TRUE(service->enable()) << "manual posting, on by default";
  EXPECT_FALSE(service->flushTimer());

  setItems("QVCore", {{"ManualPostEnabled", false}, {"DoPostOnIntervals", false}});
  EXPECT_FALSE(service->enable());
  EXPECT_FALSE(service->flushTimer());
  post(module, 1);
  service->asyncFlushQueues();
  ASSERT_TRUE(QVRunLoop::main().runUntil([&] { return session->taskCount() == 1; }, 30s));
  session->completeWithStatus(0, 200);

  auto clock = std::make_shared<QVFakeClock>();
  QVRunLoop::main().setClock(clock);
  setItems("QVCore", {{"ManualPostEnabled", false}});
  ASSERT_TRUE(service->enable());
  const auto timer = service->flushTimer();
  post(module, 2);
  auto advance = [&](auto step) {
    clock->advance(step);
    QVRunLoop::main().runUntilIdle();
    service->flushDispatchQueue()->sync([] {});  // the flush it submitted
    return session->taskCount();
  };
  EXPECT_EQ(advance(29s), 1u);
  EXPECT_EQ(advance(1s), 2u) << "the default interval is 30 s";

  // A second enable replaces the field only: the first timer keeps firing.
  ASSERT_TRUE(service->enable());
  service->disable();
  EXPECT_TRUE(timer->isValid());
  timer->invalidate();
}

TEST_F(QVQueueServiceTest, QueuesAreKeyedByClassNameAndOutliveDisable) {
  folder.writePlist("App/Info.plist", {{"CFBundleIdentifier", "com.example.shop"}});
  QVBundle::setMainBundlePath(folder.at("App"));
  auto module = defineModule("Twin");
  EXPECT_EQ(QVCore::sharedInstance()->getCurrentSessionStartTimeforModuleName("Twin"), 0);
  EXPECT_TRUE(service->moduleQueues().empty()) << "asking for a start time makes no queue";

  ASSERT_TRUE(service->enable());
  const auto connection = service->serverConnection();
  post(module, 1);
  service->disable();
  EXPECT_TRUE(post(std::make_shared<test::QVTestModule>("Twin", ""), 2));
  service->flushQueues();
  ASSERT_EQ(service->moduleQueues().size(), 1u);
  const auto queue = service->moduleQueues().at("Twin");
  EXPECT_GT(queue->currentSessionStartTime(), 0u);
  EXPECT_EQ(QVCore::sharedInstance()->getCurrentSessionStartTimeforModuleName("Twin"),
            static_cast<int64_t>(queue->currentSessionStartTime()));

  ASSERT_TRUE(service->enable());
  EXPECT_NE(service->serverConnection(), connection);
  EXPECT_EQ(service->flushDispatchQueue()->label(), "com.example.shop.qvcore.flush");
  service->flushQueues();
  EXPECT_EQ(posts(), "http://collector.test/Twin 1 2|");
}

// The files of unsent queues (their names, modes and order of sending are
// held by QVDeliveryLedgerTest, through the core). Only the folder's own regular files are read,
// posted or deleted: never through a link, nor special or huge entries.
TEST_F(QVQueueServiceTest, RecoveryDeletesEveryFileAndKeepsOnlyQueuesOfKnownModules) {
  auto alpha = defineModule("Alpha");
  defineModule("Url", QVValue{{"PostMessageUrl", "http://collector.test/u"}, {"URLEncoded", true}});
  service->recoverSavedQueues();
  EXPECT_FALSE(QVFileSystem::fileExistsAtPath(cacheFolder())) << "no folder: nothing happens";
  EXPECT_FALSE(service->saveQueueToFile(QVQueue::initWithJSONAndModule("{}", alpha)));

  // The cache folder is a link to a folder elsewhere: nothing there is
  // read, deleted or written.
  const std::string outside = folder.write("outside/Alpha_1.000000.json", test::queueText(1));
  folder.write("outside/inner/Alpha_2.000000.json", test::queueText(2));
  folder.makeFolder("home/Documents");
  std::filesystem::create_directory_symlink(folder.at("outside"), cacheFolder());
  service->recoverSavedQueues();
  EXPECT_FALSE(service->saveQueueToFile(QVQueue::initWithJSONAndModule(test::queueText(3), alpha)));
  EXPECT_TRUE(service->cachedQueues().empty());
  EXPECT_EQ(namesIn(folder.at("outside")),
            (std::vector<std::string>{"Alpha_1.000000.json", "inner"}));
  EXPECT_TRUE(QVFileSystem::isFileAtPath(folder.at("outside/inner/Alpha_2.000000.json")));
  std::filesystem::remove(cacheFolder());

  ASSERT_TRUE(service->createCachedQueueFolder());
  // Not UTF-8, no module name, and (from Alpha_4) not what the service
  // writes: never posted (unknown modules and plain text are held by
  // QVDeliveryLedgerTest). A URL-encoded module leaves one message a post.
  const std::pair<const char*, std::string> files[] = {
      {"Alpha_2", test::queueText(2)}, {"Alpha_1", test::queueText(1)},
      {"Alpha_3", "\xff\xfe"},         {"queue", test::queueText(9)},
      {"Alpha_4", R"({"n":4})"},       {"Alpha_5", "[1,2]"},
      {"Alpha_7", R"({"offset":7})"},  {"Alpha_8", test::queueText(8) + "}"},
      {"Url_1", R"({"offset":1})"},    {"Url_2", R"({"n":2})"}};
  for (const auto& [name, text] : files) cache(name + std::string(".000000.json"), text);
  // A link to a queue outside, a FIFO, a folder, and a file too large to be a
  // queue though its text would pass (deleted unread).
  const std::string dir = cacheFolder() + "/";
  std::filesystem::create_symlink(outside, dir + "Alpha_11.000000.json");
  ASSERT_EQ(::mkfifo((dir + "Alpha_12.000000.json").c_str(), 0600), 0);
  cache("Alpha_13.000000.json/Alpha_4.000000.json", test::queueText(4));
  std::string huge = test::queueText(5);
  huge.resize((65u << 20), ' ');
  cache("Alpha_15.000000.json", huge);
  huge.clear();
  service->recoverSavedQueues();

  std::vector<std::string> recovered;
  for (const auto& queue : service->cachedQueues()) recovered.push_back(queue->toJson());
  EXPECT_EQ(recovered,
            (std::vector<std::string>{test::queueText(1), test::queueText(2), R"({"offset":1})"}));
  EXPECT_EQ(namesIn(cacheFolder()),
            (std::vector<std::string>{"Alpha_12.000000.json", "Alpha_13.000000.json"}))
      << "the link is gone, the FIFO and the folder stay";
  EXPECT_EQ(QVFileSystem::contentsAtPath(outside, 1 << 10), test::queueText(1))
      << "the target stays";
  EXPECT_TRUE(QVFileSystem::isFileAtPath(dir + "Alpha_13.000000.json/Alpha_4.000000.json"));
}

// A payload that can never become a request is dropped with a log line; a
// post that fails for a reason that may pass is kept for the next flush.
TEST_F(QVQueueServiceTest, AnUnbuildablePayloadIsDroppedAndLoggedNotCached) {
  std::vector<std::string> lines;
  QVLog::setSink([&](const std::string& line) { lines.push_back(line); });
  auto url = defineModule(
      "Url", QVValue{{"PostMessageUrl", "http://collector.test/u"}, {"URLEncoded", true}});
  // The module may fix its URL at run time: a space in it is not final.
  auto spaced = defineModule(
      "Spaced", QVValue{{"PostMessageUrl", "http://collector.test/a b"}, {"URLEncoded", true}});
  ASSERT_TRUE(service->enable());
  // (Which payloads the connection refuses is held by its own tests.)
  service->flushCachedQueue(QVQueue::initWithJSONAndModule("[1,2]", url));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_search(lines[0], std::regex("Url.*not a JSON dictionary"))) << lines[0];
  service->flushCachedQueue(QVQueue::initWithJSONAndModule(R"({"offset":1})", spaced));
  EXPECT_EQ(namesIn(cacheFolder()).size(), 1u) << "kept for the next flush, the other never";
  EXPECT_EQ(lines.size(), 1u);
  QVLog::setSink(nullptr);
}

TEST_F(QVQueueServiceTest, TerminatePathTellsModulesThenReturnsOnlyOnceTheConnectionIdles) {
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
  EXPECT_EQ(posts(), "http://collector.test/Telling 1 2|");
  EXPECT_FALSE(service->serverConnection()->isBusy());
}

TEST(QVMutableURLRequestTest, UrlsNeedSchemeHostAndOnlyUrlCharacters) {
  for (const char* url : {"http://127.0.0.1:8080/p?a=1?b=2", "https://h", "ftp://h/x",
                          "http://[::1]/%41%2f", "http://h/p?q=a'b(c)*!$,;:@"}) {
    EXPECT_TRUE(QVMutableURLRequest::isValidURL(url)) << url;
  }
  for (const char* url : {"", "not a url", "/relative/path", "http://", "mailto:someone",
                          "http://h/a b", "http://h/%4", "http://h/%zz", "http://h/\xC3\xA9"}) {
    EXPECT_EQ(QVMutableURLRequest::requestWithURL(url), nullptr) << url;
  }
}

}  // namespace
}  // namespace qv
