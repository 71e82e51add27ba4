#include "qvcore/platform/QVRepeatingTimer.h"

#include <gtest/gtest.h>

#include <cmath>

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

// The fires due at 180, 210 and 240 s collapse into one; 270 s is on the grid.
TEST_F(QVRepeatingTimerTest, FiresOnTheGridUntilInvalidated) {
  auto timer = countingTimer(30.0);
  std::string counts;  // after each step
  const QVClock::Duration steps[] = {30s - 1ns, 1ns, 30s, 30s, 30s, 30s, 105s, 14s, 1s};
  for (auto step : steps) {
    advanceAndPump(step);
    counts += std::to_string(fired) + " ";
  }
  EXPECT_EQ(counts, "0 1 2 3 4 5 6 6 7 ");
  timer->invalidate();
  advanceAndPump(300s);
  EXPECT_FALSE(timer->isValid());
  EXPECT_EQ(fired, 7);
}

TEST_F(QVRepeatingTimerTest, ADroppedTimerKeepsFiringUntilItInvalidatesItself) {
  auto payload = std::make_shared<int>(0);
  std::weak_ptr<QVRepeatingTimer> weak;
  weak = QVRepeatingTimer::scheduledTimer(loop, 1.0, [payload, &weak] {
    if (++*payload == 3) weak.lock()->invalidate();
  });
  for (int i = 0; i < 5; ++i) advanceAndPump(1s);
  EXPECT_EQ(*payload, 3);
  EXPECT_EQ(payload.use_count(), 1);  // the callback was released
  EXPECT_TRUE(weak.expired());        // and the timer, by its last task
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
