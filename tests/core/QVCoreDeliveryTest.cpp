// The core whole, posting to a real server on 127.0.0.1: after being stopped
// and started in any order it still delivers, and every way a message can
// leave it is counted in the delivery ledger (failed posts in real cache
// files, files planted in the cache folder), which must balance at every
// quiet moment.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <regex>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHost.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

// A host, a server, and the shared core, disabled at the end.
class QVCoreServerTest : public ::testing::Test {
 protected:
  void TearDown() override { core_->disable(); }

  test::QVTestHost host_{"com.example.delivery"};
  test::QVTestHttpServer server_;
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
};

// A sequence of steps, one letter each: E enable, D disable, S sleep, W wake,
// 0 and 1 battery levels, M start the module, F run past the network's first
// evaluation (a second after monitoring starts), I run past the flush timers'
// period. The fake clock drives the main loop's timers. A cycle is a name
// and its steps.
using Cycle = std::pair<const char*, const char*>;

class QVCoreCycleTest : public QVCoreServerTest, public ::testing::WithParamInterface<Cycle> {
 protected:
  void SetUp() override { QVRunLoop::main().setClock(clock_); }
  void TearDown() override {
    QVCoreServerTest::TearDown();
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
};

TEST_P(QVCoreCycleTest, EndsInACoreThatStartsModulesAndDelivers) {
  // Flushes on a timer too, so that every enable starts one.
  host_.writeCoreConfig({{"PostMessageLevelWiFi", 5},
                         {"PostMessageLevelCellular", 5},
                         {"CompressPostMessage", false},
                         {"ManualPostEnabled", false}});
  auto module = host_.defineModule("Cycler", {{"PostMessageUrl", server_.url("/cycle")}});
  for (const char* step = GetParam().second; *step; ++step) run(*step);
  QVRunLoop::main().runUntilIdle();

  EXPECT_TRUE(core_->enableModule("Cycler") && module->isEnabled());
  ASSERT_TRUE(core_->postMessageForModuleName(test::messageWithOffset(7), "Cycler"));
  core_->flushQueues();
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(test::offsetsIn(server_.request(0).body), test::Offsets{7});
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, QVCoreCycleTest,
    ::testing::Values(Cycle{"ModuleBeforeTheCore", "M"}, Cycle{"SleepThenWake", "EMSW"},
                      Cycle{"DisableThenEnable", "EMDE"}, Cycle{"EnableTwice", "EME"},
                      Cycle{"WakeWhileAwake", "EMW"}, Cycle{"DisableWithinTheFirstSecond", "EDFE"},
                      Cycle{"SleepWithinTheFirstSecond", "EMSFW"},
                      Cycle{"DisableAndEnableWithinTheFirstSecond", "EDEF"},
                      Cycle{"DisableTwiceThenEnable", "EDDE"}, Cycle{"SleepDisableWake", "EMSDW"},
                      Cycle{"ManyCyclesInAnyOrder", "EMSWDEE0FI1DFEMSSWWFI"}),
    [](const ::testing::TestParamInfo<Cycle>& info) { return std::string(info.param.first); });

// The counts that are not zero, by name, e.g. "accepted 3 dropped.invalidMessage 2 sent 1 ".
std::string nonZero(const QVValue& counts, const std::string& prefix = "") {
  std::string text;
  for (const auto& [name, n] : counts.items()) {
    if (n.is_object()) text += nonZero(n, name + ".");
    if (n.is_number() && n != 0) text += prefix + name + " " + n.dump() + " ";
  }
  return text;
}

// Levels and "URLEncoded" written as text, read as the platform reads text.
class QVDeliveryLedgerTest : public QVCoreServerTest {
 protected:
  void SetUp() override {
    host_.writeCoreConfig({{"PostMessageLevelWiFi", " 2"},
                           {"CompressPostMessage", false},
                           {"HasToPersistLocalCache", true}});
    host_.defineModule("Json", {{"PostMessageUrl", server_.url("/json")}});
    host_.defineModule("Query", {{"PostMessageUrl", server_.url("/query")}, {"URLEncoded", "YES"}});
    ASSERT_TRUE(core_->enable());
    ASSERT_TRUE(core_->enableModule("Json") && core_->enableModule("Query"));
  }
  bool post(const std::string& module, std::shared_ptr<QVMessage> message, uint64_t offset,
            const char* session = "S") {
    message->setOffset(offset);
    return core_->postMessageForModuleNameWithSessionID(std::move(message), module, session);
  }
  bool post(const std::string& module, uint64_t offset) {
    return post(module, std::make_shared<QVMessage>(), offset);
  }
  // Flushes, and waits until the cycle has put everything on the send list
  // and every post has had its outcome: a quiet moment, where the ledger
  // must balance.
  void flush() {
    core_->flushQueues();
    service_->flushDispatchQueue()->sync([] {});
    ASSERT_TRUE(QVRunLoop::main().runUntil(
        [&] {
          const auto connection = service_->serverConnection();
          return service_->cachedQueues().empty() && connection && !connection->isBusy();
        },
        20s));
    EXPECT_TRUE(core_->ledgerSnapshot().balances()) << core_->ledgerSnapshot().toJson();
  }
  void plant(const std::string& name, const std::string& text) {
    std::ofstream(service_->cachedQueuesDirectory() + "/" + name) << text;
  }
  std::string counts(const std::string& module) {
    const QVLedgerSnapshot ledger = core_->ledgerSnapshot();
    EXPECT_TRUE(ledger.balances()) << ledger.toJson();
    const auto it = ledger.modules.find(module);
    return it == ledger.modules.end() ? "" : nonZero(it->second.jsonValue());
  }

