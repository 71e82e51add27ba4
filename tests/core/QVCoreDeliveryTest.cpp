// The core whole, posting to a real server on 127.0.0.1: the shorter body
// form, and delivery after being stopped and started in any order.
#include <gtest/gtest.h>

#include <vector>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVGzip.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

// One step of a cycle; the fake clock drives the main loop's timers.
using Step = void (*)(QVCore&, QVFakeClock&);
void enable(QVCore& core, QVFakeClock&) { core.enable(); }
void disable(QVCore& core, QVFakeClock&) { core.disable(); }
void sleepSystem(QVCore& core, QVFakeClock&) { core.sleepSystem(); }
void wakeSystem(QVCore& core, QVFakeClock&) { core.wakeSystem(); }
void batteryZero(QVCore& core, QVFakeClock&) { core.batteryLevelChanged(0); }
void batteryOne(QVCore& core, QVFakeClock&) { core.batteryLevelChanged(1); }
void startModule(QVCore& core, QVFakeClock&) { core.enableModule("Cycler"); }
void runFor(QVFakeClock& clock, QVClock::Duration time) {
  clock.advance(time);
  QVRunLoop::main().runUntilIdle();
}
// Past the network's first evaluation, due a second after monitoring starts.
void pastFirstSecond(QVCore&, QVFakeClock& clock) { runFor(clock, 2s); }
void pastFlushInterval(QVCore&, QVFakeClock& clock) { runFor(clock, 31s); }

struct Cycle {
  const char* name;
  std::vector<Step> steps;
};
void PrintTo(const Cycle& cycle, std::ostream* os) { *os << cycle.name; }

class QVCoreDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override { QVRunLoop::main().setClock(clock_); }
  void TearDown() override {
    core_->disable();
    QVRunLoop::main().setClock(nullptr);
  }

  std::shared_ptr<QVFakeClock> clock_ = std::make_shared<QVFakeClock>();
  test::QVTestHost host_{"delivery.test"};
  test::QVTestHttpServer server_;
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
};

// On the wire a JSON queue goes gzip-encoded exactly when that form is the
// shorter; which one is shorter is worked out here with zlib itself.
TEST_F(QVCoreDeliveryTest, TheBodySentIsTheShorterFormOfThePayload) {
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 5}, {"CompressPostMessage", true}});
  host_.defineModule("Zipper", {{"PostMessageUrl", server_.url("/zip")}});
  ASSERT_TRUE(core_->enable() && core_->enableModule("Zipper"));
  for (uint64_t count : {1, 300}) {
    for (uint64_t k = 1; k <= count; ++k) {
      ASSERT_TRUE(core_->postMessageForModuleName(test::messageWithOffset(k), "Zipper"));
    }
    core_->flushQueues();
    ASSERT_TRUE(server_.waitForRequests(count == 1 ? 1 : 2));
    const auto sent = server_.requests().back();
    const bool gzipped = sent.header("Content-Encoding") == "gzip";
    const std::string payload = gzipped ? test::gunzip(sent.body).value_or("") : sent.body;
    EXPECT_EQ(test::offsetsIn(payload).size(), count);
    EXPECT_EQ(gzipped, test::gzip(payload).size() < payload.size()) << count;
    EXPECT_EQ(sent.body.size(), std::min(test::gzip(payload).size(), payload.size())) << count;
    EXPECT_EQ(sent.header("Content-Length"), std::to_string(sent.body.size()));
  }
}

class QVCoreCycleTest : public QVCoreDeliveryTest, public ::testing::WithParamInterface<Cycle> {};

TEST_P(QVCoreCycleTest, EndsInACoreThatStartsModulesAndDelivers) {
  // Flushes on a timer too, so that every enable starts one.
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 5},
                         {"PostMessageLevelCellular", 5},
                         {"CompressPostMessage", false},
                         {"ManualPostEnabled", false}});
  auto module = host_.defineModule("Cycler", {{"PostMessageUrl", server_.url("/cycle")}});
  for (Step step : GetParam().steps) step(*core_, *clock_);
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
    ::testing::Values(
        Cycle{"SleepThenWake", {enable, startModule, sleepSystem, wakeSystem}},
        Cycle{"BatteryZeroThenOne", {enable, startModule, batteryZero, batteryOne}},
        Cycle{"DisableThenEnable", {enable, startModule, disable, enable}},
        Cycle{"EnableTwice", {enable, startModule, enable}},
        Cycle{"WakeWhileAwake", {enable, startModule, wakeSystem}},
        Cycle{"DisableWithinTheFirstSecond", {enable, disable, pastFirstSecond, enable}},
        Cycle{"SleepWithinTheFirstSecond",
              {enable, startModule, sleepSystem, pastFirstSecond, wakeSystem}},
        Cycle{"DisableAndEnableWithinTheFirstSecond", {enable, disable, enable, pastFirstSecond}},
        Cycle{"DisableTwiceThenEnable", {enable, disable, disable, enable}},
        Cycle{"SleepDisableWake", {enable, startModule, sleepSystem, disable, wakeSystem}},
        Cycle{"ManyCyclesInAnyOrder",
              {enable,           startModule, sleepSystem,     wakeSystem,      disable,
               enable,           enable,      batteryZero,     pastFirstSecond, pastFlushInterval,
               batteryOne,       disable,     pastFirstSecond, enable,          startModule,
               sleepSystem,      sleepSystem, wakeSystem,      wakeSystem,      pastFirstSecond,
               pastFlushInterval}}),
    [](const ::testing::TestParamInfo<Cycle>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qv
