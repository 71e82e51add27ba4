// The core whole, posting to a real server on 127.0.0.1 after being stopped
// and started in any order.
#include <gtest/gtest.h>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

// A sequence of steps, one letter each: E enable, D disable, S sleep, W wake,
// 0 and 1 battery levels, M start the module, F run past the network's first
// evaluation (a second after monitoring starts), I run past the flush timers'
// period. The fake clock drives the main loop's timers.
struct Cycle {
  const char* name;
  const char* steps;
};
void PrintTo(const Cycle& cycle, std::ostream* os) { *os << cycle.name; }

class QVCoreCycleTest : public ::testing::TestWithParam<Cycle> {
 protected:
  void SetUp() override { QVRunLoop::main().setClock(clock_); }
  void TearDown() override {
    core_->disable();
    QVRunLoop::main().setClock(nullptr);
  }
  void run(char step) {
    if (step == 'E') core_->enable();
    if (step == 'D') core_->disable();
    if (step == 'S') core_->sleepSystem();
    if (step == 'W') core_->wakeSystem();
    if (step == '0' || step == '1') core_->batteryLevelChanged(step - '0');
    if (step == 'M') core_->enableModule("Cycler");
    if (step != 'F' && step != 'I') return;
    clock_->advance(step == 'F' ? 2s : 31s);
    QVRunLoop::main().runUntilIdle();
  }

  std::shared_ptr<QVFakeClock> clock_ = std::make_shared<QVFakeClock>();
  test::QVTestHost host_{"delivery.test"};
  test::QVTestHttpServer server_;
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
};

TEST_P(QVCoreCycleTest, EndsInACoreThatStartsModulesAndDelivers) {
  // Flushes on a timer too, so that every enable starts one.
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 5},
                         {"PostMessageLevelCellular", 5},
                         {"CompressPostMessage", false},
                         {"ManualPostEnabled", false}});
  auto module = host_.defineModule("Cycler", {{"PostMessageUrl", server_.url("/cycle")}});
  for (const char* step = GetParam().steps; *step; ++step) run(*step);
  QVRunLoop::main().runUntilIdle();

  EXPECT_TRUE(core_->isEnabled());
  EXPECT_TRUE(core_->enableModule("Cycler") && module->isEnabled());
  ASSERT_TRUE(core_->postMessageForModuleName(test::messageWithOffset(7), "Cycler"));
  core_->flushQueues();
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(server_.request(0).path(), "/cycle");
  EXPECT_EQ(test::offsetsIn(server_.request(0).body), test::Offsets{7});
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, QVCoreCycleTest,
    ::testing::Values(Cycle{"ModuleBeforeTheCore", "M"}, Cycle{"SleepThenWake", "EMSW"},
                      Cycle{"BatteryZeroThenOne", "EM01"}, Cycle{"DisableThenEnable", "EMDE"},
                      Cycle{"EnableTwice", "EME"}, Cycle{"WakeWhileAwake", "EMW"},
                      Cycle{"DisableWithinTheFirstSecond", "EDFE"},
                      Cycle{"SleepWithinTheFirstSecond", "EMSFW"},
                      Cycle{"DisableAndEnableWithinTheFirstSecond", "EDEF"},
                      Cycle{"DisableTwiceThenEnable", "EDDE"}, Cycle{"SleepDisableWake", "EMSDW"},
                      Cycle{"ManyCyclesInAnyOrder", "EMSWDEE0FI1DFEMSSWWFI"}),
    [](const ::testing::TestParamInfo<Cycle>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qv