  std::shared_ptr<QVQueueService> service_ = QVQueueService::sharedInstance();
};

TEST_F(QVDeliveryLedgerTest, EveryWayAMessageLeavesIsCountedAndTheLedgerBalances) {
  // Refused: level 0, a level above Wi-Fi's 2, a module nobody defined.
  for (int32_t level : {3, 0}) {
    auto message = std::make_shared<QVMessage>();
    message->setLogLevel(level);
    EXPECT_FALSE(post("Json", message, 1));
  }
  EXPECT_FALSE(post("Nobody", 3));

  // Left out of the payload: a broken message ends its session's messages,
  // the good one after it included; another session still goes. A
  // URL-encoded module loses the broken message alone, and a message with
  // NaN can never be a query.
  ASSERT_TRUE(post("Json", std::make_shared<QVMessage>(), 10, "A"));
  ASSERT_TRUE(post("Json", std::make_shared<test::QVFailingMessage>(), 11, "B"));
  ASSERT_TRUE(post("Json", std::make_shared<QVMessage>(), 12, "B"));
  ASSERT_TRUE(post("Query", std::make_shared<test::QVFailingMessage>(), 13));
  const QVValue nan{{"ratio", std::numeric_limits<double>::quiet_NaN()}};
  ASSERT_TRUE(post("Query", std::make_shared<test::QVFieldsMessage>(nan), 14));
  ASSERT_TRUE(post("Query", 15));
  ASSERT_NO_FATAL_FAILURE(flush());
  EXPECT_EQ(counts("Query"),
            "accepted 3 sent 1 dropped.requestNotBuildable 1 dropped.invalidMessage 1 ");

  // Failed with caching off; failed with a cache folder that cannot be
  // written; failed, cached, and sent at the next flush.
  core_->updateConfigForModuleNameWithData("QVCore", {{"HasToPersistLocalCache", false}});
  server_.addReply(test::QVTestReply::answer(500));
  ASSERT_TRUE(post("Json", 20));
  ASSERT_NO_FATAL_FAILURE(flush());

  core_->updateConfigForModuleNameWithData("QVCore", {{"HasToPersistLocalCache", true}});
  const std::string cache = service_->cachedQueuesDirectory();
  std::filesystem::remove_all(cache);
  std::ofstream(cache) << "a file where the folder was";
  server_.addReply(test::QVTestReply::answer(500));
  ASSERT_TRUE(post("Json", 21) && post("Json", 22));
  ASSERT_NO_FATAL_FAILURE(flush());
  std::filesystem::remove(cache);
  ASSERT_TRUE(service_->createCachedQueueFolder());

  server_.addReply(test::QVTestReply::answer(500));
  ASSERT_TRUE(post("Json", 30) && post("Json", 31));
  ASSERT_NO_FATAL_FAILURE(flush());

  // Cached privately, under the module's name and the time.
  const auto names = test::namesIn(cache);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(Json_\d+\.\d{6}\.json)"))) << names[0];
  const std::string saved = cache + "/" + names[0];
  EXPECT_EQ((std::vector{test::modeOf(QVFileSystem::documentsDirectory()), test::modeOf(cache),
                         test::modeOf(saved)}),
            (std::vector{0700u, 0700u, 0600u}));
  const std::string savedText = QVFileSystem::contentsAtPath(saved, 1 << 20).value_or("");

  // Read back: the cached queue (2), a planted queue of 3, a file that is no
  // queue (counted as 1), and a queue of 2 for a module nobody knows; queues
  // read back are sent as saved, before the module's own queue (44).
  plant("Json_1.000000.json",
        R"({"messageVersion":"6.0.0.0","serialNumber":1,"sessions":[)"
        R"({"messages":[{"offset":40},{"offset":41}]},{"messages":[{"offset":42}]}]})");
  plant("Json_2.000000.json", "not a queue");
  plant("Nobody_1.000000.json", R"({"messageVersion":"6.0.0.0","serialNumber":1,"sessions":[)"
                                R"({"messages":[{"offset":50},{"offset":51}]}]})");
  ASSERT_TRUE(post("Json", 44));
  ASSERT_NO_FATAL_FAILURE(flush());
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 8u);
  std::vector<test::Offsets> sent;
  for (size_t i = 5; i < requests.size(); ++i) sent.push_back(test::offsetsIn(requests[i].body));
  EXPECT_EQ(sent, (std::vector<test::Offsets>{{40, 41, 42}, {30, 31}, {44}}));
  EXPECT_EQ(requests[6].body, savedText);
  // Nothing is left queued or in flight, and every reason was walked.
  EXPECT_EQ(counts("Json"),
            "accepted 9 refused 2 sent 7 failed 5 cached 2 recovered 6 dropped.cacheWriteFailed 2 "
            "dropped.cachingOff 1 dropped.cacheFileUnreadable 1 dropped.invalidMessage 2 ");
  EXPECT_EQ(counts("Nobody"), "refused 1 recovered 2 dropped.unknownModule 2 ");
  EXPECT_TRUE(test::namesIn(cache).empty());
}

