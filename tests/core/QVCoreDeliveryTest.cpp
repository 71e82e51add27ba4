// The core whole, posting to a real server on 127.0.0.1: after being stopped
// and started in any order, and with its items written as text.
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

enum class Step {
  kEnable,
  kDisable,
  kSleep,
  kWake,
  kBatteryZero,
  kBatteryOne,
  kStartModule,
  // The main loop runs past the network's first evaluation, due one second
  // after monitoring started.
  kPastFirstSecond,
  // The main loop runs past the flush timers' period.
  kPastFlushInterval,
};

struct Cycle {
  const char* name;
  std::vector<Step> steps;
};

void PrintTo(const Cycle& cycle, std::ostream* os) { *os << cycle.name; }

void run(Step step, QVCore& core, QVFakeClock& clock) {
  switch (step) {
    case Step::kEnable:
      core.enable();
      break;
    case Step::kDisable:
      core.disable();
      break;
    case Step::kSleep:
      core.sleepSystem();
      break;
    case Step::kWake:
      core.wakeSystem();
      break;
    case Step::kBatteryZero:
      core.batteryLevelChanged(0);
      break;
    case Step::kBatteryOne:
      core.batteryLevelChanged(1);
      break;
    case Step::kStartModule:
      core.enableModule("Cycler");
      break;
    case Step::kPastFirstSecond:
      clock.advance(std::chrono::seconds(2));
      QVRunLoop::main().runUntilIdle();
      break;
    case Step::kPastFlushInterval:
      clock.advance(std::chrono::seconds(31));
      QVRunLoop::main().runUntilIdle();
      break;
  }
}

class QVCoreDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override { QVRunLoop::main().setClock(clock_); }
  void TearDown() override {
    QVCore::sharedInstance()->disable();
    QVRunLoop::main().setClock(nullptr);
  }

  std::shared_ptr<QVFakeClock> clock_ = std::make_shared<QVFakeClock>();
  test::QVTestHost host_{"delivery.test"};
  test::QVTestHttpServer server_;
};

// Raw items as text: the levels let the message through and the module's
// queue goes as a URL-encoded GET.
TEST_F(QVCoreDeliveryTest, ItemsWrittenAsTextAreReadAsThePlatformReadsText) {
  host_.writeCoreConfig({{"PostMessageLevelWiFi", "5"}, {"PostMessageLevelCellular", " 5 "}});
  host_.defineModule("Texter", {{"PostMessageUrl", server_.url("/text")}, {"URLEncoded", "YES"}});
  auto core = QVCore::sharedInstance();
  ASSERT_TRUE(core->enable());
  ASSERT_TRUE(core->enableModule("Texter"));
  ASSERT_TRUE(core->postMessageForModuleName(test::messageWithOffset(7), "Texter"));
  core->flushQueues();
  ASSERT_TRUE(server_.waitForRequests(1));
  const auto request = server_.request(0);
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.path(), "/text");
  EXPECT_NE(request.query().find("offset=7"), std::string::npos) << request.target;
}

// On the wire a JSON queue goes gzip-encoded exactly when that form is the
// shorter; which one is shorter is worked out here with zlib itself.
TEST_F(QVCoreDeliveryTest, TheBodySentIsTheShorterFormOfThePayload) {
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 5}, {"CompressPostMessage", true}});
  host_.defineModule("Zipper", {{"PostMessageUrl", server_.url("/zip")}});
  auto core = QVCore::sharedInstance();
  ASSERT_TRUE(core->enable());
  ASSERT_TRUE(core->enableModule("Zipper"));
  for (uint64_t count : {1, 300}) {
    for (uint64_t k = 1; k <= count; ++k) {
      ASSERT_TRUE(core->postMessageForModuleName(test::messageWithOffset(k), "Zipper"));
    }
    core->flushQueues();
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
  auto core = QVCore::sharedInstance();
  for (Step step : GetParam().steps) run(step, *core, *clock_);
  QVRunLoop::main().runUntilIdle();

  EXPECT_TRUE(core->isEnabled());
  EXPECT_TRUE(core->enableModule("Cycler"));
  EXPECT_TRUE(module->isEnabled());
  ASSERT_TRUE(core->postMessageForModuleName(test::messageWithOffset(7), "Cycler"));
  core->flushQueues();
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(server_.request(0).path(), "/cycle");
  EXPECT_EQ(test::offsetsIn(server_.request(0).body), test::Offsets{7});
}

using S = Step;
INSTANTIATE_TEST_SUITE_P(
    Sequences, QVCoreCycleTest,
    ::testing::Values(
        Cycle{"SleepThenWake", {S::kEnable, S::kStartModule, S::kSleep, S::kWake}},
        Cycle{"BatteryZeroThenOne", {S::kEnable, S::kStartModule, S::kBatteryZero, S::kBatteryOne}},
        Cycle{"DisableThenEnable", {S::kEnable, S::kStartModule, S::kDisable, S::kEnable}},
        Cycle{"EnableTwice", {S::kEnable, S::kStartModule, S::kEnable}},
        Cycle{"WakeWhileAwake", {S::kEnable, S::kStartModule, S::kWake}},
        Cycle{"DisableWithinTheFirstSecond",
              {S::kEnable, S::kDisable, S::kPastFirstSecond, S::kEnable}},
        Cycle{"SleepWithinTheFirstSecond",
              {S::kEnable, S::kStartModule, S::kSleep, S::kPastFirstSecond, S::kWake}},
        Cycle{"DisableAndEnableWithinTheFirstSecond",
              {S::kEnable, S::kDisable, S::kEnable, S::kPastFirstSecond}},
        Cycle{"DisableTwiceThenEnable", {S::kEnable, S::kDisable, S::kDisable, S::kEnable}},
        Cycle{"SleepDisableWake", {S::kEnable, S::kStartModule, S::kSleep, S::kDisable, S::kWake}},
        Cycle{"ManyCyclesInAnyOrder",
              {S::kEnable,
               S::kStartModule,
               S::kSleep,
               S::kWake,
               S::kDisable,
               S::kEnable,
               S::kEnable,
               S::kBatteryZero,
               S::kPastFirstSecond,
               S::kPastFlushInterval,
               S::kBatteryOne,
               S::kDisable,
               S::kPastFirstSecond,
               S::kEnable,
               S::kStartModule,
               S::kSleep,
               S::kSleep,
               S::kWake,
               S::kWake,
               S::kPastFirstSecond,
               S::kPastFlushInterval}}),
    [](const ::testing::TestParamInfo<Cycle>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qv
