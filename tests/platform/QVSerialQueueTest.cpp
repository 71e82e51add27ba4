#include "qvcore/platform/QVSerialQueue.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace qv {
namespace {

TEST(QVSerialQueueTest, TasksFromSeveralProducersRunInOrderAndFinishBeforeDestruction) {
  constexpr int kProducers = 4, kTasks = 300;
  std::vector<std::vector<int>> seen(kProducers);  // the worker's until the queue is gone
  {
    QVSerialQueue queue("test.order");
    queue.async([] { std::this_thread::sleep_for(10ms); });  // keeps tasks queued at the end
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        for (int i = 0; i < kTasks; ++i) queue.async([&, p, i] { seen[p].push_back(i); });
      });
    }
    for (auto& producer : producers) producer.join();
  }
  for (const auto& fromProducer : seen) {
    ASSERT_EQ(fromProducer.size(), static_cast<size_t>(kTasks));
    for (int i = 0; i < kTasks; ++i) EXPECT_EQ(fromProducer[i], i);
  }
}

TEST(QVSerialQueueTest, SyncRunsOnTheWorkerInlineWhenNestedAndRethrows) {
  QVSerialQueue queue("test.sync");
  std::thread::id worker;
  bool current = false, nestedRan = false;
  queue.sync([&] {
    worker = std::this_thread::get_id();
    current = queue.isCurrent() && &QVRunLoop::current() == &queue.runLoop();
    queue.sync([&] { nestedRan = true; });  // would wait for itself if queued
  });
  EXPECT_NE(worker, std::this_thread::get_id());
  EXPECT_TRUE(current);
  EXPECT_TRUE(nestedRan);
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("failed"); }), std::runtime_error);
}

TEST(QVSerialQueueTest, DroppingTheLastReferenceOnItsOwnThreadDoesNotDeadlock) {
  auto queue = std::make_shared<QVSerialQueue>("test.self");
  auto laterRan = std::make_shared<std::promise<void>>();
  auto loopGone = std::make_shared<std::promise<void>>();
  auto mainDropped = std::make_shared<std::promise<void>>();
  // Dropped, with the worker's loop, once the detached worker ends.
  std::shared_ptr<void> signal(nullptr, [loopGone](void*) { loopGone->set_value(); });
  queue->runLoop().postAfter(1h, [signal] {});
  signal.reset();
  queue->async([q = queue, dropped = mainDropped->get_future().share()]() mutable {
    dropped.wait();
    q.reset();  // the last reference: the destructor runs here
  });
  queue->async([laterRan] { laterRan->set_value(); });
  queue.reset();
  mainDropped->set_value();
  EXPECT_EQ(laterRan->get_future().wait_for(10s), std::future_status::ready);
  EXPECT_EQ(loopGone->get_future().wait_for(10s), std::future_status::ready);
}

}  // namespace
}  // namespace qv
