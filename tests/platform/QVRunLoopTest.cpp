#include "qvcore/platform/QVRunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "qvcore/platform/QVFakeClock.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

// Bounds every wait on real time, so a broken wake-up fails instead of hanging.
constexpr auto kPatience = 10s;

TEST(QVRunLoopTest, CurrentIsMainOnTheMainThreadOrWhilePumpedElseOnePerThread) {
  // The pumped loop as current() is covered by the serial queue's tests.
  EXPECT_EQ(&QVRunLoop::current(), &QVRunLoop::main());
  QVRunLoop* inTask = nullptr;
  QVRunLoop::main().post([&] { inTask = &QVRunLoop::current(); });
  std::thread([] { QVRunLoop::main().runUntilIdle(); }).join();
  EXPECT_EQ(inTask, &QVRunLoop::main());

  std::thread([] {
    QVRunLoop& own = QVRunLoop::current();
    EXPECT_EQ(&own, &QVRunLoop::current());
    EXPECT_NE(&own, &QVRunLoop::main());
    EXPECT_TRUE(own.isCurrent());
    EXPECT_FALSE(QVRunLoop::main().isCurrent());
  }).join();
}

TEST(QVRunLoopTest, RealClockDelayedTaskWakesABlockedPump) {
  QVRunLoop loop;
  bool farRan = false, nearRan = false;
  loop.postAfter(1h, [&] { farRan = true; });
  // Nothing is due: the pump must come back, not spin on the timer it arms.
  EXPECT_EQ(loop.runUntilIdle(), 0u);
  // A nearer task from another thread must re-arm a pump asleep until 1 h.
  std::thread poster([&] {
    loop.postAfter(5ms, [&] {
      nearRan = true;
      loop.stop();
    });
  });
  loop.runFor(kPatience);
  poster.join();
  EXPECT_TRUE(nearRan);
  EXPECT_FALSE(farRan);
}

class QVMainLoopVirtualTimeTest : public ::testing::Test {
 protected:
  void SetUp() override { loop.setClock(clock); }
  void TearDown() override { loop.setClock(nullptr); }

  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  QVRunLoop& loop = QVRunLoop::main();
};

TEST_F(QVMainLoopVirtualTimeTest, DelayedTasksRunOnceDueInDueOrder) {
  std::vector<std::string> ran;
  loop.postAfter(30s, [&] { ran.push_back("30s"); });
  loop.postAfter(10s, [&] { ran.push_back("10s-a"); });
  loop.postAfter(10s, [&] { ran.push_back("10s-b"); });
  loop.postAfter(0s, [&] { ran.push_back("now"); });
  loop.runUntilIdle();
  EXPECT_EQ(ran, (std::vector<std::string>{"now"}));
  clock->advance(10s - 1ns);
  loop.runUntilIdle();
  EXPECT_EQ(ran.size(), 1u);
  clock->advance(1ns);
  loop.runUntilIdle();
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "10s-a", "10s-b"}));
  clock->advance(1h);
  loop.runUntilIdle();
  EXPECT_EQ(ran.back(), "30s");

  // now + max would overflow; it must saturate into "never", and stay never
  // across a change to a clock that is ahead and back, though the due time
  // saturates on the way there and not on the way back.
  bool never = false;
  loop.postAfter(QVRunLoop::Duration::max(), [&] { never = true; });
  constexpr auto kCentury = std::chrono::hours(24 * 365 * 100);
  loop.setClock(std::make_shared<QVFakeClock>(clock->now() + 2 * kCentury));
  loop.setClock(clock);
  clock->advance(kCentury);
  loop.runUntilIdle();
  EXPECT_FALSE(never);
}

TEST_F(QVMainLoopVirtualTimeTest, AdvancingFromAnotherThreadWakesABlockedPump) {
  std::atomic<bool> ran = false;
  loop.postAfter(5s, [&] { ran = true; });
  // runUntil releases nothing by itself: only the clock's move can.
  std::thread mover([&] { clock->advance(5s); });
  EXPECT_TRUE(loop.runUntil([&] { return ran.load(); }, kPatience));
  mover.join();
}

}  // namespace
}  // namespace qv
