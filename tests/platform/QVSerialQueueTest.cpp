#include "qvcore/platform/QVSerialQueue.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "qvcore/platform/QVGlobalQueue.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

TEST(QVSerialQueueTest, TasksFromSeveralProducersRunInOrderAndFinishBeforeDestruction) {
  constexpr int kProducers = 4, kTasks = 300;
  std::vector<std::vector<int>> seen(kProducers);  // the worker's until the queue is gone
  {
    QVSerialQueue queue("test.order");
    // Holds the worker until every task is queued, so the destructor meets a
    // full queue.
    std::promise<void> queued;
    queue.async([all = queued.get_future().share()] { all.wait(); });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        for (int i = 0; i < kTasks; ++i) queue.async([&, p, i] { seen[p].push_back(i); });
      });
    }
    for (auto& producer : producers) producer.join();
    queued.set_value();
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

// Two tasks that each wait for the other finish only when they run at once.
TEST(QVGlobalQueueTest, TasksRunConcurrently) {
  auto first = std::make_shared<std::promise<void>>();
  auto second = std::make_shared<std::promise<void>>();
  auto done = std::make_shared<std::promise<bool>>();
  auto result = done->get_future();
  QVGlobalQueue::async([=] {
    first->set_value();
    done->set_value(second->get_future().wait_for(std::chrono::seconds(30)) ==
                    std::future_status::ready);
  });
  QVGlobalQueue::async([=] {
    second->set_value();
    first->get_future().wait_for(std::chrono::seconds(30));
  });
  ASSERT_EQ(result.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_TRUE(result.get());
}

}  // namespace
}  // namespace qv
