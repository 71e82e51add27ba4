#include "qvcore/platform/QVRepeatingTimer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "qvcore/platform/QVFakeClock.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

class QVRepeatingTimerTest : public ::testing::Test {
 protected:
  void advanceAndPump(QVClock::Duration step) {
    clock->advance(step);
    loop.runUntilIdle();
  }
  std::shared_ptr<QVRepeatingTimer> countingTimer(double seconds) {
    return QVRepeatingTimer::scheduledTimer(loop, seconds, [this] { ++fired; });
  }

  std::shared_ptr<QVFakeClock> clock = std::make_shared<QVFakeClock>();
  QVRunLoop loop{clock};
  int fired = 0;
};

TEST_F(QVRepeatingTimerTest, FiresOncePerIntervalUntilInvalidated) {
  auto timer = countingTimer(30.0);
  advanceAndPump(30s - 1ns);
  EXPECT_EQ(fired, 0);
  advanceAndPump(1ns);
  for (int i = 0; i < 4; ++i) advanceAndPump(30s);
  EXPECT_EQ(fired, 5);
  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  advanceAndPump(300s);
  EXPECT_EQ(fired, 5);
}

TEST_F(QVRepeatingTimerTest, ADroppedTimerKeepsFiringUntilInvalidated) {
  std::weak_ptr<QVRepeatingTimer> weak = countingTimer(1.0);
  for (int i = 0; i < 3; ++i) advanceAndPump(1s);
  EXPECT_EQ(fired, 3);
  ASSERT_FALSE(weak.expired());
  weak.lock()->invalidate();
  advanceAndPump(1s);
  EXPECT_EQ(fired, 3);
  EXPECT_TRUE(weak.expired());  // its pending task came due and let it go
}

TEST_F(QVRepeatingTimerTest, FallingBehindFiresOnceThenKeepsTheGrid) {
  auto timer = countingTimer(10.0);
  advanceAndPump(35s);  // the fires due at 10, 20 and 30 s collapse into one
  advanceAndPump(4s);
  EXPECT_EQ(fired, 1);
  advanceAndPump(1s);  // 40 s is on the grid
  EXPECT_EQ(fired, 2);
}

TEST_F(QVRepeatingTimerTest, InvalidateInsideFireReleasesTheCallback) {
  auto payload = std::make_shared<int>(0);
  std::shared_ptr<QVRepeatingTimer> timer;
  timer = QVRepeatingTimer::scheduledTimer(loop, 1.0, [payload, &timer] {
    ++*payload;
    timer->invalidate();
  });
  advanceAndPump(1s);
  advanceAndPump(1s);
  EXPECT_EQ(*payload, 1);
  EXPECT_EQ(payload.use_count(), 1);
}

TEST_F(QVRepeatingTimerTest, TinyZeroNegativeAndNaNIntervalsBecomeATenthOfAMillisecond) {
  for (double seconds : {1e-9, 0.0, -5.0, std::nan("")}) {
    EXPECT_DOUBLE_EQ(countingTimer(seconds)->interval(), 0.0001) << seconds;
  }
  advanceAndPump(100us);  // all four fire, and none more than once
  EXPECT_EQ(fired, 4);
}

}  // namespace
}  // namespace qv