TEST_F(QVDeliveryLedgerTest, QueuedAndInFlightAreWhatTheCoreHoldsNow) {
  server_.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kStall));
  core_->updateConfigForModuleNameWithData("QVCore", {{"PostMessageTimeout", 1}});
  for (uint64_t offset = 1; offset <= 3; ++offset) ASSERT_TRUE(post("Json", offset));
  ASSERT_TRUE(post("Query", 4));
  EXPECT_EQ(counts("Json"), "accepted 3 queued 3 ");

  // The stalled post holds the Json queue in flight; the GET waits behind it.
  core_->flushQueues();
  ASSERT_TRUE(QVRunLoop::main().runUntil([&] { return !server_.requests().empty(); }, 20s));
  service_->flushDispatchQueue()->sync([] {});
  EXPECT_EQ(counts("Json"), "accepted 3 inFlight 3 ");
  EXPECT_EQ(counts("Query"), "accepted 1 queued 1 ");

  ASSERT_NO_FATAL_FAILURE(flush());
  EXPECT_EQ(counts("Json"), "accepted 3 failed 3 cached 3 ");
  EXPECT_EQ(counts("Query"), "accepted 1 sent 1 ");

  core_->resetLedger();
  EXPECT_EQ(counts("Json"), "");
  EXPECT_EQ(core_->ledgerSnapshotForModuleName("Json")->cached, 0u);
  EXPECT_FALSE(core_->ledgerSnapshotForModuleName("NeverSeen"));
}

}  // namespace
}  // namespace qv
