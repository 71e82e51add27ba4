#include "qvcore/platform/QVGlobalQueue.h"

#include <gtest/gtest.h>

#include <future>

namespace qv {
namespace {

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
