// Two flushes cutting one module queue at the same moment, as the terminate
// path's flush does beside the dispatch queue's.
#include <atomic>
#include <cstdint>
#include <thread>

#include "qvcore/model/QVQueue.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using QVQueueServiceCutTest = test::QVQueueServiceTestBase;

uint64_t messagesOnSendList(QVQueueService& service) {
  uint64_t count = 0;
  for (const auto& queue : service.cachedQueues()) count += queue->messageCount();
  return count;
}

// Each round fills the queue with many sessions, so that taking the snapshot
// is long enough for the other flush to land inside it, then lets two
// threads flush it together. The service stays disabled: nothing is posted,
// the snapshots stay on the send list to be counted.
TEST_F(QVQueueServiceCutTest, TwoFlushesAtOnceSendEveryMessageExactlyOnce) {
  constexpr int kRounds = 150;
  constexpr uint64_t kSessions = 300;
  auto module = defineModule("Cut");
  uint64_t posted = 0;
  for (int round = 0; round < kRounds; ++round) {
    for (uint64_t i = 0; i < kSessions; ++i) {
      ASSERT_TRUE(post(module, posted, "s" + std::to_string(posted)));
      ++posted;
    }
    const auto queue = service->moduleQueues().at("Cut");
    // Both threads spin until both are there, so that their cuts overlap.
    std::atomic<int> ready{0};
    auto flush = [&] {
      ready.fetch_add(1);
      while (ready.load() < 2) std::this_thread::yield();
      service->flushQueue(queue);
    };
    std::thread other(flush);
    flush();
    other.join();

    EXPECT_TRUE(queue->isEmpty());
    const uint64_t listed = messagesOnSendList(*service);
    ASSERT_EQ(listed, posted) << "round " << round << ": a message cut twice, or lost";
  }
}

}  // namespace
}  // namespace qv
