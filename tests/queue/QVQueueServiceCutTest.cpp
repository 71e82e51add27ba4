// Two flushes cutting one module queue at the same moment, as the terminate
// path's flush does beside the dispatch queue's.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "qvcore/model/QVQueue.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using QVQueueServiceCutTest = test::QVQueueServiceTestBase;

// The messages of the send list's entries from the first-th on.
uint64_t messagesListedFrom(const QVQueueService& service, std::size_t first) {
  const auto list = service.cachedQueues();
  uint64_t count = 0;
  for (std::size_t i = first; i < list.size(); ++i) count += list[i]->messageCount();
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
    const std::size_t listed = service->cachedQueues().size();
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
    ASSERT_EQ(messagesListedFrom(*service, listed), kSessions)
        << "round " << round << ": a message cut twice, or lost";
  }
}

}  // namespace
}  // namespace qv
