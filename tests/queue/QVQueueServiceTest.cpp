// Posting, the timer and the flush cycle, over a fake HTTP session whose
// tasks the tests end by hand.
#include "qvcore/queue/QVQueueService.h"

#include <chrono>

#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVRepeatingTimer.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVDataCompression.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVGzip.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::offsetsIn;

using QVQueueServiceTest = test::QVQueueServiceTestBase;

TEST_F(QVQueueServiceTest, AFlushDuringAPostOnlyAppendsAndOnlyAnEmptiedListReportsTheEnd) {
  auto module = defineModule("Alpha");
  ASSERT_TRUE(service->enable());
  post(module, 1);
  service->flushQueues();
  post(module, 2);
  service->flushQueues();
  ASSERT_EQ(session->taskCount(), 1u) << "the second cut waits behind the post in flight";
  EXPECT_EQ(session->task(0).request.URL(), "http://collector.test/Alpha");

  session->completeWithStatus(0, 200);
  ASSERT_EQ(session->taskCount(), 2u) << "the outcome starts the next post";
  EXPECT_EQ(offsetsIn(body(0)), Offsets{1});
  EXPECT_EQ(offsetsIn(body(1)), Offsets{2});
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
  EXPECT_EQ(session->taskCount(), 0u);
  EXPECT_EQ(service->cachedQueues().size(), 2u);

  QVConfigService::sharedInstance()->updateConfigWithData(
      blocker, {{"PostMessageUrl", "http://collector.test/late"}});
  service->flushQueues();
  session->completeWithStatus(0, 200);
  ASSERT_EQ(session->taskCount(), 2u);
  EXPECT_EQ(offsetsIn(body(0)), Offsets{1});
  EXPECT_EQ(offsetsIn(body(1)), Offsets{2});
}

TEST_F(QVQueueServiceTest, UrlEncodedQueuesPostEachMessageInSessionThenMessageOrder) {
  auto module =
      defineModule("Encoded", {{{"PostMessageUrl", "http://c.test/e"}, {"URLEncoded", true}}});
  ASSERT_TRUE(service->enable());
  post(module, 1, "first");
  post(module, 2, "second");
  post(module, 3, "first");
  service->flushQueues();
  EXPECT_EQ(session->taskCount(), 1u);
  EXPECT_EQ(service->cachedQueues().size(), 3u);
  for (size_t i = 0; i < 3; ++i) session->completeWithStatus(i, 200);

  std::vector<std::string> urls;
  for (size_t i = 0; i < session->taskCount(); ++i) urls.push_back(session->task(i).request.URL());
  EXPECT_EQ(urls, (std::vector<std::string>{"http://c.test/e?offset=1", "http://c.test/e?offset=3",
                                            "http://c.test/e?offset=2"}));
  EXPECT_FALSE(session->task(0).upload);
  EXPECT_EQ(service->completedFlushCycles(), 1u);
}

// Which form is shorter is worked out here with zlib itself; the body sent
// must be that form, and must decode to the body given.
TEST_F(QVQueueServiceTest, CompressionIsInstalledOnlyWhenOnAndStrictlyShorter) {
  std::string large, noise;
  for (int i = 0; i < 100; ++i) large += R"({"screen":"Checkout","n":)" + std::to_string(i) + "},";
  for (unsigned i = 0; i < 1000; ++i) noise += static_cast<char>((i * 2654435761u) >> 13);
  for (bool on : {false, true}) {
    setItems("QVCore", {{"CompressPostMessage", on}});
    for (const std::string& text : {large, std::string("{}"), std::string(60, 'a'), noise}) {
      SCOPED_TRACE(::testing::Message() << "on " << on << ", " << text.size() << " bytes");
      auto request = std::make_shared<QVMutableURLRequest>("http://c.test/");
      request->setValueForHTTPHeaderField(std::to_string(text.size()), "Content-Length");
      request->setHTTPBody(text);
      EXPECT_EQ(service->beforeFlushingRequestForQueue(request, nullptr), request);
      const std::string gzip = test::gzip(text);
      const bool gzipped = on && gzip.size() < text.size();
      const std::string sent = gzipped ? gzip : text;
      EXPECT_EQ(*request->HTTPBody(), sent);
      std::string headers;
      for (const auto& [name, value] : request->allHTTPHeaderFields())
        headers += name + ": " + value + "|";
      EXPECT_EQ(headers, "Content-Length: " + std::to_string(sent.size()) + "|" +
                             (gzipped ? "Content-Encoding: gzip|" : ""));
    }
  }

  // A flushed payload of many stretches, compressed while it is written:
  // the very bytes that compressing the finished text gives.
  auto module = defineModule("Alpha");
  ASSERT_TRUE(service->enable());
  for (uint64_t i = 0; i < 20000; ++i) post(module, i);
  service->flushQueues();
  ASSERT_EQ(session->taskCount(), 1u);
  const auto sent = session->task(0).body;
  const std::string text = test::gunzip(*sent).value_or("");
  EXPECT_GT(text.size(), 4 * 65536u);
  EXPECT_EQ(*sent, *QVDataCompression::compressData(std::make_shared<const std::string>(text)));
  EXPECT_EQ(session->task(0).request.valueForHTTPHeaderField("Content-Length"),
            std::to_string(sent->size()));
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
  ASSERT_EQ(session->taskCount(), 1u);
  EXPECT_EQ(offsetsIn(body(0)), (Offsets{1, 2}));
}

}  // namespace
}  // namespace qv
